// PCMQueue operation sequences against a reference model, in ring and linear
// mode: every result, every byte read, the stored size and (ring mode) the
// logical position must agree after each step.
//
// The ring model keeps its own circular array with read and write indices,
// so that snapshot and restore (which bring back the indices, not the bytes)
// behave as the real queue does.
#include <vector>

#include "core/utility/PCMQueue.h"
#include "fuzz/fuzz_support.h"

namespace {

struct RingModel {
  explicit RingModel(int cap) : bytes(cap, 0), cap(cap) {}
  std::vector<unsigned char> bytes;
  int cap;
  int rd = 0, wr = 0, size = 0;
  int snap_rd = 0, snap_wr = 0, snap_size = 0;
  uint32_t pos = 0;

  int queue(const unsigned char* d, int len) {
    if (len == 0) return size;
    if (len < 0) return -1;
    int64_t overflow = static_cast<int64_t>(size) + len - cap;
    if (len > cap) {
      d += len - cap;
      len = cap;
    }
    if (overflow > 0) pos += static_cast<uint32_t>(overflow);
    for (int i = 0; i < len; ++i) {
      bytes[wr] = d[i];
      wr = (wr + 1) % cap;
    }
    size += len;
    if (size >= cap) {
      size = cap;
      rd = wr;
    }
    return size;
  }
  int copy(unsigned char* out, int len) const {
    int n = len < size ? len : size;
    for (int i = 0; i < n; ++i) out[i] = bytes[(rd + i) % cap];
    return n;
  }
  int peek(unsigned char* out, int len, bool partial) const {
    if (len < 0) return 0;
    if (size >= len || partial) return copy(out, len);
    return 0;
  }
  int deque(unsigned char* out, int len, bool partial) {
    if (len < 0 || !(size >= len || partial)) return 0;
    int n = copy(out, len);
    rd = (rd + n) % cap;
    if (size - len < 1) {
      size = 0;
      rd = wr = 0;
    } else {
      size -= len;
    }
    pos += static_cast<uint32_t>(n);
    return n;
  }
  void reset() {
    pos += static_cast<uint32_t>(size);
    size = snap_size = 0;
    rd = wr = snap_rd = snap_wr = 0;
  }
  int shift(int len) {
    if (len < 0) return 0;
    if (len < size) {
      rd = (rd + len) % cap;
      size -= len;
      pos += static_cast<uint32_t>(len);
      return len;
    }
    int old = size;
    reset();
    return old;
  }
  int shift_to(int target) {
    int64_t skip = static_cast<int64_t>(target) - static_cast<int32_t>(pos);
    if (skip < 1) return 0;
    int result;
    if (skip >= size) {
      result = size;
      size = 0;
      rd = wr = 0;
    } else {
      rd = static_cast<int>((rd + skip) % cap);
      size -= static_cast<int>(skip);
      result = static_cast<int>(skip);
    }
    pos = static_cast<uint32_t>(target);
    return result;
  }
};

struct LinearModel {
  std::vector<unsigned char> bytes;
  int queue(const unsigned char* d, int len) {
    if (len < 0) return -1;
    bytes.insert(bytes.end(), d, d + len);
    return static_cast<int>(bytes.size());
  }
  int peek(unsigned char* out, int len, bool partial) const {
    int size = static_cast<int>(bytes.size());
    if (len < 0) return 0;
    int n = len <= size ? len : (size > 0 && partial ? size : 0);
    if (n > 0) memcpy(out, bytes.data(), static_cast<size_t>(n));
    return n;
  }
  int deque(unsigned char* out, int len, bool partial) {
    int n = peek(out, len, partial);
    bytes.erase(bytes.begin(), bytes.begin() + n);
    return n;
  }
  int shift(int len) {
    if (len < 0) return 0;
    int n = len < static_cast<int>(bytes.size()) ? len : static_cast<int>(bytes.size());
    bytes.erase(bytes.begin(), bytes.begin() + n);
    return n;
  }
  int range(unsigned char* out, int outLen, int from, int to, bool partial) const {
    if (from < 0) return 0;
    int64_t available = static_cast<int64_t>(bytes.size()) - from;
    int64_t wanted = static_cast<int64_t>(to) - from + 1;
    if (available < 0 || wanted < 0) return 0;
    if (available < wanted) wanted = partial ? available : 0;
    if (wanted > outLen) return 0;
    if (wanted > 0) memcpy(out, bytes.data() + from, static_cast<size_t>(wanted));
    return static_cast<int>(wanted);
  }
};

// A signed length around the interesting sizes (0, 1, cap, beyond, negative).
int length(orv_fuzz::Input& in, int cap) {
  uint8_t b = in.byte();
  int span = cap > 0 ? cap : 64;
  switch (b >> 6) {
    case 0: return b & 7;
    case 1: return (b & 63) % (span + 1);
    case 2: return span - 2 + (b & 7);
    default: return (b & 1) ? -(b & 15) - 1 : 2 * span + (b & 15);
  }
}

void run_ring(orv_fuzz::Input& in, int cap) {
  orv::Memory::orv_shared_ptr<orv::PCMQueue> q = orv::PCMQueue::newQueue(cap);
  FUZZ_CHECK(q);
  RingModel m(cap);
  std::vector<unsigned char> src(4 * cap + 64), a(4 * cap + 64), b(4 * cap + 64);
  unsigned counter = 0;
  while (!in.empty()) {
    uint8_t op = in.byte() % 9;
    int len = length(in, cap);
    bool partial = (op & 1) != 0;
    int got = 0, want = 0;
    switch (op) {
      case 0:
      case 1:
        for (int i = 0; i < len; ++i) src[i] = static_cast<unsigned char>(counter++);
        got = q->queueAudio(src.data(), len);
        want = m.queue(src.data(), len);
        break;
      case 2:
      case 3:
        got = q->readSamples(a.data(), len, partial);
        want = m.peek(b.data(), len, partial);
        break;
      case 4:
      case 5:
        got = q->dequeSamples(a.data(), len, partial);
        want = m.deque(b.data(), len, partial);
        break;
      case 6:
        got = q->shiftSize(len);
        want = m.shift(len);
        break;
      case 7: {
        int target = q->m_logicalPos + len - 2;
        got = q->shiftToLogicPos(target);
        want = m.shift_to(target);
        break;
      }
      default:
        switch (len & 3) {
          case 0: q->snapshot(); m.snap_rd = m.rd; m.snap_wr = m.wr; m.snap_size = m.size; break;
          case 1: q->restore(); m.rd = m.snap_rd; m.wr = m.snap_wr; m.size = m.snap_size; break;
          case 2: q->reset(); m.reset(); break;
          default: FUZZ_CHECK(q->haveData() == (m.size > 0)); break;
        }
    }
    FUZZ_CHECK(got == want);
    if (op >= 2 && op <= 5 && got > 0) FUZZ_CHECK(memcmp(a.data(), b.data(), got) == 0);
    FUZZ_CHECK(q->m_size == m.size);
    FUZZ_CHECK(q->m_logicalPos == static_cast<int32_t>(m.pos));
    FUZZ_CHECK(q->m_size >= 0 && q->m_size <= q->m_capacity);
    FUZZ_CHECK(q->m_readPtr >= q->m_buffer && q->m_readPtr < q->m_bufferEnd);
    FUZZ_CHECK(q->m_writePtr >= q->m_buffer && q->m_writePtr < q->m_bufferEnd);
  }
}

void run_linear(orv_fuzz::Input& in, int initial) {
  orv::Memory::orv_shared_ptr<orv::PCMQueue> q = orv::PCMQueue::newQueue(initial);
  FUZZ_CHECK(q);
  LinearModel m;
  std::vector<unsigned char> src(256), a(512), b(512);
  unsigned counter = 0;
  while (!in.empty()) {
    uint8_t op = in.byte() % 8;
    int len = length(in, 0);
    bool partial = (op & 1) != 0;
    int got = 0, want = 0;
    switch (op) {
      case 0:
      case 1:
        for (int i = 0; i < len; ++i) src[i] = static_cast<unsigned char>(counter++);
        got = q->queueAudio(src.data(), len);
        want = m.queue(src.data(), len);
        break;
      case 2:
      case 3:
        got = q->readSamples(a.data(), len, partial);
        want = m.peek(b.data(), len, partial);
        break;
      case 4:
      case 5:
        got = q->dequeSamples(a.data(), len, partial);
        want = m.deque(b.data(), len, partial);
        break;
      case 6: {
        int from = length(in, 0);
        int outLen = length(in, 0);
        if (outLen < 0) outLen = 0;
        got = q->readSamples(a.data(), outLen, from, from + len, partial);
        want = m.range(b.data(), outLen, from, from + len, partial);
        break;
      }
      default:
        if (len & 1) {
          got = q->shiftSize(len);
          want = m.shift(len);
        } else {
          // Linear mode never moves the logical position.
          got = q->shiftToLogicPos(len);
          want = 0;
        }
    }
    FUZZ_CHECK(got == want);
    if (op >= 2 && op <= 6 && got > 0) FUZZ_CHECK(memcmp(a.data(), b.data(), got) == 0);
    FUZZ_CHECK(q->m_size == static_cast<int32_t>(m.bytes.size()));
    FUZZ_CHECK(q->m_logicalPos == 0);
    // (the capacity starts at the constructor argument, which may be negative)
    FUZZ_CHECK(q->m_size == 0 || q->m_size <= q->m_capacity);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orv_fuzz::Input in(data, size);
  uint8_t head = in.byte();
  if (head & 0x80) {
    run_linear(in, -(head & 7));
  } else {
    run_ring(in, 1 + (head & 0x3F));
  }
  return 0;
}
