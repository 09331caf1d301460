#include "core/utility/Networking/orv_HttpRequest.h"

#include <string.h>

namespace orv {
namespace Networking {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;

orv_shared_ptr<orv_HttpRequest> orv_HttpRequest::requestWithUrl(orv_shared_ptr<char> url) {
  orv_shared_ptr<orv_HttpRequest> request(new orv_HttpRequest());
  request->_url = url;
  return request;
}

orv_shared_ptr<orv_HttpRequest> orv_HttpRequest::requestWithUrl(const std::string& url) {
  char* block = new char[url.size() + 1];
  memcpy(block, url.c_str(), url.size() + 1);
  orv_shared_ptr<char> shared(block, &orv_shared_ptr<char>::arrayDestructor);
  return requestWithUrl(shared);
}

orv_HttpRequest::orv_HttpRequest()
    : _transfer_mode(0),
      _timeout_ms(-1),
      _post_data_len(0),
      _download_timeout_class(0),
      _cancel_callback(nullptr),
      _cancel_callback_param(nullptr),
      _lock(new Threads::Synchronization::AppMutex(true)),
      _cancelled(0) {}

orv_HttpRequest::~orv_HttpRequest() {
  delete _lock;
  delete _cancel_callback_param;
}

void orv_HttpRequest::cancel() {
  _lock->Lock();
  _cancelled = 1;
  void (*callback)(orv_shared_ptr_base*) = _cancel_callback;
  orv_shared_ptr_base* copy =
      _cancel_callback_param != nullptr ? _cancel_callback_param->getRefPtr() : nullptr;
  _lock->Unlock();
  // Outside the lock: the callback may ask isCancelled() or drop the request.
  if (callback != nullptr) callback(copy);
  delete copy;
}

int orv_HttpRequest::isCancelled() {
  _lock->Lock();
  int cancelled = _cancelled;
  _lock->Unlock();
  return cancelled;
}

}  // namespace Networking
}  // namespace orv
