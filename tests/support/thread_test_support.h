// Helpers for tests of threads and tasks: a gate tasks block on, closures as
// tasks, a counted object, stack-size control that makes thread creation
// fail, thread names and liveness from /proc/self/task, and lock and count
// probes.
#ifndef ORV_TESTS_SUPPORT_THREAD_TEST_SUPPORT_H
#define ORV_TESTS_SUPPORT_THREAD_TEST_SUPPORT_H

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orv/orv.h"
#include "support/test_support.h"

namespace orv_test {

// Closed until open(); wait() gives up after a bound, so a broken test fails
// instead of hanging.
struct Gate {
  std::mutex mutex;
  std::condition_variable cond;
  bool is_open = false;
  void open() { std::lock_guard<std::mutex> lock(mutex); is_open = true, cond.notify_all(); }
  bool wait(std::chrono::milliseconds bound = std::chrono::seconds(20)) {
    std::unique_lock<std::mutex> lock(mutex);
    return cond.wait_for(lock, bound, [this] { return is_open; });
  }
};

// A task body that shows it runs, then holds its thread until the gate opens.
struct Blocker {
  Gate gate;
  std::atomic<bool> running{false}, finished{false};
  std::function<void()> body() { return [this] { running = true, gate.wait(), finished = true; }; }
  bool started() { return wait_until([this] { return running.load(); }); }
};

struct Closure : orv::Threads::ASRDispatchTaskBase {
  explicit Closure(std::function<void()> f) : body(std::move(f)) {}
  void execute() override { body(); }
  std::function<void()> body;
};
typedef orv::Memory::orv_shared_ptr<orv::Threads::ASRDispatchTaskBase> TaskPtr;
inline TaskPtr closure(std::function<void()> body) { return TaskPtr(new Closure(std::move(body))); }
inline orv::Threads::ASRDispatchTaskBase* raw_closure(std::function<void()> body) { return new Closure(std::move(body)); }

struct Tracked {  // an object whose shares are counted
  explicit Tracked(int v = 0) : value(v) {}
  std::atomic<int> value;
};

// Sets the process default stack size of new threads while it lives; the
// default size, one no address space can give, makes them fail to start.
inline size_t unallocatable_stack_size() { return ~static_cast<size_t>(0) & ~static_cast<size_t>(0x0FFFFFFF); }
struct DefaultStackSize {
  explicit DefaultStackSize(size_t size = unallocatable_stack_size()) {
    pthread_attr_t attr;
    pthread_getattr_default_np(&saved), pthread_attr_init(&attr), pthread_attr_setstacksize(&attr, size);
    pthread_setattr_default_np(&attr), pthread_attr_destroy(&attr);
  }
  ~DefaultStackSize() { pthread_setattr_default_np(&saved), pthread_attr_destroy(&saved); }
  pthread_attr_t saved;
};

inline long current_tid() { return static_cast<long>(syscall(SYS_gettid)); }
inline std::string thread_name(long tid) {  // "" once it has gone
  std::string name = read_file("/proc/self/task/" + std::to_string(tid) + "/comm");
  return name.empty() ? name : name.substr(0, name.size() - 1);
}
inline bool thread_alive(long tid) { return access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0; }
int count_threads_named(const std::string& name);  // "": every thread

// Whether another thread finds m locked.
inline bool held_elsewhere(orv::Threads::Synchronization::AppMutex& m) {
  bool free = false;
  std::thread([&] { free = m.tryLock() && m.Unlock() == 0; }).join();
  return !free;
}

inline int strong_count(const orv::Memory::orv_shared_ptr_base& p) {
  if (p._control == nullptr) return 0;
  orv::Threads::Synchronization::AppLock lock(p._control);
  return static_cast<int>(p._control->_strong_count);
}

inline void run_threads(int n, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i) threads.emplace_back(body, i);
  for (std::thread& t : threads) t.join();
}

}  // namespace orv_test

#endif  // ORV_TESTS_SUPPORT_THREAD_TEST_SUPPORT_H
