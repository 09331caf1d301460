// The whole exported interface of liborv.
#ifndef ORV_ORV_H
#define ORV_ORV_H

#include "core/orv_api.h"
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
#include "core/utility/Networking/Address_resolver_getaddrinfo/orv_AddressResolver_getaddrinfo.h"
#include "core/utility/Threads/orv_Timer.h"
#include "core/utility/Threads/orv_Timer_refresh.h"
#include "core/utility/Threads/ThreadPool.h"
#include "core/utility/orv_assert.h"
#include "core/utility/orv_clock.h"
#include "core/utility/orv_log.h"
#include "core/utility/orv_time_record.h"

#endif  // ORV_ORV_H
