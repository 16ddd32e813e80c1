// The device's control channel: the only path to a camera's registers. Links
// the channel to the camera's HID function, connects (claims the access
// privilege in the shared discovery record), serialises and numbers register
// and memory requests, retries while the camera is busy, and flags severe
// errors to its hot-plug thread.
#pragma once

#include <rkosdep.h>
#include <tq_uvc.h>

#include <atomic>
#include <cstdint>

#include "control/TqUvcChannel.h"
#include "control/TqUvcHotPlugThread.h"

class TqUvcCtrlChan : public TqUvcChannel {
 public:
  explicit TqUvcCtrlChan(TqUvcDevice* owner);
  ~TqUvcCtrlChan() override;

  // 0 linked, 0x8FFF no HID interface or HID open failed, 0x8008 not ours.
  uint32_t Link();
  // 0, or 0x8008 when closing the HID function fails.
  uint32_t UnLink();
  // 0 or 0x8007; the flag is not used.
  uint32_t Connect(_tagTqUvccpDiscData* discData, bool unused);
  // Always 0.
  uint32_t Disconnect(_tagTqUvccpDiscData* discData, bool stopHotPlugThread);
  // Always 0.
  uint32_t CheckConnectionStatus(uint32_t* status);
  // 0, or 0x8FFF when the camera cannot be opened.
  uint32_t CheckAvailability(uint32_t* available, uint8_t* data = nullptr, uint32_t size = 0);
  // 0 when linked, else 0x8FFF.
  uint32_t CheckLink();
  // Marks the start of a hot-plug reconnect in the log, under the control lock
  // so the line is ordered with the Link/Connect lines of other threads.
  void ReConnect();

  uint32_t ReadReg(uint32_t address, uint32_t* value);
  uint32_t WriteReg(uint32_t address, uint32_t value);
  // Not supported: 0x8008.
  uint32_t ReadReg(uint32_t* addresses, uint32_t* values, uint32_t count);
  uint32_t WriteReg(uint32_t* addresses, uint32_t* values, uint32_t count);
  // 0, or 0x8008 for a zero length, a null buffer or no link.
  uint32_t ReadMem(uint32_t address, uint8_t* buffer, uint32_t length);
  // Not supported: 0x8008.
  uint32_t WriteMem(uint32_t address, uint8_t* buffer, uint32_t length);

  bool IsConnected() const { return connected != 0; }
  bool IsLinked() const { return linked != 0; }
  uint32_t GetCapabilities() const { return capabilities; }
  uint32_t GetHIDCamIndex() const { return hidCamIndex; }
  uint16_t GetRequestId() const { return requestId; }
  TqUvcHotPlugThread& HotPlugThread() { return hotPlugThread; }

 private:
  // Classifies a failed status; severe ones raise the hot-plug trigger.
  void CheckSevereError(uint32_t status);
  uint16_t nextRequestId();
  // One register request under the request lock with the busy retries and the
  // severe-error rule; call(requestId) makes one attempt.
  template <typename Call>
  uint32_t request(const char* busyFormat, const char* errorFormat, uint32_t address, Call&& call);

  uint32_t accessPrivilegeHeld;
  // Read by the hot-plug thread and the stream channel beside the callers.
  std::atomic<uint32_t> connected;
  std::atomic<uint32_t> linked;
  uint32_t reserved[3];
  uint16_t requestId;
  TqUvcHotPlugThread hotPlugThread;
  RkOsCriticalSection requestLock;  // "UVC:ReqId"
  RkOsCriticalSection controlLock;  // "UVC:CtrlLock"
  uint32_t capabilities;
  uint32_t ownDevice;
  uint32_t hidCamIndex;
  // A connect on one handle rewrites it while another handle of the camera reads.
  std::atomic<uint32_t> timeout;
};
