// One-shot HTTP: the request and response objects, the URL helpers and the
// OpenSSL locks; execute against the loopback server (shapes, outcomes and
// faults, each with its bound and its log lines) and address pinning; the
// address resolver.
#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>
#include <openssl/crypto.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"
#include "support/thread_test_support.h"

namespace {

using namespace orv::Networking;
using namespace orv_test;
using orv::Memory::orv_shared_ptr;
typedef orv_http_request_maker Maker;
typedef orv_shared_ptr<orv_HttpRequest> Request;
typedef std::chrono::milliseconds ms;

Request make(const std::string& url, const std::string& body = "", int timeout_ms = -1,
             const std::string& origin = "") {
  Request r = orv_HttpRequest::requestWithUrl(url);
  r->_timeout_ms = timeout_ms;
  r->_origin_URL = origin;
  r->_headers = {{"X-Zeta", "last"}, {"Content-Type", "application/json"}, {"X-Alpha", "first"}};
  r->_post_data = orv_shared_ptr<unsigned char>(new unsigned char[body.size() + 1],
                                                &orv_shared_ptr<unsigned char>::arrayDestructor);
  memcpy(r->_post_data.getPTR(), body.data(), body.size());
  r->_post_data_len = static_cast<int32_t>(body.size());
  return r;
}

// Each call of the cancel callback: the strong count of its argument, whether
// the request's lock is free and whether the request is cancelled.
Request* g_request;
std::string g_calls;
void on_cancel(orv::Memory::orv_shared_ptr_base* copy) {
  g_calls += std::to_string(strong_count(*copy)) + (held_elsewhere(*(*g_request)->_lock) ? " held" : " free") +
             ((*g_request)->isCancelled() ? " cancelled;" : ";");
}

TEST(HttpObjects, ResponseGrowthCancelCallbackUrlHelpersAndOpensslLocks) {
  orv::set_log_level(orv::LOG_ERROR);
  orv_shared_ptr<orv_HttpResponse> r = orv_HttpResponse::alloc();
  StderrCapture capture;
  r->receive_new_data("ab", 2);
  r->receive_new_data("y", 0);
  r->receive_new_data("\0x", 2);  // bytes as given, NULs included
  r->receive_new_data(nullptr, 3);
  r->_error_code = 2;  // from here on nothing is kept, nor logged
  r->receive_new_data("zz", 2);
  r->receive_new_data(nullptr, 0);
  EXPECT_FALSE(Maker::execute(Request()) || Maker::execute(orv_HttpRequest::requestWithUrl(orv_shared_ptr<char>())) ||
               Maker::execute(make("")));
  std::string log = capture.text();
  EXPECT_EQ(occurrences(log, "][orv_HttpResponse.cpp:33][ASRResponse::receive_new_data] data is NULL or len is 0\n"), 2);
  EXPECT_EQ(occurrences(log, "][orv_HttpRequestMaker.cpp:100][ASRHttpTask::execute] request is NULL\n"), 1);
  EXPECT_EQ(occurrences(log, "][orv_HttpRequestMaker.cpp:106][ASRHttpTask::execute] URL is NULL or empty\n"), 2);
  EXPECT_EQ(std::string(r->_data.getPTR(), r->_length), std::string("ab\0x", 5));  // NUL-ended

  std::string url = "http://a";
  Request request = orv_HttpRequest::requestWithUrl(url);
  url.assign("overwritten, and longer than before");
  EXPECT_STREQ(request->_url.getPTR(), "http://a");
  EXPECT_EQ(orv_HttpRequest::requestWithUrl(request->_url)->_url._control, request->_url._control);
  orv_shared_ptr<int> param(new int(7));
  request->_cancel_callback = &on_cancel;
  request->_cancel_callback_param = param.getRefPtr();
  g_request = &request;
  request->cancel();
  request->cancel();
  EXPECT_EQ(g_calls, "3 free cancelled;3 free cancelled;");  // a fresh copy beside the request's and ours
  request = Request();
  EXPECT_EQ(strong_count(param), 1);

  // The pinned port is 443 whatever the URLs say; a URL without a path after
  // its host has no host here.
  char ip[] = "https://10.1.2.3:8443/v1/asr?x=1";
  EXPECT_EQ(Maker::get_resolve_dns_map("https://speech.example/v1", ip) + " " +
                Maker::get_host_url("https://speech.example/v1", ip) + " " +
                Maker::get_resolve_dns_map("https://speech.example", ip),
            "speech.example:443:10.1.2.3:8443 https://speech.example/v1/asr?x=1 ");

  // The OpenSSL locks: installed once; SIGPIPE blocked in the calling thread.
  OpensslThreadLock::init_locks();
  std::vector<orv::Threads::Synchronization::AppMutex*> locks = OpensslThreadLock::_s_lock_array;
  OpensslThreadLock::init_locks();
  sigset_t mask;
  EXPECT_TRUE(OpensslThreadLock::_s_lock_array == locks && locks.size() == static_cast<size_t>(CRYPTO_num_locks()));
  EXPECT_TRUE(pthread_sigmask(SIG_BLOCK, nullptr, &mask) == 0 && sigismember(&mask, SIGPIPE));
  OpensslThreadLock::lock_callback(CRYPTO_LOCK | CRYPTO_READ, 0, __FILE__, __LINE__);
  bool held = held_elsewhere(*locks[0]);
  OpensslThreadLock::lock_callback(CRYPTO_UNLOCK | CRYPTO_READ, 0, nullptr, 0);
  EXPECT_TRUE(held && !held_elsewhere(*locks[0]) && OpensslThreadLock::id_callback() == pthread_self());
  OpensslThreadLock::clean_locks();
  EXPECT_TRUE(!OpensslThreadLock::_s_has_initialized && OpensslThreadLock::_s_lock_array.empty());
}

// Each request carries the headers X-Zeta, Content-Type and X-Alpha, and the
// origin URL that follows "?o=" in its URL, if any. A transport failure shows
// only in the log and in the body that came: status 200, error code 0; a
// cancel gives error code 2. Every case has its bound.
TEST(Execute, ShapesOutcomesAndFaults) {
  HttpTestServer server;
  ASSERT_TRUE(server.start()) << server.error();
  orv::set_log_level(orv::LOG_DEBUG);
  const std::string h = server.http_url(""), pattern = stream_pattern(300000);
  const struct {
    std::string url, post;
    int timeout_ms;
    bool cancel;  // while waiting for the answer
    std::string outcome;              // "<status> <error> <body>", or "*" for any
    std::vector<std::string> seen;  // in the body, the headers ("[name]=[value]") or the log; "!": not
  } cases[] = {
      {h + "/body?body=hi", "", -1, false, "200 0 hi",
       {"[DEBUG]-[", "][orv_HttpRequestMaker.cpp:121][ASRHttpTask::execute] url = " + h + "/body?body=hi\n",
        "][orv_HttpRequestMaker.cpp:167][ASRHttpTask::execute][curl_code=0, http_stauts=200, response_len=2] "
        "receive response: hi\n", "!curl error!", "[Content-Length]=[2]"}},
      {h + "/body?status=404&n=300000", "", -1, false, "404 0 " + pattern, {}},  // pieces appended
      // The map's headers in key order (the Content-Type replaces libcurl's), no Expect.
      {h + "/echo", std::string("a=1\0&b", 6), -1, false, "*",
       {"\"method\":\"POST\"", "\"body\":\"a=1\\u0000&b\"", "!Expect", "!x-www-form-urlencoded",
        "\"Content-Type: application/json\",\"X-Alpha: first\",\"X-Zeta: last\""}},
      {h + "/echo", "", -1, false, "*", {"\"method\":\"GET\"", "\"body\":\"\""}},  // no body: a GET
      // Only a URL starting with https:// is secure: no resolve entry here.
      {h + "/echo?o=https://localhost/echo&next=https://x/y", "", -1, false, "*", {"\"host\":\"127.0.0.1:"}},
      {"http://127.0.0.1:1/", "", -1, false, "200 0 ",
       {"[ERROR]-[", "[curl_code=7, http_stauts=0, response_len=0] receive response: \n",
        "][orv_HttpRequestMaker.cpp:175][ASRHttpTask::execute][curl_code=7] curl error!\n"}},
      {h + "/fault/reset", "", 5000, false, "200 0 ", {"curl error!"}},
      {h + "/fault/stall?delay=20", "", 700, false, "200 0 ", {"[curl_code=28] curl error!"}},
      {h + "/body?n=100&length=1000", "", 5000, false, "200 0 " + pattern.substr(0, 100),
       {"[curl_code=18] curl error!"}},
      {h + "/fault/huge?count=1&size=1000000", "", 10000, false, "200 0 ", {"curl error!", "![X-Big"}},
      {h + "/fault/reset?after=65536", std::string(4 << 20, 'u'), 10000, false, "200 0 ",
       {"curl error!"}},  // the server dies mid-upload
      // Whether the 503 status line came before the cancel or not, the status stays 200.
      {h + "/stream?status=503&stall_after=0&stall=60000", "", 15000, true, "200 2 ",
       {"][orv_HttpRequestMaker.cpp:172][ASRHttpTask::execute] curl is aborted by call back\n",
        "[curl_code=42, ", "!curl error!"}}, };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.url);
    size_t at = c.url.find("?o=");
    Request request = make(c.url, c.post, c.timeout_ms, at == std::string::npos ? "" : c.url.substr(at + 3));
    int arrived = server.count("/stream");
    std::thread canceller([&] {
      if (c.cancel && wait_until([&] { return server.count("/stream") > arrived; })) request->cancel();
    });
    StderrCapture capture;
    auto start = std::chrono::steady_clock::now();
    orv_shared_ptr<orv_HttpResponse> r = Maker::execute(request);
    EXPECT_LT(std::chrono::steady_clock::now() - start, ms(std::max(c.timeout_ms, 0) + 10000));
    canceller.join();
    std::string outcome = std::to_string(r->_http_status) + " " + std::to_string(r->_error_code) + " " + body_of(r);
    std::string seen = body_of(r) + capture.text();
    for (const auto& header : r->_headers) seen += "[" + header.first + "]=[" + header.second + "]";
    EXPECT_TRUE(c.outcome == "*" || outcome == c.outcome) << outcome.substr(0, 100);
    for (const std::string& part : c.seen) {
      EXPECT_NE(has(seen, part[0] == '!' ? part.substr(1) : part), part[0] == '!') << part << "\n" << seen;
    }
  }
}

TEST(Execute, PinnedRequestGoesByNameToTheAddressAndTheNameIsChecked) {
  HttpTestServer server;
  ASSERT_TRUE(server.start(true)) << server.error();
  if (server.pinned_port() != 443) {
    GTEST_SKIP() << "cannot listen on 127.0.0.1:443 (needs root or CAP_NET_BIND_SERVICE, and a free "
                    "port): address pinning is not tested";
  }
  orv::set_log_level(orv::LOG_ERROR);
  for (std::string name : {HttpTestServer::kPinnedHost, "other.orv-pinned.example"}) {
    Request request = make("https://127.0.0.1/echo?q=1", "", -1, "https://" + name + "/echo?q=1");
    StderrCapture capture;
    std::string echo = body_of(Maker::execute(request)), log = capture.text();
    if (name == HttpTestServer::kPinnedHost) {  // by name, only through the pinned address
      EXPECT_TRUE(has(echo, "\"host\":\"" + name + "\"") && has(echo, "\"path\":\"/echo?q=1\"")) << echo;
      Maker::network_connect(request);  // reaches the server too
    } else {  // 60: the certificate does not name the host
      EXPECT_TRUE(echo.empty() && has(log, "[ASRHttpTask::execute][curl_code=60] curl error!\n")) << log;
    }
  }
  EXPECT_EQ(server.count("/echo"), 2);
}

std::string text(const char* s) { return s != nullptr ? s : "(null)"; }

TEST(AddressResolver, ResolvesLocalNames) {
  orv_shared_ptr<orv_address_resolver> r = orv_address_resolver::allocate();
  orv_shared_ptr<char> result;
  auto resolve = [&](const char* url, int timeout_ms) {  // "<code> <host> <result>"
    std::string host = "-";
    int code = r->resolveAddressFromHost(url, &result, timeout_ms, &host);
    return std::to_string(code) + " " + host + " " + text(result.getPTR());
  };
  EXPECT_EQ(resolve("http:///nohost", 1000), "5 - (null)");
  // IPv6 first when there is one; IPv4 bracketed too, on purpose.
  addrinfo hints{}, *v6 = nullptr;
  hints.ai_family = AF_INET6;
  std::string localhost = getaddrinfo("localhost", nullptr, &hints, &v6) == 0 ? "[::1]" : "[127.0.0.1]";
  if (v6 != nullptr) freeaddrinfo(v6);
  EXPECT_EQ(resolve("http://localhost/asr?x=1", 5000), "0 localhost http://" + localhost + "/asr?x=1");
  r->cancelResolution();  // a cancel made before a call is reset by it
  EXPECT_EQ(resolve("127.0.0.1", 0), "0 127.0.0.1 [127.0.0.1]");
  // A port is split off only before a '/': without one the lookup fails and
  // the URL comes back unchanged.
  orv::set_log_level(orv::LOG_ERROR);
  StderrCapture capture;
  EXPECT_EQ(resolve("http://localhost:8080", 5000), "0 localhost:8080 http://localhost:8080");
  EXPECT_TRUE(has(capture.text(), "[orv_AddressResolver_getaddrinfo.cpp:118]getaddrinfo failed with error "));
  // Dropped at once: the lookup keeps the resolver alive.
  EXPECT_EQ(orv_address_resolver::allocate()->resolveAddressFromHost("localhost", nullptr, 0, nullptr), 0);
}

// In a child inside private network and mount namespaces (loopback only)
// whose /etc/resolv.conf names a server on 127.0.0.1:53 that never answers, a
// lookup of a name outside /etc/hosts hangs for five seconds and nothing
// leaves the machine. The child's exit status: 0, the failed check, 77 (cannot
// set up) or 99 (died, or hung).
TEST(AddressResolver, TimeOutAndCancelOfAHangingLookup) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root for a private network namespace";
  // A fork taken after pool threads exist would have the pool without its
  // threads. (An emulator has threads of its own: the count says nothing there.)
  if (!under_user_emulation() && count_threads_named("") > 1) GTEST_SKIP() << "run this test in a fresh process";
  TempDir dir;
  const std::string conf = dir.file("resolv.conf");
  write_file(conf, "nameserver 127.0.0.1\noptions timeout:5 attempts:1\n");
  pid_t child = fork();
  if (child == 0) {
    alarm(60);
    int s = -1;
    ifreq lo{};
    strcpy(lo.ifr_name, "lo");
    sockaddr_in dns{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(conf.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0 ||
        (s = socket(AF_INET, SOCK_DGRAM, 0)) < 0 || ioctl(s, SIOCGIFFLAGS, &lo) != 0 ||
        (lo.ifr_flags |= IFF_UP, ioctl(s, SIOCSIFFLAGS, &lo)) != 0 ||
        bind(s, reinterpret_cast<sockaddr*>(&dns), sizeof(dns)) != 0) {
      _exit(77);
    }
    orv_shared_ptr<orv_address_resolver> r = orv_address_resolver::allocate();
    orv_shared_ptr<char> result;
    std::string host;
    auto start = std::chrono::steady_clock::now();
    if (r->resolveAddressFromHost("https://speech.orv-test.invalid/v1", &result, 300, &host) != 1) _exit(10);
    if (result || host != "speech.orv-test.invalid" || std::chrono::steady_clock::now() - start < ms(290)) _exit(11);
    // Cancels until the call returns: those made before it are reset by it.
    std::atomic<bool> returned{false};
    std::thread canceller([&] { wait_until([&] { return r->cancelResolution(), returned.load(); }); });
    int code = r->resolveAddressFromHost("http://other.orv-test.invalid/", &result, 0, nullptr);
    returned = true;
    canceller.join();
    if (code != 7 || result) _exit(20);
    // The same resolver still works for a name in /etc/hosts.
    _exit(r->resolveAddressFromHost("http://localhost/", &result, 4000, nullptr) == 0 && result ? 0 : 30);
  }
  int status = 0;
  waitpid(child, &status, 0);
  int failed = child > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : 99;
  if (failed == 77) GTEST_SKIP() << "cannot create a private network namespace here";
  EXPECT_EQ(failed, 0) << "failed check " << failed;
}

}  // namespace
