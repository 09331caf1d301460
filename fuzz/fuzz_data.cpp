// The data structures a caller feeds, each against a model; the first byte
// picks which: the PCM queue, or a streaming task's send queue with the
// upload read callback.
#include <vector>

#include "fuzz/fuzz.h"
#include "orv/orv.h"

namespace {

using orv::Memory::orv_shared_ptr;
using orv::Networking::orv_HttpTask_impl;

// A length around the interesting sizes: small, up to the capacity, near it,
// beyond it, negative.
int length(orv_fuzz::Input& in, int cap) {
  const int b = in.byte(), span = cap > 0 ? cap : 64;
  const int lengths[] = {b & 7, (b & 63) % (span + 1), span - 2 + (b & 7), b & 1 ? -(b & 15) - 1 : 2 * span + (b & 15)};
  return lengths[b >> 6];
}

// The model: the bytes stored (a ring keeps the newest `cap`, overwriting the
// oldest) and, in ring mode, the stream position of the oldest byte.
void pcm_queue(orv_fuzz::Input& in) {
  const int head = in.byte(), cap = head & 0x80 ? 0 : 1 + (head & 0x3F);  // 0: linear
  orv_shared_ptr<orv::PCMQueue> q = orv::PCMQueue::newQueue(cap > 0 ? cap : -(head & 7));
  std::string model;
  uint32_t pos = 0;
  unsigned char out[512];
  for (char next = 0; in.size > 0;) {
    const int op = in.byte() % 8, len = length(in, cap), stored = static_cast<int>(model.size());
    const bool part = op & 1;
    int got, want;
    if (op < 2) {
      std::string bytes(std::max(len, 0), '\0');
      for (char& c : bytes) c = next++;
      got = q->queueAudio(reinterpret_cast<const unsigned char*>(bytes.data()), len);
      const int over = cap > 0 ? std::max(0, stored + static_cast<int>(bytes.size()) - cap) : 0;
      model = (model + bytes).substr(over);
      pos += over;
      want = len < 0 ? -1 : static_cast<int>(model.size());
    } else if (op < 7) {  // peek, deque (all of len, or with `part` what there is), shift
      want = len < 0 || (op < 6 && len > stored && !part) ? 0 : std::min(len, stored);
      got = op < 4 ? q->readSamples(out, len, part) : op < 6 ? q->dequeSamples(out, len, part) : q->shiftSize(len);
      FUZZ_CHECK(op == 6 || got != want || memcmp(out, model.data(), want) == 0);
      model.erase(0, op < 4 ? 0 : want);
      pos += op < 4 || cap == 0 ? 0 : want;  // linear consumption keeps the position
    } else if (cap > 0) {  // skip forward to a position near the current one
      want = len - 2 < 1 ? 0 : std::min(len - 2, stored);
      got = q->shiftToLogicPos(static_cast<int>(pos) + len - 2);
      model.erase(0, want);
      pos += std::max(0, len - 2);
    } else {  // linear: bytes from..from + len, or with `part` what there is; none if more than room
      const int from = std::max(0, length(in, 0)), room = std::max(0, length(in, 0)), there = std::max(0, stored - from);
      want = len < -1 || (there < len + 1 && !part) ? 0 : std::min(there, len + 1);
      got = q->readSamples(out, room, from, from + len, part), want = want > room ? 0 : want;
      FUZZ_CHECK(memcmp(out, model.data() + std::min(from, stored), std::max(0, got)) == 0);
    }
    FUZZ_CHECK(got == want && q->m_size == static_cast<int>(model.size()));
    FUZZ_CHECK(q->m_logicalPos == static_cast<int32_t>(pos) && q->haveData() == !model.empty());
  }
}

orv_shared_ptr<unsigned char> copy_of(const std::string& bytes) {
  unsigned char* block = new unsigned char[bytes.size() + 1];
  memcpy(block, bytes.data(), bytes.size());
  return orv_shared_ptr<unsigned char>(block, &orv_shared_ptr<unsigned char>::arrayDestructor);
}

// send_data and the upload read callback as a caller and libcurl's transfer
// thread meet them: pieces of any size, bad pieces, the last flag set and
// cleared, cancels, reads of any size. A read hands out the bytes sent, in
// order, as many as wanted and queued; after a cancel, none. Reads that would
// wait (nothing queued, no last piece, not stopped) are not made: no other
// thread would wake them.
void send_data(orv_fuzz::Input& in) {
  auto task = orv::Networking::orv_http_request_maker::get_instance();
  auto* impl = static_cast<orv_HttpTask_impl*>(task.getPTR());
  // Mode 0: the send queue is made and no transfer starts.
  auto request = orv::Networking::orv_HttpRequest::requestWithUrl("http://127.0.0.1/none");
  task->start_request(request, nullptr, nullptr);
  std::string sent, read;
  bool last = false, stopped = false;
  while (in.size > 0 && sent.size() < (1u << 20)) {
    const int op = in.byte(), kind = op % 6;
    if (kind < 3) last = op & 0x80;
    if (kind < 2) {  // a piece, small or up to 64 KiB, of bytes that tell their place
      size_t n = in.byte();
      n |= kind == 1 ? in.byte() << 8 : 0;
      for (size_t at = sent.size(), end = at + n; at < end; ++at)
        sent += static_cast<char>(at * 131 + (at >> 8));
      orv_shared_ptr<unsigned char> block = copy_of(sent.substr(sent.size() - n));
      task->send_data(block, static_cast<long>(n), last);
    } else if (kind == 2) {  // a bad piece queues nothing but still sets the flag
      orv_shared_ptr<unsigned char> block = op & 0x40 ? orv_shared_ptr<unsigned char>() : copy_of("x");
      task->send_data(block, block ? -1 - in.byte() : 1 + in.byte(), last);
    } else if (kind < 5) {  // a read of size * count bytes
      size_t unit = 1 + in.byte() % 4, count = in.byte(), queued = sent.size() - read.size();
      count = (count | in.byte() << 8) % 20000;
      if (!stopped && !last && queued == 0 && count > 0) continue;  // it would wait
      std::vector<char> buffer(unit * count + 1);
      size_t got = orv_HttpTask_impl::read_callback(buffer.data(), unit, count, &impl->_self);
      FUZZ_CHECK(got == (stopped ? 0 : std::min(unit * count, queued)));
      FUZZ_CHECK(memcmp(buffer.data(), sent.data() + read.size(), got) == 0);
      read.append(buffer.data(), got);
    } else {
      task->cancel();
      stopped = true;
    }
    FUZZ_CHECK(impl->_queued_bytes == static_cast<int32_t>(sent.size() - read.size()));
  }
  task->release_instance();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv_fuzz::Input in{data, size};
  in.byte() % 2 == 0 ? pcm_queue(in) : send_data(in);
  return 0;
}
