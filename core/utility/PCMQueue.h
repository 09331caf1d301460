/// @file
/// PCMQueue: a byte queue for PCM audio between a producer (queueAudio) and a
/// consumer (readSamples, dequeSamples, shiftSize, shiftToLogicPos).
///
/// Ring mode (size >= 1): a fixed circular buffer allocated once by newQueue;
/// when full, new audio overwrites the oldest. m_logicalPos counts the bytes
/// that have left the queue since creation (read, skipped, overwritten, reset),
/// i.e. the stream position of the oldest byte stored; snapshot()/restore()
/// save and restore the read state (size, read and write pointers) but not
/// m_logicalPos, so a stretch can be read twice while the position moves on.
/// Linear mode (size <= 0): a buffer grown to exactly the size needed; reads
/// are from its front and consuming moves the rest down. Linear consumption
/// leaves m_logicalPos alone (reset() still adds the dropped bytes).
///
/// m_logicalPos is 32-bit and wraps after 2 GiB of audio.
///
/// Bad arguments change nothing: a negative length or a null buffer with a
/// positive length makes queueAudio return -1 and the reads return 0.
///
/// Not thread-safe: a queue shared between a producer and a consumer thread
/// must be guarded by its owner.
#ifndef ORV_CORE_UTILITY_PCMQUEUE_H
#define ORV_CORE_UTILITY_PCMQUEUE_H

#include <stdint.h>

#include "core/orv_api.h"
#include "core/utility/Memory/orv_shared_ptr_base.h"

namespace orv {

class ORV_API PCMQueue {
 public:
  /// Records the mode and capacity; allocates nothing (use newQueue).
  explicit PCMQueue(int size);
  ~PCMQueue();

  /// A ring queue of size bytes (size >= 1), all its pointers, the snapshot's
  /// included, at the buffer start; or a linear queue (size <= 0). Empty when
  /// the ring buffer cannot be allocated.
  static Memory::orv_shared_ptr<PCMQueue> newQueue(int size);

  /// Appends len bytes; returns the new m_size, or -1 when the linear buffer
  /// could not grow (nothing appended). len 0 returns m_size.
  int queueAudio(const unsigned char* data, int len);
  /// Copies up to len bytes from the front without consuming them. Without
  /// allowPartial, fewer than len stored bytes give 0.
  int readSamples(unsigned char* out, int len, bool allowPartial);
  /// Linear mode only: copies the bytes at offsets [from, to] (inclusive)
  /// without consuming; 0 when they do not fit in outLen, lie outside the data
  /// (unless allowPartial, which takes what exists), or in ring mode.
  int readSamples(unsigned char* out, int outLen, int from, int to, bool allowPartial);
  /// Copies and consumes up to len bytes from the front.
  int dequeSamples(unsigned char* out, int len, bool allowPartial);
  /// Drops up to len bytes from the front; returns the count dropped.
  int shiftSize(int len);
  /// Ring mode: skips forward to the absolute position pos; returns the bytes
  /// skipped. 0 when pos is not ahead of m_logicalPos, and in linear mode.
  int shiftToLogicPos(int pos);
  bool haveData();
  /// Drops everything stored (counted into m_logicalPos) and the snapshot.
  void reset();
  void snapshot();
  void restore();

  PCMQueue(const PCMQueue&) = delete;
  PCMQueue& operator=(const PCMQueue&) = delete;

  int32_t m_size;
  uint8_t* m_buffer;
  int32_t m_capacity;
  bool m_isRing;
  uint8_t* m_readPtr;
  uint8_t* m_writePtr;
  uint8_t* m_bufferEnd;
  int32_t m_snapshotSize;
  uint8_t* m_snapshotReadPtr;
  uint8_t* m_snapshotWritePtr;
  int32_t m_logicalPos;

 private:
  /// Ring copy from the front into out (m_size >= len or allowPartial checked
  /// by the caller); returns the count copied.
  int ringCopy(unsigned char* out, int len);
  /// Moves p forward by n bytes (n <= m_capacity), wrapping.
  uint8_t* ringAdvance(uint8_t* p, int n) const;
  void addToLogicalPos(int n);
};

}  // namespace orv

#endif  // ORV_CORE_UTILITY_PCMQUEUE_H
