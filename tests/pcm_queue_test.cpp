#include <string.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "orv/orv.h"

namespace {

using orv::PCMQueue;
using Queue = orv::Memory::orv_shared_ptr<PCMQueue>;
using Bytes = std::vector<unsigned char>;

Bytes iota_bytes(int n, int first = 0) {
  Bytes b(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) b[static_cast<size_t>(i)] = static_cast<unsigned char>(first + i);
  return b;
}

Bytes contents(PCMQueue& q) {
  Bytes out(static_cast<size_t>(q.m_size) + 1);
  int n = q.readSamples(out.data(), q.m_size, false);
  out.resize(static_cast<size_t>(n));
  return out;
}

// Byte-at-a-time model of the ring: offsets instead of pointers.
struct RingModel {
  explicit RingModel(int cap) : cap(cap), buf(static_cast<size_t>(cap)) {}
  int cap;
  Bytes buf;
  int size = 0, r = 0, w = 0, snapSize = 0, snapR = 0, snapW = 0;
  long long pos = 0;

  int queue(const Bytes& in) {
    int len = static_cast<int>(in.size());
    if (len == 0) return size;
    long long overflow = static_cast<long long>(size) + len - cap;
    size_t from = len > cap ? static_cast<size_t>(len - cap) : 0;
    if (overflow > 0) pos += overflow;
    for (size_t i = from; i < in.size(); ++i) {
      buf[static_cast<size_t>(w)] = in[i];
      w = (w + 1) % cap;
    }
    size += static_cast<int>(in.size() - from);
    if (size >= cap) {
      size = cap;
      r = w;
    }
    return size;
  }
  int copy(Bytes& out, int len) const {
    int n = std::min(len, size);
    out.assign(static_cast<size_t>(n), 0);
    for (int i = 0; i < n; ++i) out[static_cast<size_t>(i)] = buf[static_cast<size_t>((r + i) % cap)];
    return n;
  }
  int peek(Bytes& out, int len, bool partial) const {
    if (size >= len || partial) return copy(out, len);
    out.clear();
    return 0;
  }
  int deque(Bytes& out, int len, bool partial) {
    if (!(size >= len || partial)) {
      out.clear();
      return 0;
    }
    int n = copy(out, len);
    r = (r + n) % cap;
    if (size - len < 1) {
      size = 0;
      r = w = 0;
    } else {
      size -= len;
    }
    pos += n;
    return n;
  }
  void reset() {
    pos += size;
    size = snapSize = 0;
    r = w = snapR = snapW = 0;
  }
  int shift(int len) {
    if (len < size) {
      r = (r + len) % cap;
      size -= len;
      pos += len;
      return len;
    }
    int old = size;
    reset();
    return old;
  }
  int shiftTo(long long target) {
    long long skip = target - pos;
    if (skip < 1) return 0;
    int result;
    if (skip >= size) {
      result = size;
      size = 0;
      r = w = 0;
    } else {
      result = static_cast<int>(skip);
      r = (r + result) % cap;
      size -= result;
    }
    pos = target;
    return result;
  }
};

void expect_same_state(PCMQueue& q, const RingModel& m, const std::string& where) {
  ASSERT_EQ(q.m_size, m.size) << where;
  ASSERT_EQ(q.m_logicalPos, m.pos) << where;
  ASSERT_EQ(q.m_readPtr - q.m_buffer, m.r) << where;
  ASSERT_EQ(q.m_writePtr - q.m_buffer, m.w) << where;
  ASSERT_EQ(q.m_bufferEnd, q.m_buffer + m.cap) << where;
  ASSERT_EQ(q.haveData(), m.size > 0) << where;
  Bytes expected;
  m.copy(expected, m.size);
  ASSERT_EQ(contents(q), expected) << where;
}

TEST(PCMQueueRing, MatchesModelOverLongRandomSequences) {
  for (int cap : {1, 2, 7, 64, 3200}) {
    std::mt19937 rng(static_cast<unsigned>(cap) * 7919u);
    Queue q = PCMQueue::newQueue(cap);
    ASSERT_TRUE(q);
    ASSERT_TRUE(q->m_isRing);
    RingModel m(cap);
    unsigned char next = 0;
    for (int step = 0; step < 20000; ++step) {
      int len = static_cast<int>(rng() % static_cast<unsigned>(cap + cap / 2 + 2));
      bool partial = rng() % 2 == 0;
      std::string where = "cap " + std::to_string(cap) + " step " + std::to_string(step);
      Bytes got(static_cast<size_t>(len) + 1), want;
      switch (rng() % 9) {
        case 0:
        case 1:
        case 2: {
          Bytes in(static_cast<size_t>(len));
          for (auto& b : in) b = next++;
          ASSERT_EQ(q->queueAudio(in.data(), len), m.queue(in)) << where;
          break;
        }
        case 3: {
          int n = q->readSamples(got.data(), len, partial);
          ASSERT_EQ(n, m.peek(want, len, partial)) << where;
          got.resize(static_cast<size_t>(n));
          ASSERT_EQ(got, want) << where;
          break;
        }
        case 4:
        case 5: {
          int n = q->dequeSamples(got.data(), len, partial);
          ASSERT_EQ(n, m.deque(want, len, partial)) << where;
          got.resize(static_cast<size_t>(n));
          ASSERT_EQ(got, want) << where;
          break;
        }
        case 6:
          ASSERT_EQ(q->shiftSize(len), m.shift(len)) << where;
          break;
        case 7: {
          // Mostly within or just past the stored data, sometimes behind.
          long long target = m.pos + static_cast<long long>(rng() % static_cast<unsigned>(m.size + 3)) - 1;
          ASSERT_EQ(q->shiftToLogicPos(static_cast<int>(target)), m.shiftTo(target)) << where;
          break;
        }
        default:
          switch (rng() % 5) {
            case 0:
              q->reset();
              m.reset();
              break;
            case 1:
            case 2:
              q->snapshot();
              m.snapSize = m.size, m.snapR = m.r, m.snapW = m.w;
              break;
            default:
              q->restore();
              m.size = m.snapSize, m.r = m.snapR, m.w = m.snapW;
              break;
          }
      }
      expect_same_state(*q, m, where);
    }
  }
}

// Without restores and far skips, the front byte is always stream byte number
// m_logicalPos: the logical position names the oldest byte stored.
TEST(PCMQueueRing, LogicalPositionNamesTheOldestStoredByte) {
  auto stream_byte = [](long long i) { return static_cast<unsigned char>((i * 131 + 17) % 251); };
  std::mt19937 rng(99);
  const int cap = 50;
  Queue q = PCMQueue::newQueue(cap);
  long long written = 0;
  for (int step = 0; step < 20000; ++step) {
    int len = static_cast<int>(rng() % 80);
    Bytes buf(static_cast<size_t>(len) + 1);
    switch (rng() % 5) {
      case 0:
      case 1:
        for (int i = 0; i < len; ++i) buf[static_cast<size_t>(i)] = stream_byte(written + i);
        q->queueAudio(buf.data(), len);
        written += len;
        break;
      case 2:
        q->dequeSamples(buf.data(), len, rng() % 2 == 0);
        break;
      case 3:
        q->shiftSize(len);
        break;
      default:
        q->shiftToLogicPos(q->m_logicalPos + static_cast<int>(rng() % static_cast<unsigned>(q->m_size + 1)));
        break;
    }
    ASSERT_EQ(q->m_logicalPos + q->m_size, written) << step;
    Bytes stored = contents(*q);
    for (size_t i = 0; i < stored.size(); ++i) {
      ASSERT_EQ(stored[i], stream_byte(q->m_logicalPos + static_cast<long long>(i))) << step;
    }
  }
}

// What the model does not generate: bad arguments change nothing, and a
// range peek is for linear queues only.
TEST(PCMQueueRing, BadArgumentsChangeNothing) {
  Queue q = PCMQueue::newQueue(10);
  Bytes six = iota_bytes(6);
  unsigned char out[20];
  q->queueAudio(six.data(), 6);
  q->shiftSize(2);
  EXPECT_EQ(q->queueAudio(nullptr, 3), -1);
  EXPECT_EQ(q->queueAudio(six.data(), -1), -1);
  EXPECT_EQ(q->queueAudio(nullptr, 0), 4);
  EXPECT_EQ(q->readSamples(nullptr, 3, true), 0);
  EXPECT_EQ(q->dequeSamples(nullptr, 3, true), 0);
  EXPECT_EQ(q->readSamples(out, -3, true), 0);
  EXPECT_EQ(q->dequeSamples(out, -3, true), 0);
  EXPECT_EQ(q->shiftSize(-3), 0);
  EXPECT_EQ(q->readSamples(out, 20, 0, 3, true), 0);
  EXPECT_EQ(q->m_size, 4);
  EXPECT_EQ(q->m_logicalPos, 2);
  EXPECT_EQ(contents(*q), iota_bytes(4, 2));
}

// Linear mode against a std::string, including the exact-growth rule.
TEST(PCMQueueLinear, MatchesModelAndGrowsExactly) {
  std::mt19937 rng(4242);
  Queue q = PCMQueue::newQueue(0);
  ASSERT_TRUE(q);
  EXPECT_FALSE(q->m_isRing);
  EXPECT_EQ(q->m_buffer, nullptr);
  Bytes model;
  unsigned char next = 0;
  for (int step = 0; step < 20000; ++step) {
    int len = static_cast<int>(rng() % 40);
    bool partial = rng() % 2 == 0;
    int size = static_cast<int>(model.size());
    Bytes buf(static_cast<size_t>(len) + 1);
    std::string where = "step " + std::to_string(step);
    switch (rng() % 6) {
      case 0:
      case 1: {
        int old_capacity = q->m_capacity;
        for (int i = 0; i < len; ++i) buf[static_cast<size_t>(i)] = next++;
        ASSERT_EQ(q->queueAudio(buf.data(), len), size + len) << where;
        model.insert(model.end(), buf.begin(), buf.begin() + len);
        ASSERT_EQ(q->m_capacity, std::max(old_capacity, size + len)) << where;
        break;
      }
      case 2: {
        int n = q->readSamples(buf.data(), len, partial);
        int want = len <= size ? len : (size > 0 && partial ? size : 0);
        ASSERT_EQ(n, want) << where;
        ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + n, model.begin())) << where;
        break;
      }
      case 3: {
        int n = q->dequeSamples(buf.data(), len, partial);
        int want = len <= size ? len : (size > 0 && partial ? size : 0);
        ASSERT_EQ(n, want) << where;
        ASSERT_TRUE(std::equal(buf.begin(), buf.begin() + n, model.begin())) << where;
        model.erase(model.begin(), model.begin() + n);
        break;
      }
      case 4: {
        int n = q->shiftSize(len);
        ASSERT_EQ(n, std::min(len, size)) << where;
        model.erase(model.begin(), model.begin() + n);
        break;
      }
      default: {
        int from = static_cast<int>(rng() % static_cast<unsigned>(size + 3));
        int to = from + static_cast<int>(rng() % 12) - 2;
        int out_len = static_cast<int>(rng() % 12);
        Bytes out(12);
        int n = q->readSamples(out.data(), out_len, from, to, partial);
        long long available = size - from, wanted = to - from + 1;
        long long expect = 0;
        if (available >= 0 && wanted >= 0) {
          expect = available < wanted ? (partial ? available : 0) : wanted;
          if (expect > out_len) expect = 0;
        }
        ASSERT_EQ(n, expect) << where;
        ASSERT_TRUE(std::equal(out.begin(), out.begin() + n, model.begin() + from)) << where;
      }
    }
    ASSERT_EQ(q->m_size, static_cast<int>(model.size())) << where;
    ASSERT_EQ(q->m_logicalPos, 0) << where;  // linear consumption never counts
    ASSERT_EQ(contents(*q), model) << where;
  }
}

TEST(PCMQueueLinear, EmptyQueueAndBadArguments) {
  PCMQueue plain(-5);
  EXPECT_FALSE(plain.m_isRing);
  EXPECT_EQ(plain.m_buffer, nullptr);

  Queue q = PCMQueue::newQueue(0);
  unsigned char out[16];
  EXPECT_EQ(q->readSamples(out, 4, true), 0);
  EXPECT_EQ(q->dequeSamples(out, 4, true), 0);
  EXPECT_EQ(q->shiftSize(4), 0);
  EXPECT_EQ(q->readSamples(out, 16, 0, 0, true), 0);
  EXPECT_EQ(q->queueAudio(nullptr, 0), 0);
  q->reset();  // no buffer yet
  EXPECT_EQ(q->m_bufferEnd, nullptr);

  Bytes ten = iota_bytes(10);
  EXPECT_EQ(q->queueAudio(ten.data(), 10), 10);
  EXPECT_EQ(q->readSamples(out, 16, -1, 3, true), 0);
  EXPECT_EQ(q->readSamples(nullptr, 16, 0, 3, true), 0);
  EXPECT_EQ(q->shiftToLogicPos(5), 0);
  EXPECT_EQ(q->queueAudio(ten.data(), -1), -1);
  EXPECT_EQ(q->m_size, 10);
  // reset counts the dropped bytes in both modes.
  q->reset();
  EXPECT_EQ(q->m_logicalPos, 10);
  EXPECT_EQ(q->m_bufferEnd, q->m_buffer + 10);
}

}  // namespace
