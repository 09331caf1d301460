#include "core/utility/Networking/orv_HttpRequestMaker.h"

#include <string.h>

// The classic progress callback is the one this library uses on purpose.
#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include "core/utility/Networking/impl_curl/asr_http_task_CURL.h"
#include "core/utility/Networking/impl_curl/heap_trim_internal.h"
#include "core/utility/orv_log.h"
#include "core/utility/orv_utility.h"

namespace orv {
namespace Networking {

using Memory::orv_shared_ptr;

namespace {

// The handle, its two lists and the URL actually requested; everything that
// execute and network_connect set up alike.
struct Transfer {
  CURL* curl = nullptr;
  curl_slist* headers = nullptr;
  curl_slist* resolve = nullptr;
  std::string url;  // must outlive curl_easy_setopt(CURLOPT_URL), which copies
};

void build_header_list(Transfer& t, const orv_HttpRequest& request) {
  for (const auto& entry : request._headers) {
    std::string line = entry.first + ": " + entry.second;
    t.headers = curl_slist_append(t.headers, line.c_str());
  }
  // An empty Expect header: no wait for "100 Continue" before a body.
  t.headers = curl_slist_append(t.headers, "Expect:");
}

void select_url(Transfer& t, const orv_HttpRequest& request) {
  char* working = request._url.getPTR();
  if (strncmp(working, "https://", 8) == 0) {
    t.url = working;
    std::string dns_map = orv_http_request_maker::get_resolve_dns_map(request._origin_URL, working);
    if (!dns_map.empty()) {
      t.resolve = curl_slist_append(nullptr, dns_map.c_str());
      curl_easy_setopt(t.curl, CURLOPT_RESOLVE, t.resolve);
      t.url = orv_http_request_maker::get_host_url(request._origin_URL, working);
    }
    // The host name is checked against the certificate; the chain is not.
    curl_easy_setopt(t.curl, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(t.curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(t.curl, CURLOPT_URL, t.url.c_str());
  } else {
    curl_easy_setopt(t.curl, CURLOPT_URL, working);
  }
}

void set_callbacks(Transfer& t, orv_HttpRequest* request, orv_HttpResponse* response) {
  curl_easy_setopt(t.curl, CURLOPT_WRITEFUNCTION, &orv_HttpTask_impl::http_receive_data_cb);
  curl_easy_setopt(t.curl, CURLOPT_PROGRESSDATA, request);
  curl_easy_setopt(t.curl, CURLOPT_PROGRESSFUNCTION, &orv_HttpTask_impl::http_progress_cb);
  curl_easy_setopt(t.curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(t.curl, CURLOPT_WRITEDATA, response);
  curl_easy_setopt(t.curl, CURLOPT_HEADERFUNCTION, &orv_HttpTask_impl::http_receive_header_cb);
  curl_easy_setopt(t.curl, CURLOPT_HEADERDATA, response);
}

// Performs and frees everything; gives the curl code and the status read
// from libcurl (200 unless libcurl reports one).
CURLcode perform_and_clean(Transfer& t, long* status) {
  CURLcode code = curl_easy_perform(t.curl);
  curl_easy_getinfo(t.curl, CURLINFO_RESPONSE_CODE, status);
  curl_easy_cleanup(t.curl);
  t.curl = nullptr;
  curl_slist_free_all(t.headers);
  curl_slist_free_all(t.resolve);
  t.headers = nullptr;
  t.resolve = nullptr;
  detail::trim_heap();
  return code;
}

bool has_url(const orv_HttpRequest& request) {
  const char* url = request._url.getPTR();
  return url != nullptr && url[0] != '\0';
}

}  // namespace

orv_http_request_maker::~orv_http_request_maker() {}

std::string orv_http_request_maker::get_host_from_url(std::string url) {
  return orv::get_host_from_url(url);
}

std::string orv_http_request_maker::get_resolve_dns_map(const std::string& originUrl,
                                                        char* ipUrl) {
  std::string origin_host = orv::get_host_from_url(originUrl);
  std::string ip_host =
      orv::get_host_from_url(ipUrl != nullptr ? std::string(ipUrl) : std::string());
  if (origin_host.empty() || ip_host.empty()) return std::string();
  // Always port 443, whatever the URLs name.
  return origin_host + ":443:" + ip_host;
}

std::string orv_http_request_maker::get_host_url(const std::string& originUrl, char* ipUrl) {
  if (ipUrl == nullptr) return std::string();
  std::string url(ipUrl);
  size_t slashes = url.find("//");
  if (slashes == std::string::npos) return url;
  size_t start = slashes + 2;
  size_t end = url.find('/', start);
  if (end == std::string::npos) return url;
  return url.substr(0, start) + orv::get_host_from_url(originUrl) + url.substr(end);
}

orv_shared_ptr<orv_HttpResponse> orv_http_request_maker::execute(
    orv_shared_ptr<orv_HttpRequest> request) {
  if (!request) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:100][ASRHttpTask::execute] request is NULL\n");
    return orv_shared_ptr<orv_HttpResponse>();
  }
  if (!has_url(*request)) {
    ORV_LOG_ERROR("[ERROR]-[%s][%s:106][ASRHttpTask::execute] URL is NULL or empty\n");
    return orv_shared_ptr<orv_HttpResponse>();
  }
  Transfer t;
  t.curl = curl_easy_init();
  long status = 200;
  build_header_list(t, *request);
  ORV_LOG_DEBUG("[DEBUG]-[%s][%s:121][ASRHttpTask::execute] url = %s\n", request->_url.getPTR());
  orv_shared_ptr<orv_HttpResponse> response = orv_HttpResponse::alloc();
  select_url(t, *request);

  curl_easy_setopt(t.curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(t.curl, CURLOPT_VERBOSE, 0L);
  // -1 is refused by libcurl, which then keeps "no time-out".
  curl_easy_setopt(t.curl, CURLOPT_TIMEOUT_MS, static_cast<long>(request->_timeout_ms));
  curl_easy_setopt(t.curl, CURLOPT_HTTPHEADER, t.headers);
  if (request->_post_data_len > 0) {
    curl_easy_setopt(t.curl, CURLOPT_POSTFIELDS, request->_post_data.getPTR());
    curl_easy_setopt(t.curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(request->_post_data_len));
  }
  set_callbacks(t, request.getPTR(), response.getPTR());

  CURLcode code = perform_and_clean(t, &status);
  ORV_LOG_DEBUG(
      "[DEBUG]-[%s][%s:167][ASRHttpTask::execute][curl_code=%d, http_stauts=%ld, "
      "response_len=%d] receive response: %s\n",
      static_cast<int>(code), status, static_cast<int>(response->_length - 1),
      response->_data.getPTR());
  if (code == CURLE_OK) {
    response->_http_status = static_cast<int32_t>(status);
  } else if (code == CURLE_ABORTED_BY_CALLBACK) {
    ORV_LOG_DEBUG("[DEBUG]-[%s][%s:172][ASRHttpTask::execute] curl is aborted by call back\n");
    response->_error_code = 2;
  } else {
    // Kept silent on purpose: status 200, error code 0, whatever body came.
    ORV_LOG_ERROR("[ERROR]-[%s][%s:175][ASRHttpTask::execute][curl_code=%d] curl error!\n",
                  static_cast<int>(code));
  }
  return response;
}

void orv_http_request_maker::network_connect(orv_shared_ptr<orv_HttpRequest> request) {
  if (!request || !has_url(*request)) return;
  Transfer t;
  t.curl = curl_easy_init();
  long status = 200;
  build_header_list(t, *request);
  orv_shared_ptr<orv_HttpResponse> response = orv_HttpResponse::alloc();
  select_url(t, *request);
  curl_easy_setopt(t.curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(t.curl, CURLOPT_VERBOSE, 0L);
  curl_easy_setopt(t.curl, CURLOPT_HTTPHEADER, t.headers);
  set_callbacks(t, request.getPTR(), response.getPTR());
  perform_and_clean(t, &status);
}

}  // namespace Networking
}  // namespace orv
