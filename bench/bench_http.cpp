// One-shot GET on loopback: orv_http_request_maker::execute against a plain
// libcurl easy-handle loop doing the same requests with the same options (a
// fresh handle each time). The difference is the library's own work: request
// and response objects, the header map, one realloc per received piece, the
// malloc_trim(0) after each transfer. Starts the Python test server itself.
#include <stdio.h>
#include <stdlib.h>

#include <string>

#define CURL_DISABLE_DEPRECATION
#include <curl/curl.h>

#include "benchmark/benchmark.h"
#include "orv/orv.h"
#include "support/http_test_server.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpResponse;

orv_test::HttpTestServer* server() {
  static orv_test::HttpTestServer* s = [] {
    orv_test::HttpTestServer* made = new orv_test::HttpTestServer();
    if (!made->start()) {
      fprintf(stderr, "%s\n", made->error().c_str());
      exit(1);
    }
    return made;
  }();
  return s;
}

std::string url_for(int64_t bytes) {
  return server()->http_url("/body?n=" + std::to_string(bytes) + "&chunk=16384");
}

size_t append_cb(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}
size_t header_cb(char*, size_t size, size_t count, void*) { return size * count; }
int progress_cb(void*, double, double, double, double) { return 0; }

void BM_ExecuteGet(benchmark::State& state) {
  std::string url = url_for(state.range(0));
  for (auto _ : state) {
    orv_shared_ptr<orv_HttpResponse> r =
        orv_http_request_maker::execute(orv_HttpRequest::requestWithUrl(url));
    if (!r || r->_length != static_cast<uint32_t>(state.range(0) + 1)) {
      state.SkipWithError("bad response");
      break;
    }
  }
}
BENCHMARK(BM_ExecuteGet)->Arg(2)->Arg(65536)->UseRealTime()->Unit(benchmark::kMicrosecond);

void BM_PlainCurlGet(benchmark::State& state) {
  std::string url = url_for(state.range(0));
  for (auto _ : state) {
    std::string body;
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "Expect:");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, -1L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &append_cb);
    curl_easy_setopt(curl, CURLOPT_PROGRESSDATA, nullptr);
    curl_easy_setopt(curl, CURLOPT_PROGRESSFUNCTION, &progress_cb);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &header_cb);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, nullptr);
    CURLcode code = curl_easy_perform(curl);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    if (code != CURLE_OK || body.size() != static_cast<size_t>(state.range(0))) {
      state.SkipWithError("bad response");
      break;
    }
  }
}
BENCHMARK(BM_PlainCurlGet)->Arg(2)->Arg(65536)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
