// Helpers for tests of streaming tasks: a recorder that the result callback
// fills (pieces concatenated, end reports listed, calls after a release
// counted), feeding send_data from strings, and bounded waits for the end of
// a transfer and for release_instance. Thread-safe: the callback runs on the
// transfer thread while the test reads.
#ifndef ORV_TESTS_SUPPORT_STREAMING_RECORDER_H
#define ORV_TESTS_SUPPORT_STREAMING_RECORDER_H

#include <stdint.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orv/orv.h"
#include "support/test_support.h"

namespace orv_test {

typedef orv::Memory::orv_shared_ptr<orv::Networking::orv_http_request_maker> StreamTask;

const int kPostMode = 1, kUploadMode = 2, kDownloadMode = 3;
const std::chrono::milliseconds kBound(20000);

// Bytes of every value, zero included, in no simple order.
inline std::string noise(size_t n, uint32_t seed) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
  return out;
}

// What the callback saw: the concatenated pieces and the end reports (a
// response without body). After `released` is set, any call is a fault. With
// release_inside the first callback calls release_instance and sets both.
struct Recorder {
  std::mutex mutex;
  std::string data;
  std::vector<std::string> finals;  // "error status message"
  bool release_inside = false;
  std::atomic<bool> released{false}, release_returned{false};
  std::atomic<int> late_calls{0};

  std::string received() { return std::lock_guard<std::mutex>(mutex), data; }
  std::vector<std::string> ends() { return std::lock_guard<std::mutex>(mutex), finals; }
  // The one end report, else "none" or "<count> reports".
  std::string end() {
    std::vector<std::string> all = ends();
    return all.size() == 1 ? all[0] : all.empty() ? "none" : std::to_string(all.size()) + " reports";
  }
};

// The result callback; its user data is an orv_shared_ptr<Recorder>*.
inline void record(StreamTask& task, orv::Memory::orv_shared_ptr<orv::Networking::orv_HttpResponse>& response,
                   orv::Memory::orv_shared_ptr_base* user) {
  Recorder* r = static_cast<orv::Memory::orv_shared_ptr<Recorder>*>(user)->getPTR();
  if (r->released.load()) r->late_calls++;
  {
    std::lock_guard<std::mutex> lock(r->mutex);
    if (response->_length > 1) {
      r->data.append(response->_data.getPTR(), response->_length - 1);
    } else {
      r->finals.push_back(std::to_string(response->_error_code) + " " + std::to_string(response->_http_status) + " " +
                          response->_message);
    }
  }
  if (r->release_inside && !r->released.exchange(true)) {
    task->release_instance();
    r->release_returned = true;
  }
}

inline void send(StreamTask& task, const std::string& piece, bool last) {
  orv::Memory::orv_shared_ptr<unsigned char> data(new unsigned char[piece.size() + 1],
                                                  &orv::Memory::orv_shared_ptr<unsigned char>::arrayDestructor);
  memcpy(data.getPTR(), piece.data(), piece.size());
  task->send_data(data, static_cast<long>(piece.size()), last);
}

// Runs work on a detached thread and waits at most bound for it: a hang
// shows as a failure, not as a stuck test (the thread keeps what it uses).
inline bool within(std::function<bool()> work, std::chrono::milliseconds bound = kBound) {
  auto done = std::make_shared<std::promise<bool>>();
  std::future<bool> result = done->get_future();
  std::thread([work, done] { done->set_value(work()); }).detach();
  return result.wait_for(bound) == std::future_status::ready && result.get();
}

// The task's serial queue has run everything submitted before (its
// transfer included) when a no-op queued behind it has run.
inline bool transfer_finished(const StreamTask& task, std::chrono::milliseconds bound = kBound) {
  auto* impl = static_cast<orv::Networking::orv_HttpTask_impl*>(task.getPTR());
  return within([task, impl] { return impl->m_managerMain->runTaskSync([](auto*) {}, nullptr); }, bound);
}

inline bool release_within(const StreamTask& task, std::chrono::milliseconds bound = kBound) {
  return within([task] { return task->release_instance(), true; }, bound);
}

// Drops the caller's pointer and waits until the task is gone: its transfer
// and every callback have ended, since each holds the task.
inline bool dropped_and_gone(StreamTask& task, std::chrono::milliseconds bound = kBound) {
  orv::Memory::orv_weak_ptr<orv::Networking::orv_http_request_maker> weak(task);
  task.releaseManagedPointer();
  return wait_until([&weak] { return !StreamTask(weak); }, bound);
}

}  // namespace orv_test

#endif  // ORV_TESTS_SUPPORT_STREAMING_RECORDER_H
