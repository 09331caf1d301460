// send_data and the upload read callback against a model, the way the caller
// and libcurl's transfer thread meet: pieces of any size, bad pieces, the
// last flag set and cleared again, cancels, and reads of any size. What the
// read callback hands out must be the bytes handed in, in order, none lost
// or doubled; each read gives the wanted amount cut to what is queued; the
// body ends (0) once the last piece was given and all was read, or after a
// cancel. Reads that would wait (nothing queued, no last piece, not stopped)
// are not made: there is no other thread here to wake them.
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "orv/orv.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Networking::orv_http_request_maker;
using orv::Networking::orv_HttpRequest;
using orv::Networking::orv_HttpTask_impl;

const size_t kMaxSent = 1 << 20;

orv_shared_ptr<unsigned char> copy_of(const std::string& bytes) {
  unsigned char* block = new unsigned char[bytes.size() + 1];
  memcpy(block, bytes.data(), bytes.size());
  return orv_shared_ptr<unsigned char>(block, &orv_shared_ptr<unsigned char>::arrayDestructor);
}

// Bytes that tell their position, so a lost or doubled piece shows.
std::string piece(size_t at, size_t n) {
  std::string out(n, '\0');
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<char>((at + i) * 131 + ((at + i) >> 8));
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv_fuzz::Input in(data, size);
  orv_shared_ptr<orv_http_request_maker> task = orv_http_request_maker::get_instance();
  orv_HttpTask_impl* impl = static_cast<orv_HttpTask_impl*>(task.getPTR());
  // Mode 0: the send queue is made and no transfer starts.
  task->start_request(orv_HttpRequest::requestWithUrl("http://127.0.0.1/none"), nullptr, nullptr);

  std::string sent, read;
  bool last = false, stopped = false;
  std::vector<char> buffer;
  while (!in.empty() && sent.size() < kMaxSent) {
    uint8_t op = in.byte();
    switch (op % 6) {
      case 0:
      case 1: {  // a piece, small or up to 64 KiB
        size_t n = op % 6 == 0 ? in.byte() : in.u16();
        std::string bytes = piece(sent.size(), n);
        orv_shared_ptr<unsigned char> block = copy_of(bytes);
        last = (op & 0x80) != 0;
        task->send_data(block, static_cast<long>(n), last);
        sent += bytes;
        break;
      }
      case 2: {  // a bad piece queues nothing but still sets the flag
        orv_shared_ptr<unsigned char> none;
        orv_shared_ptr<unsigned char> block = copy_of("x");
        last = (op & 0x80) != 0;
        if (op & 0x40) {
          task->send_data(none, 1 + in.byte(), last);
        } else {
          task->send_data(block, -1 - static_cast<long>(in.byte()), last);
        }
        break;
      }
      case 3:
      case 4: {  // a read of size * count bytes
        size_t unit = 1 + in.byte() % 4;
        size_t count = in.u16() % 20000;
        size_t want = unit * count;
        size_t queued = sent.size() - read.size();
        if (!stopped && !last && queued == 0 && want > 0) break;  // would wait
        buffer.assign(want + 1, '\0');
        size_t got = orv_HttpTask_impl::read_callback(buffer.data(), unit, count, &impl->_self);
        size_t expected = stopped ? 0 : (want < queued ? want : queued);
        FUZZ_CHECK(got == expected);
        FUZZ_CHECK(memcmp(buffer.data(), sent.data() + read.size(), got) == 0);
        read.append(buffer.data(), got);
        break;
      }
      case 5:
        task->cancel();
        stopped = true;
        break;
    }
    FUZZ_CHECK(impl->_queued_bytes == static_cast<int32_t>(sent.size() - read.size()));
  }
  task->release_instance();
  return 0;
}
