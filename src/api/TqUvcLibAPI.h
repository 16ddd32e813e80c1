// Library-wide state behind the exported functions.
#pragma once

#include <atomic>
#include <cstdint>

class TqUvcDevPool;

// Initialisation reference count; 0 = not initialised.
extern uint32_t TqUvcInitialized;
// The one device pool; null when not initialised. Atomic because API calls on
// other threads read it while the owner initialises.
extern std::atomic<TqUvcDevPool*> ThePool;

// Destroys the pool at unload if the client never called the last Uninit.
class CInitializer {
 public:
  CInitializer() = default;
  ~CInitializer();
  CInitializer(const CInitializer&) = delete;
  CInitializer& operator=(const CInitializer&) = delete;
};
