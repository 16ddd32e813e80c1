#include "UsbIp.h"

#include <cstring>

namespace tqsim::usb {

uint32_t readBe32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

void writeBe32(uint8_t* p, uint32_t value) {
  p[0] = static_cast<uint8_t>(value >> 24);
  p[1] = static_cast<uint8_t>(value >> 16);
  p[2] = static_cast<uint8_t>(value >> 8);
  p[3] = static_cast<uint8_t>(value);
}

namespace {

// The basic header of an answer: devid, direction and endpoint stay zero, as
// the kernel's own USB/IP server sends them.
std::vector<uint8_t> answerHeader(uint32_t command, uint32_t seqnum, int32_t status, size_t extra) {
  std::vector<uint8_t> out(kHeaderSize + extra, 0);
  writeBe32(out.data(), command);
  writeBe32(out.data() + 4, seqnum);
  writeBe32(out.data() + 20, static_cast<uint32_t>(status));
  return out;
}

}  // namespace

std::vector<uint8_t> encodeRetSubmit(uint32_t seqnum, int32_t status, const uint8_t* data, size_t length) {
  std::vector<uint8_t> out = answerHeader(kRetSubmit, seqnum, status, length);
  writeBe32(out.data() + 24, static_cast<uint32_t>(length));
  if (length > 0) std::memcpy(out.data() + kHeaderSize, data, length);
  return out;
}

std::vector<uint8_t> encodeRetSubmitOut(uint32_t seqnum, int32_t status, uint32_t actualLength) {
  std::vector<uint8_t> out = answerHeader(kRetSubmit, seqnum, status, 0);
  writeBe32(out.data() + 24, actualLength);
  return out;
}

std::vector<uint8_t> encodeRetUnlink(uint32_t seqnum, int32_t status) {
  return answerHeader(kRetUnlink, seqnum, status, 0);
}

std::vector<uint8_t> encodeCmdSubmit(uint32_t seqnum, uint32_t direction, uint32_t endpoint,
                                     uint32_t transferLength, const uint8_t setup[8],
                                     const std::vector<uint8_t>& outData) {
  std::vector<uint8_t> out(kHeaderSize, 0);
  writeBe32(out.data(), kCmdSubmit);
  writeBe32(out.data() + 4, seqnum);
  writeBe32(out.data() + 8, (1u << 16) | 2u);
  writeBe32(out.data() + 12, direction);
  writeBe32(out.data() + 16, endpoint);
  writeBe32(out.data() + 24, transferLength);
  writeBe32(out.data() + 32, 0xFFFFFFFFu);  // not isochronous
  if (setup != nullptr) std::memcpy(out.data() + 40, setup, 8);
  if (direction == kDirOut) out.insert(out.end(), outData.begin(), outData.end());
  return out;
}

std::vector<uint8_t> encodeCmdUnlink(uint32_t seqnum, uint32_t unlinkSeqnum) {
  std::vector<uint8_t> out(kHeaderSize, 0);
  writeBe32(out.data(), kCmdUnlink);
  writeBe32(out.data() + 4, seqnum);
  writeBe32(out.data() + 20, unlinkSeqnum);
  return out;
}

bool decodeHeader(const uint8_t* header, Command& out) {
  out = Command{};
  out.command = readBe32(header);
  out.seqnum = readBe32(header + 4);
  out.devid = readBe32(header + 8);
  out.direction = readBe32(header + 12);
  out.endpoint = readBe32(header + 16);
  if (out.command == kCmdSubmit) {
    out.transferFlags = readBe32(header + 20);
    out.transferLength = readBe32(header + 24);
    out.startFrame = static_cast<int32_t>(readBe32(header + 28));
    out.numberOfPackets = static_cast<int32_t>(readBe32(header + 32));
    out.interval = static_cast<int32_t>(readBe32(header + 36));
    std::memcpy(out.setup, header + 40, 8);
    return out.transferLength <= kMaxTransfer && out.direction <= kDirIn && out.endpoint < 16;
  }
  if (out.command == kCmdUnlink) {
    out.unlinkSeqnum = readBe32(header + 20);
    return true;
  }
  return false;
}

}  // namespace tqsim::usb
