// Answer and event reports into Vexa_HID's receive path while its commands wait
// for them. The emulated camera takes the commands but never answers; the
// fuzz input plays the camera instead.
//
// Input: steps of [command, argument byte, 16-bit argument, report count] and
// that many 64-byte reports. Each command runs on its own thread; a report is
// delivered only once the command has sent its request, so each answer meets
// exactly the wait it is meant for and every run of an input is the same. A
// command still waiting when the reports run out gets wrong-id answers until it
// returns, so no input waits out the answer time-out.
#include <tqsim/Sim.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "FuzzSupport.h"
#include "hid/HidProtocol.h"
#include "hid/Vexa_HID.h"

namespace {

using namespace std::chrono_literals;

constexpr int kReportBytes = static_cast<int>(hidproto::kInputReportSize);
constexpr int kMaxSteps = 8;
constexpr int kMaxReports = 6;
constexpr int kMaxXml = 3 * 1024 + 100;  // up to four chunks

struct Fixture {
  tqsim::CameraId camera = tqsim::kNoCamera;
  Vexa_HID* hid = nullptr;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void tearDown() {
  delete fixture().hid;
  fixture().hid = nullptr;
  tqsim::reset();
}

enum class Command { GetFunc, GetInt32, SetInt32, ReadMem, ReadXML, GetXMLSize, GetXMLSHA, Count };

struct Step {
  Command command;
  uint8_t arg8;
  uint16_t arg16;
  std::vector<std::vector<uint8_t>> reports;
};

// What the command returned, for the checks that follow.
struct Outcome {
  int result = 0;
  uint32_t value = 0;
};

void runCommand(Vexa_HID& hid, const Step& s, Outcome& out) {
  const uint8_t cam = 0;
  switch (s.command) {
    case Command::GetFunc: {
      const int len = s.arg8 % (kReportBytes + 2);
      std::vector<uint8_t> data(static_cast<size_t>(len < 3 ? 3 : len), 0xA5);
      out.result = hid.GetFunc(cam, s.arg16, data.data(), len);
      break;
    }
    case Command::GetInt32:
      out.result = hid.GetInt32(cam, s.arg16, &out.value);
      break;
    case Command::SetInt32:
      out.result = hid.SetInt32(cam, s.arg16, 0x01020300u | s.arg8);
      break;
    case Command::ReadMem: {
      const int len = static_cast<int>(s.arg8 % 72) - 2;  // -2 .. 69
      std::vector<char> buf(static_cast<size_t>(len > 0 ? len : 0), 'x');
      out.result = hid.ReadMem(cam, s.arg16, buf.empty() ? nullptr : buf.data(), len);
      break;
    }
    case Command::ReadXML: {
      const int len = s.arg16 % kMaxXml;
      std::vector<char> buf(static_cast<size_t>(len), 'x');
      out.result = hid.ReadXML(cam, buf.empty() ? nullptr : buf.data(), len);
      break;
    }
    case Command::GetXMLSize: {
      int size = 0;
      out.result = hid.GetXMLSize(cam, &size);
      break;
    }
    case Command::GetXMLSHA: {
      const int len = s.arg8 % 2 == 0 ? 20 : s.arg8 % 24;
      std::vector<char> buf(static_cast<size_t>(len), 'x');
      out.result = hid.GetXMLSHA(cam, buf.empty() ? nullptr : buf.data(), len);
      break;
    }
    case Command::Count:
      break;
  }
}

// Blocks until the command has sent `count` requests in this step or has
// returned. True when a request is waiting for its answer.
bool awaitRequest(size_t count, const std::atomic<bool>& done) {
  for (;;) {
    if (tqsim::waitForReports(fixture().camera, count, 1ms)) return true;
    if (done.load()) return tqsim::waitForReports(fixture().camera, count, 0ms);
  }
}

// The result a register command must give for the first answer it got.
void checkRegisterAnswer(const Step& s, const std::vector<uint8_t>& answer, const Outcome& out) {
  const uint8_t expectedId = s.command == Command::GetInt32 ? hidproto::kCmdRead : hidproto::kCmdWrite;
  const uint8_t status = answer[hidproto::kAnswerStatusOffset];
  int want = hidproto::kStatusSuccess;
  if (answer[hidproto::kAnswerEchoOffset] != expectedId)
    want = hidproto::kErrorWrongId;
  else if (status != 0)
    want = status;
  if (out.result != want) fuzz::fail("register command result does not match its answer");
  if (want == hidproto::kStatusSuccess && s.command == Command::GetInt32) {
    const uint8_t* b = &answer[hidproto::kRegisterPayloadOffset + hidproto::kRegisterValueOffset];
    const uint32_t v = b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
    if (out.value != v) fuzz::fail("GetInt32 value is not the answer's");
  }
}

void runStep(Vexa_HID& hid, const Step& s) {
  tqsim::clearReceivedReports(fixture().camera);
  std::atomic<bool> done{false};
  Outcome out;
  std::thread command([&] {
    runCommand(hid, s, out);
    done = true;
  });

  size_t requests = 1;
  const std::vector<uint8_t>* firstAnswer = nullptr;
  for (const auto& report : s.reports) {
    if (!awaitRequest(requests, done)) break;
    hid.ReceiveCallbackHid(report.data());
    if (report[0] == hidproto::kReportCommand) {
      if (firstAnswer == nullptr) firstAnswer = &report;
      ++requests;
    } else if (report[0] == hidproto::kReportEvent) {
      uint8_t event[hidproto::kEventSize];
      hid.LastEvent(event);
      if (std::memcmp(event, report.data(), sizeof event) != 0) fuzz::fail("event not kept");
    }
  }
  std::vector<uint8_t> wake(kReportBytes, 0);
  wake[0] = hidproto::kReportCommand;
  wake[hidproto::kAnswerEchoOffset] = 0xFF;  // no command has this code: a wrong-id answer
  std::vector<uint8_t> fallback = wake;
  while (awaitRequest(requests, done)) {
    hid.ReceiveCallbackHid(wake.data());
    if (firstAnswer == nullptr) firstAnswer = &fallback;
    ++requests;
  }
  command.join();
  if (firstAnswer != nullptr && (s.command == Command::GetInt32 || s.command == Command::SetInt32))
    checkRegisterAnswer(s, *firstAnswer, out);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tqsim::reset();
  tqsim::CameraConfig config = tqsim::defaultCameraConfig();
  config.hidFaults.noAnswer = true;
  std::string error;
  fixture().camera = tqsim::plugCamera(config, &error);
  if (fixture().camera == tqsim::kNoCamera) fuzz::fail(error.c_str());
  auto* hid = new Vexa_HID();
  fixture().hid = hid;
  uint8_t count = 0;
  if (hid->Init() != 0 || hid->Enumerate(0x7A3D, 0x0203, &count) != 0 || count < 1)
    fuzz::fail("the emulated camera was not enumerated");
  if (hid->Open(0) != 0) fuzz::fail("the emulated camera's hidraw node did not open");
  // Before the emulation's own statics go: closes the node, joins its reader.
  std::atexit(tearDown);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Vexa_HID& hid = *fixture().hid;
  fuzz::Input in(data, size);
  for (int n = 0; n < kMaxSteps && !in.empty(); ++n) {
    Step s;
    s.command = static_cast<Command>(in.byte() % static_cast<int>(Command::Count));
    s.arg8 = in.byte();
    s.arg16 = in.u16();
    const int reports = in.byte() % (kMaxReports + 1);
    for (int r = 0; r < reports; ++r) s.reports.push_back(in.bytes(kReportBytes));
    runStep(hid, s);
  }
  return 0;
}
