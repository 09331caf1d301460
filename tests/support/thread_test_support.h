// Helpers for the threading tests: a gate that tasks block on, a counted
// object to follow parameter lifetimes, and thread identities and names as
// the kernel reports them under /proc/self/task.
#ifndef ORV_TESTS_SUPPORT_THREAD_TEST_SUPPORT_H
#define ORV_TESTS_SUPPORT_THREAD_TEST_SUPPORT_H

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <vector>

#include "orv/orv.h"

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
