#include "pool/TqUvcDevPool.h"

#include <cstring>
#include <vector>

#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDiscPkt.h"
#include "support/CriticalSectionLock.h"
#include "support/LibLogs.h"
#include "support/StringUtils.h"

namespace {

constexpr uint32_t kVid = 0x7A3D;
constexpr uint32_t kPid = 0x203;
constexpr int kFirstModelIndex = 14;

// Model names by the first two digits of the serial number (14 to 31).
const char* const kModelNames[18] = {
    "TQ-UC14 Mono", "TQ-UC15 Color", "TQ-UC16 Mono", "TQ-UC17 Color", "TQ-UC18 Mono", "TQ-UC19 Color",
    "TQ-UC20 Mono", "TQ-UC21 Color", "TQ-UC22 Mono", "TQ-UC23 Color", "TQ-UC24 Mono", "TQ-UC25 Color",
    "TQ-UC26 Mono", "TQ-UC27 Color", "TQ-UC28 Mono", "TQ-UC29 Color", "TQ-UC30 Mono", "TQ-UC31 Color",
};

int modelIndex(const char* serial) {
  int value = 0;
  for (int i = 0; i < 2 && serial[i] >= '0' && serial[i] <= '9'; ++i) value = value * 10 + (serial[i] - '0');
  return value;
}

const char* modelName(const char* serial) {
  int index = modelIndex(serial);
  if (index < kFirstModelIndex || index >= kFirstModelIndex + 18) return "unknown";
  return kModelNames[index - kFirstModelIndex];
}

// Trailing blanks go, but at least one character stays.
template <size_t N>
void stripTrailingBlanks(char (&text)[N]) {
  text[N - 1] = '\0';
  size_t n = std::strlen(text);
  while (n > 1 && text[n - 1] == ' ') text[--n] = '\0';
}

}  // namespace

// ---------------------------------------------------------------- node

TqUvcDevPoolNode::TqUvcDevPoolNode(TqUvcDevPoolNode* prev, TqUvcDiscPkt* pkt)
    : next(nullptr), previous(prev), refCount(1), present(1), scanWord(0), device(pkt) {}

TqUvcDevPoolNode::~TqUvcDevPoolNode() {
  // The tail goes first, deepest node first, as a recursive destruction would
  // do it, but without recursion, so that a long list cannot exhaust the stack.
  std::vector<TqUvcDevPoolNode*> tail;
  for (TqUvcDevPoolNode* node = next; node != nullptr; node = node->next) tail.push_back(node);
  for (auto it = tail.rbegin(); it != tail.rend(); ++it) {
    (*it)->next = nullptr;
    delete *it;
  }
  next = nullptr;
}

uint32_t TqUvcDevPoolNode::Add(TqUvcDiscPkt* pkt) {
  if (pkt == nullptr) return 0x8002;
  TqUvcDevPoolNode* last = this;
  for (TqUvcDevPoolNode* node = this; node != nullptr; node = node->next) {
    if (node->device.HandleKnownDevice(pkt)) {
      PoolLog.Trace("TqUvcDevPoolNode::Add() Already in device list, no need to add (SN:%s)\n",
                    pkt->GetSerialNr());
      node->present = 1;
      return 0;
    }
    last = node;
  }
  auto* node = new TqUvcDevPoolNode(last, pkt);
  last->next = node;
  PoolLog.Trace("TqUvcDevPoolNode::Add() new device added (SN:%s) [Node:%p]\n", pkt->GetSerialNr(),
                static_cast<void*>(node));
  return last->next != nullptr ? 0 : 0x8008;
}

void TqUvcDevPoolNode::AddRef() { ivAtomicInc32(&refCount); }

void TqUvcDevPoolNode::ReleaseRef() {
  if (ivAtomicDec32(&refCount) == 0) {
    // The list still links to this node and frees it with the pool; freeing it
    // here would leave that link dangling.
    PoolLog.Info("Orphan child, kill myself (H=0x%.08X)\n", static_cast<unsigned>(device.GetHandle()));
  }
}

// ---------------------------------------------------------------- pool

TqUvcDevPool::TqUvcDevPool() : head(nullptr), lock{} { RkOsInitializeCriticalSection(&lock, "UVC:Pool"); }

TqUvcDevPool::~TqUvcDevPool() {
  delete head;
  head = nullptr;
  TqUvcDeleteHidDevice();
  RkOsDeleteCriticalSection(&lock);
}

uint32_t TqUvcDevPool::Init() {
  TqUvcCreateHidDevice();
  return 0;
}

uint32_t TqUvcDevPool::Add(TqUvcDiscPkt* pkt) {
  PoolLog.Trace("TqUvcDevPool::Add()\n");
  if (pkt == nullptr) return 0x8002;
  if (head == nullptr) {
    PoolLog.Trace("TqUvcDevPool::Add() new device added (SN:%s) [Node:%p]\n", pkt->GetSerialNr(),
                  static_cast<void*>(nullptr));
    head = new TqUvcDevPoolNode(nullptr, pkt);
    return 0;
  }
  return head->Add(pkt);
}

TqUvcDevPoolNode* TqUvcDevPool::GetNode(uint64_t hDev) {
  CriticalSectionLock guard(lock);
  for (TqUvcDevPoolNode* node = head; node != nullptr; node = node->next) {
    if (node->device.GetHandle() == hDev) {
      node->AddRef();
      return node;
    }
  }
  return nullptr;
}

TqUvcDevPoolNode* TqUvcDevPool::GetHead(uint32_t /*filter*/) {
  PoolLog.Trace("TqUvcDevPool::GetHead()\n");
  CriticalSectionLock guard(lock);
  TqUvcDevPoolNode* node = head;
  if (node == nullptr) return nullptr;
  if (node->present) {
    node->AddRef();
    return node;
  }
  // Every node stepped onto keeps a reference, the one returned a second.
  for (node = node->next; node != nullptr; node = node->next) {
    node->AddRef();
    if (node->present) {
      node->AddRef();
      return node;
    }
  }
  return nullptr;
}

TqUvcDevPoolNode* TqUvcDevPool::GetNext(TqUvcDevPoolNode* current, uint32_t /*filter*/) {
  PoolLog.Trace("TqUvcDevPool::GetNext()\n");
  if (current == nullptr) return nullptr;
  CriticalSectionLock guard(lock);
  for (TqUvcDevPoolNode* node = current->next; node != nullptr; node = node->next) {
    node->AddRef();
    if (node->present) {
      node->AddRef();
      return node;
    }
  }
  return nullptr;
}

uint32_t TqUvcDevPool::ScanDevices(uint64_t timeoutMs) {
  PoolLog.Trace("TqUvcDevPool::ScanDevices(Timeout=%lldms)\n", static_cast<long long>(timeoutMs));
  CriticalSectionLock guard(lock);
  for (TqUvcDevPoolNode* node = head; node != nullptr; node = node->next) {
    node->present = 0;
    node->scanWord = 0;
  }
  TqUvcDiscPkt packet;
  _tagTqUvccpDiscData& d = *packet.GetDiscData();

  PoolLog.Debug("--- Start ScanDevices [UVC Interface] --------------------------------------------");
  PoolLog.Debug("ScanDevices: Timeout=%lldms", static_cast<long long>(timeoutMs));
  const uint64_t startUs = RkOsGetTickCountPrecise();

  if (!TqUvcHidInterfaceAvailable()) {
    PoolLog.Error("Device nr:%d: No HID class for UVC Vision Device\n", 0);
  } else {
    int count = 0;
    TqUvcEnumerateHidDevice(&count);
    // Only the low byte is written by the enumeration.
    const int cameras = static_cast<uint8_t>(count);
    PoolLog.Debug("TqUvcDevPool::ScanDevices: nr of detected uvc/hid compatible devices: %d", cameras);
    // Lives for the whole scan: once one camera's queries fail, the rest of
    // this scan is skipped too.
    int error = 0;
    for (int n = 0; n < cameras; ++n) {
      int index = 0;
      if (n == 0)
        TqUvcGetFirstHidDevice(&index);
      else
        TqUvcGetNextHidDevice(&index);
      d.Vid = kVid;
      d.Pid = kPid;
      d.HIDCamIndex = static_cast<uint32_t>(index);
      error |= TqUvcGetSerialNumberHidDevice(index, d.SerialNr, sizeof d.SerialNr);
      error |= TqUvcGetManufacturerHidDevice(index, d.ManfctName, sizeof d.ManfctName);
      error |= TqUvcGetProductHidDevice(index, d.ModName, sizeof d.ModName);
      stripTrailingBlanks(d.ManfctName);
      stripTrailingBlanks(d.ModName);
      const char* model = modelName(packet.GetSerialNr());
      if (std::strcmp(model, "unknown") != 0) rk::SafeStrCpy(d.ModName, model, sizeof d.ModName);

      char hidPath[256] = {};
      char videoPath[256] = {};
      error |= TqUvcGetDevicePathHidDevice(index, hidPath, 255);
      error |= TqUvcGetDevicePathUVCDevice(index, videoPath, 255);
      PoolLog.Debug("TqUvcDevPool::ScanDevices: serial number : %s", packet.GetSerialNr());
      PoolLog.Debug("TqUvcDevPool::ScanDevices: device path   : %s", hidPath);
      PoolLog.Debug("TqUvcDevPool::ScanDevices: symbolic link : %s", videoPath);
      if (error != 0) {
        PoolLog.Trace("Device nr:%d: No UVC Vision Device. skipping device. Error code: %x \n", n,
                      static_cast<unsigned>(error));
        continue;
      }
      rk::SafeStrCpy(d.InterfaceText, "UVC HID Device", sizeof d.InterfaceText);
      PoolLog.Trace("Device nr:%d with following device info:\n", n);
      PoolLog.Trace("  Vid                         :%08X\n", d.Vid);
      PoolLog.Trace("  Pid                         :%08X\n", d.Pid);
      PoolLog.Trace("  SerialNumber                :\"%s\"\n", packet.GetSerialNr());
      PoolLog.Trace("  ModName                     :\"%s\"\n", packet.GetModelName());
      PoolLog.Trace("  ManfctName                  :\"%s\"\n", packet.GetManfctName());
      PoolLog.Trace("  Index                       :%08X\n", d.HIDCamIndex);
      PoolLog.Trace("UVC device detected (device nr:%d)\n", n);
      Add(&packet);
    }
  }

  int found = 0;
  for (TqUvcDevPoolNode* node = head; node != nullptr; node = node->next) {
    if (!node->present) continue;
    if (found == 0) PoolLog.Debug("--- Resulting Device List: -----------------");
    ++found;
    node->device.ShowDeviceInfoInLog();
  }
  if (found > 0) PoolLog.Debug("--------------------------------------------");
  PoolLog.Debug("ScanDevices: Found %d devices after %dms", found,
                static_cast<int>((RkOsGetTickCountPrecise() - startUs) / 1000));
  PoolLog.Debug("--- Stop  ScanDevices [UVC Interface] --------------------------------------------");
  return 0x8001;
}
