// Helpers shared by the test programs, the stress program and the
// benchmarks: temporary folders, standard-error capture, files, bounded
// waits, and what tests need to know about the machine.
#ifndef ORV_TESTS_SUPPORT_TEST_SUPPORT_H
#define ORV_TESTS_SUPPORT_TEST_SUPPORT_H

#include <chrono>
#include <functional>
#include <string>

namespace orv_test {

// A fresh folder under $TMPDIR (or /tmp), removed with its content.
struct TempDir {
  TempDir();
  ~TempDir();
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::string path_;
};

// Redirects file descriptor 2 into a temporary file until text() (whose
// first call stops the capture) or the destructor.
struct StderrCapture {
  StderrCapture();
  ~StderrCapture() { text(); }
  std::string text();
  int saved_fd_;
  std::string file_, captured_;
};

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);

// Polls predicate until it is true or timeout passes; returns its last value.
bool wait_until(const std::function<bool()>& predicate, std::chrono::milliseconds timeout = std::chrono::seconds(10));

// True under qemu user-mode emulation (the armhf test preset sets
// ORV_TEST_EMULATION), where a test program cannot exec an ARM program,
// itself included: death tests fork without re-executing, others skip.
bool under_user_emulation();

// The condition word of a timer class's thread state (Timer, RefreshTimer):
// 1 while its timer thread runs, 0 once it ended.
template <class T>
int timer_thread_state() {
  T::TimerThreadState.Lock();
  int state = T::TimerThreadState._condition;
  T::TimerThreadState.Unlock();
  return state;
}

}  // namespace orv_test

#endif  // ORV_TESTS_SUPPORT_TEST_SUPPORT_H
