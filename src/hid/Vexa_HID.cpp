#include "hid/Vexa_HID.h"

#include <chrono>
#include <cstring>

#include "hid/DecodeError.h"
#include "hid/KOR_HID.h"
#include "support/LibLogs.h"

namespace {

using namespace hidproto;

constexpr int kReportSize = static_cast<int>(kInputReportSize);
constexpr int kXmlChunk = static_cast<int>(kFeatureReportSize);
constexpr int kShaSize = kFileQuerySha1Length;

const char* text(const std::string& s) { return s.c_str(); }

uint32_t bigEndian32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

}  // namespace

Vexa_HID::Vexa_HID()
    : event{},
      bInitialized(0),
      uvcIndex{},
      nSeq(0),
      nPayloadOffset(kRegisterPayloadOffset),
      nExpectedId(0),
      nStatus(0),
      payload{},
      bAnswer(0) {
  for (uint32_t i = 0; i < 256; ++i) {
    uvcIndex[i] = i;
    acquisitionEnabled[i] = 0;
  }
  LIBLog.Trace("Vexa_HID::Vexa_HID() done\n");
}

Vexa_HID::~Vexa_HID() {
  // Every attached camera is closed, linked or not: a reader thread left
  // running would call back into this destroyed object.
  for (int cam = 0; cam < 256; ++cam) KOR_HID_Close(static_cast<uint8_t>(cam));
  if (bInitialized) KOR_HID_DeInit();
}

uint8_t Vexa_HID::Init() {
  LIBLog.Trace("Vexa_HID::Init()\n");
  auto r = static_cast<uint8_t>(KOR_HID_Init());
  if (r != 0) {
    LIBLog.Error("Vexa_HID::Init: cannot open the dll interface\n");
  } else {
    bInitialized = 1;
  }
  return r;
}

uint8_t Vexa_HID::Enumerate(uint16_t vid, uint16_t pid, uint8_t* count) {
  uint8_t n = KOR_HID_Enumerate(vid, pid);
  if (count != nullptr) *count = n;
  LIBLog.Trace("Vexa_HID::Enumerate: enumerated %d devices\n", n);
  return 0;
}

void Vexa_HID::SetUvcIndex(uint8_t cam, uint8_t uvc) { uvcIndex[cam] = uvc; }

int Vexa_HID::IsLinked(uint8_t cam) { return KOR_HID_IsLinked(cam); }

bool Vexa_HID::IsAcquisitionEnabled(uint8_t cam) { return acquisitionEnabled[cam] != 0; }

void Vexa_HID::DisableAcquisition(uint8_t cam) {
  acquisitionEnabled[cam] = 0;
  LIBLog.Trace("Vexa_HID::DisableAcquisition(%d) acquisition disabled\n", cam);
}

int Vexa_HID::Open(uint8_t cam, int /*unused*/) {
  LIBLog.Trace("Vexa_HID::Open: open cam with index nr:%d\n", cam);
  if (KOR_HID_Open(cam) != 0) return kOpenNodeFailed;
  if (KOR_HID_SetCallbackHid(cam, &Vexa_HID::ReceiveCallbackHidStatic, this) != 0) {
    LIBLog.Error("Vexa_HID::Open: error setting callback while opening cam with index nr:%d\n", cam);
    return kOpenCallbackFailed;
  }
  return 0;
}

int Vexa_HID::Close(uint8_t cam) {
  LIBLog.Trace("Vexa_HID::Close: close cam with index nr:%d\n", cam);
  return KOR_HID_Close(cam);
}

int Vexa_HID::GetSerialNumber(uint8_t cam, char* buf, int len) {
  return KOR_HID_GetSerialNumber(cam, buf, len);
}

int Vexa_HID::GetManufacturer(uint8_t cam, char* buf, int len) {
  return KOR_HID_GetManufacturer(cam, buf, len);
}

int Vexa_HID::GetProduct(uint8_t cam, char* buf, int len) { return KOR_HID_GetProduct(cam, buf, len); }

int Vexa_HID::GetDevicePath(uint8_t cam, char* buf, int len) { return KOR_HID_GetDevicePath(cam, buf, len); }

int Vexa_HID::GetDevicePathUVC(uint8_t cam, char* buf, int len) {
  return KOR_HID_GetDevicePathUVC(cam, buf, len);
}

void Vexa_HID::expect(uint16_t id, int payloadOffset) {
  std::lock_guard<std::mutex> guard(mutex);
  nExpectedId = id;
  if (payloadOffset >= 0) nPayloadOffset = payloadOffset;
}

int Vexa_HID::currentStatus() {
  std::lock_guard<std::mutex> guard(mutex);
  return nStatus;
}

bool Vexa_HID::waitAnswer(int* status, uint8_t* out, size_t n) {
  // The steady clock: a wall-clock step can neither stretch nor cut the wait.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kAnswerTimeoutSeconds);
  std::unique_lock<std::mutex> lock(mutex);
  bool arrived = true;
  // An answer already flagged (possibly a late one meant for an earlier
  // command) is taken as this command's answer.
  while (bAnswer == 0) {
    // A time-out stays a time-out even if the answer landed as it expired.
    if (cond.wait_until(lock, deadline) == std::cv_status::timeout) {
      arrived = false;
      break;
    }
  }
  bAnswer = 0;
  *status = nStatus;
  if (arrived && nStatus == 0 && out != nullptr)
    std::memcpy(out, payload, n < sizeof payload ? n : sizeof payload);
  return arrived;
}

int Vexa_HID::GetFunc(uint8_t cam, uint16_t id, uint8_t* data, int len) {
  std::lock_guard<std::recursive_mutex> command(commandLock);
  LIBLog.Trace("Vexa_HID::GetFunc()\n");
  expect(id, kFuncPayloadOffset);
  uint8_t request[kFuncData] = {};
  if (data != nullptr) std::memcpy(request, data, kFuncData - 1);
  auto sent = static_cast<uint8_t>(
      KOR_HID_Report(cam, kReportCommand, static_cast<uint8_t>(id), request, sizeof request));
  if (sent != 0) {
    int status = currentStatus();
    if (status != 0) {
      LIBLog.Error("Vexa_HID::GetFunc command error:%d : %s\n", status, text(DecodeError(status)));
      return status;
    }
    return sent;
  }
  // Straight into the caller's buffer: len bytes when len >= 1, else none.
  const size_t wanted = len >= 1 && data != nullptr ? static_cast<size_t>(len) : 0;
  int status = 0;
  if (!waitAnswer(&status, data, wanted)) {
    // The time-out names SetFunc: log readers know this line by that name.
    LIBLog.Error("Vexa_HID::SetFunc command error:%d : %s\n", HID_ERROR_TIMEOUT,
                 text(DecodeError(HID_ERROR_TIMEOUT)));
    return HID_ERROR_TIMEOUT;
  }
  if (status != 0) {
    LIBLog.Error("Vexa_HID::GetFunc command error:%d : %s\n", status, text(DecodeError(status)));
    return status;
  }
  return 0;
}

int Vexa_HID::registerCommand(const char* name, uint8_t cam, uint8_t cmd, const uint8_t* request, uint8_t len,
                              uint8_t* out, size_t n) {
  auto sent = static_cast<uint8_t>(KOR_HID_Report(cam, kReportCommand, cmd, request, len));
  if (sent != 0) {
    // A status left by the previous answer wins over the send result.
    int status = currentStatus();
    if (status != 0) {
      LIBLog.Error("Vexa_HID::%s command error:%d : %s\n", name, status, text(DecodeError(status)));
      return status;
    }
    LIBLog.Error("Vexa_HID::%s error:%d : %s\n", name, sent, text(DecodeError(sent)));
    return sent;
  }
  int status = 0;
  if (!waitAnswer(&status, out, n)) {
    LIBLog.Error("Vexa_HID::%s command error:%d : %s\n", name, HID_ERROR_TIMEOUT,
                 text(DecodeError(HID_ERROR_TIMEOUT)));
    return HID_ERROR_TIMEOUT;
  }
  if (status != 0) {
    LIBLog.Error("Vexa_HID::%s command error:%d : %s\n", name, status, text(DecodeError(status)));
    return status;
  }
  return 0;
}

int Vexa_HID::GetInt32(uint8_t cam, uint16_t adr, uint32_t* value) {
  std::lock_guard<std::recursive_mutex> command(commandLock);
  LIBLog.Trace("Vexa_HID::GetInt32(%d) adr:%4.4x\n", cam, adr);
  expect(kCmdRead, kRegisterPayloadOffset);
  uint8_t request[kRegisterReadData] = {static_cast<uint8_t>(nSeq), static_cast<uint8_t>(adr & 0xFF),
                                        static_cast<uint8_t>(adr >> 8)};
  uint8_t bytes[kRegisterValueOffset + 4];
  const int rc = registerCommand("GetInt32", cam, kCmdRead, request, sizeof request, bytes, sizeof bytes);
  if (rc != 0) return rc;
  const uint8_t* p = bytes + kRegisterValueOffset;
  uint32_t v = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
               static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
  if (value != nullptr) *value = v;
  LIBLog.Trace("Vexa_HID::GetInt32 [end] val:%x\n", v);
  return 0;
}

int Vexa_HID::SetInt32(uint8_t cam, uint16_t adr, uint32_t value) {
  std::lock_guard<std::recursive_mutex> command(commandLock);
  LIBLog.Trace("Vexa_HID::SetInt32(%d) adr:%4.4x val:%4.4x\n", cam, adr, value);
  // Recorded before sending and kept even if the write fails.
  if (adr == kAcquisitionRegister && value != 0) {
    if (acquisitionEnabled[cam] == 0) LIBLog.Trace("Vexa_HID::SetInt32(%d) acquisition enabled\n", cam);
    acquisitionEnabled[cam] = 1;
  }
  expect(kCmdWrite, -1);
  uint8_t request[kRegisterWriteData] = {static_cast<uint8_t>(nSeq),        static_cast<uint8_t>(adr & 0xFF),
                                         static_cast<uint8_t>(adr >> 8),    static_cast<uint8_t>(value),
                                         static_cast<uint8_t>(value >> 8),  static_cast<uint8_t>(value >> 16),
                                         static_cast<uint8_t>(value >> 24), 0};
  return registerCommand("SetInt32", cam, kCmdWrite, request, sizeof request, nullptr, 0);
}

int Vexa_HID::GetXMLSize(uint8_t cam, int* size) {
  std::lock_guard<std::recursive_mutex> command(commandLock);
  LIBLog.Trace("Vexa_HID::GetXMLSize(%d)\n", cam);
  uint8_t data[8] = {kFileQuerySize, kFileQuerySizeLength};
  int status = GetFunc(cam, kCmdFileQuery, data, kFileQuerySizeLength);
  if (status != 0) {
    LIBLog.Error("Vexa_HID::GetXMLSize error: %s", text(DecodeError(status)));
    return status;
  }
  // Big-endian, unlike the register values.
  auto n = static_cast<int>(bigEndian32(data));
  if (size != nullptr) *size = n;
  LIBLog.Trace("Vexa_HID::GetXMLSize(%d) size:%d\n", cam, n);
  return 0;
}

uint8_t Vexa_HID::GetXMLSHA(uint8_t cam, char* buf, int len) {
  std::lock_guard<std::recursive_mutex> command(commandLock);
  LIBLog.Trace("Vexa_HID::GetXMLSHA(%d)\n", cam);
  uint8_t data[kReportSize] = {kFileQuerySha, kShaSize};
  int status = GetFunc(cam, kCmdFileQuery, data, kShaSize);
  if (status != 0) {
    LIBLog.Error("Vexa_HID::GetXMLSHA error: %s", text(DecodeError(status)));
    return 0;
  }
  if (len != kShaSize || buf == nullptr) {
    LIBLog.Error("Vexa_HID::GetXMLSHA error: buffer size must be 20");
    return 0;
  }
  std::memcpy(buf, data, kShaSize);
  return 1;
}

int Vexa_HID::ReadMem(uint8_t cam, int adr, char* buf, int len) {
  std::lock_guard<std::recursive_mutex> command(commandLock);
  LIBLog.Trace("Vexa_HID::ReadMem(%d) adr:%4.4x\n", cam, adr);
  int n = len < kMemReadMax ? len : kMemReadMax;
  uint8_t data[kReportSize] = {0, static_cast<uint8_t>(adr & 0xFF), static_cast<uint8_t>((adr >> 8) & 0xFF)};
  int status = GetFunc(cam, kCmdRead, data, n);
  if (status != 0) {
    LIBLog.Error("Vexa_HID::ReadMem error: %s", text(DecodeError(status)));
    return status;
  }
  // A len below 1 has no room for the terminator: nothing is written.
  if (n >= 1 && buf != nullptr) {
    data[n - 1] = 0;
    // strncpy semantics: the string, then zeros up to n bytes.
    const char* text = reinterpret_cast<const char*>(data);
    size_t k = strnlen(text, static_cast<size_t>(n));
    std::memcpy(buf, text, k);
    std::memset(buf + k, 0, static_cast<size_t>(n) - k);
  }
  return 0;
}

int Vexa_HID::ReadXML(uint8_t cam, char* buf, int len) {
  std::lock_guard<std::recursive_mutex> command(commandLock);
  LIBLog.Trace("Vexa_HID::ReadXML(%d)\n", cam);
  uint8_t request[8] = {kFileQuerySize, kFileQuerySizeLength};
  int status = GetFunc(cam, kCmdFileQuery, request, kFileQuerySizeLength);
  if (status != 0) {
    LIBLog.Error("Vexa_HID::ReadXML error: %s", text(DecodeError(status)));
    return status;
  }
  auto size = static_cast<int>(bigEndian32(request));
  if (size > len || (buf == nullptr && size > 0)) {
    LIBLog.Error("Vexa_HID::ReadXML error: supplied buffer not sufficient for XML download!");
    return kXmlBufferTooSmall;
  }
  if (size == 0) return 0;

  uint8_t feature[kXmlChunk] = {};
  int remaining = size;
  for (int i = 0; remaining > 0; ++i) {
    int chunk = remaining < kXmlChunk ? remaining : kXmlChunk;
    // Bytes 0 and 3 keep what the size answer left there.
    request[1] = static_cast<uint8_t>(i & 0xFF);
    request[2] = static_cast<uint8_t>((i >> 8) & 0xFF);
    LIBLog.Trace("Vexa_HID::SetFunc()\n");
    expect(kCmdXmlChunk, -1);
    auto sent = static_cast<uint8_t>(KOR_HID_Report(cam, kReportCommand, kCmdXmlChunk, request, kFuncData));
    if (sent != 0) {
      std::string why = DecodeError(sent);
      LIBLog.Error("Vexa_HID::SetFunc error:%d : %s\n", sent, text(why));
      LIBLog.Error("Vexa_HID::ReadXML error: %s @SetFunc", text(why));
      return kXmlChunkRequestFailed;
    }
    int failure = 0;
    if (!waitAnswer(&failure, nullptr, 0)) failure = HID_ERROR_TIMEOUT;
    if (failure != 0) {
      std::string why = DecodeError(failure);
      LIBLog.Error("Vexa_HID::SetFunc command error:%d : %s\n", failure, text(why));
      LIBLog.Error("Vexa_HID::ReadXML error: %s @SetFunc", text(why));
      return kXmlChunkRequestFailed;
    }
    auto got = static_cast<uint8_t>(KOR_HID_FeatureRd(cam, kReportCommand, feature, kXmlChunk));
    if (got != 0) {
      LIBLog.Error("Vexa_HID::ReadXML error: %s @KOR_HID_FeatureRd", text(DecodeError(got)));
      return kXmlFeatureReadFailed;
    }
    std::memcpy(buf + static_cast<size_t>(i) * kXmlChunk, feature, static_cast<size_t>(chunk));
    remaining -= chunk;
  }
  return 0;
}

int Vexa_HID::ReceiveCallbackHid(const uint8_t* report) {
  if (report == nullptr) return 0;
  bool answered = false;
  {
    std::lock_guard<std::mutex> guard(mutex);
    // Logged under the lock so a woken caller's own messages come after these.
    if (report[0] == kReportCommand) {
      const uint8_t echo = report[kAnswerEchoOffset];
      const uint8_t status = report[kAnswerStatusOffset];
      if (echo != nExpectedId) {
        LIBLog.Error("Vexa_HID::ReceiveCallbackHid: cmd rd --> wrong id %d %d \n", echo, nExpectedId);
        nStatus = HID_ERROR_PROTOCOL_WRONG_ID;
      } else if (status != kStatusSuccess) {
        LIBLog.Error("Vexa_HID::ReceiveCallbackHid: cmd rd --> protocol error %d \n", status);
        nStatus = status;
      } else {
        nStatus = kStatusSuccess;
        // The report is 64 bytes: what lies past its end reads as zero.
        const size_t offset = nPayloadOffset < 0             ? 0
                              : nPayloadOffset > kReportSize ? kInputReportSize
                                                             : static_cast<size_t>(nPayloadOffset);
        std::memcpy(payload, report + offset, kInputReportSize - offset);
        std::memset(payload + (kInputReportSize - offset), 0, offset);
      }
      bAnswer = 1;
      answered = true;
    } else if (report[0] == kReportEvent) {
      std::memcpy(event, report, sizeof event);
      LIBLog.Trace("Vexa_HID::ReceiveCallbackHid: event rd %x %x %x %x \n", kReportEvent, report[1],
                   report[2], report[3]);
    } else {
      LIBLog.Trace("Vexa_HID::ReceiveCallbackHid: unknown id \n");
    }
  }
  // After the lock is let go, so the woken caller does not block on it again.
  if (answered) cond.notify_one();
  return 0;
}

int Vexa_HID::ReceiveCallbackHidStatic(unsigned char* report, void* ctx) {
  if (ctx == nullptr) return kNoContext;
  return static_cast<Vexa_HID*>(ctx)->ReceiveCallbackHid(report);
}

void Vexa_HID::LastEvent(uint8_t out[12]) {
  std::lock_guard<std::mutex> guard(mutex);
  std::memcpy(out, event, sizeof event);
}
