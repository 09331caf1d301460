/// @file
/// orv_http_request_maker: the library's HTTP client front.
///
/// Static face: execute() runs one request to completion on the calling thread
/// over libcurl's easy interface and returns the response; network_connect()
/// runs the same transfer only to open (and warm) a connection. Both keep no
/// state between calls, so any number of threads may call them at once.
///
/// Address pinning for secure URLs: the request's _origin_URL names the host,
/// its working URL carries the numeric address. An "https://" working URL is
/// then requested by name (so the certificate is checked against the name)
/// while a resolve entry "name:443:address" supplies the address, and no name
/// lookup happens. The certificate chain itself is not verified.
///
/// A transport failure (refused connection, time-out, TLS failure) is told only
/// by the log and the (usually empty) body: the response keeps status 200 and
/// error code 0. A cancelled request gives error code 2.
///
/// Streaming face: an abstract long-lived transfer (start_request, send_data,
/// cancel, release_instance); get_instance() makes one (see
/// impl_curl/asr_http_task_CURL.h for its modes, reports and threading).
#ifndef ORV_CORE_UTILITY_NETWORKING_ORV_HTTPREQUESTMAKER_H
#define ORV_CORE_UTILITY_NETWORKING_ORV_HTTPREQUESTMAKER_H

#include <string>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Networking/orv_HttpRequest.h"
#include "core/utility/Networking/orv_HttpResponse.h"

namespace orv {
namespace Networking {

class orv_http_request_maker;

typedef void (*orv_http_response_callback)(Memory::orv_shared_ptr<orv_http_request_maker>&,
                                           Memory::orv_shared_ptr<orv_HttpResponse>&,
                                           Memory::orv_shared_ptr_base*);

class ORV_API orv_http_request_maker {
 public:
  virtual ~orv_http_request_maker();
  virtual void start_request(Memory::orv_shared_ptr<orv_HttpRequest> request,
                             orv_http_response_callback callback,
                             Memory::orv_shared_ptr_base* userData) = 0;
  virtual void send_data(Memory::orv_shared_ptr<unsigned char>& data, long length, bool last) = 0;
  virtual void cancel() = 0;
  virtual void release_instance() = 0;

  /// A new streaming task (every call makes another one), its self reference
  /// set.
  static Memory::orv_shared_ptr<orv_http_request_maker> get_instance();

  /// The authority between the first "//" (at a position above 0) and the
  /// next "/", port included; "" when either is missing.
  static std::string get_host_from_url(std::string url);
  /// originHost + ":443:" + ipHost when both hosts are non-empty, else "".
  static std::string get_resolve_dns_map(const std::string& originUrl, char* ipUrl);
  /// ipUrl with its authority replaced by originUrl's host; ipUrl unchanged
  /// when it lacks "//" or a "/" after it.
  static std::string get_host_url(const std::string& originUrl, char* ipUrl);

  /// Null only when the request or its working URL is missing.
  static Memory::orv_shared_ptr<orv_HttpResponse> execute(
      Memory::orv_shared_ptr<orv_HttpRequest> request);
  /// The same transfer without time-out, body or result.
  static void network_connect(Memory::orv_shared_ptr<orv_HttpRequest> request);

  Memory::orv_weak_ptr<orv_http_request_maker> _self;
};

}  // namespace Networking
}  // namespace orv

#endif  // ORV_CORE_UTILITY_NETWORKING_ORV_HTTPREQUESTMAKER_H
