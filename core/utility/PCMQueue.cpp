#include "core/utility/PCMQueue.h"

#include <stdlib.h>
#include <string.h>

namespace orv {

namespace {

// memcpy/memmove that accept a null pointer with a zero count.
inline void copy_bytes(void* to, const void* from, int n) {
  if (n > 0) memcpy(to, from, static_cast<size_t>(n));
}

inline int min_int(int a, int b) { return a < b ? a : b; }

}  // namespace

PCMQueue::PCMQueue(int size)
    : m_size(0),
      m_buffer(nullptr),
      m_capacity(size),
      m_isRing(size >= 1),
      m_readPtr(nullptr),
      m_writePtr(nullptr),
      m_bufferEnd(nullptr),
      m_snapshotSize(0),
      m_snapshotReadPtr(nullptr),
      m_snapshotWritePtr(nullptr),
      m_logicalPos(0) {}

PCMQueue::~PCMQueue() {
  if (m_buffer != nullptr) free(m_buffer);
}

Memory::orv_shared_ptr<PCMQueue> PCMQueue::newQueue(int size) {
  Memory::orv_shared_ptr<PCMQueue> queue(new PCMQueue(size));
  if (queue->m_isRing) {
    queue->m_buffer = static_cast<uint8_t*>(malloc(static_cast<size_t>(size)));
    if (queue->m_buffer == nullptr) return Memory::orv_shared_ptr<PCMQueue>();
    queue->m_readPtr = queue->m_writePtr = queue->m_buffer;
    queue->m_bufferEnd = queue->m_buffer + size;
    // A restore() before any snapshot() then empties the queue instead of
    // leaving null pointers behind.
    queue->m_snapshotReadPtr = queue->m_snapshotWritePtr = queue->m_buffer;
  }
  return queue;
}

uint8_t* PCMQueue::ringAdvance(uint8_t* p, int n) const {
  // Compare distances, not pointers past the end.
  if (n >= m_bufferEnd - p) return m_buffer + (n - (m_bufferEnd - p));
  return p + n;
}

void PCMQueue::addToLogicalPos(int n) {
  m_logicalPos = static_cast<int32_t>(static_cast<uint32_t>(m_logicalPos) + static_cast<uint32_t>(n));
}

int PCMQueue::queueAudio(const unsigned char* data, int len) {
  if (len == 0) return m_size;
  if (len < 0 || data == nullptr) return -1;

  if (!m_isRing) {
    if (len > INT32_MAX - m_size) return -1;
    if (m_size + len > m_capacity) {
      uint8_t* grown = static_cast<uint8_t*>(realloc(m_buffer, static_cast<size_t>(m_size + len)));
      if (grown == nullptr) return -1;
      m_buffer = grown;
      m_capacity = m_size + len;
    }
    copy_bytes(m_buffer + m_size, data, len);
    m_size += len;
    return m_size;
  }

  // Overflow is counted from the length as given: input bytes that never fit
  // have left the queue too, so m_logicalPos stays the position of the
  // oldest byte stored.
  int64_t overflow = static_cast<int64_t>(m_size) + len - m_capacity;
  if (len > m_capacity) {
    data += len - m_capacity;
    len = m_capacity;
  }
  if (overflow > 0) addToLogicalPos(static_cast<int>(overflow));

  int to_end = static_cast<int>(m_bufferEnd - m_writePtr);
  if (len < to_end) {
    copy_bytes(m_writePtr, data, len);
    m_writePtr += len;
  } else {
    copy_bytes(m_writePtr, data, to_end);
    copy_bytes(m_buffer, data + to_end, len - to_end);
    m_writePtr = m_buffer + (len - to_end);
  }

  if (len < m_capacity - m_size) {
    m_size += len;
    return m_size;
  }
  m_size = m_capacity;
  m_readPtr = m_writePtr;
  return m_capacity;
}

int PCMQueue::ringCopy(unsigned char* out, int len) {
  int first = min_int(static_cast<int>(m_bufferEnd - m_readPtr), m_size);
  int head = min_int(len, first);
  copy_bytes(out, m_readPtr, head);
  int tail = 0;
  if (len - head >= 1 && m_size > first) {
    tail = min_int(len - head, m_size - first);
    copy_bytes(out + head, m_buffer, tail);
  }
  return head + tail;
}

int PCMQueue::readSamples(unsigned char* out, int len, bool allowPartial) {
  if (len < 0 || (out == nullptr && len > 0)) return 0;
  if (m_isRing) {
    if (m_size >= len || allowPartial) return ringCopy(out, len);
    return 0;
  }
  if (len <= m_size) {
    copy_bytes(out, m_buffer, len);
    return len;
  }
  if (m_size > 0 && allowPartial) {
    copy_bytes(out, m_buffer, m_size);
    return m_size;
  }
  return 0;
}

int PCMQueue::readSamples(unsigned char* out, int outLen, int from, int to, bool allowPartial) {
  if (m_isRing || out == nullptr || from < 0) return 0;
  int64_t available = static_cast<int64_t>(m_size) - from;
  int64_t wanted = static_cast<int64_t>(to) - from + 1;
  if (available < 0 || wanted < 0) return 0;
  if (available < wanted) wanted = allowPartial ? available : 0;
  if (wanted > outLen) return 0;
  copy_bytes(out, m_buffer + from, static_cast<int>(wanted));
  return static_cast<int>(wanted);
}

int PCMQueue::dequeSamples(unsigned char* out, int len, bool allowPartial) {
  if (len < 0 || (out == nullptr && len > 0)) return 0;
  if (m_isRing) {
    if (!(m_size >= len || allowPartial)) return 0;
    int copied = ringCopy(out, len);
    m_readPtr = ringAdvance(m_readPtr, copied);
    // The requested length decides emptiness, not the count copied.
    int remaining = m_size - len;
    if (remaining < 1) {
      m_size = 0;
      m_readPtr = m_writePtr = m_buffer;
    } else {
      m_size = remaining;
    }
    addToLogicalPos(copied);
    return copied;
  }
  if (len <= m_size) {
    copy_bytes(out, m_buffer, len);
    if (m_size - len > 0) memmove(m_buffer, m_buffer + len, static_cast<size_t>(m_size - len));
    m_size -= len;
    return len;
  }
  if (m_size > 0 && allowPartial) {
    int old = m_size;
    copy_bytes(out, m_buffer, old);
    m_size = 0;
    return old;
  }
  return 0;
}

int PCMQueue::shiftSize(int len) {
  if (len < 0) return 0;
  if (!m_isRing) {
    if (len < m_size) {
      memmove(m_buffer, m_buffer + len, static_cast<size_t>(m_size - len));
      m_size -= len;
      return len;
    }
    int old = m_size;
    m_size = 0;
    return old;
  }
  if (len < m_size) {
    m_readPtr = ringAdvance(m_readPtr, len);
    m_size -= len;
    addToLogicalPos(len);
    return len;
  }
  int old = m_size;
  reset();
  return old;
}

int PCMQueue::shiftToLogicPos(int pos) {
  int64_t skip = static_cast<int64_t>(pos) - m_logicalPos;
  if (skip < 1 || !m_isRing) return 0;
  int result;
  if (skip >= m_size) {
    result = m_size;
    m_size = 0;
    m_readPtr = m_writePtr = m_buffer;
  } else {
    result = static_cast<int>(skip);
    m_readPtr = ringAdvance(m_readPtr, result);
    m_size -= result;
  }
  // The position jumps to pos even when fewer bytes were stored.
  m_logicalPos = pos;
  return result;
}

bool PCMQueue::haveData() { return m_size > 0; }

void PCMQueue::reset() {
  addToLogicalPos(m_size);
  m_size = 0;
  m_snapshotSize = 0;
  m_readPtr = m_writePtr = m_buffer;
  m_snapshotReadPtr = m_snapshotWritePtr = m_buffer;
  // A linear queue may have no buffer yet (and a capacity of 0 or less).
  m_bufferEnd = m_buffer != nullptr ? m_buffer + m_capacity : nullptr;
}

void PCMQueue::snapshot() {
  m_snapshotSize = m_size;
  m_snapshotReadPtr = m_readPtr;
  m_snapshotWritePtr = m_writePtr;
}

void PCMQueue::restore() {
  m_size = m_snapshotSize;
  m_readPtr = m_snapshotReadPtr;
  m_writePtr = m_snapshotWritePtr;
}

}  // namespace orv
