// The access token against the loopback token endpoint: which keys fetch,
// waiters sharing one fetch and cancelling only their own wait, the log lines,
// every failure text word for word (misbehaving endpoints included, each
// within the fetch's time-out), and a fetch outliving its owner.
#include <string.h>

#include <future>
#include <string>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"

namespace {

using namespace orv_test;
using orv::orv_AccessToken;
using orv::Memory::orv_shared_ptr;
typedef orv_shared_ptr<orv_AccessToken> Token;

orv_shared_ptr<char> str(const char* text) { return orv_shared_ptr<char>(text ? strdup(text) : nullptr, &free); }
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

bool ready(std::future<std::string>& f, int seconds = 0) {
  return f.wait_for(std::chrono::seconds(seconds)) == std::future_status::ready;
}

class AccessToken : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()) << server.error(); }
  // A new token on endpoint with the keys; once settled, no fetch is in flight.
  Token keyed(const std::string& endpoint, const char* api = "api", const char* secret = "secret") {
    orv_AccessToken::setTokenEndpoint(endpoint);
    Token t = orv_AccessToken::alloc();
    t->setKeys(str(api), str(secret));
    return t;
  }
  static bool settled(const Token& t) {
    t->m_condition->Lock();
    bool is_settled = t->m_condition->_condition == 1;
    t->m_condition->Unlock();
    return is_settled;
  }
  bool held() { return wait_until([&] { return server.stat("held") == 1; }); }
  HttpTestServer server;
};

TEST_F(AccessToken, KeysDecideWhatIsFetchedAndAFetchOutlivesItsOwner) {
  EXPECT_EQ(orv_AccessToken::getTokenEndpoint(), ORV_TOKEN_ENDPOINT_DEFAULT);
  Token t = keyed(server.token_url("answer=client"), "api", nullptr);  // tokens name their keys
  EXPECT_FALSE(t->isApiKeyInfoSet() || t->getAccessToken(nullptr, nullptr));
  t->resetAccessToken();  // a key missing: nothing is fetched
  EXPECT_EQ(fetch(t), "<null> NO API/SECRET KEY");
  t->setKeys(str(""), str(""));  // empty keys are fetched as they are, but are not "set"
  EXPECT_EQ(fetch(t) + (t->isApiKeyInfoSet() ? " set" : ""), "tok---1 <null>");
  t->setKeys(str("api"), str("secret"));
  EXPECT_EQ(fetch(t) + (t->isApiKeyInfoSet() ? " set" : ""), "tok-api-secret-2 <null> set");
  t->setKeys(str("api"), str("secret"));  // the same keys in fresh blocks: nothing fetched
  EXPECT_EQ(fetch(t), "tok-api-secret-2 <null>");
  t->setKeys(str("api"), str("secret-2"));  // only the secret differs: a change too
  EXPECT_EQ(fetch(t), "tok-api-secret-2-3 <null>");
  // The last owner lets go while a fetch is held: the fetch keeps the object
  // until it ends, then it goes.
  orv_AccessToken::setTokenEndpoint(server.token_url("answer=client&hold=1"));
  t->resetAccessToken();
  ASSERT_TRUE(held());
  orv::Memory::orv_weak_ptr<orv_AccessToken> weak(t);
  t = Token();
  EXPECT_TRUE(Token(weak));
  server.release_token();
  EXPECT_TRUE(wait_until([&] { return !Token(weak); }));
  EXPECT_EQ(server.token_fetches(), 4);
}

TEST_F(AccessToken, WaitersShareOneFetchAndCancelOnlyTheirOwnWait) {
  orv::set_log_level(orv::LOG_TRACE);
  StderrCapture capture;
  Token t = keyed(server.token_url("body=x"), "demo-api-key", "demo-secret-key");  // the service's client
  ASSERT_TRUE(wait_until([&] { return settled(t); }));
  // No token and no fetch in flight: the first caller starts one, callers
  // arriving while it is held wait for that same fetch.
  orv_AccessToken::setTokenEndpoint(server.token_url("hold=1"));
  std::future<std::string> starter = fetch_async(t);
  ASSERT_TRUE(held());
  bool cancel_a = false, cancel_b = false, cancel_d = false;
  std::future<std::string> a = fetch_async(t, &cancel_a), b = fetch_async(t, &cancel_b), c = fetch_async(t);
  // Without an error slot a cancel cannot be told: this caller keeps waiting.
  std::future<std::string> d =
      std::async(std::launch::async, [t, &cancel_d] { return text_of(t->getAccessToken(nullptr, &cancel_d)); });
  t->cancelTokenWaitWithHandle(&cancel_a);
  t->cancelTokenWaitWithHandle(&cancel_d);
  t->cancelTokenWaitWithHandle(nullptr);  // only logs
  ASSERT_TRUE(ready(a, 20));
  EXPECT_EQ(a.get(), "<null> Cancelled");
  EXPECT_FALSE(ready(starter) || ready(b) || ready(c) || ready(d));
  server.release_token();
  std::string got;
  for (std::future<std::string>* f : {&starter, &b, &c, &d}) got += (ready(*f, 20) ? f->get() : "hung") + ";";
  EXPECT_EQ(got, "orv-token-1 <null>;orv-token-1 <null>;orv-token-1 <null>;orv-token-1;");
  EXPECT_EQ(server.token_fetches(), 2);

  std::string log = capture.text();
  EXPECT_EQ(occurrences(log, "[ERROR]-["), 1) << log;
  EXPECT_EQ(occurrences(log, "][ORVAccessToken.cpp:117]Must provide a handle for cancelling\n"), 1);
  // The request body, secret key in clear, the raw answers, and the state
  // before and after the fetch that getAccessToken started.
  for (const char* line :
       {"[TRACE]-[", "][ORVAccessToken.cpp:131]Accesstoken get was cancelled!\n",
        "][ORVAccessToken.cpp:239]Access token request: grant_type=client_credentials&client_id=demo-api-key&"
        "client_secret=demo-secret-key\n", "][ORVAccessToken.cpp:267]Access token response: x\n",
        "][ORVAccessToken.cpp:267]Access token response: {\"access_token\": \"orv-token-1\", \"expires_in\": 2592000}\n",
        "][ORVAccessToken.cpp:159]get accessToken, skey: demo-secret-key, apikey: demo-api-key, accessToken: (null), "
        "lastError: FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)\n",
        "][ORVAccessToken.cpp:176]get accessToken, skey: demo-secret-key, apikey: demo-api-key, "
        "accessToken: orv-token-1, lastError: (null)\n"}) {
    EXPECT_TRUE(has(log, line)) << line << log;
  }
}

TEST_F(AccessToken, FailureTextsWordForWord) {
  const std::string empty = "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)",
                    unparsable = "FAILED TO GET ACCESS TOKEN, FAILED TO PARSE RESPONSE!",
                    unknown = "Unknown error while getting access token. JSON is missing both access_token and "
                              "error_description fields";
  const std::pair<std::string, std::string> cases[] = {
      {server.token_url("body=x"), empty},  // one character counts as empty
      {server.token_url("body=&status=503"), "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 503)"},
      {server.token_url("body=%7B%7D"), unknown},
      {server.token_url("body=%7B%22access_token%22%3A5%7D"), unknown},
      {server.token_url("body=not%20json"), unparsable},
      {server.token_url(), "unknown client"},  // the service's error_description, with status 401
      {"", "FAILED TO GET ACCESS TOKEN, REQUEST FAILED (execute error response object was NULL)"},
      // Transport failures are silent below the fetcher: it judges what came.
      {"http://127.0.0.1:1/oauth/2.0/token", empty},  // refused
      {server.http_url("/fault/reset"), empty},
      {server.http_url("/fault/garbage"), empty},
      {server.http_url("/fault/huge?count=1&size=1000000"), empty},
      {server.http_url("/body?n=100&length=1000"), unparsable},
  };
  for (const auto& c : cases) {
    Token t = keyed(c.first);
    ASSERT_TRUE(wait_until([&] { return settled(t); }, std::chrono::seconds(20))) << c.first;
    // No retries: each getAccessToken that finds a failure settled fetches
    // once more and reports the same text.
    EXPECT_EQ(fetch(t) + "|" + fetch(t), "<null> " + c.second + "|<null> " + c.second) << c.first;
  }
  EXPECT_EQ(server.token_fetches(), 6 * 3);
}

// The fetch's own 15 s time-out ends the silence of an endpoint.
TEST_F(AccessToken, SilentEndpointHoldsWaitersUntilTheFetchTimesOut) {
  auto started = std::chrono::steady_clock::now();
  Token t = keyed(server.http_url("/fault/stall?delay=60"));
  EXPECT_EQ(fetch(t), "<null> FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)");
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(14500));
  EXPECT_EQ(server.count("/fault/stall"), 1);
}

}  // namespace
