// The device's event channel. These cameras offer no event registers, so it
// is a guarded shell: Open refuses, the channel never becomes connected and
// the callback is never called; the refusals are part of the contract.
#pragma once

#include <rkosdep.h>
#include <tq_uvc.h>

#include <cstdint>

#include "control/TqUvcChannel.h"

class TqUvcThread;

class TqUvcMsgChan : public TqUvcChannel {
 public:
  explicit TqUvcMsgChan(TqUvcDevice* owner);
  ~TqUvcMsgChan() override;

  // Stores the three values; 0.
  uint32_t RegisterMsgCallback(TqUvcMsgCallback callback, uint64_t userParam, uint32_t flags);
  // 0 only with the event capability bit; 0x8FFF otherwise.
  uint32_t Open();
  // 0, -1 not connected, -2 not cleared, 0x8008 no link, or a register status.
  uint32_t DisableEvents();
  // 0, or 0x8FFF without a device.
  uint32_t Close();

  bool IsConnected() const { return connected != 0; }

 private:
  TqUvcThread* messageHandler;
  uint32_t connected;
  TqUvcMsgCallback callback;
  uint64_t userParam;
  uint32_t callbackFlags;
  RkOsCriticalSection lock;  // "UVC:MsgLock"
  uint32_t eirmControlAddress;
  uint32_t cancelRequested;
  [[maybe_unused]] uint32_t reserved;  // 0xFFFFFF, kept for the layout; nothing reads it
};
