/// @file
/// The whole exported interface of liborv.
///
/// Include this one header. Each header it pulls in opens with what its unit
/// is for and its threading contract.
#ifndef ORV_ORV_H
#define ORV_ORV_H

#include <orv/version.h>

#include "core/Module_Loader/Dynamic_Lib__nix/orv_Dynamic_Module_Loader.h"
#include "core/orv_Accesstoken/ORVAccessToken.h"
#include "core/orv_Context.h"
#include "core/orv_EventManager.h"
#include "core/orv_SDK_common_key_definitions.h"
#include "core/orv_api.h"
#include "core/orv_param.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Memory/orv_shared_ptr_control_object.h"
#include "core/utility/Memory/singleton.h"
#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"
#include "core/utility/Networking/impl_curl/openssl_thread_lock.h"
#include "core/utility/Networking/orv_HttpRequest.h"
#include "core/utility/Networking/orv_HttpRequestMaker.h"
#include "core/utility/Networking/orv_HttpResponse.h"
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
#include "core/utility/Networking/Address_resolver_getaddrinfo/orv_AddressResolver_getaddrinfo.h"
#include "core/utility/Threads/orv_Timer.h"
#include "core/utility/Threads/orv_Timer_refresh.h"
#include "core/utility/Threads/ThreadPool.h"
#include "core/utility/orv_assert.h"
#include "core/utility/orv_clock.h"
#include "core/utility/orv_log.h"
#include "core/utility/orv_time_record.h"
#include "core/utility/orv_utility.h"

#endif  // ORV_ORV_H
