#include "support/test_support.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace orv_test {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/orv_test_XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

StderrCapture::StderrCapture() : saved_fd_(-1), done_(false) {
  char name[] = "/tmp/orv_stderr_XXXXXX";
  int fd = mkstemp(name);
  if (fd < 0) throw std::runtime_error("mkstemp failed");
  file_ = name;
  fflush(stderr);
  saved_fd_ = dup(2);
  dup2(fd, 2);
  close(fd);
}

StderrCapture::~StderrCapture() { restore(); }

void StderrCapture::restore() {
  if (done_) return;
  done_ = true;
  fflush(stderr);
  dup2(saved_fd_, 2);
  close(saved_fd_);
  captured_ = read_file(file_);
  unlink(file_.c_str());
}

std::string StderrCapture::text() {
  restore();
  return captured_;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
}

int thread_count() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    (void)entry;
    ++count;
  }
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
