// One camera as the library knows it: its handle, its copy of the discovery
// packet, its three channels and bootstrap object, and the public device
// record. This header is the one the channels include to reach their owner.
#pragma once

#include <tq_uvc.h>

#include <cstdint>

#include "support/CLog.h"

class TqUvcDiscPkt;
class TqUvcCtrlChan;
class TqUvcStrmChan;
class TqUvcMsgChan;
class TqUvcBootstrap;

class TqUvcDevice {
 public:
  // Takes the next handle and a copy of pkt; creates the channels.
  explicit TqUvcDevice(TqUvcDiscPkt* pkt);
  ~TqUvcDevice();
  TqUvcDevice(const TqUvcDevice&) = delete;
  TqUvcDevice& operator=(const TqUvcDevice&) = delete;

  uint64_t GetHandle() const { return handle; }
  // 1 when found is this camera (its packet is taken over when the link is
  // broken), else 0.
  int HandleKnownDevice(TqUvcDiscPkt* found);
  // Refills the device record from pkt; 0x8FFF always (callers ignore it).
  uint32_t UpdateDevInfo(TqUvcDiscPkt* pkt);
  // 0, or 0x8FFF for a null Info. Fills as far as Info->Size reaches.
  uint32_t GetDevInformation(_tagTqUvcDevInfo* Info);
  void ShowDeviceInfoInLog();
  void ReadConfiguration();

  // Route fields; any channel pointer may be null.
  TqUvcDiscPkt* GetDiscPkt() const { return discPkt; }
  _tagTqUvccpDiscData* GetDiscData() const;
  TqUvcCtrlChan* GetCtrlChan() const { return ctrlChan; }
  TqUvcStrmChan* GetStrmChan() const { return strmChan; }
  TqUvcMsgChan* GetMsgChan() const { return msgChan; }
  TqUvcBootstrap* GetBootstrap() const { return bootstrap; }
  // The camera index of the HID and UVC functions (from the discovery record).
  uint32_t GetCamIndex() const;

  rk::CLog& GetLog() { return log; }
  bool AutoConnect() const { return bAutoConnect; }
  bool CheckConnect() const { return bCheckConnect; }

  static uint64_t NextFreeHandle;

 private:
  uint64_t handle;
  TqUvcDiscPkt* discPkt;
  TqUvcCtrlChan* ctrlChan;
  TqUvcStrmChan* strmChan;
  TqUvcMsgChan* msgChan;
  TqUvcBootstrap* bootstrap;
  _tagTqUvcDevInfo devInfo;
  rk::CLog log;
  bool bAutoConnect;
  bool bCheckConnect;
};
