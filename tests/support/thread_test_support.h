// Helpers for the threading tests: tasks made of closures, a gate that
// tasks block on, a counted
// object to follow parameter lifetimes, and thread identities and names as
// the kernel reports them under /proc/self/task.
#ifndef ORV_TESTS_SUPPORT_THREAD_TEST_SUPPORT_H
#define ORV_TESTS_SUPPORT_THREAD_TEST_SUPPORT_H

#include <dirent.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "orv/orv.h"
#include "support/test_support.h"

namespace orv_test {

// Closed until open(); wait() gives up after a bound so that a broken test
// fails instead of hanging.
class Gate {
 public:
  void open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    cond_.notify_all();
  }
  bool wait(std::chrono::milliseconds bound = std::chrono::seconds(20)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, bound, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool open_ = false;
};

// A task running a std::function: the tests' way to queue closures.
class Closure : public orv::Threads::ASRDispatchTaskBase {
 public:
  explicit Closure(std::function<void()> body) : body_(std::move(body)) {}
  void execute() override { body_(); }

 private:
  std::function<void()> body_;
};

typedef orv::Memory::orv_shared_ptr<orv::Threads::ASRDispatchTaskBase> TaskPtr;

inline TaskPtr closure(std::function<void()> body) { return TaskPtr(new Closure(std::move(body))); }
// For queues that take ownership of a raw task.
inline orv::Threads::ASRDispatchTaskBase* raw_closure(std::function<void()> body) {
  return new Closure(std::move(body));
}

// The body of a task that shows it runs, then holds its thread until the
// gate opens.
struct Blocker {
  Gate gate;
  std::atomic<bool> running{false}, finished{false};
  std::function<void()> body() {
    return [this] {
      running = true;
      gate.wait();
      finished = true;
    };
  }
  bool started() { return wait_until([this] { return running.load(); }); }
};

// Counts live instances and destructions.
struct Tracked {
  static std::atomic<int>& live() {
    static std::atomic<int> count{0};
    return count;
  }
  static std::atomic<int>& destroyed() {
    static std::atomic<int> count{0};
    return count;
  }
  explicit Tracked(int v = 0) : value(v) { ++live(); }
  ~Tracked() {
    --live();
    ++destroyed();
  }
  std::atomic<int> value;
};

// A stack size no address space can give, on 32 and 64 bits alike: a thread
// created with it fails to start.
inline size_t unallocatable_stack_size() {
  return ~static_cast<size_t>(0) & ~static_cast<size_t>(0x0FFFFFFF);
}

// Sets the process default stack size of new threads while it lives.
class DefaultStackSize {
 public:
  explicit DefaultStackSize(size_t size) {
    pthread_getattr_default_np(&saved_);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, size);
    pthread_setattr_default_np(&attr);
    pthread_attr_destroy(&attr);
  }
  ~DefaultStackSize() {
    pthread_setattr_default_np(&saved_);
    pthread_attr_destroy(&saved_);
  }

 private:
  pthread_attr_t saved_;
};

// Makes pthread_create fail for threads started while it is in place.
struct NoNewThreads : DefaultStackSize {
  NoNewThreads() : DefaultStackSize(unallocatable_stack_size()) {}
};

inline long current_tid() { return static_cast<long>(syscall(SYS_gettid)); }

// Name of thread tid of this process ("" when it has gone).
inline std::string thread_name(long tid) {
  std::ifstream in("/proc/self/task/" + std::to_string(tid) + "/comm");
  std::string name;
  std::getline(in, name);
  return name;
}

inline std::vector<long> thread_ids() {
  std::vector<long> ids;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return ids;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ids.push_back(std::stol(entry->d_name));
  }
  closedir(dir);
  return ids;
}

inline int count_threads_named(const std::string& name) {
  int count = 0;
  for (long tid : thread_ids()) count += thread_name(tid) == name ? 1 : 0;
  return count;
}

inline bool thread_alive(long tid) {
  return access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0;
}

// Whether another thread finds m locked.
inline bool held_elsewhere(orv::Threads::Synchronization::AppMutex& m) {
  bool free = false;
  std::thread([&] {
    free = m.tryLock();
    if (free) m.Unlock();
  }).join();
  return !free;
}

// Strong count of the object behind p.
inline int strong_count(const orv::Memory::orv_shared_ptr_base& p) {
  if (p._control == nullptr) return 0;
  p._control->Lock();
  int count = static_cast<int>(p._control->_strong_count);
  p._control->Unlock();
  return count;
}

}  // namespace orv_test

#endif  // ORV_TESTS_SUPPORT_THREAD_TEST_SUPPORT_H
