#include "stream/TqUvcDataMemory.h"

#include <cstdint>
#include <cstring>

#include "support/LibLogs.h"

namespace {

constexpr uint32_t kLocked = TQUVC_LOCKED;
constexpr uint32_t kNoRestart = 0xFFFFFFFFu;

// The log formats print 32 bits; addresses are shown by their low half.
unsigned low32(const void* p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }
unsigned low32(uint64_t v) { return static_cast<unsigned>(v); }

}  // namespace

TqUvcDataMemory::TqUvcDataMemory()
    : currentIndex(0),
      restartIndex(kNoRestart),
      bufferTable(nullptr),
      bufferSizes(nullptr),
      nBuffers(0),
      lockTable(nullptr),
      currFrame(nullptr),
      bufDimension{} {}

uint32_t TqUvcDataMemory::CfgBuffers(uint64_t* table, uint32_t* sizes, uint32_t count) {
  bufferTable = table;
  bufferSizes = sizes;
  nBuffers = count;
  LIBLog.Debug("TqUvcDataMemory::CfgBuffers: Config Buffers Table=0x%.08X, NrBuf=%d\n", low32(table),
               static_cast<int>(count));
  if (LIBLog.DebugEnabled()) {
    for (uint32_t i = 0; i < count; ++i)
      LIBLog.Debug("    %3d:=0x%.08X (%d bytes)\n", static_cast<int>(i), low32(GetAtIndex(i)),
                   static_cast<int>(GetBufferSize(i)));
  }
  return 0;
}

uint32_t TqUvcDataMemory::CfgLockTable(uint32_t* table, uint8_t* frameWord) {
  LIBLog.Trace("Config Lock Table=0x%.08X, CurrFrame=0x%.08X\n", low32(table), low32(frameWord));
  if (table != nullptr && nBuffers > 0 && LIBLog.TraceEnabled()) {
    for (uint32_t i = 0; i < nBuffers; ++i) {
      const uint32_t word = __atomic_load_n(&table[i], __ATOMIC_RELAXED);
      LIBLog.Trace("    %3d:=%.4d (0x%.08X)", static_cast<int>(i), static_cast<int>(word & 0x7FFFFFFFu),
                   word);
    }
  }
  lockTable = table;
  currFrame = frameWord;
  return 0;
}

uint32_t TqUvcDataMemory::CfgBufferDim(_tagTqUvcBufDimension* dim) {
  if (dim == nullptr) {
    bufDimension = _tagTqUvcBufDimension{};
    return 0;
  }
  memcpy(&bufDimension, dim, sizeof(bufDimension));
  LIBLog.Debug("Config buffer dimensions:\n");
  LIBLog.Debug("     LineIncrement:   0x%.08X (%d)\n", bufDimension.LineIncrement,
               static_cast<int>(bufDimension.LineIncrement));
  return 0;
}

uint32_t TqUvcDataMemory::Destroy() {
  LIBLog.Debug("TqUvcDataMemory::CfgBuffers: Config Buffers Table=0x%.08X, NrBuf=%d\n", 0u, 0);
  LIBLog.Trace("Config Lock Table=0x%.08X, CurrFrame=0x%.08X\n", 0u, 0u);
  lockTable = nullptr;
  currFrame = nullptr;
  bufferTable = nullptr;
  bufferSizes = nullptr;
  nBuffers = 0;
  bufDimension = _tagTqUvcBufDimension{};
  return 0;
}

uint32_t TqUvcDataMemory::lockWord(uint32_t i) const {
  // The client rewrites its words from its own threads; read each one once.
  return __atomic_load_n(&lockTable[i], __ATOMIC_RELAXED);
}

void TqUvcDataMemory::dumpLockTable() const {
  if (lockTable == nullptr || !LIBLog.DebugEnabled()) return;
  for (uint32_t i = 0; i < nBuffers; ++i) {
    const uint32_t word = lockWord(i);
    LIBLog.Debug("    %3d:=%.4d (0x%.08X)", static_cast<int>(i), static_cast<int>(word & 0x7FFFFFFFu), word);
  }
}

uint32_t TqUvcDataMemory::GetNextBufferIndex() {
  if (nBuffers == 0) {
    // Nothing to choose from (and nothing to divide by).
    LIBLog.Fatal("GetNextBufferIndex:: Fatal: index out of range (CurrIdx=%d)!\n",
                 static_cast<int>(currentIndex));
    return currentIndex;
  }
  if (lockTable == nullptr) {
    currentIndex = (currentIndex + 1) % nBuffers;
    return currentIndex;
  }

  if (restartIndex == kNoRestart && currentIndex >= nBuffers) {
    // A ring word named a buffer that does not exist: its word is not read.
    LIBLog.Fatal("GetNextBufferIndex:: Fatal: index out of range (CurrIdx=%d)!\n",
                 static_cast<int>(currentIndex));
    return currentIndex;
  }
  if (restartIndex != kNoRestart) {
    currentIndex = restartIndex;
    restartIndex = kNoRestart;
    LIBLog.Trace("NextBufferIndex: Restarting at %d\n", static_cast<int>(currentIndex));
  } else {
    const uint32_t word = lockWord(currentIndex);
    if (word != kLocked) {
      LIBLog.Trace("GetNextBufferIndex:: NextBufferIndex: Curr %d -> Next %d\n",
                   static_cast<int>(currentIndex), static_cast<int>(word));
      currentIndex = word;
    } else {
      LIBLog.Debug(
          "GetNextBufferIndex:: CurrIndex (%d) points to a locked buffer! (%#x). Have to search next free "
          "buffer\n",
          static_cast<int>(currentIndex), word);
      dumpLockTable();
      bool found = false;
      for (uint32_t step = 1; nBuffers > 1 && step < nBuffers; ++step) {
        const uint32_t candidate = (currentIndex + step) % nBuffers;
        if (lockWord(candidate) != kLocked) {
          LIBLog.Debug("GetNextBufferIndex:: free entry was found! (CurrIndex=%d, freeIndex=%d)\n",
                       static_cast<int>(currentIndex), static_cast<int>(candidate));
          currentIndex = candidate;
          found = true;
          break;
        }
      }
      if (!found) LIBLog.Fatal("GetNextBufferIndex:: Fatal: cannot find a free entry! Keep current idx!\n");
    }
    // A client uint32_t at any alignment.
    if (currFrame != nullptr) memcpy(currFrame, &currentIndex, sizeof(currentIndex));
  }

  if (currentIndex >= nBuffers) {
    LIBLog.Fatal("GetNextBufferIndex:: Fatal: index out of range (CurrIdx=%d)!\n",
                 static_cast<int>(currentIndex));
    return currentIndex;
  }
  const uint32_t word = lockWord(currentIndex);
  if (word == kLocked) {
    LIBLog.Fatal("GetNextBufferIndex:: Fatal: new index points to a locked buffer (CurrIdx=%d)!\n",
                 static_cast<int>(currentIndex));
    return currentIndex;
  }
  if (word >= nBuffers) {
    LIBLog.Fatal("GetNextBufferIndex:: Fatal: new index points to a unknown buffer (CurrIdx=%d)!\n",
                 static_cast<int>(currentIndex));
    return currentIndex;
  }
  return currentIndex;
}

uint64_t TqUvcDataMemory::GetAtIndex(uint32_t i) const {
  if (bufferTable == nullptr || i >= nBuffers) return 0;
  return bufferTable[i];
}

uint32_t TqUvcDataMemory::GetBufferSize(uint32_t i) const {
  if (bufferSizes == nullptr || i >= nBuffers) return 0;
  return bufferSizes[i];
}

uint32_t TqUvcDataMemory::GetNrFreeBuffer() const {
  if (lockTable == nullptr || nBuffers == 0) return 0;
  uint32_t free = 0;
  for (uint32_t i = 0; i < nBuffers; ++i)
    if (lockWord(i) != kLocked) ++free;
  return free;
}
