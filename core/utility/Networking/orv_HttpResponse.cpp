#include "core/utility/Networking/orv_HttpResponse.h"

#include <stdlib.h>
#include <string.h>

#include "core/utility/orv_log.h"

namespace orv {
namespace Networking {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;

orv_shared_ptr<orv_HttpResponse> orv_HttpResponse::alloc() {
  return orv_shared_ptr<orv_HttpResponse>(new orv_HttpResponse());
}

orv_HttpResponse::orv_HttpResponse() : _error_code(0), _http_status(200), _length(1) {
  char* block = static_cast<char*>(malloc(1));
  if (block == nullptr) {
    ORV_LOG_FATAL("[FATAL]-[%s][%s:59][ASRResponse::ASRResponse] malloc for _data failed\n");
    abort();
  }
  block[0] = '\0';
  _data = orv_shared_ptr<char>(block, &free);
}

orv_HttpResponse::~orv_HttpResponse() {}

void orv_HttpResponse::receive_new_data(const char* data, unsigned len) {
  if (_error_code != 0) return;
  if (data == nullptr || len == 0) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:33][ASRResponse::receive_new_data] data is NULL or len is 0\n");
    return;
  }
  // The block is about to move: keep the old share from freeing it.
  char* old_block = _data.getPTR();
  if (_data._control != nullptr) {
    _data._control->Lock();
    _data._control->_destructor = &orv_shared_ptr_base::emptyDestructor;
    _data._control->Unlock();
  }
  char* block = static_cast<char*>(realloc(old_block, static_cast<size_t>(_length) + len));
  if (block == nullptr) {
    ORV_LOG_FATAL("[FATAL]-[%s][%s:42][ASRResponse::receive_new_data] realloc for _data failed\n");
    _error_code = 7;
    abort();
  }
  memcpy(block + _length - 1, data, len);
  _length += len;
  block[_length - 1] = '\0';
  _data.releaseManagedPointer();
  _data = orv_shared_ptr<char>(block, &free);
}

void orv_HttpResponse::receive_header_line(const char* line, size_t len) {
  if (line == nullptr) return;
  const char* end = line + len;
  const char* colon = static_cast<const char*>(memchr(line, ':', len));
  if (colon == nullptr) return;
  const char* value = colon + 1;
  while (value < end && (*value == ' ' || *value == '\t')) ++value;
  const char* value_end = value;
  while (value_end < end && *value_end != '\r' && *value_end != '\n' && *value_end != '\0') {
    ++value_end;
  }
  _headers[std::string(line, static_cast<size_t>(colon - line))] =
      std::string(value, static_cast<size_t>(value_end - value));
}

}  // namespace Networking
}  // namespace orv
