// Ownership, logging, the clock, the small utilities, MD5, identity and
// paths, parameters, shared keys and the PCM queue's argument checks: exact
// values and bad arguments. The text parsers and the PCM queue are checked
// against models by the fuzz drivers, which the suite replays.
#include <dlfcn.h>
#include <limits.h>
#include <malloc.h>
#include <openssl/evp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"
#include "support/thread_test_support.h"

namespace {

using namespace orv;
using namespace orv::Memory;
using namespace orv_test;

struct Counted {
  explicit Counted(std::atomic<int>* deaths) : deaths(deaths) {}
  virtual ~Counted() { ++*deaths; }
  std::atomic<int>* deaths;
};
struct Derived : Counted {
  Derived(std::atomic<int>* deaths, std::atomic<int>* own) : Counted(deaths), own(own) {}
  ~Derived() override { ++*own; }
  std::atomic<int>* own;
};

// Counts through copies, weak pointers and owned copies; promotion after the
// last release gives an empty pointer that still counts; a replaced share
// goes with the deleter it was made with.
TEST(SharedPtr, CountsWeakPointersDeletersAndSelfRelease) {
  std::atomic<int> deaths{0}, base{0}, own{0};
  orv_shared_ptr<Counted> a(new Counted(&deaths)), empty;
  orv_weak_ptr<Counted> weak(a);
  orv_shared_ptr_base* copy = weak.getRefPtr();
  {
    orv_shared_ptr<Counted> b(a), c;
    orv_shared_ptr<Counted>& alias = c;
    c = static_cast<const orv_shared_ptr_base&>(b);
    c = alias;
    EXPECT_EQ(strong_count(a) * 10 + a._control->_ref_count, 35);
  }
  EXPECT_FALSE(copy->_is_strong);
  delete copy;
  orv_shared_ptr<Derived> last(new Derived(&base, &own));
  last = orv_shared_ptr<Counted>(weak);  // the Derived goes as a Derived
  EXPECT_EQ(base * 100 + own * 10 + strong_count(a), 112);
  last = empty;
  a.releaseManagedPointer();
  orv_shared_ptr<Counted> late(weak);
  EXPECT_TRUE(!late && deaths == 1 && weak._control->_strong_count == 1 && weak._control->_ref_count == 2);
  EXPECT_EQ(orv_shared_ptr<Counted>(static_cast<Counted*>(nullptr))._control, nullptr);
  static int calls = 0;
  { orv_shared_ptr<char> buffer(new char[64], orv_shared_ptr<char>::arrayDestructor); }
  { orv_shared_ptr<int> counted(new int(5), [](void* p) { ++calls, delete static_cast<int*>(p); }); }
  EXPECT_EQ(calls, 1);
}

std::atomic<int> made{0};
class Service : public Singleton<Service> {
 public:
  Service() { ++made; }
  void childInit() override { reentered = Singleton<Service>::instance().getPTR() == this; }  // recursive
  bool reentered = false;
};
class Unmakeable : public Singleton<Unmakeable> {
 public:
  static void* operator new(size_t) noexcept { return nullptr; }
  static void operator delete(void*) noexcept {}
};

// One instance across threads, held strongly again, made anew once dropped;
// the design's two assertions abort with their texts.
TEST(Singleton, OneInstanceRemadeWhenDroppedAndTheAssertions) {
  std::vector<Service*> seen(6);
  run_threads(6, [&seen](int t) { seen[t] = Service::instance().getPTR(); });
  EXPECT_EQ(std::set<Service*>(seen.begin(), seen.end()).size() * 10 + made, 11u);
  EXPECT_TRUE(seen[0]->reentered);
  orv_shared_ptr<Service> held = Service::instance();
  Service::instanceStrongRef.releaseManagedPointer();
  EXPECT_EQ(Service::instance().getPTR(), held.getPTR());
  Service::instanceStrongRef.releaseManagedPointer();
  held.releaseManagedPointer();
  EXPECT_TRUE(Service::instance() && made == 2);
  // Forking alone where re-executing is impossible (user-mode emulation).
  GTEST_FLAG_SET(death_test_style, under_user_emulation() ? "fast" : "threadsafe");
  EXPECT_DEATH(Unmakeable::instance(), "core/utility/Memory/singleton\\.h:53: .*Assertion `ref\\.getPTR\\(\\) != NULL' failed\\.");
  EXPECT_DEATH(Threads::DispatchQueue::alloc(0),
               "core/utility/Threads/DispatchQueue\\.cpp:23: .*Assertion `concurrentThreadCount > 0' failed\\.");
}

const uint32_t kUnit = 524288;  // a size limit of 1
const std::string kStamp = R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\])";

// Levels gate lines; each line is built as the format says and cut at 2047
// characters. The log file appends, rotates to ".bak" at the exact threshold
// with the triggering line first in the new file, makes a removed file anew,
// never rotates with limit 0; a second open changes nothing; closed, or not
// made, the lines go to standard error. The time record has its own file.
TEST(Log, LevelsFormatRotationAndTheTimeRecord) {
  TempDir dir;
  std::string path = dir.file("orv.log"), record = dir.file("time.txt");
  StderrCapture capture;
  ORV_LOG_FATAL("[FATAL]-[%s][%s:1]not at level 0\n");
  set_log_level(LOG_WARN);
  ORV_LOG_WARN("[WARN]-[%s][%s:86]Default thread stack is too small, trying to increase size\n");
  ORV_LOG_FATAL("[FATAL]-[%s][%s:16]%s, Error: mutexattr_init failed\n\n", "AppMutex");
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:4]dropped\n");
  set_log_level(LOG_TRACE);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:9]%s\n", std::string(5000, 'x').c_str());
  write_file(path, std::string(kUnit - 1, 'a'));
  LogFile::open_log_file(path.c_str(), 1);
  LogFile::open_log_file(dir.file("other.log").c_str(), 3);
  LogFile::log("b\n");
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:7]trigger\n");
  LogFile::log("after\n");
  std::string rotated = read_file(path);
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
  TimeRecord::record("nowhere\n");
  write_file(record, std::string(kUnit, 't'));
  TimeRecord::open_time_record(record.c_str(), 1);
  TimeRecord::open_time_record(dir.file("other").c_str(), 5);
  TimeRecord::record("r1\n");
  TimeRecord::close_time_record();
  TimeRecord::record("dropped\n");
  std::string text = capture.text();
  EXPECT_TRUE(std::regex_match(text, std::regex(
      R"(\[WARN\]-)" + kStamp + R"(\[foundation_test\.cpp:86\]Default thread stack is too small, trying to )"
      R"(increase size\n\[FATAL\]-)" + kStamp + R"(\[foundation_test\.cpp:16\]AppMutex, Error: mutexattr_init )"
      R"(failed\n\n\[DEBUG\]-)" + kStamp + R"(\[foundation_test\.cpp:9\]x+back\nstill\n)"))) << text.substr(0, 400);
  EXPECT_EQ(text.find("back\n") - text.find("[DEBUG]"), 2047u);
  EXPECT_TRUE(std::regex_match(rotated, std::regex(R"(\[DEBUG\]-\[.{23}\]\[foundation_test\.cpp:7\]trigger\nafter\n)"))) << rotated;
  EXPECT_EQ(read_file(path + ".bak"), std::string(kUnit - 1, 'a') + "b\n");
  EXPECT_EQ(read_file(record) + read_file(record + ".bak"), "r1\n" + std::string(kUnit, 't'));
  EXPECT_NE(access(dir.file("other.log").c_str(), F_OK), 0);
  set_log_level(-1);
  EXPECT_TRUE(!can_log(0) && can_log(-1));
  EXPECT_EQ(std::string(get_file_name("a/b/c")) + get_file_name("a/b/") + get_file_name(nullptr), "c");
}

// Reopening after a rotation fails only when the file cannot be made, as on a
// file system without free inodes: a child mounts one in a private mount
// namespace (root only).
TEST(Log, FailedReopenAfterRotationFallsBackToStderr) {
  TempDir dir;
  std::string fs = dir.file("fs"), path = fs + "/orv.log";
  mkdir(fs.c_str(), 0700);
  pid_t child = geteuid() == 0 ? fork() : -1;
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
  if (child > 0) waitpid(child, &status, 0);
  EXPECT_TRUE(child < 0 || (WIFEXITED(status) && (WEXITSTATUS(status) == 0 || WEXITSTATUS(status) == 77))) << status;
}

TEST(Clock, WallClockMicrosecondsLocalDateAndCoarseDates) {
  struct timeval before, after;
  std::string texts;
  do {  // at a stable second, so that the date agrees
    gettimeofday(&before, nullptr);
    texts = std::to_string(get_current_time()) + " " + get_gmt_date();
    gettimeofday(&after, nullptr);
  } while (before.tv_sec != after.tv_sec);
  int64_t now = std::stoll(texts);
  EXPECT_TRUE(now >= before.tv_sec * 1000000LL + before.tv_usec && now <= after.tv_sec * 1000000LL + after.tv_usec);
  struct tm t;
  localtime_r(&before.tv_sec, &t);
  EXPECT_EQ(texts.substr(texts.find(' ') + 1), std::to_string(t.tm_year + 1900) + "-" + std::to_string(t.tm_mon + 1) + "-" + std::to_string(t.tm_mday));
  EXPECT_EQ(std::to_string(compare_dates("2024-1-31", "2024-2-1")) + std::to_string(compare_dates("2024-3-1", "2024-2-28")) +
                std::to_string(compare_dates("2025-1-1", "2024-1-1")) + std::to_string(compare_dates("2024-2-1", "2024-03-1")),
            "03365-30");
}

const unsigned char* bytes(const char* s) { return reinterpret_cast<const unsigned char*>(s); }

TEST(Utility, ExactValuesAndBadArguments) {
  short high = 0, low = 0;
  decode_error(encode_error(-32768, 32767), high, low);
  EXPECT_TRUE(encode_error(1, -1) == 0x0001FFFF && high == -32768 && low == 32767);
  char* copy = clone_str("hello");
  EXPECT_STREQ(copy, "hello");
  free(copy);
  EXPECT_EQ(clone_str(nullptr), nullptr);
  EXPECT_TRUE(str_ends_with("lib.so.1", 6, ".so", 3) && str_ends_with("lib.so", 6, "", 0));  // the lengths decide
  EXPECT_FALSE(str_ends_with("lib.sa", 6, ".so", 3) || str_ends_with("so", 2, ".so", 3) ||
               str_ends_with(nullptr, 6, ".so", 3) || str_ends_with("lib.so", 6, nullptr, 0));
  EXPECT_EQ(std::to_string(string_to_int("  42abc")) + std::to_string(string_to_int("abc")) + std::to_string(string_to_int("99999999999")) +
                int_to_string(INT_MIN) + ll_to_string(LLONG_MAX), "4202147483647-21474836489223372036854775807");
  EXPECT_EQ(split(",a,,b;c", ",;"), (std::vector<std::string>{"", "a", "", "b", "c"}));
  EXPECT_EQ(split("abc", "").size() + split("", ",").size(), 2u);
  EXPECT_EQ(URLEncode(bytes("a b&c~\xff"), 7) + URLEncode(nullptr, 4) + URLEncode(bytes("x"), 0) + URLEncodedKEV("k y", "v=1/2"),
            "a%20b%26c~%FFk%20y=v%3D1%2F2");
  EXPECT_EQ(URLDecode("a+b%41", 6) + URLDecode("%6a%6A", 6) + URLDecode("50%4", 4) + URLDecode("a%zzb", 5) + URLDecode("x%41", 3) +
                URLDecode("ab%00cd", 7) + URLDecode(nullptr, 3), "a bAjjab");
  std::string domain = "old", directory = "old";
  get_url_domain_directory("https://h.example:80/p/q?x=1", domain, directory);
  EXPECT_EQ(domain + " " + directory + get_host_from_url("https://host.example:8443/a") + get_host_from_url("http://h") +
                get_resolve_ip_url("https://h.example:8443/a?b", "127.0.0.1") + get_resolve_ip_url("//h/x", "1"),
            "h.example:80 /p/q?x=1host.example:8443https://127.0.0.1/a?b");
  get_url_domain_directory("ftp://h.example/x", domain, directory);
  EXPECT_EQ(domain + directory, "");
  const unsigned char text[] = {'a', 0xC3, 0xA9, 0, 'b'};
  EXPECT_EQ(UTF8StrLen(text, 5) * 10 + UTF8StrLen(nullptr, 5) + UTF8StrLen(text, -1) + UTF8StrLen(reinterpret_cast<const unsigned char*>(UINTPTR_MAX - 3), 10), 20);
  EXPECT_TRUE(ptrToUTF8SymbolOffset(2, text, 5) == text + 3 && ptrToUTF8SymbolOffset(-1, text, 5) == nullptr);
  unsigned char hay[] = "here is a simple example";
  EXPECT_TRUE(boyer_moore(hay, 24, hay + 17, 7) == hay + 17 && boyer_moore(hay, 24, hay, 24) == hay);
  EXPECT_TRUE(boyer_moore(hay, 3, hay + 17, 7) == nullptr && boyer_moore(nullptr, 24, hay, 7) == nullptr);
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
  EXPECT_EQ(getFileSize(pipe) * 10 + getFileSize(nullptr), 40999);
  pclose(pipe);
  write_file(dir.file("nul"), std::string("ab\0cd", 5));
  EXPECT_EQ(read_all_content(dir.file("nul")) + read_all_content("") + read_all_content(dir.file("missing")) +
                read_all_content(dir.path()) + read_all_content(dir.file("n/x")), "ab");
  cJSON* root = read_json(R"({"a":{"b":[10,"x"]}})");
  cJSON* b = get_json_item(get_json_item(root, "a"), "b");
  EXPECT_EQ(get_json_array_item(b, 0)->valueint, 10);
  EXPECT_TRUE(!get_json_array_item(b, 2) && !get_json_array_item(b, 0x80000000u) && !get_json_item(root, nullptr) && !read_json("{bad"));
  cJSON_Delete(root);
  std::vector<int> ints{7};
  EXPECT_EQ(json_to_int_vector(R"({"k":[1,-2,3.9,"s"]})", "k", ints), 1);
  const size_t in_use = mallinfo2().uordblks;  // parsed trees are freed (under asan, LeakSanitizer says so)
  for (int i = 0; i < 2000; ++i) { std::vector<int> one; json_to_int_vector(R"({"k":[1]})", "k", one); }
  EXPECT_LT(mallinfo2().uordblks, in_use + 100000);
  EXPECT_EQ(ints, (std::vector<int>{7, 1, -2, 3, 0}));
  std::vector<std::string> strs;
  EXPECT_EQ(json_to_str_vector(R"({"k":["a",5]})", "k", strs) * 10 + json_to_str_vector("{", "k", strs), 10);
  EXPECT_EQ(strs, (std::vector<std::string>{"a", ""}));
}

// OpenSSL's digest of one input, fed in pieces of every size up to 130 bytes
// (and none), with bad pieces that add nothing.
TEST(Md5, MatchesOpenSslWhateverThePieces) {
  std::string data(5000, 'x');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 256);
  for (size_t len : {size_t{0}, size_t{55}, size_t{64}, size_t{5000}}) {
    unsigned char want[EVP_MAX_MD_SIZE], got[16];
    EVP_Digest(data.data(), len, want, nullptr, EVP_md5(), nullptr);
    for (size_t step = 1; step <= 130; step += 43) {
      md5_state_s state;
      md5_init(&state);
      md5_append(&state, nullptr, 10), md5_append(&state, bytes("abc"), -3);
      for (size_t at = 0; at < len; at += step) md5_append(&state, bytes(data.data()) + at, static_cast<int>(std::min(step, len - at)));
      md5_finish(&state, got);
      EXPECT_EQ(memcmp(got, want, 16), 0) << len << " " << step;
    }
  }
}

bool is_identity(const std::string& s) { return std::regex_match(s, std::regex("[0-9a-f]{32}")); }

// Paths are kept as given; UUIDs are fresh and laid out as 8-4-4-4-12 upper
// case; the identity is made once, kept in ORV_Ident.dat (its first 32 bytes,
// unchecked, unless short or holding a zero byte), shared by concurrent first
// callers, and made anew at each call where it cannot be kept.
TEST(Identity, PathsUuidsAndThePersistentIdentity) {
  PlatformPaths::setWriteableTempPath("/tmp/no-slash");
  PlatformPaths::setWriteableUserDataPath("/user/");
  EXPECT_EQ(PlatformPaths::getWriteableTempPath() + PlatformPaths::getWriteableUserDataPath(), "/tmp/no-slash/user/");
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) seen.insert(UUIDFactory::generateUUID());
  EXPECT_EQ(seen.size(), 100u);
  EXPECT_TRUE(std::regex_match(*seen.begin(), std::regex("[0-9A-F]{8}-([0-9A-F]{4}-){3}[0-9A-F]{12}"))) << *seen.begin();
  TempDir dir;
  std::string file = dir.file("ORV_Ident.dat");
  PlatformPaths::setWriteableLibraryDataPath(dir.path() + "/");
  std::vector<std::string> ids(16);
  for (int round = 0; round < 20; ++round) {  // thread stacks are reused: stale bytes must not count
    unlink(file.c_str());
    run_threads(16, [&ids](int i) { ids[i] = UUIDFactory::getIdentity(); });
    ASSERT_TRUE(is_identity(ids[0]) && std::set<std::string>(ids.begin(), ids.end()).size() == 1) << ids[0];
    ASSERT_EQ(read_file(file) + UUIDFactory::getIdentity(), ids[0] + ids[0]);  // 32 bytes, no line end
  }
  write_file(file, std::string(32, 'Z') + "-and-more\n");
  EXPECT_EQ(UUIDFactory::getIdentity(), std::string(32, 'Z'));
  for (const std::string& bad : {std::string(31, 'a'), std::string("abc\0", 4) + std::string(40, 'd')}) {
    write_file(file, bad);
    std::string fresh = UUIDFactory::getIdentity();
    EXPECT_TRUE(is_identity(fresh) && fresh != ids[0] && read_file(file) == fresh) << fresh;
  }
  for (const std::string& base : {file + "/", dir.path() + "/"}) {  // the parent a file; a folder in its place
    unlink(file.c_str());
    if (base == dir.path() + "/") mkdir(file.c_str(), 0700);
    PlatformPaths::setWriteableLibraryDataPath(base);
    std::string a = UUIDFactory::getIdentity(), b = UUIDFactory::getIdentity();
    EXPECT_TRUE(is_identity(a) && is_identity(b) && a != b) << base;
  }
}

TEST(Param, TypesAccessorsBodiesAndCopies) {
  int target = 0;
  paramBase ptr(static_cast<void*>(&target)), text("text");  // a literal is a string, not a bool
  EXPECT_EQ(paramBase(5).get_value_type() + paramBase(static_cast<signed char>(-1)).get_value_type() +
                paramBase(static_cast<short>(1)).get_value_type() + paramBase(1LL).get_value_type() +
                paramBase(true).get_value_type() + paramBase(2.5f).get_value_type() + ptr.get_value_type() + " " + text.valueString(),
            "iasxbfPv text");
  EXPECT_TRUE(paramBase(static_cast<signed char>(-1)).valueInt8() == -1 && paramBase(static_cast<short>(-300)).valueInt16() == -300 &&
              paramBase(1234567890123LL).valueInt64() == 1234567890123LL && paramBase(-7).valueInt32() == -7 &&
              paramBase(true).valueBool() && paramBase(2.5f).valueFloat() == 2.5f && ptr.valuePtr() == &target);
  paramBase p(1);
  EXPECT_EQ(p._instance->_instance, p._instance);  // a body points to itself
  p = 2.0f;
  p = std::string("x");
  EXPECT_EQ(p.get_value_type(), text.get_value_type());
  EXPECT_THROW(p = static_cast<const char*>(nullptr), std::logic_error);
  paramBase* copy = p.copyInstance();
  *copy = std::string("changed");
  EXPECT_EQ(p.valueString() + copy->valueString(), "xchanged");
  delete copy;
  p.clearOldInstance();
  EXPECT_TRUE(p.copyInstance() == nullptr && p.get_value_type().empty());
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
    auto* key = static_cast<const std::string*>(dlsym(RTLD_DEFAULT, ("_ZN3orv" + std::to_string(name.size()) + name + "B5cxx11E").c_str()));
    ASSERT_NE(key, nullptr) << name;
    EXPECT_EQ("\"" + *key + "\"", value) << name;
  }
  EXPECT_EQ(keys, 73);
}

TEST(PCMQueueArguments, BadArgumentsChangeNothingInEitherMode) {
  unsigned char six[6] = {0, 1, 2, 3, 4, 5}, out[20];
  orv_shared_ptr<PCMQueue> ring = PCMQueue::newQueue(10), linear = PCMQueue::newQueue(0);
  EXPECT_TRUE(ring->m_isRing && linear->m_buffer == nullptr);
  for (PCMQueue* q : {ring.getPTR(), linear.getPTR()}) {
    q->queueAudio(six, 6);
    q->shiftSize(2);
    EXPECT_EQ(q->queueAudio(nullptr, 3) * 10 + q->queueAudio(six, -1), -11);
    EXPECT_EQ(q->queueAudio(nullptr, 0), 4);
    EXPECT_EQ(q->readSamples(nullptr, 3, true) + q->dequeSamples(out, -3, true) + q->shiftSize(-3) +
                  q->readSamples(out, 20, -1, 3, true) + q->readSamples(nullptr, 20, 0, 3, true), 0);
    EXPECT_EQ(q->readSamples(out, 4, false) * 10 + out[0], 42);
  }
  EXPECT_EQ(ring->readSamples(out, 20, 0, 3, true) + ring->m_logicalPos * 10 + linear->m_logicalPos, 20);  // ranges: linear only
  linear->reset();  // linear consumption never counts, reset does
  EXPECT_EQ(linear->m_logicalPos, 4);
}

}  // namespace
