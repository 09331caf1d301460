/// @file
/// orv_HttpTask_impl: the streaming HTTP task behind
/// orv_http_request_maker::get_instance(). One long-lived libcurl transfer in
/// one of three modes, chosen by the request's _transfer_mode:
///   1 chunked post: a chunked body fed by send_data, the response streamed
///     back piece by piece; runs on a GlobalThreadPool thread;
///   2 chunked upload: a chunked body fed by send_data, the response dropped;
///   3 chunked download: a POST of one zero byte, the response streamed back,
///     watched by an inactivity timer (2000, 60000 or 12000 ms by the request's
///     _download_timeout_class);
/// modes 2 and 3 run on the task's own serial queue (m_managerMain).
///
/// Use: get_instance(); start_request(request, callback, userData) once;
/// send_data(...) any number of times from one producer thread, the last piece
/// with last = true (an empty piece will do); release_instance() before
/// dropping the pointer. Each received piece reaches the callback as its own
/// response (status 200, error 0). The end: error 4 (transport failure) or
/// error 1 (download inactivity) once; otherwise a final response carrying the
/// status when it is outside 201..299 (error 6 for a download ending with 200);
/// nothing for 201..299.
///
/// Threading: start_request, send_data, cancel and release_instance run on the
/// caller's threads; libcurl and its callbacks on the transfer thread; the
/// inactivity report on a pool thread. The send condition guards the send
/// queue, the queued byte count and the last-piece flag, and the transfer
/// thread waits on it inside the read callback until data, the last piece or
/// a cancel arrives. The task lock guards the inactivity timer. The user
/// callback is called with no lock of the task held, so it may call cancel or
/// release_instance, and it holds a strong pointer to the task, so the task
/// outlives every callback.
///
/// What release_instance promises (it cancels, then, in upload and download
/// mode, waits for the transfer on m_managerMain to end; it never waits for a
/// callback as such):
///   - once cancel has set the stop, no answer piece, transport error or
///     inactivity report starts; one already being delivered may finish;
///   - upload, download: from another thread, the transfer has ended when it
///     returns; an inactivity report already running on its pool thread may
///     still be running. From inside a callback it does not wait (the
///     transfer ends by itself at its next progress call);
///   - post: it does not wait. The transfer runs on a pool thread and ends at
///     its next progress call; a callback running then may still be running
///     after release_instance returns, and an end report for a final status
///     outside 201..299 may still arrive after it, on that pool thread.
/// So user data must outlive the task's last callback, which in post mode can
/// come after release_instance: hand over data with the process's lifetime,
/// or none, and find your state from the task pointer.
///
/// Redirects (upload and post follow them): once the streamed body has ended,
/// a 301, 302 or 303 is followed with a GET that still carries the
/// "Transfer-Encoding: chunked" line but no body, so a server waits for a
/// body that never comes and nothing is reported until cancel or
/// release_instance ends it; a 307 or 308 would need the body again, which
/// cannot be rewound, and ends with error 4.
#ifndef ORV_CORE_UTILITY_NETWORKING_IMPL_CURL_ASR_HTTP_TASK_CURL_H
#define ORV_CORE_UTILITY_NETWORKING_IMPL_CURL_ASR_HTTP_TASK_CURL_H

#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Networking/orv_HttpRequest.h"
#include "core/utility/Networking/orv_HttpRequestMaker.h"
#include "core/utility/Networking/orv_HttpResponse.h"
#include "core/utility/PCMQueue.h"
#include "core/utility/Threads/DispatchQueue.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/Threads/orv_Timer_refresh.h"

/// libcurl's own declarations, so that this header needs no libcurl headers.
typedef void CURL;
struct curl_slist;

namespace orv {
namespace Networking {

/// The work order handed from a start function to perform_request. Whatever
/// it still owns when destroyed (a transfer dropped before it ran) is freed.
struct ORV_API wrap_params {
  wrap_params();
  ~wrap_params();
  wrap_params(const wrap_params&) = delete;
  wrap_params& operator=(const wrap_params&) = delete;

  CURL* _curl;
  curl_slist* _headers;
  curl_slist* _resolve;  ///< may be null
  int32_t _download_timeout_class;
};

class ORV_API orv_HttpTask_impl : public orv_http_request_maker {
 public:
  orv_HttpTask_impl();
  ~orv_HttpTask_impl() override;

  void start_request(Memory::orv_shared_ptr<orv_HttpRequest> request,
                     orv_http_response_callback callback,
                     Memory::orv_shared_ptr_base* userData) override;
  /// Ignored before start_request. Queues length bytes (a bad piece, negative
  /// or null with a positive length, queues nothing) and records last.
  void send_data(Memory::orv_shared_ptr<unsigned char>& data, long length, bool last) override;
  void cancel() override;
  void release_instance() override;

  static bool contain_https(const char* url);

  /// Streaming transfers.
  static size_t read_callback(char* buffer, size_t size, size_t count, void* self);
  static size_t write_callback(char* data, size_t size, size_t count, void* self);
  static size_t header_callback(char* data, size_t size, size_t count, void* self);
  static int chunk_http_progress_cb(void* task, double, double, double, double);
  /// The inactivity timer's task; its argument is a weak pointer to the task.
  static void timer_callback(Memory::orv_shared_ptr_base* param);

  /// One-shot transfers (orv_http_request_maker::execute, network_connect).
  static size_t http_receive_data_cb(char* data, size_t size, size_t count, void* response);
  static size_t http_receive_header_cb(char* data, size_t size, size_t count, void* response);
  static int http_progress_cb(void* request, double, double, double, double);

  /// Runs the transfer; param holds an orv_shared_ptr<wrap_params>.
  void perform_request(Memory::orv_shared_ptr_base* param);

  orv_HttpTask_impl(const orv_HttpTask_impl&) = delete;
  orv_HttpTask_impl& operator=(const orv_HttpTask_impl&) = delete;

  orv_http_response_callback _callback;
  Memory::orv_shared_ptr_base* _user_data;  ///< not owned
  Memory::orv_shared_ptr<PCMQueue> _send_queue;
  Memory::orv_shared_ptr<Threads::RefreshTimer> _inactivity_timer;  ///< under _task_lock
  std::atomic<bool> _stopped;
  bool _last_chunk_given;  ///< under _send_condition
  bool _secure;
  int32_t _queued_bytes;   ///< under _send_condition
  Threads::Synchronization::AppConditionMutex* _send_condition;
  int32_t _mode;
  Threads::Synchronization::AppMutex* _task_lock;
  Memory::orv_shared_ptr<Threads::DispatchQueue> m_managerMain;

 private:
  void upload_chunk_start(Memory::orv_shared_ptr<orv_HttpRequest>& request);
  void download_chunk_start(Memory::orv_shared_ptr<orv_HttpRequest>& request);
  void post_chunk_start(Memory::orv_shared_ptr<orv_HttpRequest>& request);
  /// Steps 2 and 3 shared by the start functions: the URL, its pinning and
  /// TLS options. Fills params->_resolve.
  void set_url(wrap_params* params, Memory::orv_shared_ptr<orv_HttpRequest>& request,
               bool log_download);
  /// The progress options and the task start, shared by all modes.
  void launch(Memory::orv_shared_ptr<wrap_params>& params, bool on_pool);
  /// Calls the user callback, if any, holding a strong pointer to the task.
  void deliver(Memory::orv_shared_ptr<orv_HttpResponse>& response);
  void drop_inactivity_timer();
};

}  // namespace Networking
}  // namespace orv

#endif  // ORV_CORE_UTILITY_NETWORKING_IMPL_CURL_ASR_HTTP_TASK_CURL_H
