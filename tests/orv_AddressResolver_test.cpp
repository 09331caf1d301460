#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/test_support.h"

namespace {

using orv_test::has;
using orv::Memory::orv_shared_ptr;
using orv::Networking::orv_address_resolver;
using orv::Networking::orv_address_resolver_imp;

orv_address_resolver_imp* imp(orv_shared_ptr<orv_address_resolver>& r) {
  return static_cast<orv_address_resolver_imp*>(r.getPTR());
}

std::string text(const char* s) { return s != nullptr ? s : "(null)"; }

TEST(AddressResolver, ParsingKeepsAPortWithoutPathInTheHost) {
  orv_shared_ptr<orv_address_resolver> r = orv_address_resolver::allocate();
  orv_address_resolver_imp* p = imp(r);

  p->parseComponents("https://speech.example/a");
  EXPECT_EQ(text(p->_protocol), "https://");
  EXPECT_EQ(text(p->_host), "speech.example");
  EXPECT_EQ(text(p->_path), "/a");

  p->parseComponents("speech.example");
  EXPECT_EQ(p->_protocol, nullptr);
  EXPECT_EQ(text(p->_host), "speech.example");
  EXPECT_EQ(p->_path, nullptr);

  p->parseComponents("http://host:8080/x/y");  // a port before a '/' is split off
  EXPECT_EQ(text(p->_host), "host");
  EXPECT_EQ(text(p->_path), ":8080/x/y");

  p->parseComponents("http://host:8080");  // no '/' after the port: it stays in the host
  EXPECT_EQ(text(p->_host), "host:8080");
  EXPECT_EQ(p->_path, nullptr);

  p->parseComponents("http:///path");
  EXPECT_EQ(p->_host, nullptr);

  std::string host = "unchanged";
  orv_shared_ptr<char> result;
  EXPECT_EQ(r->resolveAddressFromHost("http:///nohost", &result, 1000, &host), 5);
  EXPECT_EQ(result.getPTR(), nullptr);
  EXPECT_EQ(r->resolveAddressFromHost("", &result, 1000, nullptr), 5);
}

// The rule of the resolver applied to our own lookup: IPv6 first, bracketed.
std::string expected_address(const char* name) {
  struct addrinfo hints;
  memset(&hints, 0, sizeof(hints));
  struct addrinfo* list = nullptr;
  if (getaddrinfo(name, nullptr, &hints, &list) != 0) return "";
  char v6[92] = "", v4[92] = "";
  for (struct addrinfo* e = list; e != nullptr; e = e->ai_next) {
    if (e->ai_family == AF_INET6 && v6[0] == '\0') {
      inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(e->ai_addr)->sin6_addr, v6, sizeof(v6));
    } else if (e->ai_family == AF_INET && v4[0] == '\0') {
      inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(e->ai_addr)->sin_addr, v4, sizeof(v4));
    }
  }
  freeaddrinfo(list);
  return std::string("[") + (v6[0] != '\0' ? v6 : v4) + "]";
}

TEST(AddressResolver, LocalhostResolvesLikeOurOwnLookup) {
  std::string expected = expected_address("localhost");
  ASSERT_NE(expected, "");
  orv_shared_ptr<orv_address_resolver> r = orv_address_resolver::allocate();
  orv_shared_ptr<char> result;
  std::string host;
  EXPECT_EQ(r->resolveAddressFromHost("http://localhost/asr?x=1", &result, 5000, &host), 0);
  EXPECT_EQ(host, "localhost");
  ASSERT_NE(result.getPTR(), nullptr);
  EXPECT_EQ(std::string(result.getPTR()), "http://" + expected + "/asr?x=1");

  // A numeric IPv4 host comes back bracketed like IPv6, on purpose.
  EXPECT_EQ(r->resolveAddressFromHost("127.0.0.1", &result, 0, nullptr), 0);
  EXPECT_EQ(std::string(result.getPTR()), "[127.0.0.1]");

  // A port without a path makes the lookup fail: the URL comes back unchanged.
  orv::set_log_level(orv::LOG_ERROR);
  orv_test::StderrCapture capture;
  EXPECT_EQ(r->resolveAddressFromHost("http://localhost:8080", &result, 5000, &host), 0);
  std::string log = capture.text();
  orv::set_log_level(0);
  EXPECT_EQ(host, "localhost:8080");
  EXPECT_EQ(std::string(result.getPTR()), "http://localhost:8080");
  EXPECT_TRUE(has(log, "[orv_AddressResolver_getaddrinfo.cpp:118]getaddrinfo failed with error ")) << log;

  // Dropping the resolver right away is safe: the lookup keeps it alive.
  orv_shared_ptr<orv_address_resolver> once = orv_address_resolver::allocate();
  EXPECT_EQ(once->resolveAddressFromHost("localhost", nullptr, 0, nullptr), 0);
  once.releaseManagedPointer();
}

// Runs body in a child process inside private network and mount namespaces
// (loopback only) where /etc/resolv.conf names a server on 127.0.0.1:53 that
// never answers: any lookup of a name outside /etc/hosts hangs there for five
// seconds and nothing leaves the machine. Exit status 77 means "cannot set up".
int run_with_silent_dns(const std::function<int()>& body) {
  pid_t child = fork();
  if (child < 0) return 77;
  if (child == 0) {
    char conf[] = "/tmp/orv_resolv_XXXXXX";
    int fd = mkstemp(conf);
    if (fd < 0) _exit(77);
    const char content[] = "nameserver 127.0.0.1\noptions timeout:5 attempts:1\n";
    if (write(fd, content, sizeof(content) - 1) < 0) _exit(77);
    close(fd);
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) _exit(77);
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(77);
    if (mount(conf, "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0) _exit(77);
    unlink(conf);
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq ifr;
    memset(&ifr, 0, sizeof(ifr));
    strcpy(ifr.ifr_name, "lo");
    ioctl(s, SIOCGIFFLAGS, &ifr);
    ifr.ifr_flags |= IFF_UP;
    if (ioctl(s, SIOCSIFFLAGS, &ifr) != 0) _exit(77);
    struct sockaddr_in dns;
    memset(&dns, 0, sizeof(dns));
    dns.sin_family = AF_INET;
    dns.sin_port = htons(53);
    dns.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(s, reinterpret_cast<sockaddr*>(&dns), sizeof(dns)) != 0) _exit(77);
    _exit(body());  // the silent server socket stays open until the child exits
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 99;
}

#define CHILD_CHECK(cond, code) \
  do {                          \
    if (!(cond)) return code;   \
  } while (0)

TEST(AddressResolver, TimeOutAndCancelWithAHangingLookup) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a private network namespace";
  // The child needs the thread pool; a fork taken after pool threads exist
  // would inherit the pool without its threads. CTest runs each test alone.
  // (An emulator has threads of its own: the count says nothing there.)
  if (!orv_test::under_user_emulation() && orv_test::thread_count() > 1) {
    GTEST_SKIP() << "run this test in a fresh process";
  }
  int status = run_with_silent_dns([] {
    using Clock = std::chrono::steady_clock;
    orv_shared_ptr<orv_address_resolver> r = orv_address_resolver::allocate();
    orv_shared_ptr<char> result;
    std::string host;

    // Time-out: the hanging lookup loses against a 300 ms timer.
    Clock::time_point start = Clock::now();
    int code = r->resolveAddressFromHost("https://speech.orv-test.invalid/v1", &result, 300, &host);
    long waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    CHILD_CHECK(code == 1, 10);
    CHILD_CHECK(result.getPTR() == nullptr, 11);
    CHILD_CHECK(host == "speech.orv-test.invalid", 12);
    CHILD_CHECK(waited >= 290 && waited < 4000, 13);

    // Cancel during the wait, with no time-out.
    std::thread canceller([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      r->cancelResolution();
    });
    start = Clock::now();
    code = r->resolveAddressFromHost("http://other.orv-test.invalid/", &result, 0, nullptr);
    waited = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    canceller.join();
    CHILD_CHECK(code == 7, 20);
    CHILD_CHECK(waited < 4000, 21);
    CHILD_CHECK(result.getPTR() == nullptr, 22);

    // A name in /etc/hosts still resolves through the same resolver.
    code = r->resolveAddressFromHost("http://localhost/", &result, 4000, nullptr);
    CHILD_CHECK(code == 0 && result.getPTR() != nullptr, 30);
    return 0;
  });
  if (status == 77) GTEST_SKIP() << "cannot create a private network namespace here";
  EXPECT_EQ(status, 0) << "failed check " << status;
}

TEST(AddressResolver, CancelBeforeTheWaitReturnsCancelled) {
  // A cancel that lands between the reset and the wait wins; one made before
  // the call is reset by it. Drive the first case with a cancelling thread
  // that races the call until it wins once.
  orv_shared_ptr<orv_address_resolver> r = orv_address_resolver::allocate();
  r->cancelResolution();
  EXPECT_EQ(r->resolveAddressFromHost("127.0.0.1", nullptr, 0, nullptr), 0);
  bool saw_cancel = false;
  for (int i = 0; i < 200 && !saw_cancel; ++i) {
    std::thread canceller([&] { r->cancelResolution(); });
    int code = r->resolveAddressFromHost("127.0.0.1", nullptr, 0, nullptr);
    canceller.join();
    EXPECT_TRUE(code == 0 || code == 7) << code;
    saw_cancel = code == 7;
  }
  if (!saw_cancel) GTEST_SKIP() << "the cancel never landed during a resolution";
}

}  // namespace
