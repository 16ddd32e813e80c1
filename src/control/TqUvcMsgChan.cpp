#include "control/TqUvcMsgChan.h"

#include "control/TqUvcCtrlChan.h"
#include "pool/TqUvcDevice.h"
#include "support/TqUvcThread.h"

namespace {

constexpr uint32_t kEventCapability = 2;  // the EIRM registers exist
constexpr uint32_t kEventEnable = 1;      // bit 0 of ADR_EIRM_CONTROL
constexpr unsigned int kHandlerStopMs = 10000;

}  // namespace

TqUvcMsgChan::TqUvcMsgChan(TqUvcDevice* owner)
    : TqUvcChannel(owner),
      messageHandler(nullptr),
      connected(0),
      callback(nullptr),
      userParam(0),
      callbackFlags(2),
      lock{},
      eirmControlAddress(0),
      cancelRequested(0),
      reserved(0xFFFFFF) {
  RkOsInitializeCriticalSection(&lock, "UVC:MsgLock");
}

TqUvcMsgChan::~TqUvcMsgChan() {
  if (device != nullptr) device->GetLog().Trace("TqUvcMsgChan::~TqUvcMsgChan()");
  RkOsDeleteCriticalSection(&lock);
}

uint32_t TqUvcMsgChan::RegisterMsgCallback(TqUvcMsgCallback cb, uint64_t param, uint32_t flags) {
  callback = cb;
  userParam = param;
  callbackFlags = flags;
  return 0;
}

uint32_t TqUvcMsgChan::Open() {
  // Without the device parts there is nothing to lock for, and nothing held.
  if (device == nullptr || device->GetCtrlChan() == nullptr) return 0x8FFF;
  TqUvcCtrlChan* ctrl = device->GetCtrlChan();
  rk::CLog& log = device->GetLog();

  RkOsEnterCriticalSection(&lock);
  log.Debug("TqUvcMsgChan::Open [pDevice:%p]", static_cast<void*>(device));
  uint32_t result = 0x8FFF;
  if (!ctrl->IsConnected()) {
    log.Debug("TqUvcMsgChan::open: control channel not connected");
  } else if ((ctrl->GetCapabilities() & kEventCapability) == 0) {
    log.Debug("TqUvcMsgChan::open: EIRM not available (by cap register)");
  } else if (connected != 0) {
    log.Debug("TqUvcMsgChan::Open: message channel already connected, skip");
  } else {
    // No event path exists behind the registers, so the channel is not marked
    // connected even here.
    log.Info("TqUvcMsgChan::Open: message channel opened");
    result = 0;
  }
  RkOsLeaveCriticalSection(&lock);
  return result;
}

uint32_t TqUvcMsgChan::DisableEvents() {
  if (connected == 0) {
    if (device != nullptr)
      device->GetLog().Error("Error writing to ADR_EIRM_CONTROL register: MsgChan not connected");
    return static_cast<uint32_t>(-1);
  }
  if (device == nullptr || device->GetCtrlChan() == nullptr) return static_cast<uint32_t>(-1);
  TqUvcCtrlChan* ctrl = device->GetCtrlChan();
  rk::CLog& log = device->GetLog();
  if (!ctrl->IsLinked()) return 0x8008;

  uint32_t value = 0;
  uint32_t status = ctrl->ReadReg(eirmControlAddress, &value);
  if (status != 0) {
    log.Debug("Error reading ADR_EIRM_CONTROL register");
    return status;
  }
  const uint32_t wanted = value & ~kEventEnable;
  status = ctrl->WriteReg(eirmControlAddress, wanted);
  if (status != 0) {
    log.Debug("Error writing to ADR_EIRM_CONTROL register");
    return status;
  }
  if (!ctrl->IsLinked()) return 0x8008;
  uint32_t readBack = 0;
  status = ctrl->ReadReg(eirmControlAddress, &readBack);
  if (status != 0) {
    log.Debug("Error reading ADR_EIRM_CONTROL register");
    return status;
  }
  if (readBack != wanted) {
    log.Debug("Error setting ADR_EIRM_CONTROL register to: 0x%4.4x (it remained on: 0x%4.4x)", wanted,
              readBack);
    return static_cast<uint32_t>(-2);
  }
  return 0;
}

uint32_t TqUvcMsgChan::Close() {
  if (device == nullptr) return 0x8FFF;
  rk::CLog& log = device->GetLog();
  log.Debug("TqUvcMsgChan::Close()");

  RkOsEnterCriticalSection(&lock);
  if (connected == 0) {
    log.Trace("TqUvcMsgChan::Close: message channel already closed, skip close");
  } else {
    log.Trace("TqUvcMsgChan::Close: disable events");
    DisableEvents();
    log.Trace("TqUvcMsgChan::Close: cancel pending requests");
    cancelRequested = 1;
    RkOsSleep(10);
    log.Debug("TqUvcMsgChan::Close: closing message handler");
    if (messageHandler != nullptr) {
      messageHandler->Stop(kHandlerStopMs);
      delete messageHandler;  // the channel owns its handler
      messageHandler = nullptr;
      log.Debug("TqUvcMsgChan::Close: message handler deleted");
    }
    connected = 0;
    log.Info("TqUvcMsgChan::Close: message channel closed");
  }
  RkOsLeaveCriticalSection(&lock);
  return 0;
}
