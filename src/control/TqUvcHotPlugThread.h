// Watches the camera of one control channel: polls twice a second, keeps the
// connection-good flag, and with AutoConnect rebuilds the connection after the
// camera came back. Embedded in its control channel; the library never starts
// it (a later owner would, through the platform thread calls).
#pragma once

#include <atomic>
#include <cstdint>

#include "support/TqUvcThread.h"

class TqUvcCtrlChan;

class TqUvcHotPlugThread : public TqUvcThread {
 public:
  TqUvcHotPlugThread();
  ~TqUvcHotPlugThread() override;

  // The body; arg is the owning TqUvcCtrlChan. Returns 0.
  int Execute(void* arg) override;

  // Set by the control channel's severe-error rule; never cleared.
  void SetTrigger() { trigger = 1; }
  bool Triggered() const { return trigger != 0; }
  bool ConnectionGood() const { return connectionGood != 0; }

 private:
  // Bytes shared between the channel's callers and the body: atomics.
  std::atomic<uint8_t> trigger;
  std::atomic<uint8_t> connectionGood;
};
