// The camera's vendor HID protocol in one place: report ids, command codes,
// the layout of commands and answers, and the result codes of the layers that
// speak it. Everything in src/hid uses these names instead of bare numbers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace hidproto {

// Report ids (byte 0 of every report).
constexpr uint8_t kReportCommand = 1;  // output: command; input: its answer; feature: file chunk
constexpr uint8_t kReportEvent = 2;    // input: unsolicited event

// Command codes (byte 1 of a command, echoed in byte 1 of its answer).
constexpr uint8_t kCmdRead = 0x5C;       // register read, or memory read in the short form
constexpr uint8_t kCmdWrite = 0x5D;      // register write
constexpr uint8_t kCmdXmlChunk = 0x4E;   // selects the file chunk the next feature read returns
constexpr uint8_t kCmdFileQuery = 0xC8;  // size or SHA-1 of the description file

// File query sub-commands (first data byte of kCmdFileQuery) and the answer
// lengths asked with them (second data byte).
constexpr uint8_t kFileQuerySize = 0x10;
constexpr uint8_t kFileQuerySizeLength = 4;
constexpr uint8_t kFileQuerySha = 0x30;
constexpr uint8_t kFileQuerySha1Length = 20;

// Data bytes after the command code.
constexpr uint8_t kRegisterReadData = 6;   // seq, address lo, hi, 3 unused
constexpr uint8_t kRegisterWriteData = 8;  // seq, address lo, hi, value LE (4), 1 unused
constexpr uint8_t kFuncData = 4;           // GetFunc and chunk requests: 3 data bytes, 1 unused

// Answer layout (input report, report id kReportCommand).
constexpr size_t kInputReportSize = 64;
constexpr size_t kAnswerEchoOffset = 1;
constexpr size_t kAnswerStatusOffset = 2;
constexpr int kFuncPayloadOffset = 3;      // answers to GetFunc commands
constexpr int kRegisterPayloadOffset = 4;  // answers to register reads
constexpr size_t kPayloadSize = 64;
// A register value sits at payload bytes 1..4, little-endian.
constexpr size_t kRegisterValueOffset = 1;
// Event reports keep this many leading bytes.
constexpr size_t kEventSize = 12;

// Output and feature report sizes on the hidraw node.
constexpr size_t kOutputBufferSize = 256;  // id, command and at most 254 data bytes
constexpr size_t kFeatureReportSize = 1024;

// The register whose non-zero write enables acquisition.
constexpr uint16_t kAcquisitionRegister = 0x0650;

// Memory reads return at most this many bytes, terminator included.
constexpr int kMemReadMax = 60;

// Protocol-layer codes next to the camera's own status bytes 1..18.
constexpr int kStatusSuccess = 0;
constexpr int kErrorProtocolUndefined = -3;
constexpr int kErrorWrongId = -2;
constexpr int kErrorTimeout = -1;

// Results of Open and ReadXML beside the status codes.
constexpr int kOpenNodeFailed = -101;      // Open: node not opened
constexpr int kOpenCallbackFailed = -102;  // Open: answer callback not installed
constexpr int kXmlBufferTooSmall = -101;   // ReadXML
constexpr int kXmlChunkRequestFailed = -102;
constexpr int kXmlFeatureReadFailed = -103;
// ReceiveCallbackHidStatic without a context.
constexpr int kNoContext = -3;

// Send results of KOR_HID_Report as the protocol layer sees them (8 bits).
constexpr uint8_t kSendNoDevice = 1;   // no device or write failed
constexpr uint8_t kSendNotOpen = 255;  // closed descriptor (-1 cut to 8 bits)

// Answer wait.
constexpr int kAnswerTimeoutSeconds = 5;

}  // namespace hidproto
