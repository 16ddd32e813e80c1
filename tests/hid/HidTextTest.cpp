// Status texts, udev text parsing and the identity getters, without a camera.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "hid/DecodeError.h"
#include "hid/KOR_HID.h"
#include "hid/UdevText.h"

namespace {

// Codes whose texts are not checked elsewhere: the table's ends, a text with
// its typo, the protocol codes, 0 (repeats the text before it) and unknown codes.
const std::pair<int, const char*> kTexts[] = {
    {9, "Error: VX_UVC_STATUS_MISSSING_DATA_CHUNKS"},
    {18, "Error: RX2_STATUS_HW_ERR_FPGA"},
    {0, "Error: RX2_STATUS_HW_ERR_FPGA"},
    {-3, "Error: HID_ERROR_PROTOCOL_UNDEFINED"},
    {19, "Error: unknown error code"},
    {0, "Error: unknown error code"},
    {-4, "Error: unknown error code"},
};

TEST(DecodeError, TableEndsRepeatAndUnknownCodes) {
  for (const auto& [code, text] : kTexts) EXPECT_EQ(DecodeError(code), text) << "code " << code;
}

// Texts that run on into the next entry stay as log readers grep for them.
TEST(DecodeError, GenCpAndU3vNames) {
  const std::tuple<uint32_t, const char*, const char*> genCp[] = {
      {0x0000, "GENCP_SUCCESS", ""},
      {0x8001, "", "Command not implemented in the device."},
      {0x8006, "GENCP_ACCESS_DENIED",
       "Attempt to read a non-readable or write a non-writable register address. 0x8007 GENCP_BUSY The "
       "command receiver is currently busy."},
      {0x800E, "GENCP_INVALID_HEADER", ""},
      {0x8FFF, "GENCP_ERROR", "Generic error."},
      {0x8008, "UNKNOWN", "Unknown GenCP error"},
  };
  for (const auto& [value, name, text] : genCp) {
    EXPECT_STREQ(GenCpStatusName(value), name) << std::hex << value;
    EXPECT_STREQ(GenCpStatusText(value), text) << std::hex << value;
  }
  EXPECT_STREQ(U3vStatusName(0xA004), "U3V_STATUS_SI_REGISTERS_INCONSISTENT");
  EXPECT_STREQ(U3vStatusShortName(0xA001), "RESEND_NOT_SUPPORTED");
  EXPECT_EQ(U3vStatusName(0xA005), nullptr);
  EXPECT_EQ(U3vStatusShortName(0xA000), nullptr);
}

TEST(DecodeError, ConcurrentCallersGetWholeTexts) {
  std::set<std::string> valid;
  for (const auto& c : kTexts) valid.insert(c.second);
  std::vector<int> bad(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([t, &valid, &bad] {
      constexpr size_t kCount = sizeof kTexts / sizeof kTexts[0];
      for (size_t i = 0; i < 2000; ++i)
        bad[t] += valid.count(DecodeError(kTexts[(t * 7 + i) % kCount].first)) == 0;
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(bad, std::vector<int>(4, 0));
}

TEST(sGetString, OddTexts) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      // A missing key falls back to the first quoted string of the text.
      {"a==\"1\" b==\"2\"", "b", "2"},
      {"a==\"1\" b==\"2\"", "c", "1"},
      {"no quotes at all", "key", "no quotes at all"},
      {"key=\"open ended", "key", "open ended"},
      {"", "key", ""},
  };
  for (const auto& [text, key, expected] : cases) EXPECT_EQ(sGetString(text, key), expected) << text;
  // Output longer than one read comes back whole, whatever the exit status.
  const std::string longLine(300, 'x');
  EXPECT_EQ(sExec("printf '" + longLine + "'; exit 3"), longLine);
}

// The walks of a scan overlap, yet each output lands at its command's place.
// Command 0 ends only after seeing command 1's mark: run one after another it
// would report that it waited alone. An output larger than a pipe holds is
// read whole while later commands wait on their own pipes.
TEST(sExecAll, OverlapsCommandsAndKeepsTheirOrder) {
  char dir[] = "/tmp/tq-execall-XXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  const std::string mark = std::string(dir) + "/mark";
  const std::vector<std::string> commands = {"i=0; while [ $i -lt 600 ]; do [ -e " + mark +
                                                 " ] && { echo first; exit; }; sleep 0.05; i=$((i+1)); done;"
                                                 " echo alone",
                                             "touch " + mark + "; echo second",
                                             "head -c 200000 /dev/zero | tr '\\0' x", "echo fourth"};
  const auto outputs = sExecAll(commands, 2);
  ASSERT_EQ(outputs.size(), 4u);
  EXPECT_EQ(outputs[0], "first\n");
  EXPECT_EQ(outputs[1], "second\n");
  EXPECT_EQ(outputs[2], std::string(200000, 'x'));
  EXPECT_EQ(outputs[3], "fourth\n");
  std::remove(mark.c_str());
  ::rmdir(dir);
  EXPECT_EQ(sExecAll({}, 4), std::vector<std::string>{});
}

// Never more than `parallel` at once: each command counts the marks present
// while its own exists.
TEST(sExecAll, RunsAtMostParallelAtOnce) {
  char dir[] = "/tmp/tq-execall-XXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  std::vector<std::string> commands;
  for (int i = 0; i < 6; ++i) {
    const std::string own = std::string(dir) + "/" + std::to_string(i);
    commands.push_back("touch " + own + "; sleep 0.2; ls " + dir + " | wc -l; rm " + own);
  }
  for (const auto& seen : sExecAll(commands, 2)) EXPECT_LE(std::stoi(seen), 2) << seen;
  ::rmdir(dir);
}

// Short of descriptors or processes: a shell that cannot start while others
// run is started once they have ended, and one that failed beside others runs
// again alone, instead of either giving no output. Descriptors are filled up
// to leave room for exactly one pipe, whatever the process already holds.
TEST(sExecAll, ALimitCostsTimeNotOutputs) {
  char dir[] = "/tmp/tq-execall-XXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  const std::string flag = std::string(dir) + "/failed-once";
  const pid_t child = ::fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    ::alarm(30);
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) ::_exit(2);
    limit.rlim_cur = std::min<rlim_t>(256, limit.rlim_max);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) ::_exit(2);
    std::vector<int> fillers;
    for (int fd; (fd = ::fcntl(2, F_DUPFD_CLOEXEC, 0)) >= 0;) fillers.push_back(fd);
    if (errno != EMFILE || fillers.size() < 2) ::_exit(2);
    ::close(fillers.back());
    ::close(fillers[fillers.size() - 2]);
    const auto outputs = sExecAll({"echo a", "echo b", "echo c"}, 4);
    if (outputs != std::vector<std::string>{"a\n", "b\n", "c\n"}) ::_exit(1);
    for (size_t i = 0; i + 2 < fillers.size(); ++i) ::close(fillers[i]);
    // The first run of command 1 fails (as a shell that cannot fork does).
    const auto again =
        sExecAll({"echo a", "[ -e " + flag + " ] && echo b || { touch " + flag + "; exit 2; }"}, 4);
    if (again != std::vector<std::string>{"a\n", "b\n"}) ::_exit(3);
    // Reaped elsewhere (SIGCHLD ignored), a shell's status is unknown: that
    // is no reason to run it again.
    ::signal(SIGCHLD, SIG_IGN);
    const std::string runs = std::string(dir) + "/runs";
    sExecAll({"echo run >> " + runs, "echo run >> " + runs}, 4);
    ::_exit(sExec("cat " + runs) == "run\nrun\n" ? 0 : 4);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  std::remove(flag.c_str());
  std::remove((std::string(dir) + "/runs").c_str());
  ::rmdir(dir);
  ASSERT_TRUE(WIFEXITED(status)) << "the child hung or crashed";
  EXPECT_EQ(WEXITSTATUS(status), 0)
      << "2: no limit set, 1: a start failure lost an output, 3: a failed run was kept, "
         "4: a shell reaped elsewhere ran twice";
}

// Copies stop at len - 1 and are terminated; no room or no record: untouched.
TEST(KorHid, GettersStayWithinLenAndTheTable) {
  const auto cam = static_cast<uint8_t>(DevicePool.size());
  DevicePool.emplace_back();
  DevicePoolCount = DevicePool.size();
  DevicePool.back().sSerial = "SER123";
  const std::pair<int32_t, std::string> cases[] = {
      {8, std::string("SER123\0#", 8)}, {4, std::string("SER\0####", 8)}, {0, "########"}};
  for (const auto& [len, expected] : cases) {
    char buf[8] = {'#', '#', '#', '#', '#', '#', '#', '#'};
    EXPECT_EQ(KOR_HID_GetSerialNumber(cam, buf, len), 0);
    EXPECT_EQ(std::string(buf, 8), expected) << "len " << len;
  }
  char buf[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(KOR_HID_GetDevicePathUVC(uint8_t(cam + 1), buf, 4), 0);
  EXPECT_EQ(std::string(buf, 4), "####");
  uint8_t data[4] = {};
  EXPECT_EQ(KOR_HID_Report(cam, 1, 0x5C, data, 4), 1);
  EXPECT_EQ(KOR_HID_FeatureRd(uint8_t(cam + 1), 1, data, 4), 1);
  DevicePool.pop_back();
  DevicePoolCount = DevicePool.size();
}

}  // namespace
