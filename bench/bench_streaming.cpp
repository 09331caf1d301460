// Chunked upload throughput on loopback: orv's streaming task fed through
// send_data against a plain libcurl chunked upload whose read callback copies
// from the same buffer. The receiver is a small C++ sink in this program (the
// Python test server would be the bottleneck): it drains each request until
// the chunked body's terminator and answers 200.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include <curl/curl.h>

#include "benchmark/benchmark.h"
#include "orv/orv.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Memory::orv_shared_ptr_base;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpResponse;

const size_t kTotal = 16 << 20;  // bytes per upload
const size_t kPiece = 16 << 10;  // bytes per send_data / read callback copy

class Sink {
 public:
  Sink() {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof(a);
    bind(fd_, reinterpret_cast<sockaddr*>(&a), n);
    listen(fd_, 16);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &n);
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~Sink() {
    stop_ = true;
    shutdown(fd_, SHUT_RDWR);
    close(fd_);
    thread_.join();
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/upload"; }

 private:
  // The payload is all 'a', so the terminator cannot appear inside it.
  void run() {
    static const char kEnd[] = "\r\n0\r\n\r\n";
    std::string buffer(1 << 16, '\0');
    while (!stop_) {
      int c = accept(fd_, nullptr, nullptr);
      if (c < 0) continue;
      std::string tail;
      ssize_t got;
      while ((got = recv(c, &buffer[0], buffer.size(), 0)) > 0) {
        tail.append(buffer.data(), static_cast<size_t>(got));
        if (tail.size() > 16) tail.erase(0, tail.size() - 16);
        if (tail.find(kEnd) != std::string::npos) break;
      }
      static const char kAnswer[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
      send(c, kAnswer, sizeof(kAnswer) - 1, MSG_NOSIGNAL);
      close(c);
    }
  }
  int fd_;
  int port_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

Sink& sink() {
  static Sink s;
  return s;
}

const std::string& payload() {
  static const std::string p(kTotal, 'a');
  return p;
}

struct Done {
  std::mutex m;
  std::condition_variable cv;
  bool done = false;
  int status = 0;
};

void on_response(orv_shared_ptr<orv_http_request_maker>&, orv_shared_ptr<orv_HttpResponse>& r,
                 orv_shared_ptr_base* user) {
  Done* d = static_cast<orv_shared_ptr<Done>*>(user)->getPTR();
  std::lock_guard<std::mutex> lock(d->m);
  d->done = true;
  d->status = r->_error_code == 0 ? r->_http_status : -r->_error_code;
  d->cv.notify_all();
}

void BM_SendDataUpload(benchmark::State& state) {
  const std::string url = sink().url();
  const std::string& data = payload();
  for (auto _ : state) {
    orv_shared_ptr<Done> done(new Done());
    orv_shared_ptr<orv_HttpRequest> request = orv_HttpRequest::requestWithUrl(url);
    request->_transfer_mode = 2;
    orv_shared_ptr<orv_http_request_maker> task = orv_http_request_maker::get_instance();
    task->start_request(request, &on_response, &done);
    for (size_t at = 0; at < data.size(); at += kPiece) {
      unsigned char* block = new unsigned char[kPiece];
      memcpy(block, data.data() + at, kPiece);
      orv_shared_ptr<unsigned char> piece(block, &orv_shared_ptr<unsigned char>::arrayDestructor);
      task->send_data(piece, static_cast<long>(kPiece), false);
    }
    orv_shared_ptr<unsigned char> none;
    task->send_data(none, 0, true);
    {
      std::unique_lock<std::mutex> lock(done->m);
      done->cv.wait(lock, [&] { return done->done; });
      if (done->status != 200) state.SkipWithError("upload failed");
    }
    task->release_instance();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kTotal));
}

struct Source {
  const std::string* data;
  size_t at;
};

size_t read_piece(char* buffer, size_t size, size_t count, void* user) {
  Source* s = static_cast<Source*>(user);
  size_t n = std::min(std::min(size * count, kPiece), s->data->size() - s->at);
  memcpy(buffer, s->data->data() + s->at, n);
  s->at += n;
  return n;
}

size_t drop(char*, size_t size, size_t count, void*) { return size * count; }

void BM_PlainCurlChunkedUpload(benchmark::State& state) {
  const std::string url = sink().url();
  for (auto _ : state) {
    Source source{&payload(), 0};
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, "Transfer-Encoding: chunked");
    headers = curl_slist_append(headers, "Expect:");
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, &read_piece);
    curl_easy_setopt(curl, CURLOPT_READDATA, &source);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &drop);
    CURLcode code = curl_easy_perform(curl);
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    if (code != CURLE_OK || status != 200) state.SkipWithError("upload failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kTotal));
}

BENCHMARK(BM_SendDataUpload)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_PlainCurlChunkedUpload)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
