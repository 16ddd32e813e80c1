// The USB/IP link as vhci_hcd speaks it on an attached socket: it sends
// CMD_SUBMIT and CMD_UNLINK, the device answers RET_SUBMIT and RET_UNLINK.
// Every header is 48 bytes, big-endian; OUT data follows a CMD_SUBMIT, IN
// data follows a RET_SUBMIT. The device side never sees the OP_* requests
// (those are usbipd's, before the socket is handed to the kernel).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tqsim::usb {

constexpr uint32_t kCmdSubmit = 1;
constexpr uint32_t kCmdUnlink = 2;
constexpr uint32_t kRetSubmit = 3;
constexpr uint32_t kRetUnlink = 4;
constexpr uint32_t kDirOut = 0;
constexpr uint32_t kDirIn = 1;
constexpr size_t kHeaderSize = 48;
constexpr size_t kIsoDescriptorSize = 16;
// Far above any transfer this device takes (a control transfer is at most
// 64 KiB, the HID output report 16 KiB); a larger claim means a broken peer.
constexpr uint32_t kMaxTransfer = 1u << 20;

// URB status values as the kernel writes them (negative errno).
constexpr int32_t kStatusOk = 0;
constexpr int32_t kStatusStall = -32;      // -EPIPE
constexpr int32_t kStatusUnlinked = -104;  // -ECONNRESET

// One request from the host.
struct Command {
  uint32_t command = 0;
  uint32_t seqnum = 0;
  uint32_t devid = 0;
  uint32_t direction = 0;
  uint32_t endpoint = 0;  // number only, the direction is separate
  // CMD_SUBMIT
  uint32_t transferFlags = 0;
  uint32_t transferLength = 0;
  int32_t startFrame = 0;
  int32_t numberOfPackets = 0;
  int32_t interval = 0;
  uint8_t setup[8] = {};
  std::vector<uint8_t> data;  // OUT data of a CMD_SUBMIT
  // CMD_UNLINK
  uint32_t unlinkSeqnum = 0;
};

// Encoders of the two answers, header and IN data in one buffer.
std::vector<uint8_t> encodeRetSubmit(uint32_t seqnum, int32_t status, const uint8_t* data, size_t length);
std::vector<uint8_t> encodeRetSubmitOut(uint32_t seqnum, int32_t status, uint32_t actualLength);
std::vector<uint8_t> encodeRetUnlink(uint32_t seqnum, int32_t status);

// The host side's encoders: used by the tests, which play vhci_hcd.
std::vector<uint8_t> encodeCmdSubmit(uint32_t seqnum, uint32_t direction, uint32_t endpoint,
                                     uint32_t transferLength, const uint8_t setup[8],
                                     const std::vector<uint8_t>& outData);
std::vector<uint8_t> encodeCmdUnlink(uint32_t seqnum, uint32_t unlinkSeqnum);

// Decodes a 48-byte header; false for an unknown command or a size beyond
// kMaxTransfer. The caller reads the OUT data and ISO descriptors that follow.
bool decodeHeader(const uint8_t* header, Command& out);

uint32_t readBe32(const uint8_t* p);
void writeBe32(uint8_t* p, uint32_t value);

}  // namespace tqsim::usb
