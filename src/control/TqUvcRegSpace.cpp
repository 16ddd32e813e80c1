// Only the three mapping functions live in this unit, so that a test binary
// can link a double of them in place of this archive member.
#include "control/TqUvcRegSpace.h"

#include <cstdint>
#include <cstdio>

#include "control/VexaHID_Interface.h"
#include "support/LibLogs.h"

namespace {

constexpr unsigned int kCapabilityRegister = 0x1C4;
constexpr unsigned int kHidRangeStart = 0x40000;
constexpr unsigned int kHidRangeSize = 0xFFFF;
constexpr unsigned int kWriteSink = 0xFFFFF;
constexpr unsigned int kXmlFile = 0x100000;
constexpr unsigned int kVersionBytes = 0x5D0;
constexpr int kUnhandled = -101;
constexpr int kStringLength = 12;
constexpr int kMemMax = 60;

bool inHidRange(unsigned int address) { return address - kHidRangeStart <= kHidRangeSize; }

// A byte of the version block, sign-extended; kept unsigned so the shift below
// is defined for negative bytes too.
uint32_t signExtended(char byte) {
  return static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(byte)));
}

void readVersionText(int cam, char* buffer, int length) {
  char b[6] = {};
  TqUvcReadBuf(cam, kVersionBytes, b, sizeof b);
  if (buffer == nullptr || length < 1) return;
  const auto last = static_cast<int32_t>(signExtended(b[3]) << 8 | signExtended(b[4]));
  const int n = std::snprintf(buffer, static_cast<size_t>(length), "%d.%d.%d.%d", static_cast<int8_t>(b[0]),
                              static_cast<int8_t>(b[1]), static_cast<int8_t>(b[2]), last);
  if (n >= length) buffer[length - 1] = 0;
}

}  // namespace

int TqUvcReadReg4(unsigned int camIndex, unsigned int address, unsigned int* value,
                  unsigned short /*requestId*/, unsigned int /*timeout*/) {
  LIBLog.Trace("  UvcReadReg4() Adr=%8.8x HIDCamIndex:%d", address, camIndex);
  rk::CLogIndent indent;
  if (address == kCapabilityRegister) {
    if (value != nullptr) *value = 0;
    LIBLog.Trace("  UvcReadReg4() Adr=%8.8x [HIDCamIndex:%d] Value=%d [%x]", address, camIndex, 0, 0);
    return 0;
  }
  if (inHidRange(address)) {
    int local = 0;
    const int status = TqUvcReadInt32(static_cast<int>(camIndex), static_cast<int>(address & 0xFFFF), &local);
    if (value != nullptr) *value = static_cast<unsigned int>(local);
    if (status == 0) {
      LIBLog.Trace("  UvcReadReg4() Adr=%8.8x [HIDCamIndex:%d] Value=%d [%x]", address, camIndex, local,
                   static_cast<unsigned int>(local));
      return 0;
    }
    LIBLog.Error("  UvcReadReg4: error status:%d Adr=%8.8x  Value=%d [%x]", status, address, local,
                 static_cast<unsigned int>(local));
    return status;
  }
  const unsigned int unchanged = value != nullptr ? *value : 0;
  LIBLog.Error("  UvcReadReg4() unhandled Adr=%8.8x [HIDCamIndex:%d]", address, camIndex);
  LIBLog.Error("  UvcReadReg4: error status:%d Adr=%8.8x  Value=%d [%x]", kUnhandled, address,
               static_cast<int>(unchanged), unchanged);
  return kUnhandled;
}

int TqUvcWriteReg4(unsigned int camIndex, unsigned int address, unsigned int value,
                   unsigned short /*requestId*/, unsigned int /*timeout*/) {
  LIBLog.Trace("  TqUvcWriteReg4() Adr=%8.8x val=%8.8x HIDCamIndex:%d", address, value, camIndex);
  rk::CLogIndent indent;
  if (address == kWriteSink) return 0;
  if (inHidRange(address))
    return TqUvcWriteInt32(static_cast<int>(camIndex), static_cast<int>(address & 0xFFFF),
                           static_cast<int>(value));
  LIBLog.Error("  TqUvcWriteReg4() unhandled Adr=%8.8x [HIDCamIndex:%d]", address, camIndex);
  return kUnhandled;
}

int TqUvcReadMem(unsigned int camIndex, unsigned int address, char* buffer, int length,
                 unsigned short& /*requestId*/, unsigned int /*timeout*/, unsigned int /*unused*/) {
  LIBLog.Trace("  TqUvcReadMem() Adr=%8.8x Length=%8.8x HIDCamIndex:%d", address,
               static_cast<unsigned int>(length), camIndex);
  rk::CLogIndent indent;
  const int cam = static_cast<int>(camIndex);
  switch (address) {
    case 0x4:
      TqUvcReadBtStrp_ADR_GENCP_MANUF_NAME(cam, buffer, kStringLength);
      return 0;
    case 0x44:
      TqUvcReadBtStrp_ADR_GENCP_MODEL_NAME(cam, buffer, kStringLength);
      return 0;
    case 0x84:
      TqUvcReadBtStrp_ADR_GENCP_FAMILY_NAME(cam, buffer, kStringLength);
      return 0;
    case 0xC4:
      TqUvcReadBtStrp_ADR_GENCP_DEV_VERSION(cam, buffer, kStringLength);
      return 0;
    case 0x104:
      TqUvcReadBtStrp_ADR_GENCP_MANUF_INFO(cam, buffer, kStringLength);
      return 0;
    case 0x144:
      TqUvcReadBtStrp_ADR_GENCP_SERIALNUM(cam, buffer, kStringLength);
      return 0;
    case kXmlFile:
      LIBLog.Trace("  TqUvcReadMem() downloading XML");
      TqUvcReadXML(cam, buffer, length);
      return 0;
    default:
      break;
  }
  if (inHidRange(address)) {
    const unsigned int low = address & 0xFFFF;
    if (low == kVersionBytes) {
      readVersionText(cam, buffer, length);
      return 0;
    }
    if (length > kMemMax - 1) {
      LIBLog.Debug("  TqUvcReadMem() size is too large, clamping to 60 byte: Adr=%8.8x Length=%8.8x", low,
                   static_cast<unsigned int>(length));
      length = kMemMax;
    }
    TqUvcReadBuf(cam, static_cast<int>(low), buffer, length);
    return 0;
  }
  LIBLog.Error("  TqUvcReadMem() unhandled Adr=%8.8x Length=%8.8x [camidx:%d]", address,
               static_cast<unsigned int>(length), camIndex);
  return 0;
}
