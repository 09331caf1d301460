/// @file
/// orv_HttpResponse: what one HTTP exchange brought back: status, error code,
/// the body (always NUL-terminated) and the response headers.
///
/// Error codes: 0 none; 1 download inactivity time-out; 2 aborted by a
/// callback (cancelled); 4 streaming transport error; 6 chunked download ended
/// with status 200; 7 growing the body failed. Once an error code is set, later
/// appends are dropped.
///
/// Threading: written only by the thread running the transfer, read after the
/// transfer has ended; no lock of its own.
#ifndef ORV_CORE_UTILITY_NETWORKING_ORV_HTTPRESPONSE_H
#define ORV_CORE_UTILITY_NETWORKING_ORV_HTTPRESPONSE_H

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <string>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"

namespace orv {
namespace Networking {

class ORV_API orv_HttpResponse {
 public:
  static Memory::orv_shared_ptr<orv_HttpResponse> alloc();

  orv_HttpResponse();
  virtual ~orv_HttpResponse();

  /// Appends len bytes to the body, growing the block by exactly len bytes
  /// and re-seating _data on it. A null or empty append is logged and ignored.
  void receive_new_data(const char* data, unsigned len);
  // One header line as libcurl hands it over (len bytes, not NUL-terminated):
  // "name: value" sets _headers[name] (a repeated name keeps its last value);
  // blanks and tabs after the ':' are skipped, the value ends at the first
  // CR, LF or NUL. Lines without ':' (status line, blank line) are ignored.
  void receive_header_line(const char* line, size_t len);

  orv_HttpResponse(const orv_HttpResponse&) = delete;
  orv_HttpResponse& operator=(const orv_HttpResponse&) = delete;

  std::string _message;
  int32_t _error_code;
  int32_t _http_status;
  Memory::orv_shared_ptr<char> _data;  ///< malloc block, deleter free
  uint32_t _length;                    ///< bytes in _data, the final NUL included
  std::map<std::string, std::string> _headers;
};

}  // namespace Networking
}  // namespace orv

#endif  // ORV_CORE_UTILITY_NETWORKING_ORV_HTTPRESPONSE_H
