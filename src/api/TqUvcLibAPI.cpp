// The exported functions: reference-counted initialisation, handle lookup, and
// one call into the device's channel per function.
#include "api/TqUvcLibAPI.h"

#include <tq_uvc.h>

#include <string>

#include "control/TqUvcBootstrap.h"
#include "control/TqUvcCtrlChan.h"
#include "control/TqUvcMsgChan.h"
#include "hid/DeviceNode.h"
#include "pool/TqUvcDevPool.h"
#include "stream/TqUvcStrmChan.h"
#include "support/LibLogs.h"
#include "support/TqUvcIni.h"

uint32_t TqUvcInitialized = 0;
std::atomic<TqUvcDevPool*> ThePool{nullptr};

// After the log sources (support/LibLogs.cpp), whose destructors are trivial,
// so they still work while this one runs.
CInitializer g_Initializer;

CInitializer::~CInitializer() {
  if (TqUvcInitialized != 0) {
    delete ThePool.exchange(nullptr);
    TqUvcCloseIni();
  }
  // The camera table outlives every other static object of the library so
  // that the pool above could still close cameras through it.
  ReleaseDevicePool();
}

namespace {

constexpr uint32_t kControlFamilyMissing = 0x8001;
constexpr uint32_t kChannelFamilyMissing = 0x8FFF;

// The two log indent levels every exported function holds while it runs.
struct CallIndent {
  rk::CLogIndent outer;
  rk::CLogIndent inner;
};

struct EntryTrace {
  explicit EntryTrace(const char* name) { APILog.Trace("TqUvcLibAPI::%s()", name); }
};

// Entry trace "TqUvcLibAPI::<name>()", then the indents for the call.
class ApiEntry {
 public:
  explicit ApiEntry(const char* name) : trace_(name) {}

 private:
  EntryTrace trace_;
  CallIndent indent_;
};

// Control family: 0x8001 for a missing pool, node or channel; when the
// channel is missing the node keeps the reference taken by the lookup.
template <typename Fn>
uint32_t onCtrlChan(uint64_t hDev, Fn&& fn) {
  TqUvcDevPool* pool = ThePool.load();
  if (pool == nullptr) return kControlFamilyMissing;
  TqUvcDevPoolNode* node = pool->GetNode(hDev);
  if (node == nullptr) return kControlFamilyMissing;
  TqUvcCtrlChan* chan = node->device.GetCtrlChan();
  if (chan == nullptr) return kControlFamilyMissing;
  const uint32_t result = fn(*chan, node->device);
  node->ReleaseRef();
  return result;
}

// Channel family: 0x8FFF for a missing pool, node or channel.
template <typename Get, typename Fn>
uint32_t onChannel(uint64_t hDev, Get&& get, Fn&& fn) {
  TqUvcDevPool* pool = ThePool.load();
  if (pool == nullptr) return kChannelFamilyMissing;
  TqUvcDevPoolNode* node = pool->GetNode(hDev);
  if (node == nullptr) return kChannelFamilyMissing;
  auto* chan = get(node->device);
  const uint32_t result = chan != nullptr ? fn(*chan) : kChannelFamilyMissing;
  node->ReleaseRef();
  return result;
}

template <typename Fn>
uint32_t onBootstrap(uint64_t hDev, Fn&& fn) {
  return onChannel(
      hDev, [](TqUvcDevice& d) { return d.GetBootstrap(); }, fn);
}
template <typename Fn>
uint32_t onStrmChan(uint64_t hDev, Fn&& fn) {
  return onChannel(
      hDev, [](TqUvcDevice& d) { return d.GetStrmChan(); }, fn);
}
template <typename Fn>
uint32_t onMsgChan(uint64_t hDev, Fn&& fn) {
  return onChannel(
      hDev, [](TqUvcDevice& d) { return d.GetMsgChan(); }, fn);
}

// The client's text as the log's format without arguments: "%%" prints one
// '%', any other conversion is printed as it stands instead of reading
// arguments that were never passed.
std::string literalFormat(const char* msg) {
  std::string out;
  for (const char* p = msg; *p != '\0'; ++p) {
    out += *p;
    if (*p == '%' && p[1] == '%') ++p;
  }
  return out;
}

}  // namespace

extern "C" {

void TqUvcLibraryInit(void) {
  APILog.Trace("TqUvcLibraryInit()");
  CallIndent indent;
  if (TqUvcInitialized != 0) {
    ++TqUvcInitialized;
    return;
  }
  TqUvcInitialized = 1;
  if (ThePool.load() == nullptr) {
    auto* pool = new TqUvcDevPool;
    pool->Init();
    ThePool.store(pool);
  }
  APILog.Trace("TqUvcLibraryInit TqUvcInitialized=1");
}

void TqUvcLibraryUninit(void) {
  APILog.Trace("TqUvcLibraryUninit()");
  CallIndent indent;
  if (TqUvcInitialized >= 2) {
    APILog.Trace("TqUvcLibraryUninit reference count:%d only decreasing", static_cast<int>(TqUvcInitialized));
    --TqUvcInitialized;
  } else if (TqUvcInitialized == 1) {
    APILog.Trace("TqUvcLibraryUninit delete device pool");
    delete ThePool.exchange(nullptr);
    TqUvcCloseIni();
    TqUvcInitialized = 0;
  }
}

uint32_t TqUvcTraceMsg(const char* Msg) {
  if (Msg != nullptr) APILog.Trace("%s", literalFormat(Msg).c_str());
  return 0;
}

uint32_t TqUvcScanDevices(uint64_t /*Reserved*/, uint64_t UniCastScanAddr, uint64_t Timeout) {
  ApiEntry entry("TqUvcScanDevices");
  if (UniCastScanAddr != 0)
    APILog.Trace("TqUvcScanDevices: UniCastScanAddr not supported, make anyway full rescan");
  TqUvcDevPool* pool = ThePool.load();
  if (pool == nullptr) return kControlFamilyMissing;
  return pool->ScanDevices(Timeout);
}

uint64_t TqUvcGetFirstPoolDev(uint64_t /*Reserved*/, _tagTqUvcDevInfo* Info) {
  // The record's size is read for the trace before anything else; a null
  // record answers "no device" instead.
  APILog.Trace("TqUvcLibAPI::TqUvcGetFirstPoolDev() Info->Size:%d",
               Info != nullptr ? static_cast<int>(Info->Size) : 0);
  CallIndent indent;
  TqUvcDevPool* pool = ThePool.load();
  if (pool == nullptr || Info == nullptr) return 0;
  TqUvcDevPoolNode* node = pool->GetHead(0);
  if (node == nullptr) return 0;
  node->device.GetDevInformation(Info);
  const uint64_t handle = node->device.GetHandle();
  node->ReleaseRef();
  return handle;
}

uint64_t TqUvcNextPoolDev(uint64_t hDev, uint64_t /*Reserved*/, _tagTqUvcDevInfo* Info) {
  ApiEntry entry("TqUvcNextPoolDev");
  TqUvcDevPool* pool = ThePool.load();
  if (pool == nullptr) return 0;
  TqUvcDevPoolNode* current = pool->GetNode(hDev);
  if (current == nullptr) return 0;
  uint64_t handle = 0;
  TqUvcDevPoolNode* next = pool->GetNext(current, 0);
  if (next != nullptr) {
    next->device.GetDevInformation(Info);
    handle = next->device.GetHandle();
    next->ReleaseRef();
  }
  current->ReleaseRef();
  return handle;
}

uint32_t TqUvcConnect(uint64_t hDev, uint32_t Privilege) {
  ApiEntry entry("TqUvcConnect");
  const uint32_t ret =
      onCtrlChan(hDev, [](TqUvcCtrlChan& c, TqUvcDevice& d) { return c.Connect(d.GetDiscData(), true); });
  APILog.Trace(" TqUvcConnect(hDev=%d, Privilege=%d), Ret=0x%.08X", static_cast<int>(hDev),
               static_cast<int>(Privilege), ret);
  return ret;
}

uint32_t TqUvcDisconnect(uint64_t hDev) {
  ApiEntry entry("TqUvcDisconnect");
  const uint32_t ret =
      onCtrlChan(hDev, [](TqUvcCtrlChan& c, TqUvcDevice& d) { return c.Disconnect(d.GetDiscData(), true); });
  APILog.Trace(" TqUvcDisconnect(hDev=%d), Ret=0x%.08X", static_cast<int>(hDev), ret);
  return ret;
}

uint32_t TqUvcCheckConnectionStatus(uint64_t hDev, uint32_t* Status) {
  return onCtrlChan(hDev, [&](TqUvcCtrlChan& c, TqUvcDevice&) { return c.CheckConnectionStatus(Status); });
}

uint32_t TqUvcCheckAvailablity(uint64_t hDev, uint32_t* Available, uint8_t* Data, uint32_t Size) {
  ApiEntry entry("TqUvcCheckAvailablity");
  return onCtrlChan(
      hDev, [&](TqUvcCtrlChan& c, TqUvcDevice&) { return c.CheckAvailability(Available, Data, Size); });
}

uint32_t TqUvcReadMem(uint64_t hDev, uint32_t Address, uint8_t* Buffer, uint32_t Length) {
  return onCtrlChan(hDev, [&](TqUvcCtrlChan& c, TqUvcDevice&) { return c.ReadMem(Address, Buffer, Length); });
}

uint32_t TqUvcWriteMem(uint64_t hDev, uint32_t Address, uint8_t* Buffer, uint32_t Length) {
  return onCtrlChan(hDev,
                    [&](TqUvcCtrlChan& c, TqUvcDevice&) { return c.WriteMem(Address, Buffer, Length); });
}

uint32_t TqUvcReadReg(uint64_t hDev, uint32_t Address, uint32_t* Value) {
  return onCtrlChan(hDev, [&](TqUvcCtrlChan& c, TqUvcDevice&) { return c.ReadReg(Address, Value); });
}

uint32_t TqUvcReadMultiReg(uint64_t hDev, uint32_t* Addresses, uint32_t* Values, uint32_t Count) {
  return onCtrlChan(hDev,
                    [&](TqUvcCtrlChan& c, TqUvcDevice&) { return c.ReadReg(Addresses, Values, Count); });
}

uint32_t TqUvcWriteReg(uint64_t hDev, uint32_t Address, uint32_t Value) {
  return onCtrlChan(hDev, [&](TqUvcCtrlChan& c, TqUvcDevice&) { return c.WriteReg(Address, Value); });
}

uint32_t TqUvcWriteMuliReg(uint64_t hDev, uint32_t* Addresses, uint32_t* Values, uint32_t Count) {
  return onCtrlChan(hDev,
                    [&](TqUvcCtrlChan& c, TqUvcDevice&) { return c.WriteReg(Addresses, Values, Count); });
}

uint32_t TqUvcGetXMLFile(uint64_t hDev, uint32_t Which, uint8_t* Buffer, uint32_t BufferSize,
                         uint32_t Flags) {
  ApiEntry entry("TqUvcGetXMLFile");
  return onBootstrap(hDev, [&](TqUvcBootstrap& b) { return b.GetXMLFile(Which, Buffer, BufferSize, Flags); });
}

uint32_t TqUvcGetNrManifestFile(uint64_t hDev, uint32_t* Count) {
  ApiEntry entry("TqUvcGetNrManifestFile");
  return onBootstrap(hDev, [&](TqUvcBootstrap& b) { return b.GetNrManifestFile(Count); });
}

uint32_t TqUvcGetManifestFileData(uint64_t hDev, uint32_t Index, uint32_t* Version, uint32_t* Address,
                                  uint8_t* Path, uint32_t PathSize, uint8_t* SecPath, uint32_t SecPathSize,
                                  uint32_t* Data0, uint32_t* Data1, uint8_t* Sha) {
  return onBootstrap(hDev, [&](TqUvcBootstrap& b) {
    return b.GetManifestFileData(Index, Version, Address, reinterpret_cast<char*>(Path), PathSize, SecPath,
                                 SecPathSize, Data0, Data1, reinterpret_cast<char*>(Sha));
  });
}

uint32_t TqUvcSetNickname(uint64_t hDev, uint8_t* Nickname) {
  ApiEntry entry("TqUvcSetNickname");
  return onBootstrap(hDev, [&](TqUvcBootstrap& b) { return b.SetNick(Nickname); });
}

uint32_t TqUvcGetDevCapabilty(uint64_t hDev, uint32_t* Capabilities) {
  ApiEntry entry("TqUvcGetDevCapabilty");
  return onBootstrap(hDev, [&](TqUvcBootstrap& b) { return b.GetDevCapabilty(Capabilities); });
}

uint32_t TqUvcOpenStrmChan(uint64_t hDev, uint64_t /*Reserved*/, uint32_t Arg0, uint32_t Arg1) {
  ApiEntry entry("TqUvcOpenStrmChan");
  return onStrmChan(hDev, [&](TqUvcStrmChan& s) { return s.Open(Arg0, Arg1); });
}

uint32_t TqUvcCloseStrmChan(uint64_t hDev) {
  ApiEntry entry("TqUvcCloseStrmChan");
  return onStrmChan(hDev, [](TqUvcStrmChan& s) { return s.Close(); });
}

uint32_t TqUvcCfgMemory(uint64_t hDev, uint64_t /*Reserved*/, uint64_t* Buffers, uint32_t* Sizes,
                        uint32_t Count) {
  ApiEntry entry("TqUvcCfgMemory");
  return onStrmChan(hDev,
                    [&](TqUvcStrmChan& s) { return s.GetDataMemory().CfgBuffers(Buffers, Sizes, Count); });
}

uint32_t TqUvcCfgLockTable(uint64_t hDev, uint64_t /*Reserved*/, uint32_t* LockTable, uint8_t* CurrFrame) {
  ApiEntry entry("TqUvcCfgLockTable");
  return onStrmChan(hDev,
                    [&](TqUvcStrmChan& s) { return s.GetDataMemory().CfgLockTable(LockTable, CurrFrame); });
}

uint32_t TqUvcCfgBufferDim(uint64_t hDev, uint64_t /*Reserved*/, _tagTqUvcBufDimension* Dim) {
  ApiEntry entry("TqUvcCfgBufferDim");
  return onStrmChan(hDev, [&](TqUvcStrmChan& s) { return s.GetDataMemory().CfgBufferDim(Dim); });
}

uint32_t TqUvcStreamStart(uint64_t hDev, uint32_t Arg) {
  ApiEntry entry("TqUvcStreamStart");
  return onStrmChan(hDev, [&](TqUvcStrmChan& s) { return s.StreamStart(Arg); });
}

uint32_t TqUvcStreamStop(uint64_t hDev, uint32_t Arg) {
  ApiEntry entry("TqUvcStreamStop");
  return onStrmChan(hDev, [&](TqUvcStrmChan& s) { return s.StreamStop(Arg); });
}

uint32_t TqUvcStreamRestartAt(uint64_t hDev) {
  APILog.Trace("TqUvcLibAPI::TqUvcStreamRestartAt()\n");
  CallIndent indent;
  TqUvcDevPool* pool = ThePool.load();
  if (pool != nullptr) {
    TqUvcDevPoolNode* node = pool->GetNode(hDev);
    if (node != nullptr) node->ReleaseRef();
  }
  return kChannelFamilyMissing;
}

uint32_t TqUvcStreamLockTableAcquireDmaMutex(uint64_t hDev) {
  ApiEntry entry("TqUvcStreamLockTableAcquireDmaMutex");
  return onStrmChan(hDev, [](TqUvcStrmChan& s) { return s.StreamLockTableAcquireDmaMutex(); });
}

uint32_t TqUvcStreamLockTableReleaseDmaMutex(uint64_t hDev) {
  ApiEntry entry("TqUvcStreamLockTableReleaseDmaMutex");
  return onStrmChan(hDev, [](TqUvcStrmChan& s) { return s.StreamLockTableReleaseDmaMutex(); });
}

uint32_t TqUvcRegisterDataCallback(uint64_t hDev, uint64_t /*Reserved*/, TqUvcDataCallback Callback,
                                   uint64_t Context) {
  ApiEntry entry("TqUvcRegisterDataCallback");
  return onStrmChan(hDev, [&](TqUvcStrmChan& s) { return s.RegisterDataCallback(Callback, Context); });
}

uint32_t TqUvcOpenMsgChan(uint64_t hDev) {
  ApiEntry entry("TqUvcOpenMsgChan");
  return onMsgChan(hDev, [](TqUvcMsgChan& m) { return m.Open(); });
}

uint32_t TqUvcCloseMsgChan(uint64_t hDev) {
  ApiEntry entry("TqUvcCloseMsgChan");
  return onMsgChan(hDev, [](TqUvcMsgChan& m) { return m.Close(); });
}

uint32_t TqUvcRegisterMsgCallback(uint64_t hDev, TqUvcMsgCallback Callback, uint64_t Context,
                                  uint32_t Flags) {
  ApiEntry entry("TqUvcRegisterMsgCallback");
  return onMsgChan(hDev, [&](TqUvcMsgChan& m) { return m.RegisterMsgCallback(Callback, Context, Flags); });
}

uint32_t TqUvcIsFDAvailable(void) { return kChannelFamilyMissing; }

uint32_t TqUvcGetHostCapability(uint32_t* Capability) {
  // No check, as callers have always relied on; a null pointer is still not
  // written through.
  if (Capability != nullptr) *Capability = 4;
  return 0;
}

}  // extern "C"
