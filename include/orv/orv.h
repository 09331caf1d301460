// The whole exported interface of liborv.
#ifndef ORV_ORV_H
#define ORV_ORV_H

#include "core/Module_Loader/Dynamic_Lib__nix/orv_Dynamic_Module_Loader.h"
#include "core/orv_Context.h"
#include "core/orv_EventManager.h"
#include "core/orv_SDK_common_key_definitions.h"
#include "core/orv_api.h"
#include "core/orv_param.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Memory/orv_shared_ptr_control_object.h"
#include "core/utility/Memory/singleton.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"
#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/Threads/AppThread.h"
#include "core/utility/Threads/DispatchQueue.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/Threads/Synchronization/AppSemaphore.h"
#include "core/utility/PCMQueue.h"
#include "core/utility/md5.h"
#include "core/utility/orv_PlatformPathDefinitions.h"
#include "core/utility/orv_UUIDFactory.h"
#include "core/utility/orv_UUIDFactoryImplLinux.h"
#include "core/utility/Threads/ThreadPool.h"
#include "core/utility/orv_assert.h"
#include "core/utility/orv_clock.h"
#include "core/utility/orv_log.h"
#include "core/utility/orv_time_record.h"
#include "core/utility/orv_utility.h"

#endif  // ORV_ORV_H
