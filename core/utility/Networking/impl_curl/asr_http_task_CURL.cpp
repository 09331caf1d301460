#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"

#include <string.h>

#include <string>

// The classic progress callback is the one this library uses on purpose.
#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include "core/utility/Memory/singleton.h"
#include "core/utility/Networking/impl_curl/heap_trim_internal.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/orv_log.h"

namespace orv {
namespace Networking {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Memory::orv_weak_ptr;
using Memory::Singleton;
using Threads::ASRDispatchTaskBase;
using Threads::ASRDispatchTaskWithResPointer;
using Threads::DispatchQueue;
using Threads::GlobalThreadPool;
using Threads::RefreshTimer;
using Threads::Synchronization::AppConditionMutex;
using Threads::Synchronization::AppMutex;

namespace {

// The download's request body: one zero byte. libcurl does not copy
// CURLOPT_POSTFIELDS, so it lives for the whole process.
const char kZeroByteBody[1] = {0};

const int kModePost = 1;
const int kModeUpload = 2;
const int kModeDownload = 3;

// The task whose transfer runs on this thread: from inside one of its
// callbacks, release_instance must not wait for that transfer (it would wait
// for itself).
thread_local const orv_HttpTask_impl* tl_transfer_of = nullptr;

class TransferMark {
 public:
  explicit TransferMark(const orv_HttpTask_impl* task) : previous_(tl_transfer_of) {
    tl_transfer_of = task;
  }
  ~TransferMark() { tl_transfer_of = previous_; }
  TransferMark(const TransferMark&) = delete;
  TransferMark& operator=(const TransferMark&) = delete;

 private:
  const orv_HttpTask_impl* previous_;
};

// The task behind a libcurl user pointer (the address of its self
// reference), held strongly for the duration of one callback.
orv_shared_ptr<orv_http_request_maker> promote(void* self) {
  if (self == nullptr) return orv_shared_ptr<orv_http_request_maker>();
  return orv_shared_ptr<orv_http_request_maker>(
      *static_cast<orv_weak_ptr<orv_http_request_maker>*>(self));
}

int inactivity_timeout_ms(int32_t timeout_class) {
  if (timeout_class == 1) return 2000;
  if (timeout_class == 2) return 60000;
  return 12000;
}

}  // namespace

// ---- orv_http_request_maker::get_instance ----------------------------------

orv_shared_ptr<orv_http_request_maker> orv_http_request_maker::get_instance() {
  orv_shared_ptr<orv_http_request_maker> task(new orv_HttpTask_impl());
  task->_self = task;
  return task;
}

// ---- wrap_params -------------------------------------------------------------

wrap_params::wrap_params()
    : _curl(nullptr), _headers(nullptr), _resolve(nullptr), _download_timeout_class(0) {}

wrap_params::~wrap_params() {
  if (_curl != nullptr) curl_easy_cleanup(_curl);
  curl_slist_free_all(_headers);
  curl_slist_free_all(_resolve);
}

// ---- orv_HttpTask_impl -------------------------------------------------------

orv_HttpTask_impl::orv_HttpTask_impl()
    : _callback(nullptr),
      _user_data(nullptr),
      _stopped(false),
      _last_chunk_given(false),
      _secure(false),
      _queued_bytes(0),
      _send_condition(new AppConditionMutex(0)),
      _mode(0),
      _task_lock(new AppMutex(false)),
      m_managerMain(DispatchQueue::alloc(1)) {}

orv_HttpTask_impl::~orv_HttpTask_impl() {
  if (_inactivity_timer) _inactivity_timer->cancel();
  _inactivity_timer.releaseManagedPointer();
  m_managerMain.releaseManagedPointer();
  _send_queue.releaseManagedPointer();
  delete _send_condition;
  delete _task_lock;
}

bool orv_HttpTask_impl::contain_https(const char* url) {
  return url != nullptr && strstr(url, "https") != nullptr;
}

void orv_HttpTask_impl::start_request(orv_shared_ptr<orv_HttpRequest> request,
                                      orv_http_response_callback callback,
                                      orv_shared_ptr_base* userData) {
  _send_condition->Lock();
  _send_queue = PCMQueue::newQueue(0);
  _send_condition->Unlock();
  _callback = callback;
  _user_data = userData;
  if (!request) return;
  _mode = request->_transfer_mode;
  // Nothing to connect to: no transfer, no callback.
  const char* url = request->_url.getPTR();
  if (url == nullptr || url[0] == '\0') return;
  if (_mode == kModePost) {
    post_chunk_start(request);
  } else if (_mode == kModeUpload) {
    upload_chunk_start(request);
  } else if (_mode == kModeDownload) {
    download_chunk_start(request);
  }
}

void orv_HttpTask_impl::set_url(wrap_params* params, orv_shared_ptr<orv_HttpRequest>& request,
                                bool log_download) {
  char* url = request->_url.getPTR();
  _secure = contain_https(url);
  if (log_download) {
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:630]ip_url:%s\n", url);
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:631]request.getPTR()->_origin_URL:%s\n",
                  request->_origin_URL.c_str());
  }
  if (!_secure) {
    if (log_download) {
      ORV_LOG_DEBUG("[DEBUG]-[%s][%s:637]resolve_dns_map:%s\n",
                    get_resolve_dns_map(request->_origin_URL, url).c_str());
    }
    curl_easy_setopt(params->_curl, CURLOPT_URL, url);
    return;
  }
  std::string dns_map = get_resolve_dns_map(request->_origin_URL, url);
  if (log_download) ORV_LOG_DEBUG("[DEBUG]-[%s][%s:637]resolve_dns_map:%s\n", dns_map.c_str());
  if (!dns_map.empty()) {
    params->_resolve = curl_slist_append(nullptr, dns_map.c_str());
    curl_easy_setopt(params->_curl, CURLOPT_RESOLVE, params->_resolve);
  }
  // The host name is checked against the certificate; the chain is not.
  curl_easy_setopt(params->_curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(params->_curl, CURLOPT_SSL_VERIFYPEER, 0L);
  std::string my_url = get_host_url(request->_origin_URL, url);
  if (log_download) ORV_LOG_DEBUG("[DEBUG]-[%s][%s:647]my_url:%s\n", my_url.c_str());
  // libcurl copies the string.
  curl_easy_setopt(params->_curl, CURLOPT_URL, my_url.c_str());
}

namespace {

orv_shared_ptr<wrap_params> new_params(CURL* curl, const orv_shared_ptr<orv_HttpRequest>& request) {
  orv_shared_ptr<wrap_params> params(new wrap_params());
  params->_curl = curl;
  params->_download_timeout_class = request->_download_timeout_class;
  return params;
}

// The header lines that announce a chunked, compressed body.
curl_slist* append_chunked_body_lines(curl_slist* headers) {
  headers = curl_slist_append(headers, "Transfer-Encoding: chunked");
  headers = curl_slist_append(headers, "Content-Encoding: gzip");
  return curl_slist_append(headers, "Expect:");
}

// Options every mode sets: a POST with the header list, no signals.
void set_post_options(CURL* curl, curl_slist* headers, bool follow_location) {
  curl_easy_setopt(curl, CURLOPT_POST, 1L);
  curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
  curl_easy_setopt(curl, CURLOPT_HEADER, 0L);
  if (follow_location) curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
}

}  // namespace

void orv_HttpTask_impl::upload_chunk_start(orv_shared_ptr<orv_HttpRequest>& request) {
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:474]init curl failed\n");
    return;
  }
  orv_shared_ptr<wrap_params> params = new_params(curl, request);
  params->_headers = append_chunked_body_lines(params->_headers);
  set_url(params.getPTR(), request, false);
  set_post_options(curl, params->_headers, true);
  curl_easy_setopt(curl, CURLOPT_READFUNCTION, &orv_HttpTask_impl::read_callback);
  curl_easy_setopt(curl, CURLOPT_READDATA, &_self);
  // The answer to an upload is not wanted.
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &orv_HttpTask_impl::header_callback);
  launch(params, false);
}

void orv_HttpTask_impl::download_chunk_start(orv_shared_ptr<orv_HttpRequest>& request) {
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:621]init curl failed\n");
    return;
  }
  orv_shared_ptr<wrap_params> params = new_params(curl, request);
  params->_headers = curl_slist_append(params->_headers, "Content-Type: application/octet-stream");
  params->_headers = curl_slist_append(params->_headers, "Accept-Encoding:gzip,deflate");
  params->_headers = curl_slist_append(params->_headers, "Expect:");
  set_url(params.getPTR(), request, true);
  set_post_options(curl, params->_headers, false);
  // One zero byte as the body: the service expects a non-empty POST.
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, kZeroByteBody);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, 1L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &orv_HttpTask_impl::write_callback);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &_self);
  launch(params, false);
}

void orv_HttpTask_impl::post_chunk_start(orv_shared_ptr<orv_HttpRequest>& request) {
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:758]init curl failed\n");
    return;
  }
  orv_shared_ptr<wrap_params> params = new_params(curl, request);
  for (const auto& entry : request->_headers) {
    std::string line = entry.first + ": " + entry.second;
    params->_headers = curl_slist_append(params->_headers, line.c_str());
  }
  params->_headers = append_chunked_body_lines(params->_headers);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:773]post_chunk_start url = %s\n", request->_url.getPTR());
  set_url(params.getPTR(), request, false);
  set_post_options(curl, params->_headers, true);
  curl_easy_setopt(curl, CURLOPT_READFUNCTION, &orv_HttpTask_impl::read_callback);
  curl_easy_setopt(curl, CURLOPT_READDATA, &_self);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &orv_HttpTask_impl::write_callback);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &_self);
  launch(params, true);
}

void orv_HttpTask_impl::launch(orv_shared_ptr<wrap_params>& params, bool on_pool) {
  CURL* curl = params->_curl;
  curl_easy_setopt(curl, CURLOPT_PROGRESSDATA, this);
  curl_easy_setopt(curl, CURLOPT_PROGRESSFUNCTION, &orv_HttpTask_impl::chunk_http_progress_cb);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  // The running transfer keeps the task alive; without a self reference
  // (a task not made by get_instance) nothing is started.
  orv_shared_ptr<orv_HttpTask_impl> self(_self);
  if (!self) return;
  if (on_pool) {
    orv_shared_ptr<ASRDispatchTaskBase> task(new ASRDispatchTaskWithResPointer<orv_HttpTask_impl>(
        self, &orv_HttpTask_impl::perform_request, params.getRefPtr()));
    Singleton<GlobalThreadPool>::instance()->runTaskAsync(task,
                                                          "orv_HttpTask_impl::perform_request");
  } else if (m_managerMain) {
    // The queue owns the task, accepted or not.
    m_managerMain->runTaskAsync(new ASRDispatchTaskWithResPointer<orv_HttpTask_impl>(
                                    self, &orv_HttpTask_impl::perform_request, params.getRefPtr()),
                                "perform_request");
  }
}

void orv_HttpTask_impl::send_data(orv_shared_ptr<unsigned char>& data, long length, bool last) {
  _send_condition->Lock();
  if (!_send_queue) {
    _send_condition->Unlock();
    return;
  }
  // Only what the queue took is counted, so the count always matches it.
  if (length > 0 && length <= INT32_MAX && data.getPTR() != nullptr &&
      _send_queue->queueAudio(data.getPTR(), static_cast<int>(length)) >= 0) {
    _queued_bytes += static_cast<int32_t>(length);
  }
  _last_chunk_given = last;
  _send_condition->broadcast();
  _send_condition->Unlock();
}

void orv_HttpTask_impl::cancel() {
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:731][asr_http_task_CURL::cancel] this=%p +\n",
                static_cast<void*>(this));
  if (!_stopped.exchange(true, std::memory_order_relaxed)) {
    // Wakes a read callback waiting for data; it finds stopped set.
    _send_condition->Lock();
    _send_condition->broadcast();
    _send_condition->Unlock();
    drop_inactivity_timer();
  }
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:743][asr_http_task_CURL::cancel] -\n");
}

void orv_HttpTask_impl::release_instance() {
  cancel();
  if (m_managerMain) {
    ORV_LOG_DEBUG(
        "[DEBUG]-[%s][%s:749][orv_HttpTask_impl::release_instance] cancel m_managerMain\n");
    // From inside a callback of the transfer on this queue, waiting would
    // never end; the transfer ends by itself once it sees the stop.
    if (tl_transfer_of == this) {
      m_managerMain->cancel();
    } else {
      m_managerMain->cancel_sync();
    }
  }
}

void orv_HttpTask_impl::deliver(orv_shared_ptr<orv_HttpResponse>& response) {
  if (_callback == nullptr) return;
  // The callback holds the task: it never sees it destroyed, whoever drops
  // the last other pointer meanwhile.
  orv_shared_ptr<orv_http_request_maker> self(_self);
  _callback(self, response, _user_data);
}

void orv_HttpTask_impl::drop_inactivity_timer() {
  _task_lock->Lock();
  if (_inactivity_timer) {
    _inactivity_timer->cancel();
    _inactivity_timer.releaseManagedPointer();
  }
  _task_lock->Unlock();
}

void orv_HttpTask_impl::perform_request(orv_shared_ptr_base* param) {
  wrap_params* params =
      param != nullptr ? static_cast<orv_shared_ptr<wrap_params>*>(param)->getPTR() : nullptr;
  if (params == nullptr || params->_curl == nullptr) return;
  TransferMark mark(this);

  if (_mode == kModeDownload) {
    int timeout = inactivity_timeout_ms(params->_download_timeout_class);
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:381]---request timeout=%d\n", timeout);
    // The timer holds the task only weakly: a dropped task never fires.
    orv_weak_ptr<orv_http_request_maker> weak(_self);
    orv_shared_ptr<ASRDispatchTaskBase> task(
        new ASRDispatchTaskBase(&orv_HttpTask_impl::timer_callback, weak.getRefPtr()));
    _task_lock->Lock();
    _inactivity_timer = RefreshTimer::createTimerWithTask(task, timeout);
    _task_lock->Unlock();
  }

  long status = 200;
  CURLcode code = curl_easy_perform(params->_curl);
  curl_easy_getinfo(params->_curl, CURLINFO_RESPONSE_CODE, &status);

  if (_mode == kModeDownload) drop_inactivity_timer();

  curl_slist_free_all(params->_headers);
  curl_slist_free_all(params->_resolve);
  params->_headers = nullptr;
  params->_resolve = nullptr;
  curl_easy_cleanup(params->_curl);
  params->_curl = nullptr;
  detail::trim_heap();

  if (code != CURLE_OK) {
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:415][asr_http_task_CURL::perform_request] CURLcode=%d\n",
                  static_cast<int>(code));
    orv_shared_ptr<orv_HttpResponse> response = orv_HttpResponse::alloc();
    response->_error_code = 4;
    response->_message = "[orv_Chunk_Connection]downStream encouter error.";
    // Once only: a time-out or a cancel before it already ended the task.
    if (!_stopped.exchange(true, std::memory_order_relaxed)) deliver(response);
  } else if (status < 201 || status > 299) {
    orv_shared_ptr<orv_HttpResponse> response = orv_HttpResponse::alloc();
    response->_http_status = static_cast<int32_t>(status);
    if (status == 200 && _mode == kModeDownload) response->_error_code = 6;
    deliver(response);
  }
  // 201..299: no report at all.
}

size_t orv_HttpTask_impl::read_callback(char* buffer, size_t size, size_t count, void* self) {
  for (;;) {
    orv_shared_ptr<orv_http_request_maker> strong = promote(self);
    orv_HttpTask_impl* task = static_cast<orv_HttpTask_impl*>(strong.getPTR());
    if (task == nullptr) return 0;
    size_t wanted = size * count;
    if (wanted == 0) return 0;

    AppConditionMutex* condition = task->_send_condition;
    condition->Lock();
    if (task->_stopped.load(std::memory_order_relaxed)) {
      condition->Unlock();
      return 0;
    }
    long amount = task->_queued_bytes;
    if (wanted < static_cast<size_t>(amount)) amount = static_cast<long>(wanted);
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:576]---rel_bytes=%ld\n", amount);
    long taken = 0;
    if (amount > 0) {
      taken = task->_send_queue->dequeSamples(reinterpret_cast<unsigned char*>(buffer),
                                              static_cast<int>(amount), false);
      task->_queued_bytes -= static_cast<int32_t>(taken);
    }
    if (task->_last_chunk_given) {
      ORV_LOG_DEBUG("[DEBUG]-[%s][%s:584]---rel_deq=%ld\n", taken);
      if (taken > 0) {
        ORV_LOG_DEBUG("[DEBUG]-[%s][%s:594]--->1rel_deq=%ld\n", taken);
        condition->Unlock();
        return static_cast<size_t>(taken);
      }
      if (task->_queued_bytes < 1) {
        // Last piece given and drained: the chunked body ends.
        condition->Unlock();
        return 0;
      }
      condition->Unlock();
      continue;
    }
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:599]---> 2rel_deq=%ld\n", taken);
    if (taken > 0) {
      ORV_LOG_DEBUG("[DEBUG]-[%s][%s:608]---> 3rel_deq=%ld\n", taken);
      condition->Unlock();
      return static_cast<size_t>(taken);
    }
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:601]---> wait +\n");
    condition->wait();
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:603]---> wait -\n");
    condition->Unlock();
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:605]---> unlock - \n");
  }
}

size_t orv_HttpTask_impl::write_callback(char* data, size_t size, size_t count, void* self) {
  size_t total = size * count;
  orv_shared_ptr<orv_http_request_maker> strong = promote(self);
  orv_HttpTask_impl* task = static_cast<orv_HttpTask_impl*>(strong.getPTR());
  if (task == nullptr) return total;
  // The download time-out counts from the last piece received.
  task->_task_lock->Lock();
  if (task->_inactivity_timer) task->_inactivity_timer->refresh();
  task->_task_lock->Unlock();
  orv_shared_ptr<orv_HttpResponse> response = orv_HttpResponse::alloc();
  response->receive_new_data(data, static_cast<unsigned>(total));
  if (!task->_stopped.load(std::memory_order_relaxed)) task->deliver(response);
  return total;
}

size_t orv_HttpTask_impl::header_callback(char*, size_t size, size_t count, void*) {
  return size * count;
}

int orv_HttpTask_impl::chunk_http_progress_cb(void* task, double, double, double, double) {
  if (task == nullptr) return 1;
  return static_cast<orv_HttpTask_impl*>(task)->_stopped.load(std::memory_order_relaxed) ? 1 : 0;
}

void orv_HttpTask_impl::timer_callback(orv_shared_ptr_base* param) {
  if (param == nullptr) return;
  orv_shared_ptr<orv_http_request_maker> strong(
      *static_cast<orv_weak_ptr<orv_http_request_maker>*>(param));
  orv_HttpTask_impl* task = static_cast<orv_HttpTask_impl*>(strong.getPTR());
  if (task == nullptr || task->_stopped.load(std::memory_order_relaxed)) return;
  orv_shared_ptr<orv_HttpResponse> response = orv_HttpResponse::alloc();
  response->_error_code = 1;
  response->_message = "[orv_httptask_impl] downStream timeout.";
  // Setting stopped makes the next progress callback abort the transfer.
  if (task->_callback != nullptr && !task->_stopped.exchange(true, std::memory_order_relaxed)) {
    task->deliver(response);
  }
}

// ---- one-shot callbacks --------------------------------------------------------

size_t orv_HttpTask_impl::http_receive_data_cb(char* data, size_t size, size_t count,
                                               void* user) {
  orv_HttpResponse* response = static_cast<orv_HttpResponse*>(user);
  if (response == nullptr) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:232][ASRHttpTask::http_receive_data_cb] response is NULL\n");
  } else {
    response->receive_new_data(data, static_cast<unsigned>(size * count));
  }
  return size * count;
}

// "name: value" lines go into the header map, a repeated name keeps its last
// value; lines without ':' are ignored.
size_t orv_HttpTask_impl::http_receive_header_cb(char* data, size_t size, size_t count,
                                                 void* user) {
  size_t total = size * count;
  orv_HttpResponse* response = static_cast<orv_HttpResponse*>(user);
  if (response != nullptr && data != nullptr) response->receive_header_line(data, total);
  return total;
}

int orv_HttpTask_impl::http_progress_cb(void* user, double, double, double, double) {
  orv_HttpRequest* request = static_cast<orv_HttpRequest*>(user);
  if (request == nullptr) return 1;
  return request->isCancelled() ? 1 : 0;
}

}  // namespace Networking
}  // namespace orv
