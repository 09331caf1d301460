#include "core/orv_Accesstoken/ORVAccessToken.h"

#include <stdio.h>
#include <string.h>

#include "core/utility/Memory/singleton.h"
#include "core/utility/Networking/orv_HttpRequest.h"
#include "core/utility/Networking/orv_HttpRequestMaker.h"
#include "core/utility/Networking/orv_HttpResponse.h"
#include "core/utility/Threads/AppRunloop.h"
#include "core/utility/Threads/GlobalThreadPool.h"
#include "core/utility/Threads/Synchronization/AppLock.h"
#include "core/utility/Threads/Synchronization/AppMutex.h"
#include "core/utility/orv_log.h"

#ifndef ORV_TOKEN_ENDPOINT_DEFAULT
#error "ORV_TOKEN_ENDPOINT_DEFAULT must come from the build (ORV_TOKEN_ENDPOINT)"
#endif

namespace orv {

using Memory::orv_shared_ptr;
using Memory::orv_shared_ptr_base;
using Memory::Singleton;
using Networking::orv_http_request_maker;
using Networking::orv_HttpRequest;
using Networking::orv_HttpResponse;
using Threads::ASRDispatchTaskBase;
using Threads::ASRDispatchTaskWithResPointer;
using Threads::GlobalThreadPool;
using Threads::Synchronization::AppConditionMutex;
using Threads::Synchronization::AppLock;
using Threads::Synchronization::AppMutex;

static const char* const ACCESS_TOKEN_ERR_REQ_FAILED2 =
    "FAILED TO GET ACCESS TOKEN, REQUEST FAILED (execute error %d)";
static const char* const ACCESS_TOKEN_ERR_EMPTY_RESP =
    "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS %d)";

static const char* const kNoKeys = "NO API/SECRET KEY";
static const char* const kNoResponse =
    "FAILED TO GET ACCESS TOKEN, REQUEST FAILED (execute error response object was NULL)";
static const char* const kParseFailed = "FAILED TO GET ACCESS TOKEN, FAILED TO PARSE RESPONSE!";
static const char* const kUnknownAnswer =
    "Unknown error while getting access token. JSON is missing both access_token and "
    "error_description fields";

namespace {

// The built-in endpoint: shared as it is, never copied or freed.
char s_default_token_endpoint[] = ORV_TOKEN_ENDPOINT_DEFAULT;

struct TokenEndpoint {
  TokenEndpoint()
      : mutex(false),
        url(s_default_token_endpoint, &orv_shared_ptr_base::emptyDestructor) {}
  AppMutex mutex;
  orv_shared_ptr<char> url;  // under mutex
};

// Never destroyed: a fetch on a pool thread may still read it while static
// destructors run at exit.
TokenEndpoint& token_endpoint() {
  static TokenEndpoint* endpoint = new TokenEndpoint();
  return *endpoint;
}

orv_shared_ptr<char> current_token_endpoint() {
  TokenEndpoint& endpoint = token_endpoint();
  AppLock lock(&endpoint.mutex);
  return endpoint.url;
}

// A fresh array copy of text, freed by the array deleter.
orv_shared_ptr<char> copy_string(const char* text) {
  size_t length = strlen(text) + 1;
  char* block = new char[length];
  memcpy(block, text, length);
  return orv_shared_ptr<char>(block, &orv_shared_ptr<char>::arrayDestructor);
}

// text formatted with one int, in a buffer of the format's length plus 10.
orv_shared_ptr<char> format_error(const char* format, int value) {
  size_t length = strlen(format) + 10;
  char* block = new char[length];
  snprintf(block, length, format, value);
  return orv_shared_ptr<char>(block, &orv_shared_ptr<char>::arrayDestructor);
}

void delete_json(void* p) { cJSON_Delete(static_cast<cJSON*>(p)); }

bool present(const orv_shared_ptr<char>& s) { return s.getPTR() != nullptr; }
bool non_empty(const orv_shared_ptr<char>& s) { return present(s) && s.getPTR()[0] != '\0'; }
const char* printable(const orv_shared_ptr<char>& s) {
  return present(s) ? s.getPTR() : "(null)";
}

}  // namespace

void orv_AccessToken::setTokenEndpoint(const std::string& url) {
  orv_shared_ptr<char> fresh = copy_string(url.c_str());
  TokenEndpoint& endpoint = token_endpoint();
  AppLock lock(&endpoint.mutex);
  // The previous block lives on in any request still using it.
  endpoint.url = fresh;
}

std::string orv_AccessToken::getTokenEndpoint() {
  orv_shared_ptr<char> url = current_token_endpoint();
  return url.getPTR() != nullptr ? std::string(url.getPTR()) : std::string();
}

orv_shared_ptr<orv_AccessToken> orv_AccessToken::alloc() {
  orv_shared_ptr<orv_AccessToken> token(new orv_AccessToken());
  token->m_self = token;
  return token;
}

orv_AccessToken::orv_AccessToken() : m_condition(new AppConditionMutex(1)) {
  char* text = new char[18];
  memcpy(text, kNoKeys, 18);
  m_lastError = orv_shared_ptr<char>(text, &orv_shared_ptr<char>::arrayDestructor);
}

orv_AccessToken::~orv_AccessToken() {
  delete m_condition;
  m_apiKey.releaseManagedPointer();
  m_secretKey.releaseManagedPointer();
  m_accessToken.releaseManagedPointer();
  m_lastError.releaseManagedPointer();
  m_self.releaseManagedPointer();
}

bool orv_AccessToken::startFetch() {
  orv_shared_ptr<orv_AccessToken> self(m_self);
  if (!self) return false;
  orv_shared_ptr<ASRDispatchTaskBase> task(
      new ASRDispatchTaskWithResPointer<orv_AccessToken>(self, &orv_AccessToken::updateToken,
                                                         nullptr));
  return Singleton<GlobalThreadPool>::instance()->runTaskAsync(task, "updateToken");
}

void orv_AccessToken::setKeys(orv_shared_ptr<char> apiKey, orv_shared_ptr<char> secretKey) {
  m_condition->lockWhenCondition(1);
  if (present(m_apiKey) && present(m_secretKey) && present(apiKey) && present(secretKey) &&
      strcmp(m_apiKey.getPTR(), apiKey.getPTR()) == 0 &&
      strcmp(m_secretKey.getPTR(), secretKey.getPTR()) == 0) {
    m_condition->Unlock();
    return;
  }
  m_accessToken.releaseManagedPointer();
  m_apiKey = apiKey;
  m_secretKey = secretKey;
  if (present(apiKey) && present(secretKey)) {
    // A refused task leaves the state settled rather than waiting forever.
    m_condition->unlockWithCondition(startFetch() ? 0 : 1);
    return;
  }
  m_lastError = copy_string(kNoKeys);
  m_condition->Unlock();
}

bool orv_AccessToken::isApiKeyInfoSet() {
  m_condition->Lock();
  bool set = non_empty(m_apiKey) && non_empty(m_secretKey);
  m_condition->Unlock();
  return set;
}

void orv_AccessToken::resetAccessToken() {
  m_condition->lockWhenCondition(1);
  m_accessToken.releaseManagedPointer();
  if (present(m_apiKey) && present(m_secretKey)) {
    m_condition->unlockWithCondition(startFetch() ? 0 : 1);
    return;
  }
  m_condition->Unlock();
}

void orv_AccessToken::setLastError(const char* text) {
  orv_shared_ptr<char> copy = copy_string(text);
  m_condition->Lock();
  m_lastError = copy;
  m_condition->Unlock();
}

void orv_AccessToken::updateToken(orv_shared_ptr_base* /*unused*/) {
  m_condition->Lock();
  m_lastError.releaseManagedPointer();
  m_accessToken.releaseManagedPointer();
  orv_shared_ptr<char> apiKey = m_apiKey;
  orv_shared_ptr<char> secretKey = m_secretKey;
  m_condition->Unlock();

  orv_shared_ptr<cJSON> json = getAccessTokenFromOpenApiWithKeys(apiKey, secretKey);

  m_condition->Lock();
  if (json) {
    cJSON* token = cJSON_GetObjectItem(json.getPTR(), "access_token");
    cJSON* description = cJSON_GetObjectItem(json.getPTR(), "error_description");
    if (token != nullptr && token->valuestring != nullptr) {
      m_accessToken = copy_string(token->valuestring);
    } else if (description != nullptr && description->valuestring != nullptr) {
      m_lastError = copy_string(description->valuestring);
    } else {
      m_lastError = copy_string(kUnknownAnswer);
    }
  }
  m_condition->unlockWithCondition(1);
}

orv_shared_ptr<cJSON> orv_AccessToken::getAccessTokenFromOpenApiWithKeys(
    orv_shared_ptr<char> apiKey, orv_shared_ptr<char> secretKey) {
  if (!present(apiKey) || !present(secretKey)) {
    setLastError(kNoKeys);
    return orv_shared_ptr<cJSON>();
  }
  orv_shared_ptr<orv_HttpRequest> request =
      orv_HttpRequest::requestWithUrl(current_token_endpoint());

  // The keys go in as they are, without URL encoding.
  size_t size = strlen(apiKey.getPTR()) + 60 + strlen(secretKey.getPTR());
  unsigned char* block = new unsigned char[size];
  char* body = reinterpret_cast<char*>(block);
  snprintf(body, size, "grant_type=client_credentials&client_id=%s&client_secret=%s",
           apiKey.getPTR(), secretKey.getPTR());
  ORV_LOG_TRACE("[TRACE]-[%s][%s:239]Access token request: %s\n", body);

  request->_transfer_mode = 1;
  request->_timeout_ms = 15000;
  request->_post_data =
      orv_shared_ptr<unsigned char>(block, &orv_shared_ptr<unsigned char>::arrayDestructor);
  request->_post_data_len = static_cast<int32_t>(strlen(body));

  orv_shared_ptr<orv_HttpResponse> response = orv_http_request_maker::execute(request);
  if (!response) {
    setLastError(kNoResponse);
    return orv_shared_ptr<cJSON>();
  }
  if (response->_error_code != 0) {
    orv_shared_ptr<char> text = format_error(ACCESS_TOKEN_ERR_REQ_FAILED2, response->_error_code);
    setLastError(text.getPTR());
    return orv_shared_ptr<cJSON>();
  }
  const char* data = response->_data.getPTR();
  ORV_LOG_TRACE("[TRACE]-[%s][%s:267]Access token response: %s\n",
                data != nullptr ? data : "(null)");
  // A one-character body counts as empty on purpose (_length counts the NUL).
  if (response->_length <= 2 || data == nullptr) {
    orv_shared_ptr<char> text = format_error(ACCESS_TOKEN_ERR_EMPTY_RESP, response->_http_status);
    setLastError(text.getPTR());
    return orv_shared_ptr<cJSON>();
  }
  cJSON* json = cJSON_Parse(data);
  if (json == nullptr) {
    setLastError(kParseFailed);
    return orv_shared_ptr<cJSON>();
  }
  return orv_shared_ptr<cJSON>(json, &delete_json);
}

orv_shared_ptr<char> orv_AccessToken::waitAccessTokenProc(orv_shared_ptr<char>* error,
                                                          bool* cancelHandle) {
  if (m_condition->_condition == 1) return m_accessToken;
  if (cancelHandle == nullptr) {
    while (m_condition->_condition != 1) m_condition->wait();
    return m_accessToken;
  }
  if (error != nullptr) {
    while (!*cancelHandle) {
      if (m_condition->_condition == 1) return m_accessToken;
      m_condition->wait();
    }
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:131]Accesstoken get was cancelled!\n");
    char* text = new char[10];
    memcpy(text, "Cancelled", 10);
    *error = orv_shared_ptr<char>(text, &orv_shared_ptr<char>::arrayDestructor);
    return orv_shared_ptr<char>();
  }
  // Without an error slot a cancel cannot be reported: it is logged (once)
  // and the wait goes on.
  bool logged = false;
  while (m_condition->_condition != 1) {
    if (*cancelHandle && !logged) {
      ORV_LOG_DEBUG("[DEBUG]-[%s][%s:131]Accesstoken get was cancelled!\n");
      logged = true;
    }
    m_condition->wait();
  }
  return m_accessToken;
}

orv_shared_ptr<char> orv_AccessToken::getAccessToken(orv_shared_ptr<char>* error,
                                                     bool* cancelHandle) {
  m_condition->Lock();
  bool settled = m_condition->_condition == 1;
  orv_shared_ptr<char> result = waitAccessTokenProc(error, cancelHandle);
  bool cancelled = cancelHandle != nullptr && *cancelHandle;
  if (!result && !cancelled) {
    ORV_LOG_DEBUG(
        "[DEBUG]-[%s][%s:159]get accessToken, skey: %s, apikey: %s, accessToken: %s, "
        "lastError: %s\n",
        printable(m_secretKey), printable(m_apiKey), printable(m_accessToken),
        printable(m_lastError));
    // A caller that found a fetch in flight waited for that one and does not
    // start another.
    if (non_empty(m_secretKey) && non_empty(m_apiKey) && !non_empty(m_accessToken) && settled) {
      if (startFetch()) {
        m_condition->unlockWithCondition(0);
        m_condition->Lock();
        result = waitAccessTokenProc(error, cancelHandle);
        cancelled = cancelHandle != nullptr && *cancelHandle;
        ORV_LOG_DEBUG(
            "[DEBUG]-[%s][%s:176]get accessToken, skey: %s, apikey: %s, accessToken: %s, "
            "lastError: %s\n",
            printable(m_secretKey), printable(m_apiKey), printable(m_accessToken),
            printable(m_lastError));
      }
    }
  }
  if (!result && !cancelled && error != nullptr) *error = m_lastError;
  m_condition->Unlock();
  return result;
}

void orv_AccessToken::cancelTokenWaitWithHandle(bool* cancelHandle) {
  if (cancelHandle == nullptr) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:117]Must provide a handle for cancelling\n");
    return;
  }
  m_condition->Lock();
  *cancelHandle = true;
  m_condition->broadcast();
  m_condition->Unlock();
}

}  // namespace orv
