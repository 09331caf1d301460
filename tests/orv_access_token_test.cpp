#include <string.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"
#include "support/http_test_server.h"
#include "support/test_support.h"

namespace {

using orv::orv_AccessToken;
using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_weak_ptr;
using orv_test::HttpTestServer;
using orv_test::RefusedPort;
using orv_test::StderrCapture;
using orv_test::wait_until;

typedef orv_shared_ptr<orv_AccessToken> Token;

const char* const kUnknownAnswer =
    "Unknown error while getting access token. JSON is missing both access_token and "
    "error_description fields";

orv_shared_ptr<char> str(const char* text) {
  size_t length = strlen(text) + 1;
  char* block = new char[length];
  memcpy(block, text, length);
  return orv_shared_ptr<char>(block, &orv_shared_ptr<char>::arrayDestructor);
}

std::string text_of(const orv_shared_ptr<char>& p) {
  return p.getPTR() != nullptr ? std::string(p.getPTR()) : std::string("<null>");
}

bool has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// What one getAccessToken call gave: the token and the error slot.
struct Outcome {
  std::string token;
  std::string error;
};

Outcome fetch(const Token& t, bool* cancel = nullptr) {
  orv_shared_ptr<char> error;
  orv_shared_ptr<char> token = t->getAccessToken(&error, cancel);
  return Outcome{text_of(token), text_of(error)};
}

std::future<Outcome> fetch_async(const Token& t, bool* cancel = nullptr) {
  return std::async(std::launch::async, [t, cancel] { return fetch(t, cancel); });
}

bool ready(std::future<Outcome>& f, std::chrono::milliseconds bound = std::chrono::seconds(0)) {
  return f.wait_for(bound) == std::future_status::ready;
}

// No fetch in flight (the condition word, read under its mutex).
bool settled(const Token& t) {
  t->m_condition->Lock();
  bool is_settled = t->m_condition->_condition == 1;
  t->m_condition->Unlock();
  return is_settled;
}

class AccessTokenTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(server.start()) << server.error(); }
  // A held fetch has reached the server.
  void await_held(int n = 1) {
    ASSERT_TRUE(wait_until([&] { return server.token_held() == n; })) << server.stats();
  }
  HttpTestServer server;
};

TEST(AccessTokenEndpointTest, DefaultComesFromTheBuildAndTheSetterReplacesIt) {
  std::string endpoint = orv_AccessToken::getTokenEndpoint();
  EXPECT_EQ(endpoint, ORV_TOKEN_ENDPOINT_DEFAULT);
  EXPECT_EQ(endpoint.rfind("https://", 0), 0u) << endpoint;
  const std::string path = "/oauth/2.0/token";
  ASSERT_GT(endpoint.size(), path.size());
  EXPECT_EQ(endpoint.substr(endpoint.size() - path.size()), path);

  orv_AccessToken::setTokenEndpoint("http://127.0.0.1:1/oauth/2.0/token");
  EXPECT_EQ(orv_AccessToken::getTokenEndpoint(), "http://127.0.0.1:1/oauth/2.0/token");
  orv_AccessToken::setTokenEndpoint("");
  EXPECT_EQ(orv_AccessToken::getTokenEndpoint(), "");
}

TEST_F(AccessTokenTest, MissingKeysFetchNothing) {
  orv_AccessToken::setTokenEndpoint(server.token_url());
  Token t = orv_AccessToken::alloc();
  EXPECT_FALSE(t->isApiKeyInfoSet());
  Outcome fresh = fetch(t);
  EXPECT_EQ(fresh.token, "<null>");
  EXPECT_EQ(fresh.error, "NO API/SECRET KEY");
  EXPECT_FALSE(t->getAccessToken(nullptr, nullptr));

  // A null key: the text again, and no fetch.
  t->setKeys(str("api"), orv_shared_ptr<char>());
  EXPECT_TRUE(settled(t));
  EXPECT_EQ(fetch(t).error, "NO API/SECRET KEY");
  t->resetAccessToken();
  EXPECT_EQ(fetch(t).error, "NO API/SECRET KEY");
  EXPECT_EQ(server.token_fetches(), 0);

  // Empty keys pass setKeys (one fetch) but do not count as set, and
  // getAccessToken does not fetch for them.
  t->setKeys(str(""), str(""));
  EXPECT_EQ(fetch(t).token, "orv-token-1");
  EXPECT_FALSE(t->isApiKeyInfoSet());
  EXPECT_EQ(server.last_token_form(), "grant_type=client_credentials&client_id=&client_secret=");
  EXPECT_EQ(server.token_fetches(), 1);
}

TEST_F(AccessTokenTest, FetchesOnceAndKeepsTheTokenUntilKeysChangeOrReset) {
  orv_AccessToken::setTokenEndpoint(
      server.token_url("client_id=api-1&client_secret=secret-1"));
  Token t = orv_AccessToken::alloc();
  t->setKeys(str("api-1"), str("secret-1"));
  EXPECT_TRUE(t->isApiKeyInfoSet());
  Outcome first = fetch(t);
  EXPECT_EQ(first.token, "orv-token-1");
  EXPECT_EQ(first.error, "<null>");  // not touched on success
  EXPECT_EQ(server.last_token_form(),
            "grant_type=client_credentials&client_id=api-1&client_secret=secret-1");
  EXPECT_EQ(fetch(t).token, "orv-token-1");

  // The same keys in fresh blocks: compared by content, nothing fetched.
  t->setKeys(str("api-1"), str("secret-1"));
  EXPECT_TRUE(settled(t));
  EXPECT_EQ(fetch(t).token, "orv-token-1");
  EXPECT_EQ(server.token_fetches(), 1);

  t->resetAccessToken();
  EXPECT_EQ(fetch(t).token, "orv-token-2");
  EXPECT_EQ(server.token_fetches(), 2);

  // New keys fetch again (and the server checks the form it gets).
  orv_AccessToken::setTokenEndpoint(
      server.token_url("client_id=api-2&client_secret=secret-2"));
  t->setKeys(str("api-2"), str("secret-2"));
  EXPECT_EQ(fetch(t).token, "orv-token-3");
  // Only the secret differs: that is a change too.
  t->setKeys(str("api-2"), str("secret-x"));
  ASSERT_TRUE(wait_until([&] { return settled(t); }));
  EXPECT_EQ(fetch(t).error, "unknown client");
  EXPECT_EQ(server.token_fetches(), 5);  // the failed getAccessToken fetched once more
}

TEST_F(AccessTokenTest, FetchesOverHttps) {
  orv_AccessToken::setTokenEndpoint(server.https_url("/oauth/2.0/token?token=tls-token"));
  Token t = orv_AccessToken::alloc();
  t->setKeys(str("api"), str("secret"));
  EXPECT_EQ(fetch(t).token, "tls-token");
  EXPECT_EQ(server.token_fetches(), 1);
}

TEST_F(AccessTokenTest, ConcurrentWaitersShareOneFetch) {
  Token t = orv_AccessToken::alloc();
  orv_AccessToken::setTokenEndpoint(server.token_url("answer=error&description=not%20yet"));
  t->setKeys(str("api"), str("secret"));
  ASSERT_TRUE(wait_until([&] { return settled(t); }));
  EXPECT_EQ(server.token_fetches(), 1);

  // No token and no fetch in flight: the first caller starts one, the callers
  // arriving while it is held wait for that same fetch.
  orv_AccessToken::setTokenEndpoint(server.token_url("hold=1"));
  std::future<Outcome> starter = fetch_async(t);
  await_held();
  bool not_cancelled = false;
  std::vector<std::future<Outcome>> waiters;
  for (int i = 0; i < 3; ++i) waiters.push_back(fetch_async(t));
  waiters.push_back(fetch_async(t, &not_cancelled));
  EXPECT_FALSE(ready(starter));
  for (auto& w : waiters) EXPECT_FALSE(ready(w));

  server.release_token();
  ASSERT_TRUE(ready(starter, std::chrono::seconds(20)));
  EXPECT_EQ(starter.get().token, "orv-token-2");
  for (auto& w : waiters) {
    ASSERT_TRUE(ready(w, std::chrono::seconds(20)));
    Outcome o = w.get();
    EXPECT_EQ(o.token, "orv-token-2");
    EXPECT_EQ(o.error, "<null>");
  }
  EXPECT_EQ(server.token_fetches(), 2);
}

TEST_F(AccessTokenTest, CancelEndsOnlyThatWaitersWait) {
  orv::set_log_level(orv::LOG_DEBUG);
  StderrCapture capture;
  orv_AccessToken::setTokenEndpoint(server.token_url("hold=1"));
  Token t = orv_AccessToken::alloc();
  t->setKeys(str("api"), str("secret"));
  await_held();

  bool flag_a = false;
  bool flag_b = false;
  std::future<Outcome> a = fetch_async(t, &flag_a);
  std::future<Outcome> b = fetch_async(t, &flag_b);
  // Without an error slot a cancel cannot be told: this caller keeps waiting.
  bool flag_c = false;
  std::future<orv_shared_ptr<char>> c = std::async(
      std::launch::async, [t, &flag_c] { return t->getAccessToken(nullptr, &flag_c); });

  t->cancelTokenWaitWithHandle(&flag_a);
  t->cancelTokenWaitWithHandle(&flag_c);
  EXPECT_TRUE(flag_a);
  ASSERT_TRUE(ready(a, std::chrono::seconds(20)));
  Outcome cancelled = a.get();
  EXPECT_EQ(cancelled.token, "<null>");
  EXPECT_EQ(cancelled.error, "Cancelled");
  EXPECT_FALSE(ready(b));
  EXPECT_EQ(c.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

  server.release_token();
  ASSERT_TRUE(ready(b, std::chrono::seconds(20)));
  EXPECT_EQ(b.get().token, "orv-token-1");
  ASSERT_EQ(c.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(text_of(c.get()), "orv-token-1");
  EXPECT_EQ(server.token_fetches(), 1);

  // A flag set before the call, with a fetch in flight, cancels at once.
  t->resetAccessToken();
  await_held();
  bool early = true;
  EXPECT_EQ(fetch(t, &early).error, "Cancelled");
  server.release_token();
  EXPECT_EQ(fetch(t).token, "orv-token-2");

  std::string log = capture.text();
  EXPECT_TRUE(has(log, "][ORVAccessToken.cpp:131]Accesstoken get was cancelled!\n")) << log;
  EXPECT_TRUE(has(log, "[DEBUG]-[")) << log;
}

TEST_F(AccessTokenTest, FailureTextsWordForWord) {
  RefusedPort refused;
  ASSERT_GT(refused.port(), 0);
  struct Case {
    std::string endpoint;
    std::string error;
  };
  const std::vector<Case> cases = {
      {server.token_url("answer=raw&body=x"),
       "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)"},
      {server.token_url("answer=raw&body=x&status=503"),
       "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 503)"},
      {server.token_url("answer=raw&body=&status=500"),
       "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 500)"},
      {server.token_url("answer=raw&body=%7B%7D"), kUnknownAnswer},
      {server.token_url("answer=raw&body=%7B%22access_token%22%3A5%7D"), kUnknownAnswer},
      {server.token_url("answer=raw&body=%5B1%2C2%5D"), kUnknownAnswer},
      {server.token_url("answer=raw&body=not%20json"),
       "FAILED TO GET ACCESS TOKEN, FAILED TO PARSE RESPONSE!"},
      {server.token_url("answer=error&description=unknown%20client%20id%20%28code%2042%29"),
       "unknown client id (code 42)"},
      // A refused connection reaches the fetcher as an empty 200 answer.
      {"http://127.0.0.1:" + std::to_string(refused.port()) + "/oauth/2.0/token",
       "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)"},
      {"", "FAILED TO GET ACCESS TOKEN, REQUEST FAILED (execute error response object was NULL)"},
  };
  int fetches = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.endpoint);
    bool reaches_server = c.endpoint.rfind(server.http_url("/"), 0) == 0;
    orv_AccessToken::setTokenEndpoint(c.endpoint);
    Token t = orv_AccessToken::alloc();
    t->setKeys(str("api"), str("secret"));
    ASSERT_TRUE(wait_until([&] { return settled(t); }));
    // No retries: each getAccessToken that finds a failure settled fetches
    // exactly once more and reports the same text.
    for (int round = 0; round < 2; ++round) {
      Outcome o = fetch(t);
      EXPECT_EQ(o.token, "<null>");
      EXPECT_EQ(o.error, c.error);
    }
    if (reaches_server) fetches += 3;
    EXPECT_EQ(server.token_fetches(), fetches);
  }
}

TEST_F(AccessTokenTest, MisbehavingEndpointsEndTheFetchWithAText) {
  const std::string empty = "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)";
  const std::string unparsable = "FAILED TO GET ACCESS TOKEN, FAILED TO PARSE RESPONSE!";
  struct Case {
    std::string path;
    std::string error;
  };
  // Transport failures are silent below the fetcher: it sees what arrived.
  const Case cases[] = {
      {"/fault/reset", empty},
      {"/fault/garbage", empty},
      {"/fault/huge_headers?count=1&size=1000000", empty},
      {"/fault/truncate?length=1000&sent=100", unparsable},
      {"/fault/drip?n=5&interval=0.05", unparsable},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    orv_AccessToken::setTokenEndpoint(server.http_url(c.path));
    Token t = orv_AccessToken::alloc();
    t->setKeys(str("api"), str("secret"));
    Outcome o = fetch(t);
    EXPECT_EQ(o.token, "<null>");
    EXPECT_EQ(o.error, c.error);
  }
}

TEST_F(AccessTokenTest, SilentEndpointHoldsWaitersOnlyUntilTheFetchTimesOut) {
  orv_AccessToken::setTokenEndpoint(server.http_url("/fault/stall?delay=60"));
  Token t = orv_AccessToken::alloc();
  auto started = std::chrono::steady_clock::now();
  t->setKeys(str("api"), str("secret"));
  ASSERT_TRUE(wait_until([&] { return server.count("/fault/stall") == 1; }));
  bool flag = false;
  std::future<Outcome> patient = fetch_async(t);
  std::future<Outcome> leaving = fetch_async(t, &flag);
  EXPECT_FALSE(ready(patient, std::chrono::milliseconds(200)));
  // A cancelled waiter leaves at once; the other stays for the fetch.
  t->cancelTokenWaitWithHandle(&flag);
  ASSERT_TRUE(ready(leaving, std::chrono::seconds(10)));
  EXPECT_EQ(leaving.get().error, "Cancelled");
  EXPECT_FALSE(ready(patient));
  // The fetch's own 15 s time-out ends the silence.
  ASSERT_TRUE(ready(patient, std::chrono::seconds(40)));
  auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, std::chrono::milliseconds(14500));
  Outcome o = patient.get();
  EXPECT_EQ(o.token, "<null>");
  EXPECT_EQ(o.error, "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS 200)");
  EXPECT_EQ(server.count("/fault/stall"), 1);
}

TEST_F(AccessTokenTest, LogLinesAtTraceAndDebug) {
  orv::set_log_level(orv::LOG_TRACE);
  StderrCapture capture;
  orv_AccessToken::setTokenEndpoint(server.token_url("answer=error&description=try%20later"));
  Token t = orv_AccessToken::alloc();
  t->setKeys(str("api-t"), str("sec-t"));
  ASSERT_TRUE(wait_until([&] { return settled(t); }));
  orv_AccessToken::setTokenEndpoint(server.token_url());
  EXPECT_EQ(fetch(t).token, "orv-token-2");
  std::string log = capture.text();

  // The request body, secret key in clear, and the raw answer.
  EXPECT_TRUE(has(log,
                  "][ORVAccessToken.cpp:239]Access token request: "
                  "grant_type=client_credentials&client_id=api-t&client_secret=sec-t\n"))
      << log;
  EXPECT_TRUE(has(log,
                  "][ORVAccessToken.cpp:267]Access token response: "
                  "{\"error\": \"invalid_client\", \"error_description\": \"try later\"}\n"))
      << log;
  EXPECT_TRUE(has(log,
                  "][ORVAccessToken.cpp:267]Access token response: "
                  "{\"access_token\": \"orv-token-2\", \"expires_in\": 2592000}\n"))
      << log;
  // Before and after the fetch getAccessToken started.
  EXPECT_TRUE(has(log,
                  "][ORVAccessToken.cpp:159]get accessToken, skey: sec-t, apikey: api-t, "
                  "accessToken: (null), lastError: try later\n"))
      << log;
  EXPECT_TRUE(has(log,
                  "][ORVAccessToken.cpp:176]get accessToken, skey: sec-t, apikey: api-t, "
                  "accessToken: orv-token-2, lastError: (null)\n"))
      << log;
  EXPECT_TRUE(has(log, "[TRACE]-[")) << log;
  EXPECT_TRUE(has(log, "[DEBUG]-[")) << log;
}

TEST_F(AccessTokenTest, CancelWithoutHandleOnlyLogs) {
  orv::set_log_level(orv::LOG_ERROR);
  orv_AccessToken::setTokenEndpoint(server.token_url("hold=1"));
  Token t = orv_AccessToken::alloc();
  t->setKeys(str("api"), str("secret"));
  await_held();
  bool flag = false;
  std::future<Outcome> waiter = fetch_async(t, &flag);
  std::string log;
  {
    StderrCapture capture;
    t->cancelTokenWaitWithHandle(nullptr);
    log = capture.text();
  }
  EXPECT_EQ(log.find('\n'), log.size() - 1) << log;  // one line
  EXPECT_EQ(log.rfind("[ERROR]-[", 0), 0u) << log;
  EXPECT_TRUE(has(log, "][ORVAccessToken.cpp:117]Must provide a handle for cancelling\n")) << log;
  EXPECT_FALSE(flag);
  EXPECT_FALSE(ready(waiter));
  server.release_token();
  ASSERT_TRUE(ready(waiter, std::chrono::seconds(20)));
  EXPECT_EQ(waiter.get().token, "orv-token-1");
}

TEST_F(AccessTokenTest, FetchOutlivesItsOwnerAndKeepsItsEndpoint) {
  orv_AccessToken::setTokenEndpoint(server.token_url("hold=1&token=first"));
  Token t = orv_AccessToken::alloc();
  t->setKeys(str("api"), str("secret"));
  await_held();
  // Changing the endpoint does not disturb the fetch in flight.
  orv_AccessToken::setTokenEndpoint(server.token_url("token=second"));
  server.release_token();
  EXPECT_EQ(fetch(t).token, "first");
  t->resetAccessToken();
  EXPECT_EQ(fetch(t).token, "second");

  // The last owner lets go while a fetch is held: the fetch keeps the
  // object until it ends, then it goes.
  orv_AccessToken::setTokenEndpoint(server.token_url("hold=1"));
  t->resetAccessToken();
  await_held();
  orv_weak_ptr<orv_AccessToken> weak(t);
  t = Token();
  EXPECT_TRUE(Token(weak));
  server.release_token();
  EXPECT_TRUE(wait_until([&] { return !Token(weak); }));
  EXPECT_EQ(server.token_fetches(), 3);
}

TEST_F(AccessTokenTest, ManyWaitersWithCancellations) {
  const int kWaiters = 16;
  orv_AccessToken::setTokenEndpoint(server.token_url("hold=1"));
  Token t = orv_AccessToken::alloc();
  std::unique_ptr<bool[]> flags(new bool[kWaiters]());

  for (int round = 1; round <= 3; ++round) {
    SCOPED_TRACE(round);
    if (round == 1) {
      t->setKeys(str("api"), str("secret"));
    } else {
      t->resetAccessToken();
    }
    await_held();
    std::vector<std::future<Outcome>> waiters;
    for (int i = 0; i < kWaiters; ++i) {
      flags[i] = false;
      waiters.push_back(fetch_async(t, &flags[i]));
    }
    // Even waiters are cancelled. In round 1 the fetch is still held, so
    // they all end (at once, or as soon as they arrive) before the release;
    // later rounds race the release with the cancels.
    if (round > 1) server.release_token();
    for (int i = 0; i < kWaiters; i += 2) t->cancelTokenWaitWithHandle(&flags[i]);
    if (round == 1) {
      for (int i = 0; i < kWaiters; i += 2) {
        ASSERT_TRUE(ready(waiters[i], std::chrono::seconds(30)));
      }
      for (int i = 1; i < kWaiters; i += 2) EXPECT_FALSE(ready(waiters[i]));
      server.release_token();
    }
    const std::string expected = "orv-token-" + std::to_string(round);
    for (int i = 0; i < kWaiters; ++i) {
      ASSERT_TRUE(ready(waiters[i], std::chrono::seconds(30)));
      Outcome o = waiters[i].get();
      if (i % 2 == 1 || (round > 1 && o.token != "<null>")) {
        EXPECT_EQ(o.token, expected) << i;
        EXPECT_EQ(o.error, "<null>") << i;
      } else {
        EXPECT_EQ(o.token, "<null>") << i;
        EXPECT_EQ(o.error, "Cancelled") << i;
      }
    }
    EXPECT_EQ(fetch(t).token, expected);
  }
  EXPECT_EQ(server.token_fetches(), 3);
}

}  // namespace
