#include "pool/TqUvcDevice.h"

#include <cstdio>
#include <cstring>

#include "control/TqUvcBootstrap.h"
#include "control/TqUvcCtrlChan.h"
#include "control/TqUvcMsgChan.h"
#include "pool/TqUvcDiscPkt.h"
#include "stream/TqUvcStrmChan.h"
#include "support/TqUvcIni.h"

uint64_t TqUvcDevice::NextFreeHandle = 1;

namespace {

constexpr uint32_t kDevInfoSize = sizeof(_tagTqUvcDevInfo);
constexpr uint32_t kOwnCopyMark = 60;

template <size_t N, size_t M>
void copyText(char (&dst)[N], const char (&src)[M]) {
  static_assert(N == M, "device record and discovery record texts have the same width");
  std::memcpy(dst, src, N);
}

}  // namespace

TqUvcDevice::TqUvcDevice(TqUvcDiscPkt* pkt)
    : handle(NextFreeHandle),
      discPkt(nullptr),
      ctrlChan(nullptr),
      strmChan(nullptr),
      msgChan(nullptr),
      bootstrap(nullptr),
      devInfo{},
      log("UVCDEV", "UVC", true),
      bAutoConnect(false),
      bCheckConnect(false) {
  // Devices are created only inside a scan, under the pool lock.
  NextFreeHandle = handle + 1;
  char userId[8];
  std::snprintf(userId, sizeof userId, "D%02d", static_cast<int>(static_cast<uint8_t>(handle - 1)));
  log.SetUserId(userId);
  log.Debug("TqUvcDevice::TqUvcDevice(local) [ctor] Device=%p Handle:%d\n", static_cast<void*>(this),
            static_cast<int>(handle));

  discPkt = new TqUvcDiscPkt(pkt);
  discPkt->GetDiscData()->Reserved2 = kOwnCopyMark;

  ctrlChan = new TqUvcCtrlChan(this);
  strmChan = new TqUvcStrmChan(this);
  msgChan = new TqUvcMsgChan(this);
  bootstrap = new TqUvcBootstrap(this);

  devInfo = _tagTqUvcDevInfo{};
  UpdateDevInfo(pkt);
  devInfo.DevIndex = static_cast<uint32_t>((handle - 1) & 255);

  log.Trace("TqUvcDevice::TqUvcDevice() [ctor end] Device=%p Vid.Pid:%4.4x.%4.4x CamIndex:%d\n",
            static_cast<void*>(this), discPkt->GetVid(), discPkt->GetPid(),
            static_cast<int>(discPkt->GetHIDCamIndex()));
  ReadConfiguration();
}

TqUvcDevice::~TqUvcDevice() {
  log.Trace("TqUvcDevice::~TqUvcDevice() Device=%p Vid.Pid:%4.4x.%4.4x HIDCamIndex:%p\n",
            static_cast<void*>(this), discPkt->GetVid(), discPkt->GetPid(),
            reinterpret_cast<void*>(static_cast<uintptr_t>(discPkt->GetHIDCamIndex())));
  if (msgChan != nullptr) msgChan->Close();
  if (strmChan != nullptr) {
    // A stream still running would leave its handler and capture thread
    // behind the channel we are about to destroy.
    if (strmChan->IsStarted()) strmChan->StreamStop(0);
    strmChan->Close();
  }
  if (ctrlChan != nullptr) ctrlChan->UnLink();
  // Each pointer is cleared at once: the control channel's destructor may still
  // look for the other channels through this device.
  delete bootstrap;
  bootstrap = nullptr;
  delete msgChan;
  msgChan = nullptr;
  delete strmChan;
  strmChan = nullptr;
  delete ctrlChan;
  ctrlChan = nullptr;
  delete discPkt;
  discPkt = nullptr;
}

_tagTqUvccpDiscData* TqUvcDevice::GetDiscData() const { return discPkt->GetDiscData(); }

uint32_t TqUvcDevice::GetCamIndex() const { return discPkt->GetHIDCamIndex(); }

int TqUvcDevice::HandleKnownDevice(TqUvcDiscPkt* found) {
  if (!discPkt->ItsMe(found)) return 0;
  log.Debug("TqUvcDevice::HandleKnownDevice: same device already in device list");
  if (ctrlChan->CheckLink() == 0) return 1;
  log.Info(" TqUvcDevice::HandleKnownDevice: link missing. setting up new link\n");
  discPkt->CopyFrom(*found);
  if (ctrlChan->CheckLink() == 0)
    log.Info(" TqUvcDevice::HandleKnownDevice: link established successfully. Updated entries: \n");
  else
    log.Info(" TqUvcDevice::HandleKnownDevice: link still missing. giving up\n");
  return 1;
}

uint32_t TqUvcDevice::UpdateDevInfo(TqUvcDiscPkt* pkt) {
  log.Trace("TqUvcDevice::Update()\n");
  if (pkt == nullptr) {
    log.Info("Device with Vid.Pid=%4x_4x became inactive, remove link\n", devInfo.Vid);
    return 0x8FFF;
  }
  if (pkt->GetVid() != devInfo.Vid || pkt->GetPid() != devInfo.Pid)
    log.Debug("TqUvcDevice::Update() DevInfo: Vid.Pid changed from: %4.4x.%4.4x to: %4.4x.%4.4x\n",
              devInfo.Vid, devInfo.Pid, pkt->GetVid(), pkt->GetPid());
  const _tagTqUvccpDiscData& d = *pkt->GetDiscData();
  devInfo = _tagTqUvcDevInfo{};
  devInfo.Size = kDevInfoSize;
  copyText(devInfo.ManfctName, d.ManfctName);
  copyText(devInfo.ModName, d.ModName);
  copyText(devInfo.DevVersion, d.DevVersion);
  copyText(devInfo.ManfctSpecInf, d.ManfctSpecInf);
  copyText(devInfo.SerialNr, d.SerialNr);
  copyText(devInfo.Nickname, d.Nickname);
  devInfo.Vid = d.Vid;
  devInfo.Pid = d.Pid;
  devInfo.MI = d.MI;
  devInfo.HIDCamIndex = d.HIDCamIndex;
  devInfo.UsbVersion = d.UsbVersion;
  return 0x8FFF;
}

uint32_t TqUvcDevice::GetDevInformation(_tagTqUvcDevInfo* Info) {
  if (Info == nullptr) {
    log.Fatal("GetDevInformation: Info==NULL\n");
    return 0x8FFF;
  }
  const uint32_t size = Info->Size;
  if (size >= kDevInfoSize) {
    // The caller's size is its promise of how much it handed us.
    std::memset(static_cast<void*>(Info), 0, size);
    std::memcpy(static_cast<void*>(Info), &devInfo, kDevInfoSize);
  } else {
    log.Debug(
        "GetDevInformation: Structure too small, can not fill all information (Info->Size:%d, "
        "DevInfo.Size:%d)\n",
        static_cast<int>(size), static_cast<int>(devInfo.Size));
    std::memcpy(static_cast<void*>(Info), &devInfo, size);
    Info->Size = size;
  }
  return 0;
}

void TqUvcDevice::ShowDeviceInfoInLog() {
  log.Debug(" %s::%s\n", discPkt->GetManfctName(), discPkt->GetModelName());
  log.Debug("    UvcVersion     %d.%d\n", static_cast<int>(devInfo.UsbVersion >> 16),
            static_cast<int>(devInfo.UsbVersion & 0xFFFF));
  log.Debug("    Vid:           0x%.08X\n", devInfo.Vid);
  log.Debug("    Pid:           0x%.08X\n", devInfo.Pid);
  log.Debug("    CamIndex       %d\n", static_cast<int>(devInfo.HIDCamIndex));
  log.Debug("    DevVersion     %s\n", discPkt->GetDevVersion());
  log.Debug("    ManfctSpecInf: %s\n", discPkt->GetManfctSpecInf());
  log.Debug("    SerialNr       %s\n", discPkt->GetSerialNr());
  log.Debug("    Nickname       %s\n", discPkt->GetNickName());
  log.Debug("    DevMode:       0x%.08X\n", devInfo.DevMode);
  log.Debug("    Flags:         %s%s\n", (devInfo.Flags & 1) ? "LocNotReachable " : "",
            (devInfo.Flags & 2) ? "DuplicateIP" : "");
}

void TqUvcDevice::ReadConfiguration() {
  bAutoConnect = TqUvcGetIniIntCached("MISC.Options", "MISC.AutoConnect", 0) != 0;
  log.Debug("TqUvcDevice::ReadConfiguration: bAutoConnect:\"%s\" (%d)\n", bAutoConnect ? "yes" : "no", 0);
  bCheckConnect = TqUvcGetIniIntCached("Tq.Uvc", "CheckConnectionStatus", 0) != 0;
  log.Debug("TqUvcDevice::ReadConfiguration: bCheckConnect:\"%s\" (%d)\n", bCheckConnect ? "yes" : "no", 0);
}
