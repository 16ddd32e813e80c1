#include "control/TqUvcCtrlChan.h"

#include <cstdint>
#include <cstring>

#include "control/TqUvcMsgChan.h"
#include "control/TqUvcRegSpace.h"
#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDevice.h"
#include "stream/TqUvcStrmChan.h"
#include "support/LibLogs.h"
#include "support/StringUtils.h"

namespace {

constexpr uint32_t kOk = 0;
constexpr uint32_t kBusy = 0x8007;
constexpr uint32_t kRefused = 0x8008;
constexpr uint32_t kFailed = 0x8FFF;
constexpr uint32_t kSevere = 0xC001;
constexpr uint32_t kSevereBit = 0x10000;
constexpr uint32_t kDefaultTimeoutMs = 1000;
constexpr uint32_t kBusyTries = 3;
constexpr uint32_t kBusyPauseMs = 10;
constexpr int kModelNameLength = 12;
constexpr uint32_t kGenCpVersion = 0;
constexpr char kHidProductText[] = "UVC HID Device";

// The privilege word is shared by every handle of the camera, each with its
// own control lock: read and written atomically.
uint32_t privilegeOf(const _tagTqUvccpDiscData* disc) {
  return __atomic_load_n(&disc->AccessPrivilege, __ATOMIC_SEQ_CST);
}
void setPrivilege(_tagTqUvccpDiscData* disc, uint32_t value) {
  __atomic_store_n(&disc->AccessPrivilege, value, __ATOMIC_SEQ_CST);
}

// Fixed-width record texts are not always terminated: printed with a bound.
template <size_t N>
int widthOf(const char (&field)[N]) {
  return static_cast<int>(strnlen(field, N));
}

template <size_t N>
bool textEquals(const char (&field)[N], const char* text) {
  const size_t n = strnlen(field, N);
  return n == std::strlen(text) && std::memcmp(field, text, n) == 0;
}

}  // namespace

TqUvcCtrlChan::TqUvcCtrlChan(TqUvcDevice* owner)
    : TqUvcChannel(owner),
      accessPrivilegeHeld(0),
      connected(0),
      linked(0),
      reserved{},
      requestId(0),
      requestLock{},
      controlLock{},
      capabilities(0),
      ownDevice(0),
      hidCamIndex(0),
      timeout(kDefaultTimeoutMs) {
  RkOsInitializeCriticalSection(&controlLock, "UVC:CtrlLock");
  RkOsInitializeCriticalSection(&requestLock, "UVC:ReqId");
}

TqUvcCtrlChan::~TqUvcCtrlChan() {
  rk::CLog& log = device->GetLog();
  log.Trace("TqUvcCtrlChan::~TqUvcCtrlChan() [enter]");
  UnLink();
  RkOsDeleteCriticalSection(&controlLock);
  RkOsDeleteCriticalSection(&requestLock);
  log.Trace("TqUvcCtrlChan::~TqUvcCtrlChan() [leave]");
}

uint16_t TqUvcCtrlChan::nextRequestId() {
  if (++requestId == 0) requestId = 1;
  return requestId;
}

uint32_t TqUvcCtrlChan::Link() {
  rk::CLog& log = device->GetLog();
  if (TqUvcHidInterfaceAvailable() == 0) {
    log.Error("TqUvcCtrlChan::Link: no vexa_hid device");
    return kFailed;
  }
  RkOsEnterCriticalSection(&controlLock);
  log.Debug("TqUvcCtrlChan::Link() [enter]");
  linked = 0;
  _tagTqUvccpDiscData* disc = device->GetDiscData();
  log.Debug("TqUvcCtrlChan::Link: open device with Vid.Pid = %4.4x:%4.4x serial number:%.*s", disc->Vid,
            disc->Pid, widthOf(disc->SerialNr), disc->SerialNr);
  hidCamIndex = disc->HIDCamIndex;
  const int cam = static_cast<int>(hidCamIndex);
  if (TqUvcOpenHidDevice(cam) != 0) {
    log.Error("TqUvcDevPool::Link: error opening HID channel for camera with index:%d ", cam);
    // The control lock stays held: this thread re-enters it, others block.
    return kFailed;
  }
  PoolLog.Debug("TqUvcDevPool::Link: opened hid class of uvc/hid camera nr: %d", cam);

  uint32_t result = kRefused;
  if (TqUvcReadBtStrp_ADR_GENCP_MODEL_NAME(cam, disc->ModName, kModelNameLength) != 0) {
    log.Error("TqUvcCtrlChan::Link: Error initializing Usb device for Vid.Pid = %4.4x.%4.4x [DiscData:%p]",
              disc->Vid, disc->Pid, static_cast<void*>(disc));
  } else {
    log.Trace("TqUvcCtrlChan::Link: hid class of uvc/hid camera initialized");
    if (textEquals(disc->InterfaceText, kHidProductText)) {
      log.Trace("TqUvcCtrlChan::Link(): control channel linked");
      linked = 1;
      result = kOk;
    } else {
      log.Error("TqUvcCtrlChan::Link: not an UVC HID Device (%.*s)", widthOf(disc->InterfaceText),
                disc->InterfaceText);
    }
  }
  // A refused camera keeps its HID function open; UnLink does not close it.
  if (result != kOk)
    log.Debug("TqUvcCtrlChan::Link: could not establish link (device is not linked) (IsLinked = 0)");
  RkOsLeaveCriticalSection(&controlLock);
  log.Debug("TqUvcCtrlChan::Link() [leave]");
  return result;
}

void TqUvcCtrlChan::ReConnect() {
  RkOsEnterCriticalSection(&controlLock);
  device->GetLog().Debug("TqUvcCtrlChan::ReConnect()");
  RkOsLeaveCriticalSection(&controlLock);
}

uint32_t TqUvcCtrlChan::UnLink() {
  rk::CLog& log = device->GetLog();
  RkOsEnterCriticalSection(&controlLock);
  log.Debug("TqUvcCtrlChan::UnLink() [enter]");
  if (connected != 0) Disconnect(device->GetDiscData(), true);
  if (linked != 0) {
    linked = 0;
    const int cam = static_cast<int>(hidCamIndex);
    log.Trace("TqUvcCtrlChan::UnLink(): control channel unlinked");
    log.Trace("TqUvcCtrlChan::UnLink(): close vexa_hid class of uvc camera nr: %d", cam);
    if (TqUvcCloseHidDevice(cam) != 0) {
      log.Error("TqUvcDevPool::UnLink: error: close");
      // The control lock stays held, as on a failed open in Link.
      return kRefused;
    }
    log.Trace("TqUvcDevPool::UnLink: closed hid channel of uvc camera nr: %d", cam);
  }
  RkOsLeaveCriticalSection(&controlLock);
  log.Debug("TqUvcCtrlChan::UnLink() [leave]");
  return kOk;
}

uint32_t TqUvcCtrlChan::Connect(_tagTqUvccpDiscData* discData, bool /*unused*/) {
  rk::CLog& log = device->GetLog();
  if (discData == nullptr) discData = device->GetDiscData();
  RkOsEnterCriticalSection(&controlLock);
  log.Debug("TqUvcCtrlChan::Connect() [enter]");
  uint32_t result = kOk;
  if (connected != 0) {
    log.Debug("TqUvcCtrlChan::Connect: Already connected, skip new connect");
    result = kBusy;
  } else {
    if (linked == 0) Link();
    if (linked == 0) {
      log.Error("TqUvcCtrlChan::Connect: No link ready");
      result = kBusy;
    }
  }
  if (result != kOk) {
    // Also a second Connect of a connected channel ends disconnected.
    connected = 0;
    accessPrivilegeHeld = 0;
    log.Error("TqUvcCtrlChan::Connect: Failed to connect (Ret=0x%.08X) (IsConnected = 0)", result);
    RkOsLeaveCriticalSection(&controlLock);
    return result;
  }

  log.Debug(
      "TqUvcCtrlChan::Connect: [HIDCamIndex:%p]",
      reinterpret_cast<void*>(static_cast<uintptr_t>(hidCamIndex)));  // NOLINT(performance-no-int-to-ptr)
  log.Debug("TqUvcCtrlChan::Connect: Try to connect with exclusive access (DiscData:%p)\n",
            static_cast<void*>(discData));
  accessPrivilegeHeld = 0;
  if (privilegeOf(discData) != 0) {
    log.Error("  TqUvcCtrlChan::Connect: Device already connected by another handle, skip new connect");
  } else {
    setPrivilege(discData, 1);
    log.Trace("TqUvcCtrlChan::Connect: AccessPrivilege set to:%d (DiscData:%p)", 1,
              static_cast<void*>(discData));
    accessPrivilegeHeld = 1;
  }
  reserved[2] = 0;
  timeout = kDefaultTimeoutMs;
  // The record's texts are fixed-width; IsOwnDevice wants a terminated one.
  const _tagTqUvccpDiscData* own = device->GetDiscData();
  char manufacturer[sizeof own->ManfctName + 1] = {};
  std::memcpy(manufacturer, own->ManfctName, sizeof own->ManfctName);
  ownDevice = IsOwnDevice(manufacturer) ? 1 : 0;
  connected = 1;
  log.Info("TqUvcCtrlChan::Connect(): control channel connected");
  RkOsLeaveCriticalSection(&controlLock);
  return kOk;
}

uint32_t TqUvcCtrlChan::Disconnect(_tagTqUvccpDiscData* discData, bool stopHotPlugThread) {
  rk::CLog& log = device->GetLog();
  if (discData == nullptr) discData = device->GetDiscData();
  RkOsEnterCriticalSection(&controlLock);
  log.Trace("TqUvcCtrlChan::Disconnect() [enter]");
  if (stopHotPlugThread) {
    if (hotPlugThread.Stop(10000) != 0)
      log.Error("Disconnect: StreamStart: cannot stop HotPlugThread");
    else
      log.Trace("Disconnect: HotPlugThread stopped");
  }
  if (connected != 0) {
    log.Trace("Disconnect: MsgChan->Close()");
    if (TqUvcMsgChan* msg = device->GetMsgChan()) msg->Close();
    log.Trace("Disconnect: StrmChan->Close()");
    if (TqUvcStrmChan* strm = device->GetStrmChan()) strm->Close();
    accessPrivilegeHeld = 0;
    // Cleared also when another handle holds the privilege.
    setPrivilege(discData, 0);
    log.Trace("Disconnect: AccessPrivilege set to:%d (DiscData:%p)", 0, static_cast<void*>(discData));
    connected = 0;
    log.Info("TqUvcCtrlChan::Disconnect(): control channel disconnected");
    if (linked != 0) UnLink();
  }
  RkOsLeaveCriticalSection(&controlLock);
  log.Trace("TqUvcCtrlChan::Disconnect() [leave]");
  return kOk;
}

uint32_t TqUvcCtrlChan::CheckConnectionStatus(uint32_t* status) {
  if (status == nullptr) return kOk;
  if (device->CheckConnect())
    *status = connected != 0 && hotPlugThread.ConnectionGood() ? 1 : 0;
  else
    *status = connected != 0 ? 1 : 0;
  return kOk;
}

uint32_t TqUvcCtrlChan::CheckLink() {
  rk::CLog& log = device->GetLog();
  log.Trace("TqUvcCtrlChan::CheckLink() HIDCamIndex:%d IsLinked:%d", static_cast<int>(hidCamIndex),
            static_cast<int>(linked.load()));
  if (linked == 0) {
    log.Trace("TqUvcCtrlChan::CheckLink: Not linked");
    return kFailed;
  }
  return kOk;
}

uint32_t TqUvcCtrlChan::CheckAvailability(uint32_t* available, uint8_t* /*data*/, uint32_t /*size*/) {
  rk::CLog& log = device->GetLog();
  _tagTqUvccpDiscData* disc = device->GetDiscData();
  log.Trace("TqUvcCtrlChan::CheckAvailability() - UVC device Vid.Pid = %4.4x.%4.4x SN=%.*s", disc->Vid,
            disc->Pid, widthOf(disc->SerialNr), disc->SerialNr);
  uint32_t result = kOk;
  uint32_t isAvailable = 0;
  if (CheckLink() != kOk) {
    hidCamIndex = disc->HIDCamIndex;
    const int cam = static_cast<int>(hidCamIndex);
    if (TqUvcOpenHidDevice(cam) == 0) {
      TqUvcCloseHidDevice(cam);
      isAvailable = 1;
    } else {
      result = kFailed;
    }
  } else if (connected != 0 || privilegeOf(disc) == 0) {
    isAvailable = 1;
  } else {
    uint32_t version = 0;
    if (ReadReg(kGenCpVersion, &version) == kOk) {
      isAvailable = 1;
    } else {
      log.Trace("TqUvcCtrlChan::CheckAvailability: Cannot read GENCP_VERSION");
    }
  }
  const char* verdict = isAvailable != 0 ? "is available" : "is not available";
  if (available != nullptr) {
    *available = isAvailable;
    log.Trace("TqUvcCtrlChan::CheckAvailability result: %s", verdict);
  } else {
    log.Info("TqUvcCtrlChan::CheckAvailability result: %s", verdict);
  }
  return result;
}

void TqUvcCtrlChan::CheckSevereError(uint32_t status) {
  rk::CLog& log = device->GetLog();
  const bool severe = status == kSevere || (status & kSevereBit) != 0;
  log.Trace("TqUvcCtrlChan::CheckSevereError() error code: 0x%4.4x (%d) severity: %s", status,
            static_cast<int>(status), severe ? "\"severe\"" : "\"not severe\"");
  if (severe) {
    log.Trace("TqUvcCtrlChan::CheckSevereError() trigger HotPlugThread");
    hotPlugThread.SetTrigger();
  }
}

template <typename Call>
uint32_t TqUvcCtrlChan::request(const char* busyFormat, const char* errorFormat, uint32_t address,
                                Call&& call) {
  rk::CLog& log = device->GetLog();
  RkOsEnterCriticalSection(&requestLock);
  uint32_t entered = 1;
  uint32_t status = call(nextRequestId());
  // Each busy retry enters the request lock again without leaving it first.
  for (uint32_t remaining = kBusyTries; status != kOk && (status & 0xFFFF) == kBusy; --remaining) {
    log.Debug(busyFormat, address, kBusy, static_cast<int>(remaining));
    RkOsSleep(kBusyPauseMs);
    if (remaining == 1) return status;  // exhausted: the request lock stays held
    RkOsEnterCriticalSection(&requestLock);
    ++entered;
    status = call(nextRequestId());
  }
  if (status != kOk) {
    log.Debug(errorFormat, address);
    CheckSevereError(status);
  }
  // Every entry is left again, so that a request that was retried does not
  // shut the channel's other threads out for good.
  while (entered-- > 0) RkOsLeaveCriticalSection(&requestLock);
  return status;
}

uint32_t TqUvcCtrlChan::ReadReg(uint32_t address, uint32_t* value) {
  if (value == nullptr || linked == 0) return kRefused;
  const uint32_t cam = __atomic_load_n(&device->GetDiscData()->HIDCamIndex, __ATOMIC_RELAXED);
  return request(
      "TqUvcCtrlChan::ReadReg device is busy: 0x%4.4x (return code=0x%4.4x, try another write (%d))",
      "TqUvcCtrlChan::ReadReg error reading from adr: 0x%4.4x", address,
      [&](uint16_t id) { return static_cast<uint32_t>(TqUvcReadReg4(cam, address, value, id, timeout)); });
}

uint32_t TqUvcCtrlChan::WriteReg(uint32_t address, uint32_t value) {
  // Writes need a connection, reads only a link.
  if (connected == 0 || linked == 0) return kRefused;
  const uint32_t cam = __atomic_load_n(&device->GetDiscData()->HIDCamIndex, __ATOMIC_RELAXED);
  return request(
      "TqUvcCtrlChan::WriteReg device is busy: 0x%4.4x (return code=0x%4.4x, try another write (%d))",
      "TqUvcCtrlChan::WriteReg error writing to adr: 0x%4.4x", address,
      [&](uint16_t id) { return static_cast<uint32_t>(TqUvcWriteReg4(cam, address, value, id, timeout)); });
}

uint32_t TqUvcCtrlChan::ReadReg(uint32_t* /*addresses*/, uint32_t* /*values*/, uint32_t /*count*/) {
  device->GetLog().Trace("TqUvcCtrlChan::ReadReg(,,NrOfValues)  ----------  undefined --------------");
  RkOsEnterCriticalSection(&requestLock);
  nextRequestId();
  RkOsLeaveCriticalSection(&requestLock);
  return kRefused;
}

uint32_t TqUvcCtrlChan::WriteReg(uint32_t* /*addresses*/, uint32_t* /*values*/, uint32_t /*count*/) {
  device->GetLog().Info("TqUvcCtrlChan::WriteReg(,,NrOfValues)  ----------  undefined --------------");
  RkOsEnterCriticalSection(&requestLock);
  nextRequestId();
  RkOsLeaveCriticalSection(&requestLock);
  return kRefused;
}

uint32_t TqUvcCtrlChan::ReadMem(uint32_t address, uint8_t* buffer, uint32_t length) {
  if (length == 0 || buffer == nullptr || linked == 0) return kRefused;
  const uint32_t cam = __atomic_load_n(&device->GetDiscData()->HIDCamIndex, __ATOMIC_RELAXED);
  RkOsEnterCriticalSection(&requestLock);
  uint16_t id = nextRequestId();
  const int result =
      TqUvcReadMem(cam, address, reinterpret_cast<char*>(buffer), static_cast<int>(length), id, timeout, 0);
  requestId = id;
  RkOsLeaveCriticalSection(&requestLock);
  return static_cast<uint32_t>(result);
}

uint32_t TqUvcCtrlChan::WriteMem(uint32_t /*address*/, uint8_t* /*buffer*/, uint32_t /*length*/) {
  device->GetLog().Info("TqUvcCtrlChan::WriteMem()  ----------  undefined --------------");
  return kRefused;
}
