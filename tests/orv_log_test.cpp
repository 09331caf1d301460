#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"

namespace {

using orv_test::has;
using orv_test::read_file;
using orv_test::StderrCapture;
using orv_test::TempDir;
using orv_test::write_file;

const uint32_t kUnit = 524288;  // size_limit 1

class Log : public ::testing::Test {
 protected:
  void TearDown() override {
    orv::LogFile::close_log_file();
    orv::TimeRecord::close_time_record();
    orv::set_log_level(0);
  }
};

TEST_F(Log, LevelsDecideWhatIsWritten) {
  EXPECT_EQ(orv::get_current_log_level(), 0);
  {
    StderrCapture capture;
    ORV_LOG_FATAL("[FATAL]-[%s][%s:1]not at level 0\n");
    EXPECT_EQ(capture.text(), "");
  }
  orv::set_log_level(orv::LOG_WARN);
  {
    StderrCapture capture;
    ORV_LOG_ERROR("[ERROR]-[%s][%s:2]kept\n");
    ORV_LOG_WARN("[WARN]-[%s][%s:3]kept\n");
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:4]dropped\n");
    ORV_LOG_TRACE("[TRACE]-[%s][%s:5]dropped\n");
    std::string text = capture.text();
    EXPECT_TRUE(has(text, ":2]kept"));
    EXPECT_TRUE(has(text, ":3]kept"));
    EXPECT_FALSE(has(text, "dropped"));
  }
  orv::set_log_level(6);
  EXPECT_TRUE(orv::can_log(6));
  orv::set_log_level(7);
  EXPECT_TRUE(orv::can_log(6));
  orv::set_log_level(-1);
  EXPECT_FALSE(orv::can_log(1));
  EXPECT_FALSE(orv::can_log(0));
  EXPECT_TRUE(orv::can_log(-1));
}

TEST_F(Log, LineFormatOfARealLine) {
  orv::set_log_level(orv::LOG_TRACE);
  StderrCapture capture;
  ORV_LOG_WARN("[WARN]-[%s][%s:86]Default thread stack is too small, trying to increase size\n");
  ORV_LOG_FATAL("[FATAL]-[%s][%s:16]%s, Error: mutexattr_init failed\n\n", "AppMutex");
  std::string text = capture.text();
  const std::string stamp = R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\])";
  std::regex expected(
      R"(\[WARN\]-)" + stamp +
      R"(\[orv_log_test\.cpp:86\]Default thread stack is too small, trying to increase size\n)" +
      R"(\[FATAL\]-)" + stamp +
      R"(\[orv_log_test\.cpp:16\]AppMutex, Error: mutexattr_init failed\n\n)");
  EXPECT_TRUE(std::regex_match(text, expected)) << text;
}

TEST_F(Log, LongLinesAreCutTo2047Characters) {
  orv::set_log_level(orv::LOG_TRACE);
  std::string long_text(5000, 'x');
  StderrCapture capture;
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:9]%s\n", long_text.c_str());
  std::string text = capture.text();
  EXPECT_EQ(text.size(), 2047u);
  EXPECT_EQ(text.back(), 'x');
}

TEST_F(Log, FileNameAndSize) {
  EXPECT_STREQ(orv::get_file_name("a/b/c"), "c");
  EXPECT_STREQ(orv::get_file_name("c"), "c");
  EXPECT_STREQ(orv::get_file_name("a/b/"), "");
  EXPECT_STREQ(orv::get_file_name(nullptr), "");
  TempDir dir;
  write_file(dir.file("f"), std::string(1234, 'z'));
  EXPECT_EQ(orv::get_file_size(dir.file("f").c_str()), 1234);
  EXPECT_EQ(orv::get_file_size(dir.file("missing").c_str()), -1);
  EXPECT_EQ(orv::get_file_size(nullptr), -1);
}

TEST_F(Log, LinesGoToTheFileWhileOpenAndBackToStderrAfterClose) {
  TempDir dir;
  std::string path = dir.file("orv.log");
  orv::set_log_level(orv::LOG_TRACE);
  orv::LogFile::open_log_file(path.c_str(), 0);
  {
    StderrCapture capture;
    orv::LogFile::log("one\n");
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:7]two\n");
    EXPECT_EQ(capture.text(), "");
  }
  // A second open changes nothing: file, name and threshold stay.
  orv::LogFile::open_log_file(dir.file("other.log").c_str(), 3);
  EXPECT_EQ(orv::LogFile::_s_log_file_name, path);
  EXPECT_EQ(orv::LogFile::_s_log_file_size, 0u);
  orv::LogFile::log("three\n");
  orv::LogFile::close_log_file();
  {
    StderrCapture capture;
    orv::LogFile::log("four\n");
    EXPECT_EQ(capture.text(), "four\n");
  }
  std::string content = read_file(path);
  EXPECT_EQ(content.substr(0, 4), "one\n");
  EXPECT_TRUE(has(content, "]two\n"));
  EXPECT_EQ(content.substr(content.size() - 6), "three\n");
  EXPECT_FALSE(std::ifstream(dir.file("other.log")).good());
}

TEST_F(Log, OpenAppendsAndAFileThatCannotBeCreatedLeavesStderr) {
  TempDir dir;
  std::string path = dir.file("orv.log");
  write_file(path, "old\n");
  orv::LogFile::open_log_file(path.c_str(), 2);
  EXPECT_EQ(orv::LogFile::_s_log_file_size, 2 * kUnit);
  orv::LogFile::log("new\n");
  orv::LogFile::close_log_file();
  EXPECT_EQ(read_file(path), "old\nnew\n");

  orv::LogFile::open_log_file(dir.file("no/such/folder/orv.log").c_str(), 1);
  EXPECT_EQ(orv::LogFile::_s_log_file.load(), nullptr);
  StderrCapture capture;
  orv::LogFile::log("still here\n");
  EXPECT_EQ(capture.text(), "still here\n");
}

TEST_F(Log, RotatesAtTheExactThresholdWithTheTriggeringLineFirst) {
  TempDir dir;
  std::string path = dir.file("orv.log");
  write_file(path, std::string(kUnit - 1, 'a'));
  write_file(path + ".bak", "older generation");
  orv::LogFile::open_log_file(path.c_str(), 1);

  orv::LogFile::log("b\n");  // 524287 bytes: below the threshold, appended
  EXPECT_EQ(orv::get_file_size(path.c_str()), static_cast<int>(kUnit) + 1);
  orv::LogFile::log("trigger\n");
  orv::LogFile::log("after\n");
  EXPECT_EQ(read_file(path), "trigger\nafter\n");
  std::string backup = read_file(path + ".bak");
  EXPECT_EQ(backup.size(), kUnit + 1);
  EXPECT_EQ(backup.substr(backup.size() - 3), "ab\n");

  // A file of exactly the threshold rotates on the next line.
  orv::LogFile::close_log_file();
  write_file(path, std::string(kUnit, 'c'));
  orv::LogFile::open_log_file(path.c_str(), 1);
  orv::LogFile::log("first\n");
  EXPECT_EQ(read_file(path), "first\n");
  EXPECT_EQ(read_file(path + ".bak"), std::string(kUnit, 'c'));
}

TEST_F(Log, RemovedFileIsRecreatedAndZeroLimitNeverRotates) {
  TempDir dir;
  std::string path = dir.file("orv.log");
  orv::LogFile::open_log_file(path.c_str(), 1);
  orv::LogFile::log("one\n");
  unlink(path.c_str());
  orv::LogFile::log("two\n");  // size -1 counts as full: recreated
  EXPECT_EQ(read_file(path), "two\n");
  orv::LogFile::close_log_file();

  write_file(path, std::string(kUnit + 10, 'a'));
  unlink((path + ".bak").c_str());
  orv::LogFile::open_log_file(path.c_str(), 0);
  orv::LogFile::log("x\n");
  EXPECT_EQ(orv::get_file_size(path.c_str()), static_cast<int>(kUnit) + 12);
  EXPECT_FALSE(std::ifstream(path + ".bak").good());
}

// Reopening after a rotation can fail only when the file cannot be created,
// for example on a file system without free inodes. The child process mounts
// such a tmpfs in a private mount namespace (root only).
TEST_F(Log, FailedReopenAfterRotationFallsBackToStderr) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a tmpfs in a private namespace";
  TempDir dir;
  std::string mount_point = dir.file("fs");
  mkdir(mount_point.c_str(), 0700);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("orvtest", mount_point.c_str(), "tmpfs", 0, "size=4m,nr_inodes=8") != 0) {
      _exit(77);
    }
    std::string path = mount_point + "/orv.log";
    write_file(path, std::string(kUnit, 'a'));
    for (int i = 0; i < 100; ++i) {  // use up every inode
      FILE* f = fopen((mount_point + "/fill" + std::to_string(i)).c_str(), "w");
      if (f == nullptr) break;
      fclose(f);
    }
    orv::LogFile::open_log_file(path.c_str(), 1);
    if (orv::LogFile::_s_log_file.load() == nullptr) _exit(2);
    StderrCapture capture;
    orv::LogFile::log("lost file\n");
    orv::LogFile::log("next\n");
    std::string text = capture.text();
    if (text != "lost file\nnext\n") _exit(3);
    if (orv::LogFile::_s_log_file.load() != nullptr) _exit(4);
    if (read_file(path + ".bak") != std::string(kUnit, 'a')) _exit(5);
    // The log can be opened again once space is back.
    unlink((mount_point + "/fill0").c_str());
    orv::LogFile::open_log_file(path.c_str(), 1);
    orv::LogFile::log("back\n");
    if (read_file(path) != "back\n") _exit(6);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "cannot mount a tmpfs here";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "child step failed";
}

TEST_F(Log, ConcurrentLinesNeverInterleave) {
  TempDir dir;
  std::string path = dir.file("orv.log");
  orv::LogFile::open_log_file(path.c_str(), 1);
  const int kThreads = 4, kLines = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      std::string line = std::string(100, static_cast<char>('a' + t)) + "\n";
      for (int i = 0; i < kLines; ++i) orv::LogFile::log(line.c_str());
    });
  }
  for (auto& thread : threads) thread.join();
  orv::LogFile::close_log_file();
  std::string all = read_file(path + ".bak") + read_file(path);
  EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kLines * 101));
  for (size_t at = 0; at < all.size(); at += 101) {
    char c = all[at];
    ASSERT_TRUE(c >= 'a' && c < 'a' + kThreads) << "at " << at;
    ASSERT_EQ(all.compare(at, 101, std::string(100, c) + "\n"), 0) << "at " << at;
  }
}

TEST_F(Log, TimeRecordWritesOnlyToItsOwnFile) {
  TempDir dir;
  {
    StderrCapture capture;
    orv::TimeRecord::record("nowhere\n");
    EXPECT_EQ(capture.text(), "");
  }
  std::string path = dir.file("time.txt");
  write_file(path, std::string(kUnit, 't'));
  orv::TimeRecord::open_time_record(path.c_str(), 1);
  EXPECT_EQ(orv::TimeRecord::_s_record_file_size, kUnit);
  orv::TimeRecord::open_time_record(dir.file("other").c_str(), 5);
  EXPECT_EQ(orv::TimeRecord::_s_record_file_name, path);
  orv::TimeRecord::record("r1\n");
  orv::TimeRecord::record("r2\n");
  EXPECT_EQ(read_file(path), "r1\nr2\n");
  EXPECT_EQ(read_file(path + ".bak"), std::string(kUnit, 't'));
  orv::TimeRecord::close_time_record();
  orv::TimeRecord::record("dropped\n");
  EXPECT_EQ(read_file(path), "r1\nr2\n");
}

}  // namespace
