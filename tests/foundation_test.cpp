// Ownership, logging, the clock, the small utilities, MD5, identity and
// paths, parameters, shared keys and the PCM queue's argument checks. The
// text parsers and the PCM queue are also checked against models by the fuzz
// drivers, which the suite replays (fuzz_replay_*); here are the exact values.
#include <dlfcn.h>
#include <limits.h>
#include <openssl/evp.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"
#include "support/thread_test_support.h"

namespace {

using namespace orv;
using namespace orv::Memory;
using namespace orv_test;

struct Tracked {
  explicit Tracked(std::atomic<int>* deaths) : deaths(deaths) {}
  virtual ~Tracked() { ++*deaths; }
  std::atomic<int>* deaths;
};
struct Derived : Tracked {
  Derived(std::atomic<int>* deaths, std::atomic<int>* own) : Tracked(deaths), own(own) {}
  ~Derived() override { ++*own; }
  std::atomic<int>* own;
};

// Counts through copies, weak pointers and owned copies; promotion after the
// last release gives an empty pointer that still counts; a replaced share
// goes with the deleter it was made with; an object may drop the last
// pointer to itself from its own destructor.
TEST(SharedPtr, CountsWeakPointersDeletersAndSelfRelease) {
  std::atomic<int> deaths{0}, base{0}, own{0};
  orv_shared_ptr<Tracked> a(new Tracked(&deaths)), empty;
  orv_weak_ptr<Tracked> weak(a);
  orv_shared_ptr_base* copy = weak.getRefPtr();
  {
    orv_shared_ptr<Tracked> b(a), c;
    c = static_cast<const orv_shared_ptr_base&>(b);
    c = c;
    EXPECT_EQ(strong_count(a) * 10 + a._control->_ref_count, 35);
  }
  EXPECT_FALSE(copy->_is_strong);
  delete copy;
  orv_shared_ptr<Derived> last(new Derived(&base, &own));
  last = orv_shared_ptr<Tracked>(weak);  // the Derived goes as a Derived
  EXPECT_EQ(base * 100 + own * 10 + strong_count(a), 112);
  last = empty;
  a.releaseManagedPointer();
  orv_shared_ptr<Tracked> late(weak);
  EXPECT_TRUE(!late && deaths == 1 && weak._control->_strong_count == 1 && weak._control->_ref_count == 2);
  EXPECT_EQ(orv_shared_ptr<Tracked>(static_cast<Tracked*>(nullptr))._control, nullptr);
  static int calls = 0;
  { orv_shared_ptr<char> buffer(new char[64], orv_shared_ptr<char>::arrayDestructor); }
  { orv_shared_ptr<int> counted(new int(5), [](void* p) { ++calls, delete static_cast<int*>(p); }); }
  EXPECT_EQ(calls, 1);
  struct Cycle {
    ~Cycle() { promoted = orv_shared_ptr<Cycle>(weak).getPTR() != nullptr; }
    orv_shared_ptr<Cycle> self;
    orv_weak_ptr<Cycle> weak;
    bool& promoted;
  };
  bool promoted = true;
  Cycle* raw = new Cycle{orv_shared_ptr<Cycle>(), orv_weak_ptr<Cycle>(), promoted};
  raw->self = orv_shared_ptr<Cycle>(raw);
  raw->weak = raw->self;
  raw->self.releaseManagedPointer();
  EXPECT_FALSE(promoted);
}

std::atomic<int> service_made{0};
class Service : public Singleton<Service> {
 public:
  Service() { ++service_made; }
  void childInit() override { reentered = Singleton<Service>::instance().getPTR() == this; }
  bool reentered = false;
};

TEST(SingletonTest, OneInstanceAcrossThreadsThenRemadeWhenDropped) {
  std::vector<std::thread> threads;
  std::vector<Service*> seen(6);
  for (int t = 0; t < 6; ++t) threads.emplace_back([&seen, t] { seen[t] = Service::instance().getPTR(); });
  for (auto& t : threads) t.join();
  for (Service* s : seen) EXPECT_EQ(s, seen[0]);
  EXPECT_EQ(service_made, 1);
  EXPECT_TRUE(seen[0]->reentered);  // the mutex is recursive
  orv_shared_ptr<Service> held = Service::instance();
  Service::instanceStrongRef.releaseManagedPointer();
  EXPECT_EQ(Service::instance().getPTR(), held.getPTR());  // held strongly again
  Service::instanceStrongRef.releaseManagedPointer();
  held.releaseManagedPointer();
  EXPECT_NE(Service::instance().getPTR(), nullptr);
  EXPECT_EQ(service_made, 2);
}

class Unmakeable : public Singleton<Unmakeable> {
 public:
  static void* operator new(size_t) noexcept { return nullptr; }
  static void operator delete(void*) noexcept {}
};

TEST(AssertionDeathTest, NullSingletonAndQueueOfNoThreadAbort) {
  // Forking alone where re-executing is impossible (user-mode emulation).
  GTEST_FLAG_SET(death_test_style, orv_test::under_user_emulation() ? "fast" : "threadsafe");
  EXPECT_DEATH(Unmakeable::instance(),
               "core/utility/Memory/singleton\\.h:53: .*Assertion `ref\\.getPTR\\(\\) != NULL' failed\\.");
  EXPECT_DEATH(orv::Threads::DispatchQueue::alloc(0),
               "core/utility/Threads/DispatchQueue\\.cpp:23: .*Assertion `concurrentThreadCount > 0' "
               "failed\\.");
}

const uint32_t kUnit = 524288;  // a size limit of 1

class Log : public ::testing::Test {
 protected:
  void TearDown() override {
    LogFile::close_log_file();
    TimeRecord::close_time_record();
    set_log_level(0);
  }
};

TEST_F(Log, LevelsFormatAndLength) {
  StderrCapture capture;
  ORV_LOG_FATAL("[FATAL]-[%s][%s:1]not at level 0\n");
  set_log_level(LOG_WARN);
  ORV_LOG_WARN("[WARN]-[%s][%s:86]Default thread stack is too small, trying to increase size\n");
  ORV_LOG_FATAL("[FATAL]-[%s][%s:16]%s, Error: mutexattr_init failed\n\n", "AppMutex");
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:4]dropped\n");
  set_log_level(LOG_TRACE);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:9]%s\n", std::string(5000, 'x').c_str());
  std::string text = capture.text();
  const std::string stamp = R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\])";
  EXPECT_TRUE(std::regex_match(text, std::regex(
      R"(\[WARN\]-)" + stamp + R"(\[foundation_test\.cpp:86\]Default thread stack is too small, trying to )"
      R"(increase size\n\[FATAL\]-)" + stamp + R"(\[foundation_test\.cpp:16\]AppMutex, Error: mutexattr_init )"
      R"(failed\n\n\[DEBUG\]-)" + stamp + R"(\[foundation_test\.cpp:9\]x+)")));
  EXPECT_EQ(text.size() - text.find("[DEBUG]"), 2047u) << text.substr(0, 300);  // cut, line end included
  set_log_level(-1);
  EXPECT_TRUE(!can_log(0) && can_log(-1));
  EXPECT_STREQ(get_file_name("a/b/c"), "c");
  EXPECT_STREQ(get_file_name("a/b/"), "");
  EXPECT_STREQ(get_file_name(nullptr), "");
  EXPECT_EQ(get_file_size(nullptr), -1);
}

// The log file appends, rotates to ".bak" at the exact threshold with the
// triggering line first in the new file, makes a removed file anew, never
// rotates with limit 0; a second open changes nothing; a file that cannot
// be made leaves standard error.
TEST_F(Log, FileAppendsAndRotatesAtTheThreshold) {
  TempDir dir;
  std::string path = dir.file("orv.log");
  write_file(path, std::string(kUnit - 1, 'a'));
  write_file(path + ".bak", "older generation");
  set_log_level(LOG_TRACE);
  LogFile::open_log_file(path.c_str(), 1);
  LogFile::open_log_file(dir.file("other.log").c_str(), 3);
  EXPECT_EQ(LogFile::_s_log_file_name + " " + std::to_string(LogFile::_s_log_file_size), path + " 524288");
  StderrCapture capture;
  LogFile::log("b\n");
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:7]trigger\n");
  LogFile::log("after\n");
  std::string content = read_file(path);
  EXPECT_TRUE(std::regex_match(content, std::regex(R"(\[DEBUG\]-\[.{23}\]\[foundation_test\.cpp:7\]trigger\nafter\n)"))) << content;
  EXPECT_EQ(read_file(path + ".bak"), std::string(kUnit - 1, 'a') + "b\n");
  unlink(path.c_str());
  LogFile::log("two\n");
  EXPECT_EQ(read_file(path), "two\n");
  LogFile::close_log_file();
  LogFile::log("back\n");
  LogFile::open_log_file(path.c_str(), 0);
  write_file(path, std::string(kUnit + 10, 'c'));
  LogFile::log("x\n");
  EXPECT_EQ(get_file_size(path.c_str()), static_cast<int>(kUnit) + 12);
  LogFile::close_log_file();
  LogFile::open_log_file(dir.file("no/such/orv.log").c_str(), 1);
  LogFile::log("still\n");
  EXPECT_EQ(capture.text(), "back\nstill\n");
  EXPECT_NE(access(dir.file("other.log").c_str(), F_OK), 0);
}

// Reopening after a rotation fails only when the file cannot be made, as on
// a file system without free inodes: a child mounts one in a private mount
// namespace (root only).
TEST_F(Log, FailedReopenAfterRotationFallsBackToStderr) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to mount a tmpfs in a private namespace";
  TempDir dir;
  std::string fs = dir.file("fs"), path = fs + "/orv.log";
  mkdir(fs.c_str(), 0700);
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("orvtest", fs.c_str(), "tmpfs", 0, "size=4m,nr_inodes=8") != 0) {
      _exit(77);
    }
    write_file(path, std::string(kUnit, 'a'));
    for (int i = 0; i < 100; ++i) write_file(fs + "/fill" + std::to_string(i), "");
    LogFile::open_log_file(path.c_str(), 1);
    StderrCapture capture;
    LogFile::log("lost file\n");
    LogFile::log("next\n");
    bool ok = capture.text() == "lost file\nnext\n" && LogFile::_s_log_file.load() == nullptr;
    _exit(ok && read_file(path + ".bak") == std::string(kUnit, 'a') ? 0 : 3);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "cannot mount a tmpfs here";
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// Lines from many threads never interleave, across a rotation; the time
// record writes only to its own file, once open.
TEST_F(Log, ConcurrentLinesAndTheTimeRecord) {
  TempDir dir;
  std::string path = dir.file("orv.log"), record = dir.file("time.txt");
  LogFile::open_log_file(path.c_str(), 1);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      std::string line = std::string(100, static_cast<char>('a' + t)) + "\n";
      for (int i = 0; i < 2000; ++i) LogFile::log(line.c_str());
    });
  }
  for (auto& thread : threads) thread.join();
  std::string all = read_file(path + ".bak") + read_file(path);
  ASSERT_EQ(all.size(), 4u * 2000 * 101);
  for (size_t at = 0; at < all.size(); at += 101) ASSERT_EQ(all.compare(at, 101, std::string(100, all[at]) + "\n"), 0) << at;
  TimeRecord::record("nowhere\n");
  write_file(record, std::string(kUnit, 't'));
  TimeRecord::open_time_record(record.c_str(), 1);
  TimeRecord::open_time_record(dir.file("other").c_str(), 5);
  TimeRecord::record("r1\n");
  TimeRecord::record("r2\n");
  TimeRecord::close_time_record();
  TimeRecord::record("dropped\n");
  EXPECT_EQ(read_file(record) + read_file(record + ".bak"), "r1\nr2\n" + std::string(kUnit, 't'));
}

TEST(Clock, WallClockMicrosecondsLocalTextsAndCoarseDates) {
  struct timeval before, after;
  gettimeofday(&before, nullptr);
  int64_t now = get_current_time();
  gettimeofday(&after, nullptr);
  EXPECT_GE(now, static_cast<int64_t>(before.tv_sec) * 1000000 + before.tv_usec);
  EXPECT_LE(now, static_cast<int64_t>(after.tv_sec) * 1000000 + after.tv_usec);
  std::string date, stamp;
  do {  // at a stable second, so that date and time agree
    gettimeofday(&before, nullptr);
    date = get_gmt_date();
    stamp = get_gmt_time();
    gettimeofday(&after, nullptr);
  } while (before.tv_sec != after.tv_sec);
  struct tm t;
  localtime_r(&before.tv_sec, &t);
  char want[64];
  snprintf(want, sizeof want, "%d-%d-%d %d-%02d-%02d %02d:%02d:%02d.", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
           t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  EXPECT_TRUE(std::regex_match(date + " " + stamp, std::regex(std::string(want) + R"(\d{3})"))) << stamp;
  const struct { const char *a, *b; int days; } dates[] = {
      {"2024-1-31", "2024-2-1", 0}, {"2024-3-1", "2024-2-28", 3}, {"2025-1-1", "2024-1-1", 365},
      {"2024-03-07", "2024-3-7", 0}, {"2024-2-1", "2024-3-1", -30}};
  for (const auto& d : dates) EXPECT_EQ(compare_dates(d.a, d.b), d.days) << d.a;
}

const unsigned char* bytes(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

// Exact values and bad arguments; the fuzz drivers check the parsers against
// models on every input.
TEST(Utility, StringsNumbersUrlsTextAndSearch) {
  EXPECT_EQ(encode_error(1, -1), 0x0001FFFF);
  short high = 0, low = 0;
  for (int h : {-32768, -1, 0, 7, 32767}) {
    for (int l : {-32768, -1, 0, 1, 32767}) {
      decode_error(encode_error(static_cast<short>(h), static_cast<short>(l)), high, low);
      EXPECT_EQ(high * 100000 + low, h * 100000 + l);
    }
  }
  char* copy = clone_str("hello");
  EXPECT_STREQ(copy, "hello");
  free(copy);
  EXPECT_EQ(clone_str(nullptr), nullptr);
  EXPECT_TRUE(str_ends_with("lib.so.1", 6, ".so", 3) && str_ends_with("lib.so", 6, "", 0));  // the lengths decide
  EXPECT_FALSE(str_ends_with("lib.sa", 6, ".so", 3) || str_ends_with("so", 2, ".so", 3) ||
               str_ends_with(nullptr, 6, ".so", 3) || str_ends_with("lib.so", 6, nullptr, 0));
  EXPECT_EQ(std::to_string(string_to_int("  42abc")) + std::to_string(string_to_int("abc")) +
                std::to_string(string_to_int("99999999999")), "4202147483647");
  EXPECT_EQ(int_to_string(INT_MIN) + " " + ll_to_string(LLONG_MAX), "-2147483648 9223372036854775807");
  using V = std::vector<std::string>;
  EXPECT_EQ(split(",a,,b;c", ",;"), (V{"", "a", "", "b", "c"}));
  EXPECT_EQ(split("", ","), (V{""}));
  EXPECT_EQ(split("abc", ""), (V{"abc"}));

  EXPECT_EQ(URLEncode(bytes("a b&c~\xff"), 7) + URLEncode(nullptr, 4) + URLEncode(bytes("x"), 0), "a%20b%26c~%FF");
  EXPECT_EQ(URLEncodedKEV("k y", "v=1/2"), "k%20y=v%3D1%2F2");
  const struct { const char* in; unsigned n; const char* out; } decode[] = {
      {"a+b%41", 6, "a bA"}, {"%6a%6A", 6, "jj"}, {"50%4", 4, ""},  {"a%zzb", 5, ""},
      {"x%41", 3, ""},       {"ab%00cd", 7, "ab"}, {"abc", 0, ""}, {nullptr, 3, ""}};
  for (const auto& d : decode) EXPECT_EQ(URLDecode(d.in, d.n), d.out) << (d.in ? d.in : "null");
  EXPECT_EQ(get_host_from_url("https://host.example:8443/a/b?c") + get_host_from_url("http://host.example"), "host.example:8443");
  std::string domain = "old", directory = "old";
  get_url_domain_directory("https://h.example:80/p/q?x=1", domain, directory);
  EXPECT_EQ(domain + " " + directory, "h.example:80 /p/q?x=1");
  get_url_domain_directory("ftp://h.example/x", domain, directory);
  EXPECT_EQ(domain + directory, "");
  EXPECT_EQ(get_resolve_ip_url("https://h.example:8443/a?b", "127.0.0.1") + get_resolve_ip_url("//h/x", "1"),
            "https://127.0.0.1/a?b");

  const unsigned char text[] = {'a', 0xC3, 0xA9, 0, 'b'};
  EXPECT_EQ(UTF8StrLen(text, 5) * 10 + UTF8StrLen(nullptr, 5) + UTF8StrLen(text, -1), 20);
  EXPECT_EQ(ptrToUTF8SymbolOffset(2, text, 5), text + 3);
  EXPECT_EQ(ptrToUTF8SymbolOffset(-1, text, 5), nullptr);
  EXPECT_EQ(UTF8StrLen(reinterpret_cast<const unsigned char*>(UINTPTR_MAX - 3), 10), 0);
  unsigned char hay[] = "here is a simple example";
  EXPECT_EQ(boyer_moore(hay, 24, hay + 17, 7), hay + 17);
  EXPECT_EQ(boyer_moore(hay, 24, hay, 24), hay);
  EXPECT_EQ(boyer_moore(hay, 3, hay + 17, 7), nullptr);
  EXPECT_EQ(boyer_moore(nullptr, 24, hay, 7), nullptr);
  int delta1[256], delta2[5];
  make_delta1(delta1, hay + 17, 7);
  make_delta2(delta2, bytes("abcab"), 5);
  EXPECT_EQ(delta1['z'] * 100000 + delta1['l'] * 10000 + delta1['e'] * 1000 + delta1['x'] * 100 + delta2[4] * 10 + delta2[2], 716515);
}

TEST(Utility, FilesAndJson) {
  TempDir dir;
  for (size_t n : {0, 1, 1024, 1025, 5000}) {
    std::string content(n, 'a');
    for (size_t i = 0; i < n; ++i) content[i] = static_cast<char>('a' + i % 26);
    write_file(dir.file("n"), content);
    EXPECT_EQ(read_all_content(dir.file("n")), content) << n;
    FILE* f = fopen(dir.file("n").c_str(), "rb");
    fseek(f, 1, SEEK_SET);
    EXPECT_EQ(getFileSize(f) * 10 + ftell(f), static_cast<long>(n) * 10 + 1);
    fclose(f);
  }
  FILE* pipe = popen("head -c 4100 /dev/zero", "r");  // cannot seek: counted by reading
  EXPECT_EQ(getFileSize(pipe), 4100);
  pclose(pipe);
  EXPECT_EQ(getFileSize(nullptr), -1);
  write_file(dir.file("nul"), std::string("ab\0cd", 5));
  EXPECT_EQ(read_all_content(dir.file("nul")), "ab");
  for (const std::string& bad : {std::string(), dir.file("missing"), dir.path(), dir.file("n/x")}) {
    EXPECT_EQ(read_all_content(bad), "") << bad;
  }
  cJSON* root = read_json(R"({"a":{"b":[10,"x"]}})");
  cJSON* b = get_json_item(get_json_item(root, "a"), "b");
  EXPECT_EQ(get_json_array_item(b, 0)->valueint, 10);
  EXPECT_EQ(get_json_array_item(b, 2), nullptr);
  EXPECT_EQ(get_json_array_item(b, 0x80000000u), nullptr);
  EXPECT_EQ(get_json_item(root, nullptr), nullptr);
  EXPECT_EQ(read_json("{bad"), nullptr);
  cJSON_Delete(root);
  std::vector<int> ints{7};
  EXPECT_EQ(json_to_int_vector(R"({"k":[1,-2,3.9,"s"]})", "k", ints), 1);
  EXPECT_EQ(ints, (std::vector<int>{7, 1, -2, 3, 0}));
  std::vector<std::string> strs;
  EXPECT_EQ(json_to_str_vector(R"({"k":["a",5]})", "k", strs) * 10 + json_to_str_vector("{", "k", strs), 10);
  EXPECT_EQ(strs, (std::vector<std::string>{"a", ""}));
}

std::string md5_hex(const unsigned char* digest) {
  std::string out;
  for (int i = 0; i < 16; ++i) out += "0123456789abcdef"[digest[i] >> 4], out += "0123456789abcdef"[digest[i] & 15];
  return out;
}

TEST(Md5, MatchesOpenSslOnRandomInputsAndSplits) {
  std::mt19937 rng(7);
  for (int round = 0; round < 600; ++round) {
    size_t len = round < 200 ? static_cast<size_t>(round) : rng() % 5000;
    std::vector<unsigned char> data(len);
    for (auto& byte : data) byte = static_cast<unsigned char>(rng());
    unsigned char want[EVP_MAX_MD_SIZE], got[16];
    EVP_Digest(data.data(), len, want, nullptr, EVP_md5(), nullptr);
    orv::md5_state_s state;
    orv::md5_init(&state);
    orv::md5_append(&state, nullptr, 10);  // bad pieces add nothing
    orv::md5_append(&state, data.data(), -3);
    for (size_t at = 0, piece; at < len; at += piece) {
      piece = std::min(len - at, static_cast<size_t>(rng() % 130));
      orv::md5_append(&state, data.data() + at, static_cast<int>(piece));
    }
    orv::md5_finish(&state, got);
    ASSERT_EQ(md5_hex(got), md5_hex(want)) << len;
  }
}

bool is_identity(const std::string& s) { return std::regex_match(s, std::regex("[0-9a-f]{32}")); }

TEST(Identity, PathsUuidsAndThePersistentIdentity) {
  EXPECT_EQ(PlatformPaths::getWriteableTempPath() + PlatformPaths::getWriteableUserDataPath(), "");
  PlatformPaths::setWriteableTempPath("/tmp/no-slash");
  PlatformPaths::setWriteableUserDataPath("/user/");
  EXPECT_EQ(PlatformPaths::getWriteableTempPath() + PlatformPaths::getWriteableUserDataPath(),
            "/tmp/no-slash/user/");
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    std::string u = UUIDFactory::generateUUID();
    ASSERT_TRUE(std::regex_match(u, std::regex("[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}"))) << u;
    seen.insert(u);
  }
  EXPECT_EQ(seen.size(), 100u);

  TempDir dir;
  std::string file = dir.file("ORV_Ident.dat");
  PlatformPaths::setWriteableLibraryDataPath(dir.path() + "/");
  EXPECT_EQ(PlatformPaths::getWriteableLibraryDataPath(), dir.path() + "/");
  std::string first = UUIDFactory::getIdentity();
  EXPECT_TRUE(is_identity(first)) << first;
  EXPECT_EQ(read_file(file), first);  // 32 bytes, no line end
  EXPECT_EQ(UUIDFactory::getIdentity(), first);
  write_file(file, std::string(32, 'Z') + "-and-more\n");  // the first 32 bytes, unchecked
  EXPECT_EQ(UUIDFactory::getIdentity(), std::string(32, 'Z'));
  for (const std::string& bad : {std::string(31, 'a'), std::string("abc\0", 4) + std::string(40, 'd')}) {
    write_file(file, bad);
    std::string fresh = UUIDFactory::getIdentity();
    EXPECT_TRUE(is_identity(fresh) && fresh != first) << fresh;
    EXPECT_EQ(read_file(file), fresh);
  }
  // Nowhere to keep it (the parent is a file; a folder in its place): new each call.
  for (const std::string& base : {dir.file("ORV_Ident.dat") + "/", dir.path() + "/"}) {
    unlink(file.c_str());
    if (base == dir.path() + "/") mkdir(file.c_str(), 0700);
    PlatformPaths::setWriteableLibraryDataPath(base);
    std::string a = UUIDFactory::getIdentity(), b = UUIDFactory::getIdentity();
    EXPECT_TRUE(is_identity(a) && is_identity(b) && a != b) << base;
  }
}

TEST(Identity, ConcurrentFirstCallsShareOne) {
  for (int round = 0; round < 10; ++round) {
    TempDir dir;
    PlatformPaths::setWriteableLibraryDataPath(dir.path() + "/");
    std::vector<std::string> ids(8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([&ids, i] { ids[i] = UUIDFactory::getIdentity(); });
    for (auto& t : threads) t.join();
    for (const std::string& id : ids) ASSERT_EQ(id, ids[0]);
    ASSERT_EQ(read_file(dir.file("ORV_Ident.dat")), ids[0]);
  }
}

const std::string kStringType = "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE";

TEST(Param, TypesAccessorsBodiesAndCopies) {
  int target = 0;
  EXPECT_EQ(paramBase(5).get_value_type() + paramBase(static_cast<signed char>(-1)).get_value_type() +
                paramBase(static_cast<short>(1)).get_value_type() + paramBase(1LL).get_value_type() +
                paramBase(true).get_value_type() + paramBase(2.5f).get_value_type() +
                paramBase(static_cast<void*>(&target)).get_value_type(),
            "iasxbfPv");
  EXPECT_EQ(paramBase(static_cast<signed char>(-1)).valueInt8(), -1);
  EXPECT_EQ(paramBase(static_cast<short>(-300)).valueInt16(), -300);
  EXPECT_EQ(paramBase(1234567890123LL).valueInt64(), 1234567890123LL);
  EXPECT_EQ(paramBase(-7).valueInt32(), -7);
  EXPECT_TRUE(paramBase(true).valueBool());
  EXPECT_EQ(paramBase(2.5f).valueFloat(), 2.5f);
  EXPECT_EQ(paramBase(static_cast<void*>(&target)).valuePtr(), &target);
  EXPECT_EQ(paramBase("text").get_value_type(), kStringType);  // a literal is a string, not a bool
  EXPECT_EQ(paramBase("text").valueString(), "text");

  paramBase p(1);
  EXPECT_EQ(p._instance->_instance, p._instance);  // a body points to itself
  p = 2.0f;
  p = std::string("x");
  EXPECT_EQ(p.get_value_type(), kStringType);
  EXPECT_THROW(p = static_cast<const char*>(nullptr), std::logic_error);
  EXPECT_EQ(p.valueString(), "x");
  paramBase* copy = p.copyInstance();
  *copy = std::string("changed");
  EXPECT_EQ(p.valueString() + copy->valueString(), "xchanged");
  delete copy;
  p.clearOldInstance();
  EXPECT_EQ(p.copyInstance(), nullptr);
  EXPECT_EQ(p.get_value_type(), "");
  orv::param<int> body(1);
  body = 9;  // own type: in place
  EXPECT_EQ(body._instance, &body);
  body = std::string("other");  // another type: a new instance under the body
  EXPECT_EQ(body.valueString() + body.get_value_type(), "otheri");
}

// Every exported key string has its exact text (misspellings and shared
// values included): tests/data/shared_keys.txt lists them in definition
// order, each found by its exported symbol.
TEST(SharedKeys, EveryKeyHasItsExactTextUnderItsName) {
  std::istringstream table(read_file(ORV_TEST_DATA_DIR "shared_keys.txt"));
  int keys = 0;
  for (std::string name, value; table >> name && std::getline(table >> std::ws, value); ++keys) {
    std::string symbol = "_ZN3orv" + std::to_string(name.size()) + name + "B5cxx11E";
    auto* key = static_cast<const std::string*>(dlsym(RTLD_DEFAULT, symbol.c_str()));
    ASSERT_NE(key, nullptr) << name;
    EXPECT_EQ("\"" + *key + "\"", value) << name;
  }
  EXPECT_EQ(keys, 73);
  EXPECT_EQ(orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_COMMAND * 100 +
                orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_UNKNOWN_RECEIVER * 10 +
                orv::ORV_CORE_PLATFORM_CUSTOM_COMMAND_ERROR_RECEIVER_NOT_AVAILABLE,
            -123);
}

TEST(PCMQueueArguments, BadArgumentsChangeNothingInEitherMode) {
  unsigned char six[6] = {0, 1, 2, 3, 4, 5}, out[20];
  orv_shared_ptr<orv::PCMQueue> ring = orv::PCMQueue::newQueue(10), linear = orv::PCMQueue::newQueue(0);
  EXPECT_TRUE(ring->m_isRing);
  EXPECT_EQ(linear->m_buffer, nullptr);
  for (orv::PCMQueue* q : {ring.getPTR(), linear.getPTR()}) {
    q->queueAudio(six, 6);
    q->shiftSize(2);
    EXPECT_EQ(q->queueAudio(nullptr, 3) * 10 + q->queueAudio(six, -1), -11);
    EXPECT_EQ(q->queueAudio(nullptr, 0), 4);
    EXPECT_EQ(q->readSamples(nullptr, 3, true) + q->dequeSamples(out, -3, true) + q->shiftSize(-3), 0);
    EXPECT_EQ(q->readSamples(out, 20, -1, 3, true) + q->readSamples(nullptr, 20, 0, 3, true), 0);
    EXPECT_EQ(q->m_size, 4);
    EXPECT_EQ(q->readSamples(out, 4, false), 4);
    EXPECT_EQ(out[0], 2);
  }
  EXPECT_EQ(ring->readSamples(out, 20, 0, 3, true), 0);  // ranges are for linear queues
  EXPECT_EQ(ring->m_logicalPos, 2);
  EXPECT_EQ(linear->m_logicalPos, 0);  // linear consumption never counts
  linear->reset();                      // but reset does, in both modes
  EXPECT_EQ(linear->m_logicalPos, 4);
}

}  // namespace
