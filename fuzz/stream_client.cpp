// A client doing anything it likes with its lock table and current-frame word
// while frames arrive through the stream handler. Two emulated cameras stream
// (their own frames switched off) with different image geometries; the fuzz
// input builds the client's buffers and words and then drives a sequence of
// client actions and frames, all on this one thread.
//
// Input: camera, buffer count, per buffer [size, flags, word], frame-word
// placement, lock-table presence, client behaviour; then actions of one
// opcode and two argument bytes each.
#include <tqsim/Sim.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "control/TqUvcCtrlChan.h"
#include "control/VexaHID_Interface.h"
#include "pool/TqUvcDevice.h"
#include "pool/TqUvcDiscPkt.h"
#include "stream/TqUvcStrmChan.h"
#include "stream/TqUvcStrmHandler.h"

namespace {

constexpr uint32_t kMaxBuffers = 8;
constexpr int kMaxActions = 48;

struct Geometry {
  uint32_t width, height, pitch;
};
// Exact fit; and a region taller than the frame with a pitch below its line.
constexpr Geometry kGeometries[] = {{320, 240, 640}, {64, 300, 100}};
constexpr size_t kCameras = sizeof kGeometries / sizeof kGeometries[0];

struct Session {
  std::unique_ptr<TqUvcDevice> device;
  TqUvcStrmChan* chan = nullptr;
};

std::array<Session, kCameras>& sessions() {
  static std::array<Session, kCameras> s;
  return s;
}

void tearDown() {
  for (auto& s : sessions()) {
    if (s.chan != nullptr) {
      s.chan->StreamStop(0);
      s.chan->Close();
    }
    s.device.reset();
  }
  TqUvcDeleteHidDevice();
  tqsim::reset();
}

// The client of one input. Words and buffers live here; the library reads
// them through the tables handed over at configuration.
struct Client {
  TqUvcStrmChan* chan = nullptr;
  uint32_t n = 0;
  std::vector<std::vector<uint8_t>> buffers;
  uint64_t addresses[kMaxBuffers] = {};
  uint32_t sizes[kMaxBuffers] = {};
  uint32_t words[kMaxBuffers] = {};
  alignas(8) uint8_t frameWordStore[8] = {};
  uint8_t* frameWord = nullptr;
  bool lockOnRequest = true;
  bool giveBackOnNotify = false;
  int stopOnRequest = -1;  // stop the stream from inside the callback (request 0 or 1)
  uint32_t lockCalls = 0;
  uint32_t lastLocked = 0xFFFFFFFFu;

  static void callback(uint32_t index, uint32_t request, void*, _tagTqUvcDataBlockInfo* info,
                       uint64_t context) {
    auto* self = reinterpret_cast<Client*>(context);
    if (index >= self->n) fuzz::fail("callback for a buffer the client does not have");
    if (request == TQUVC_REQ_LOCK) {
      if (info != nullptr) fuzz::fail("lock request with a block info");
      ++self->lockCalls;
      self->lastLocked = index;
      if (self->lockOnRequest) self->words[index] = TQUVC_LOCKED;
    } else if (request == TQUVC_REQ_NOTIFY) {
      if (info == nullptr) fuzz::fail("notify without a block info");
      if (index != self->lastLocked) fuzz::fail("notify for another buffer than the one locked");
      if (self->giveBackOnNotify) self->words[index] = (index + 1) % self->n;
    } else {
      fuzz::fail("unknown request");
    }
    const int phase = request == TQUVC_REQ_LOCK ? 0 : 1;
    if (self->stopOnRequest == phase) self->chan->StreamStop(0);
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tqsim::reset();
  if (TqUvcCreateHidDevice() != 0) fuzz::fail("HID layer");
  for (size_t i = 0; i < kCameras; ++i) {
    tqsim::CameraConfig config = tqsim::defaultCameraConfig();
    config.serial = "FUZZ-" + std::to_string(i);
    config.hidrawNumber = static_cast<int>(i);
    config.videoNumber = static_cast<int>(2 * i);
    config.metadataVideoNumber = static_cast<int>(2 * i + 1);
    config.registers[0x0A04] = kGeometries[i].width;
    config.registers[0x0A08] = kGeometries[i].height;
    config.registers[0x0708] = kGeometries[i].pitch;
    // Frames come from the fuzz input only.
    config.videoFaults.stopSending = true;
    std::string error;
    if (tqsim::plugCamera(config, &error) == tqsim::kNoCamera) fuzz::fail(error.c_str());
  }
  int count = 0;
  if (TqUvcEnumerateHidDevice(&count) != 0 || count < static_cast<int>(kCameras))
    fuzz::fail("the emulated cameras were not enumerated");
  int camera = -1;
  for (size_t i = 0; i < kCameras; ++i) {
    if ((i == 0 ? TqUvcGetFirstHidDevice(&camera) : TqUvcGetNextHidDevice(&camera)) != 0)
      fuzz::fail("camera index");
    char serial[64] = {};
    TqUvcGetSerialNumberHidDevice(camera, serial, sizeof serial);
    TqUvcDiscPkt pkt;
    _tagTqUvccpDiscData* d = pkt.GetDiscData();
    d->Vid = 0x7A3D;
    d->Pid = 0x203;
    d->HIDCamIndex = static_cast<uint32_t>(camera);
    std::memcpy(d->SerialNr, serial, std::min(std::strlen(serial), sizeof(d->SerialNr) - 1));
    std::strncpy(d->InterfaceText, "UVC HID Device", sizeof(d->InterfaceText) - 1);
    const size_t which = serial[5] == '1' ? 1 : 0;
    Session& s = sessions()[which];
    s.device = std::make_unique<TqUvcDevice>(&pkt);
    if (s.device->GetCtrlChan()->Connect(s.device->GetDiscData(), true) != 0) fuzz::fail("connect");
    s.chan = s.device->GetStrmChan();
    if (s.chan->Open(0, 0) != 0) fuzz::fail("stream channel open");
    if (s.chan->StreamStart(0) != 0) fuzz::fail("stream start");
  }
  std::atexit(tearDown);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Input in(data, size);
  Session& session = sessions()[in.byte() % kCameras];
  TqUvcStrmChan* chan = session.chan;
  TqUvcDataMemory& memory = chan->GetDataMemory();

  // Every input starts from buffer 0, whatever the last one left.
  uint64_t oneAddress = 0;
  uint32_t oneSize = 0;
  memory.CfgBuffers(&oneAddress, &oneSize, 1);
  memory.CfgLockTable(nullptr, nullptr);
  memory.GetNextBufferIndex();

  Client client;
  client.chan = chan;
  client.n = in.byte() % (kMaxBuffers + 1);
  for (uint32_t i = 0; i < client.n; ++i) {
    const uint32_t bytes = static_cast<uint32_t>(in.u16()) * 3;
    const uint8_t flags = in.byte();
    const uint8_t word = in.byte();
    client.buffers.emplace_back(bytes, 0xCD);
    client.addresses[i] = (flags & 1) != 0 ? 0 : reinterpret_cast<uint64_t>(client.buffers[i].data());
    client.sizes[i] = bytes;
    client.words[i] = word == 0xFF ? TQUVC_LOCKED : word % (client.n + 2);
  }
  const uint8_t placement = in.byte();
  client.frameWord = placement % 5 == 0 ? nullptr : client.frameWordStore + placement % 5 - 1;
  const bool withLockTable = in.byte() % 8 != 0;
  const uint8_t behaviour = in.byte();
  client.lockOnRequest = (behaviour & 1) == 0;
  client.giveBackOnNotify = (behaviour & 2) != 0;
  // Stopping costs a restart of about 100 ms: keep it to a few inputs.
  client.stopOnRequest = (behaviour & 0x7C) == 0x54 ? (behaviour >> 7) & 1 : -1;

  memory.CfgBuffers(client.addresses, client.sizes, client.n);
  memory.CfgLockTable(withLockTable ? client.words : nullptr, client.frameWord);
  chan->RegisterDataCallback(&Client::callback, reinterpret_cast<uint64_t>(&client));

  const int64_t expected = int64_t{chan->GetUvcHeight()} * chan->GetUvcLineBytes();
  std::vector<char> frame;
  for (int a = 0; a < kMaxActions && !in.empty(); ++a) {
    const uint8_t op = in.byte();
    const uint8_t x = in.byte();
    const uint8_t y = in.byte();
    switch (op % 10) {
      case 0:
      case 1:
      case 2: {  // a frame: whole, short, long, empty, negative or tiny
        int bytes = 0;
        switch (x % 6) {
          case 0:
            bytes = static_cast<int>(expected);
            break;
          case 1:
            bytes = static_cast<int>(expected) - y * 97;
            break;
          case 2:
            bytes = static_cast<int>(expected) + y;
            break;
          case 3:
            bytes = 0;
            break;
          case 4:
            bytes = -static_cast<int>(y) - 1;
            break;
          default:
            bytes = y;
            break;
        }
        frame.assign(bytes > 0 ? static_cast<size_t>(bytes) : 0, static_cast<char>(a));
        const bool nullData = (x & 0x80) != 0;
        const uint32_t before = client.lockCalls;
        LocalNewBufferCallBack(nullData || frame.empty() ? nullptr : frame.data(), bytes,
                               session.device.get());
        // The buffer written is the one the client was asked to lock.
        if (client.lockCalls != before && client.lastLocked >= client.n)
          fuzz::fail("locked a foreign buffer");
        break;
      }
      case 3:  // the client keeps a buffer
        if (client.n > 0) client.words[x % client.n] = TQUVC_LOCKED;
        break;
      case 4:  // the client gives a buffer back, pointing anywhere
        if (client.n > 0) client.words[x % client.n] = y == 0xFF ? 0x7FFFFFFFu : y % (client.n + 2);
        break;
      case 5:  // the client scribbles on the current-frame word
        if (client.frameWord != nullptr) std::memcpy(client.frameWord, &x, 1);
        break;
      case 6:  // a new callback, or none
        chan->RegisterDataCallback(x % 4 == 0 ? nullptr : &Client::callback,
                                   reinterpret_cast<uint64_t>(&client));
        client.stopOnRequest = x % 4 == 1 && y >= 0xF0 ? (y & 1) : -1;
        break;
      case 7:  // the lock-table mutex, as clients take it around their edits
        chan->StreamLockTableAcquireDmaMutex();
        if (client.n > 0 && (y & 1) != 0) client.words[x % client.n] = TQUVC_LOCKED;
        chan->StreamLockTableReleaseDmaMutex();
        break;
      case 8:  // fewer buffers than the words still name
        memory.CfgBuffers(client.addresses, client.sizes, client.n == 0 ? 0 : x % (client.n + 1));
        break;
      default:  // stop
        if (x == 0x5A) chan->StreamStop(0);
        break;
    }
  }

  // Leave the channel streaming with no client tables for the next input.
  chan->RegisterDataCallback(nullptr, 0);
  memory.Destroy();
  if (!chan->IsStarted() && chan->StreamStart(0) != 0) fuzz::fail("restart");
  return 0;
}
