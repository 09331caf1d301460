/// @file
/// orv_HttpRequest: what one HTTP exchange sends (URL, headers, body, time-out)
/// plus a cancellation hook. Lives behind orv_shared_ptr; made by
/// requestWithUrl and filled by the caller through its public fields.
///
/// Threading: fill the fields on one thread before handing the request to a
/// transfer. cancel() and isCancelled() may then be called from any thread; the
/// request's own mutex guards the cancelled flag and the callback argument, and
/// the cancel callback runs after that mutex is released.
#ifndef ORV_CORE_UTILITY_NETWORKING_ORV_HTTPREQUEST_H
#define ORV_CORE_UTILITY_NETWORKING_ORV_HTTPREQUEST_H

#include <stdint.h>

#include <map>
#include <string>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"

namespace orv {
namespace Networking {

class ORV_API orv_HttpRequest {
 public:
  /// A new request whose working URL shares url's block (not copied).
  static Memory::orv_shared_ptr<orv_HttpRequest> requestWithUrl(Memory::orv_shared_ptr<char> url);
  /// Copies url into a fresh NUL-terminated block first.
  static Memory::orv_shared_ptr<orv_HttpRequest> requestWithUrl(const std::string& url);

  orv_HttpRequest();
  virtual ~orv_HttpRequest();

  /// Marks the request cancelled, then calls the cancel callback (if any)
  /// outside the lock with a fresh copy of its argument, which is deleted
  /// afterwards. Every call calls the callback again.
  void cancel();
  /// 1 once cancel() has been called, else 0.
  int isCancelled();

  orv_HttpRequest(const orv_HttpRequest&) = delete;
  orv_HttpRequest& operator=(const orv_HttpRequest&) = delete;

  std::string _origin_URL;                   ///< the URL as written, host by name
  Memory::orv_shared_ptr<char> _url;         ///< working URL, NUL-terminated
  int32_t _transfer_mode;                    ///< streaming only: 1 post, 2 upload, 3 download
  int32_t _timeout_ms;                       ///< -1: no time-out
  Memory::orv_shared_ptr<unsigned char> _post_data;
  int32_t _post_data_len;                    ///< a body is sent only when > 0
  std::map<std::string, std::string> _headers;
  int32_t _download_timeout_class;           ///< streaming download only
  void (*_cancel_callback)(Memory::orv_shared_ptr_base*);
  Memory::orv_shared_ptr_base* _cancel_callback_param;  ///< owned
  Threads::Synchronization::AppMutex* _lock;            ///< owned
  int32_t _cancelled;                                   ///< under _lock
};

}  // namespace Networking
}  // namespace orv

#endif  // ORV_CORE_UTILITY_NETWORKING_ORV_HTTPREQUEST_H
