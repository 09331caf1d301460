#include "support/test_support.h"

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "support/thread_test_support.h"

namespace orv_test {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/orv_test_XXXXXX";
  if (mkdtemp(&path_[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

StderrCapture::StderrCapture() : saved_fd_(-1), file_("/tmp/orv_stderr_XXXXXX") {
  int fd = mkstemp(&file_[0]);
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  fflush(stderr);
  saved_fd_ = dup(2);
  dup2(fd, 2);
  close(fd);
}

std::string StderrCapture::text() {
  if (saved_fd_ >= 0) {
    fflush(stderr), dup2(saved_fd_, 2), close(saved_fd_);
    saved_fd_ = -1, captured_ = read_file(file_), unlink(file_.c_str());
  }
  return captured_;
}

std::string read_file(const std::string& path) {  // "" when it cannot be read
  return std::string(std::istreambuf_iterator<char>(std::ifstream(path, std::ios::binary).rdbuf()), {});
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

int count_threads_named(const std::string& name) {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
    count += name.empty() || thread_name(std::stol(entry.path().filename())) == name;
  return count;
}

bool wait_until(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= deadline) return predicate();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

bool under_user_emulation() {
  const char* value = getenv("ORV_TEST_EMULATION");
  return value != nullptr && value[0] != '\0';
}

}  // namespace orv_test
