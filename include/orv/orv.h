// The whole exported interface of liborv.
#ifndef ORV_ORV_H
#define ORV_ORV_H

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Memory/orv_shared_ptr_control_object.h"
#include "core/utility/Memory/singleton.h"
#include "core/utility/Networking/impl_curl/openssl_thread_lock.h"
#include "core/utility/Networking/orv_HttpRequest.h"
#include "core/utility/Networking/orv_HttpRequestMaker.h"
#include "core/utility/Networking/orv_HttpResponse.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"
#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/Threads/Synchronization/AppSemaphore.h"
#include "core/utility/orv_assert.h"
#include "core/utility/orv_clock.h"
#include "core/utility/orv_log.h"
#include "core/utility/orv_time_record.h"

#endif  // ORV_ORV_H
