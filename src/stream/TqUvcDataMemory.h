// The library's view of the client's buffers: addresses and sizes, the lock
// table and the current-frame word (all client-owned, never written except
// the current-frame word), and the choice of the buffer for the next frame.
#pragma once

#include <tq_uvc.h>

#include <cstdint>

class TqUvcDataMemory {
 public:
  TqUvcDataMemory();

  uint32_t CfgBuffers(uint64_t* table, uint32_t* sizes, uint32_t count);
  // currFrame is a client uint32_t, possibly unaligned; written with memcpy.
  uint32_t CfgLockTable(uint32_t* lockTable, uint8_t* currFrame);
  // null zeroes the dimensions.
  uint32_t CfgBufferDim(_tagTqUvcBufDimension* dim);
  // Forgets the client's tables; the indexes stay.
  uint32_t Destroy();

  // Moves currentIndex on to the buffer for the frame after this one and
  // returns it; an unchanged index means no other buffer is free.
  uint32_t GetNextBufferIndex();
  uint64_t GetAtIndex(uint32_t i) const;
  uint32_t GetBufferSize(uint32_t i) const;
  uint32_t GetNrFreeBuffer() const;

  uint32_t GetCurrentIndex() const { return currentIndex; }
  uint32_t GetNrBuffers() const { return nBuffers; }
  const _tagTqUvcBufDimension& GetBufDimension() const { return bufDimension; }

 private:
  // One relaxed read of lock-table word i (i < nBuffers).
  uint32_t lockWord(uint32_t i) const;
  void dumpLockTable() const;

  uint32_t currentIndex;
  uint32_t restartIndex;
  uint64_t* bufferTable;
  uint32_t* bufferSizes;
  uint32_t nBuffers;
  uint32_t* lockTable;
  uint8_t* currFrame;
  _tagTqUvcBufDimension bufDimension;
};
