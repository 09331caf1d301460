// The access token against the loopback token endpoint: which keys fetch,
// waiters sharing one fetch and cancelling only their own wait, a silent
// endpoint ended by the fetch's time-out, a fetch outliving its owner, the log
// lines, and every failure text word for word (misbehaving endpoints too).
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

class AccessToken : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()) << server.error(); }
  // A new token on endpoint with the keys: its first fetch starts.
  Token keyed(const std::string& endpoint, const char* api = "api", const char* secret = "secret") {
    orv_AccessToken::setTokenEndpoint(endpoint);
    Token t = orv_AccessToken::alloc();
    t->setKeys(str(api), str(secret));
    return t;
  }
  HttpTestServer server;
};

TEST_F(AccessToken, KeysDecideWhatIsFetched) {
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
  t->resetAccessToken();
  EXPECT_EQ(fetch(t), "tok-api-secret-2-4 <null>");
}

// No token and no fetch in flight: the first caller starts one, callers
// arriving meanwhile wait for that same fetch, which the fetch's own 15 s
// time-out ends when the endpoint stays silent. A token dropped by its last
// owner meanwhile lives until its own fetch ends.
TEST_F(AccessToken, WaitersShareOneFetchAndCancelOnlyTheirOwnWait) {
  orv::set_log_level(orv::LOG_TRACE);
  StderrCapture capture;
  Token t = keyed(server.token_url("body=x"), "demo-api-key", "demo-secret-key");  // the service's client
  EXPECT_EQ(fetch(t), "<null> FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)");  // it waits for that one
  const std::string silent = server.http_url("/fault/stall?delay=60");
  orv::Memory::orv_weak_ptr<orv_AccessToken> orphan(keyed(silent));
  auto started = std::chrono::steady_clock::now();
  auto starter = std::async(std::launch::async, [t] { return fetch(t); });
  ASSERT_TRUE(wait_until([&] { return server.count("/fault/stall") == 2; }));
  bool cancel_a = false, cancel_b = false, cancel_d = false;
  auto a = std::async(std::launch::async, [t, &cancel_a] { return fetch(t, &cancel_a); });
  auto b = std::async(std::launch::async, [t, &cancel_b] { return fetch(t, &cancel_b); });
  // Without an error slot a cancel cannot be told: this caller keeps waiting.
  auto d = std::async(std::launch::async, [t, &cancel_d] { return text_of(t->getAccessToken(nullptr, &cancel_d)); });
  t->cancelTokenWaitWithHandle(&cancel_a);
  t->cancelTokenWaitWithHandle(&cancel_d);
  t->cancelTokenWaitWithHandle(nullptr);  // only logs
  ASSERT_EQ(a.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(a.get(), "<null> Cancelled");
  EXPECT_TRUE(Token(orphan));
  const std::string failed = "<null> FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)";
  EXPECT_EQ(starter.get() + "|" + b.get() + "|" + d.get(), failed + "|" + failed + "|<null>");
  EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(14500));
  EXPECT_TRUE(wait_until([&] { return !Token(orphan); }));
  orv_AccessToken::setTokenEndpoint(server.token_url());
  EXPECT_EQ(fetch(t), "orv-token-1 <null>");
  EXPECT_EQ(server.count("/fault/stall"), 2);

  std::string log = capture.text();
  // The request body, secret key in clear, the raw answer, and the state
  // after the fetch that getAccessToken started.
  for (const char* line :
       {"][ORVAccessToken.cpp:117]Must provide a handle for cancelling\n", "[curl_code=28] curl error!\n",
        "[TRACE]-[", "][ORVAccessToken.cpp:131]Accesstoken get was cancelled!\n",
        "][ORVAccessToken.cpp:239]Access token request: grant_type=client_credentials&client_id=demo-api-key&"
        "client_secret=demo-secret-key\n",
        "][ORVAccessToken.cpp:267]Access token response: {\"access_token\": \"orv-token-1\", \"expires_in\": 2592000}\n",
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
      {server.token_url("body=%7B%22access_token%22%3A5%7D"), unknown},  // not a string
      {server.token_url("body=not%20json"), unparsable},
      {server.token_url(), "unknown client"},  // the service's error_description, with status 401
      {"", "FAILED TO GET ACCESS TOKEN, REQUEST FAILED (execute error response object was NULL)"},
      // Transport failures are silent below the fetcher: it judges what came.
      {"http://127.0.0.1:1/oauth/2.0/token", empty},  // refused
      {server.http_url("/body?n=100&length=1000"), unparsable}, };
  for (const auto& c : cases) {
    Token t = keyed(c.first);
    // No retries: each getAccessToken that finds a failure settled fetches
    // once more and reports the same text (the first may find the fetch that
    // setKeys started still in flight, and wait for it).
    EXPECT_EQ(fetch(t) + "|" + fetch(t), "<null> " + c.second + "|<null> " + c.second) << c.first;
  }
  const int fetches = server.count("/oauth/2.0/token");
  EXPECT_TRUE(fetches >= 6 * 2 && fetches <= 6 * 3) << fetches;
}

}  // namespace
