// The access token against the loopback token endpoint: when keys make it
// fetch, waiters sharing one fetch and cancelling only their own wait, every
// failure text word for word (misbehaving endpoints included, each within the
// fetch's time-out), the log lines, and a fetch outliving its owner.
#include <string.h>

#include <chrono>
#include <future>
#include <string>
#include <utility>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"

namespace {

using namespace orv_test;
using orv::orv_AccessToken;
using orv::Memory::orv_shared_ptr;
typedef orv_shared_ptr<orv_AccessToken> Token;
typedef std::chrono::seconds s;

orv_shared_ptr<char> str(const char* text) {
  char* block = new char[strlen(text) + 1];
  strcpy(block, text);
  return orv_shared_ptr<char>(block, &orv_shared_ptr<char>::arrayDestructor);
}

std::string text_of(const orv_shared_ptr<char>& p) { return p ? p.getPTR() : "<null>"; }

// One getAccessToken call: "<token> <error slot>".
std::string fetch(const Token& t, bool* cancel = nullptr) {
  orv_shared_ptr<char> error;
  std::string token = text_of(t->getAccessToken(&error, cancel));
  return token + " " + text_of(error);
}

std::future<std::string> fetch_async(const Token& t, bool* cancel = nullptr) {
  return std::async(std::launch::async, [t, cancel] { return fetch(t, cancel); });
}

template <class T>
bool ready(std::future<T>& f, s bound = s(0)) {
  return f.wait_for(bound) == std::future_status::ready;
}

// No fetch in flight (the condition word, read under its mutex).
bool settled(const Token& t) {
  t->m_condition->Lock();
  bool is_settled = t->m_condition->_condition == 1;
  t->m_condition->Unlock();
  return is_settled;
}

TEST(AccessTokenEndpoint, DefaultComesFromTheBuildAndTheSetterReplacesIt) {
  std::string endpoint = orv_AccessToken::getTokenEndpoint();
  EXPECT_EQ(endpoint, ORV_TOKEN_ENDPOINT_DEFAULT);
  EXPECT_TRUE(endpoint.rfind("https://", 0) == 0 && has(endpoint, "/oauth/2.0/token")) << endpoint;
  orv_AccessToken::setTokenEndpoint("http://127.0.0.1:1/oauth/2.0/token");
  EXPECT_EQ(orv_AccessToken::getTokenEndpoint(), "http://127.0.0.1:1/oauth/2.0/token");
}

class AccessToken : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()) << server.error(); }
  Token keyed(const std::string& endpoint) {
    orv_AccessToken::setTokenEndpoint(endpoint);
    Token t = orv_AccessToken::alloc();
    t->setKeys(str("api"), str("secret"));
    return t;
  }
  // A held fetch has reached the server.
  void await_held() { ASSERT_TRUE(wait_until([&] { return server.stat("held") == 1; })); }
  HttpTestServer server;
};

TEST_F(AccessToken, KeysDecideWhatIsFetched) {
  orv_AccessToken::setTokenEndpoint(server.token_url("answer=client"));  // tokens name their keys
  Token t = orv_AccessToken::alloc();
  EXPECT_FALSE(t->isApiKeyInfoSet() || t->getAccessToken(nullptr, nullptr));
  EXPECT_EQ(fetch(t), "<null> NO API/SECRET KEY");
  // A missing key: no fetch, not even on a reset.
  t->setKeys(str("api"), orv_shared_ptr<char>());
  t->resetAccessToken();
  EXPECT_EQ(fetch(t), "<null> NO API/SECRET KEY");
  EXPECT_EQ(server.token_fetches(), 0);
  // Empty keys pass setKeys (one fetch; the form has them as they are) but do
  // not count as set.
  t->setKeys(str(""), str(""));
  EXPECT_EQ(fetch(t), "tok---1 <null>");
  EXPECT_FALSE(t->isApiKeyInfoSet());
  t->setKeys(str("api-1"), str("secret-1"));
  EXPECT_TRUE(t->isApiKeyInfoSet());
  EXPECT_EQ(fetch(t), "tok-api-1-secret-1-2 <null>");
  // The same keys in fresh blocks: compared by content, nothing fetched.
  t->setKeys(str("api-1"), str("secret-1"));
  EXPECT_TRUE(settled(t));
  EXPECT_EQ(fetch(t), "tok-api-1-secret-1-2 <null>");
  orv_AccessToken::setTokenEndpoint(server.https_url("/oauth/2.0/token?answer=client"));
  t->resetAccessToken();
  EXPECT_EQ(fetch(t), "tok-api-1-secret-1-3 <null>");
  t->setKeys(str("api-1"), str("secret-2"));  // only the secret differs: a change too
  EXPECT_EQ(fetch(t), "tok-api-1-secret-2-4 <null>");
  EXPECT_EQ(server.token_fetches(), 4);
}

TEST_F(AccessToken, WaitersShareOneFetchAndCancelOnlyTheirOwnWait) {
  orv::set_log_level(orv::LOG_TRACE);
  StderrCapture capture;
  Token t = keyed(server.token_url("body=x"));
  ASSERT_TRUE(wait_until([&] { return settled(t); }));
  // No token and no fetch in flight: the first caller starts one, callers
  // arriving while it is held wait for that same fetch.
  orv_AccessToken::setTokenEndpoint(server.token_url("hold=1"));
  std::future<std::string> starter = fetch_async(t);
  await_held();
  bool cancel_a = false, cancel_b = false, cancel_d = false;
  std::future<std::string> a = fetch_async(t, &cancel_a), b = fetch_async(t, &cancel_b), c = fetch_async(t);
  // Without an error slot a cancel cannot be told: this caller keeps waiting.
  std::future<orv_shared_ptr<char>> d =
      std::async(std::launch::async, [t, &cancel_d] { return t->getAccessToken(nullptr, &cancel_d); });
  t->cancelTokenWaitWithHandle(&cancel_a);
  t->cancelTokenWaitWithHandle(&cancel_d);
  t->cancelTokenWaitWithHandle(nullptr);  // only logs
  ASSERT_TRUE(ready(a, s(20)));
  EXPECT_EQ(a.get(), "<null> Cancelled");
  EXPECT_FALSE(ready(starter) || ready(b) || ready(c) || ready(d));
  server.release_token();
  for (std::future<std::string>* f : {&starter, &b, &c}) {
    ASSERT_TRUE(ready(*f, s(20)));
    EXPECT_EQ(f->get(), "orv-token-2 <null>");
  }
  ASSERT_TRUE(ready(d, s(20)));
  EXPECT_EQ(text_of(d.get()), "orv-token-2");
  EXPECT_EQ(server.token_fetches(), 2);
  // A flag set before the call, with a fetch in flight, cancels at once.
  t->resetAccessToken();
  await_held();
  bool early = true;
  EXPECT_EQ(fetch(t, &early), "<null> Cancelled");
  server.release_token();
  EXPECT_EQ(fetch(t), "orv-token-3 <null>");

  std::string log = capture.text();
  EXPECT_EQ(occurrences(log, "[ERROR]-["), 1) << log;
  EXPECT_EQ(occurrences(log, "][ORVAccessToken.cpp:117]Must provide a handle for cancelling\n"), 1);
  EXPECT_TRUE(has(log, "[TRACE]-[") && has(log, "][ORVAccessToken.cpp:131]Accesstoken get was cancelled!\n"));
  // The request body, secret key in clear, the raw answers, and the state
  // before and after the fetch that getAccessToken started.
  for (const char* line :
       {"][ORVAccessToken.cpp:239]Access token request: grant_type=client_credentials&client_id=api&client_secret=secret\n",
        "][ORVAccessToken.cpp:267]Access token response: x\n",
        "][ORVAccessToken.cpp:267]Access token response: {\"access_token\": \"orv-token-2\", \"expires_in\": 2592000}\n",
        "][ORVAccessToken.cpp:159]get accessToken, skey: secret, apikey: api, accessToken: (null), "
        "lastError: FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)\n",
        "][ORVAccessToken.cpp:176]get accessToken, skey: secret, apikey: api, accessToken: orv-token-2, "
        "lastError: (null)\n"}) {
    EXPECT_TRUE(has(log, line)) << line << log;
  }
}

TEST_F(AccessToken, FailureTextsWordForWord) {
  const std::string empty = "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)";
  const std::string unparsable = "FAILED TO GET ACCESS TOKEN, FAILED TO PARSE RESPONSE!";
  const std::string unknown = "Unknown error while getting access token. JSON is missing both "
                              "access_token and error_description fields";
  const std::pair<std::string, std::string> cases[] = {
      {server.token_url("body=x"), empty},  // one character counts as empty
      {server.token_url("body=&status=503"), "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 503)"},
      {server.token_url("body=%7B%7D"), unknown},
      {server.token_url("body=%7B%22access_token%22%3A5%7D"), unknown},
      {server.token_url("body=%5B1%2C2%5D"), unknown},
      {server.token_url("body=not%20json"), unparsable},
      {server.token_url("status=401&body=%7B%22error_description%22%3A%22unknown%20id%20(42)%22%7D"),
       "unknown id (42)"},
      {"", "FAILED TO GET ACCESS TOKEN, REQUEST FAILED (execute error response object was NULL)"},
      // Transport failures are silent below the fetcher: it judges what came.
      {refused_url("/oauth/2.0/token"), empty},
      {server.http_url("/fault/reset"), empty},
      {server.http_url("/fault/garbage"), empty},
      {server.http_url("/fault/huge?count=1&size=1000000"), empty},
      {server.http_url("/body?n=100&length=1000"), unparsable},
      {server.http_url("/stream?n=5&size=1&interval=50"), unparsable},
  };
  int fetches = 0;
  for (const auto& c : cases) {
    Token t = keyed(c.first);
    ASSERT_TRUE(wait_until([&] { return settled(t); }, s(20))) << c.first;
    // No retries: each getAccessToken that finds a failure settled fetches
    // once more and reports the same text.
    EXPECT_EQ(fetch(t) + "|" + fetch(t), "<null> " + c.second + "|<null> " + c.second) << c.first;
    fetches += c.first.rfind(server.token_url(), 0) == 0 ? 3 : 0;
    EXPECT_EQ(server.token_fetches(), fetches) << c.first;
  }
}

TEST_F(AccessToken, SilentEndpointHoldsWaitersUntilTheFetchTimesOut) {
  auto started = std::chrono::steady_clock::now();
  Token t = keyed(server.http_url("/fault/stall?delay=60"));
  // The fetch's own 15 s time-out ends the silence.
  EXPECT_EQ(fetch(t), "<null> FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)");
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(14500));
  EXPECT_EQ(server.count("/fault/stall"), 1);
}

TEST_F(AccessToken, FetchOutlivesItsOwnerAndKeepsItsEndpoint) {
  Token t = keyed(server.token_url("hold=1&token=first"));
  await_held();
  // Changing the endpoint does not disturb the fetch in flight.
  orv_AccessToken::setTokenEndpoint(server.token_url("token=second"));
  server.release_token();
  EXPECT_EQ(fetch(t), "first <null>");
  t->resetAccessToken();
  EXPECT_EQ(fetch(t), "second <null>");
  // The last owner lets go while a fetch is held: the fetch keeps the object
  // until it ends, then it goes.
  orv_AccessToken::setTokenEndpoint(server.token_url("hold=1"));
  t->resetAccessToken();
  await_held();
  orv::Memory::orv_weak_ptr<orv_AccessToken> weak(t);
  t = Token();
  EXPECT_TRUE(Token(weak));
  server.release_token();
  EXPECT_TRUE(wait_until([&] { return !Token(weak); }));
  EXPECT_EQ(server.token_fetches(), 3);
}

}  // namespace
