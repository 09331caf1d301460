/// @file
/// orv_AccessToken: an OAuth 2.0 access token for the speech service, fetched
/// with the client-credentials grant from an API key and a secret key, and
/// handed to any number of threads.
///
/// The fetch runs on the global thread pool; getAccessToken() blocks while a
/// fetch is in flight and can be given a cancel flag that another thread sets
/// through cancelTokenWaitWithHandle(). The token is kept until the keys change
/// or resetAccessToken() is called: no expiry, no timed refresh, no retries (a
/// failed fetch stays failed until the next getAccessToken, setKeys or
/// resetAccessToken starts another one).
///
/// Condition word of m_condition: 1 no fetch in flight, 0 a fetch in flight.
/// Only the fetch (updateToken) sets it back to 1, whatever its outcome, and
/// every change wakes all waiters.
///
/// Failure texts (copied into *error by getAccessToken):
///   "NO API/SECRET KEY"
///   "FAILED TO GET ACCESS TOKEN, REQUEST FAILED (execute error response object was NULL)"
///   "FAILED TO GET ACCESS TOKEN, REQUEST FAILED (execute error %d)"
///   "FAILED TO GET ACCESS TOKEN, EMPTY DATA (HTTP STATUS %d)"   (a one-character
///       body counts as empty; a refused connection lands here with status 200)
///   "FAILED TO GET ACCESS TOKEN, FAILED TO PARSE RESPONSE!"
///   the service's "error_description", as it is
///   "Unknown error while getting access token. JSON is missing both
///    access_token and error_description fields"
///   "Cancelled" (the caller's own wait was cancelled)
///
/// Logging: at TRACE level the request body is logged, secret key included,
/// and the response body; at DEBUG level getAccessToken logs both keys.
///
/// Token endpoint: the default is the ORV_TOKEN_ENDPOINT CMake cache variable
/// (an https URL whose path is /oauth/2.0/token). It is held process-wide in an
/// orv_shared_ptr<char>: the built-in default is the constant string itself,
/// shared without copying (empty destructor); setTokenEndpoint() replaces it,
/// under a lock, with a fresh array. A fetch takes a share of the current
/// pointer under that lock and makes its request with requestWithUrl() on it,
/// so changing the endpoint never frees a URL a fetch in flight still uses. An
/// empty endpoint makes every fetch fail with the "response object was NULL"
/// text.
///
/// Threading: every field is read and written under m_condition's mutex; the
/// HTTP exchange of a fetch runs without it. All operations may be called from
/// any thread. Objects must be made with alloc(): a fetch keeps the object
/// alive through a strong pointer made from m_self.
#ifndef ORV_CORE_ORV_ACCESSTOKEN_ORVACCESSTOKEN_H
#define ORV_CORE_ORV_ACCESSTOKEN_ORVACCESSTOKEN_H

#include <string>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"
#include "core/utility/Threads/Synchronization/AppConditionMutex.h"
#include "core/utility/orv_utility.h"

namespace orv {

class ORV_API orv_AccessToken {
 public:
  static Memory::orv_shared_ptr<orv_AccessToken> alloc();
  virtual ~orv_AccessToken();

  /// Stores the keys (sharing the caller's blocks) and starts a fetch, after
  /// any fetch in flight has ended. The same two keys again (strcmp) change
  /// nothing and keep the token. A null key leaves "NO API/SECRET KEY".
  void setKeys(Memory::orv_shared_ptr<char> apiKey, Memory::orv_shared_ptr<char> secretKey);
  /// Both keys present and non-empty.
  bool isApiKeyInfoSet();
  /// The token, or empty. Waits for a fetch in flight; with no token and no
  /// fetch in flight (and both keys set) starts one and waits for it. On
  /// failure *error (when error is not null) receives the last failure text.
  /// With cancelHandle and error both given, cancelTokenWaitWithHandle() on
  /// that flag ends the wait: empty result, *error = "Cancelled". With error
  /// null a cancel is only logged and the call waits for the fetch.
  Memory::orv_shared_ptr<char> getAccessToken(Memory::orv_shared_ptr<char>* error,
                                              bool* cancelHandle);
  /// Sets *cancelHandle under the lock and wakes every waiter; the waiter
  /// holding that flag gives up. A null handle is only logged.
  void cancelTokenWaitWithHandle(bool* cancelHandle);
  /// Drops the token and, when both keys are present, fetches again.
  void resetAccessToken();

  /// The fetch, run on a pool thread.
  void updateToken(Memory::orv_shared_ptr_base* unused);
  /// One token request, synchronously on this thread: the parsed answer, or
  /// empty with m_lastError set.
  Memory::orv_shared_ptr<cJSON> getAccessTokenFromOpenApiWithKeys(
      Memory::orv_shared_ptr<char> apiKey, Memory::orv_shared_ptr<char> secretKey);

  /// Process-wide token endpoint (see above).
  static void setTokenEndpoint(const std::string& url);
  static std::string getTokenEndpoint();

  orv_AccessToken(const orv_AccessToken&) = delete;
  orv_AccessToken& operator=(const orv_AccessToken&) = delete;

  Memory::orv_weak_ptr<orv_AccessToken> m_self;
  Memory::orv_shared_ptr<char> m_apiKey;
  Memory::orv_shared_ptr<char> m_secretKey;
  Memory::orv_shared_ptr<char> m_accessToken;
  Memory::orv_shared_ptr<char> m_lastError;
  Threads::Synchronization::AppConditionMutex* m_condition;  ///< owned

 protected:
  orv_AccessToken();

 private:
  /// Called with the lock held; false when the pool refused the task.
  bool startFetch();
  /// Called with the lock held; returns with it held.
  Memory::orv_shared_ptr<char> waitAccessTokenProc(Memory::orv_shared_ptr<char>* error,
                                                   bool* cancelHandle);
  void setLastError(const char* text);
};

}  // namespace orv

#endif  // ORV_CORE_ORV_ACCESSTOKEN_ORVACCESSTOKEN_H
