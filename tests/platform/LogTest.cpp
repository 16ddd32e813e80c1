#include <fcntl.h>
#include <gtest/gtest.h>
#include <rklog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "TestEnv.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

void logf(unsigned source, unsigned level, const char* user, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  rklog_WriteArgList(source, level, user, fmt, args);
  va_end(args);
}

unsigned mask(unsigned id) {
  unsigned m = 0;
  for (unsigned bit = 1; bit <= RKLOG_TRACE; bit <<= 1)
    if (rklog_Enabled(id, bit)) m |= bit;
  return m;
}

// What follows "YYYY-MM-DD HH:MM:SS.mmm <tid> ", or "" when the line lacks that head.
std::string afterTimeAndThread(const std::string& line) {
  static const std::regex head(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \d+ )");
  std::smatch m;
  return std::regex_search(line, m, head, std::regex_constants::match_continuous) ? m.suffix().str() : "";
}

std::vector<std::string> readLines(const fs::path& p) {
  std::vector<std::string> out;
  std::ifstream in(p);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

// Restores the test binary's own configuration (and output file) afterwards.
class LogTest : public ::testing::Test {
 protected:
  void TearDown() override {
    env_.restore();
    rklog_Configure(nullptr);
  }
  // Sends the output of the source `name` (at info) to `file` with the given rotation limit.
  unsigned toFile(const char* name, const fs::path& file, const char* max = nullptr) {
    env_.set("TQ_LOG_FILE", file.c_str());
    env_.set("TQ_LOG_FILE_MAX", max);
    env_.set("TQ_LOG", (std::string(name) + "=info").c_str());
    rklog_Configure(nullptr);
    return rklog_Register(name, nullptr, 1);
  }
  tqtest::TestEnv env_;
};

TEST_F(LogTest, LevelsFollowConfigurationAndParentChain) {
  rklog_Configure("LvRoot=debug,LvOwn=error,LvGrand=info,LvOff=off");
  unsigned root = rklog_Register("LvRoot", nullptr, 1);
  unsigned child = rklog_Register("LvChild", "LvRoot", 1);
  unsigned own = rklog_Register("LvOwn", "LvRoot", 1);
  unsigned plain = rklog_Register("LvPlain", nullptr, 1);
  unsigned orphan = rklog_Register("LvOrphan", "LvMissing", 1);
  unsigned off = rklog_Register("LvOff", nullptr, 1), muted = rklog_Register("LvMuted", "LvRoot", 0);
  const std::pair<unsigned, unsigned> cases[] = {{root, 0x1F},   {child, 0x1F}, {own, 0x03}, {plain, 0x07},
                                                 {orphan, 0x07}, {off, 0},      {muted, 0}};
  for (const auto& [id, expected] : cases) EXPECT_EQ(mask(id), expected) << "source id " << id;

  // The missing parent turns up later, under a configured grandparent.
  rklog_Register("LvMissing", "LvGrand", 1);
  EXPECT_EQ(mask(orphan), 0x0Fu);

  // Reconfiguring reaches sources registered earlier; names ignore case.
  rklog_Configure("lvroot=TRACE,*=fatal");
  EXPECT_EQ(mask(child), 0x3Fu);
  EXPECT_EQ(mask(plain), 0x01u);
  EXPECT_EQ(mask(own), 0x3Fu);  // its own entry is gone, so it inherits
}

TEST_F(LogTest, LineFormatAndIndentationPerThread) {
  rklog_Configure("IndSrc=info");
  unsigned id = rklog_Register("IndSrc", nullptr, 1);
  tqtest::LogCapture cap;
  rklog_IncIndent(nullptr);
  rklog_IncIndent(nullptr);
  logf(id, RKLOG_DEBUG, nullptr, "hidden");
  std::string big(20000, 'x');
  std::thread other([&] {
    logf(id, RKLOG_INFO, "D07", "value %d:%s\n\n", 42, "x");
    rklog_IncIndent(nullptr);
    logf(id, RKLOG_INFO, nullptr, "other deep");
    rklog_DecIndent(nullptr);
    logf(id, RKLOG_ERROR, nullptr, "%s", big.c_str());
  });
  other.join();
  logf(id, RKLOG_WARNING, "", "main");
  rklog_DecIndent(nullptr);
  rklog_DecIndent(nullptr);

  auto lines = cap.lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(afterTimeAndThread(lines[0].line), "IndSrc:D07 Info value 42:x") << lines[0].line;
  EXPECT_EQ(afterTimeAndThread(lines[1].line), "IndSrc Info   other deep");
  EXPECT_EQ(afterTimeAndThread(lines[2].line), "IndSrc Error " + big);  // long text is written whole
  EXPECT_EQ(afterTimeAndThread(lines[3].line), "IndSrc Warning     main");
}

TEST_F(LogTest, ManyThreadsLoseAndTearNothing) {
  fs::path file = env_.dir() / "many.log";
  unsigned id = toFile("ManySrc", file);
  constexpr int kThreads = 8, kLines = 400;
  auto text = [](int t, int i) {
    return "t" + std::to_string(t) + " n" + std::to_string(i) + std::string(t * 37, 'p');
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLines; ++i) logf(id, RKLOG_INFO, nullptr, "%s|", text(t, i).c_str());
    });
  for (auto& th : threads) th.join();
  std::set<std::string> expected, fromFile;
  for (int t = 0; t < kThreads; ++t)
    for (int i = 0; i < kLines; ++i) expected.insert(text(t, i) + "|");
  const std::string head = "ManySrc Info ";
  for (const auto& l : readLines(file)) {
    std::string rest = afterTimeAndThread(l);
    ASSERT_EQ(rest.compare(0, head.size(), head), 0) << "torn line: " << l;
    EXPECT_TRUE(fromFile.insert(rest.substr(head.size())).second) << "duplicate: " << l;
  }
  EXPECT_EQ(fromFile, expected);
}

TEST_F(LogTest, RegularFileRotatesAtLimitFifoNever) {
  fs::path file = env_.dir() / "rot.log", previous = file.string() + ".1";
  unsigned id = toFile("RotSrc", file, "4096");
  for (int i = 0; i < 200; ++i)
    logf(id, RKLOG_INFO, nullptr, "line %03d %s", i, std::string(100, 'r').c_str());
  ASSERT_TRUE(fs::exists(previous));
  EXPECT_LE(fs::file_size(file), 4096u);
  EXPECT_LE(fs::file_size(previous), 4096u);
  auto current = readLines(file), old = readLines(previous);
  ASSERT_FALSE(current.empty() || old.empty());
  // The rotated file ends exactly where the current one starts, which holds the last line.
  auto number = [](const std::string& l) { return std::stoi(l.substr(l.find("line ") + 5, 3)); };
  EXPECT_EQ(number(old.back()) + 1, number(current.front()));
  EXPECT_EQ(number(current.back()), 199);

  fs::path fifo = env_.dir() / "pipe";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  id = toFile("FifoSrc", fifo, "64");
  for (int i = 0; i < 5; ++i) logf(id, RKLOG_INFO, nullptr, "through the pipe %d", i);
  EXPECT_FALSE(fs::exists(env_.dir() / "pipe.1"));
  char buf[4096];
  ssize_t n = read(reader, buf, sizeof(buf));
  close(reader);
  ASSERT_GT(n, 0);
  EXPECT_NE(std::string(buf, size_t(n)).find("through the pipe 4\n"), std::string::npos);
  logf(id, RKLOG_INFO, nullptr, "into a broken pipe");  // the line is lost; the process lives on
}

TEST_F(LogTest, RemoveSinkWaitsForRunningSink) {
  rklog_Configure("SinkSrc=info");
  unsigned id = rklog_Register("SinkSrc", nullptr, 1);
  struct Blocking {
    std::atomic<bool> entered{false}, release{false}, finished{false};
  } sink;
  auto fn = [](void* ctx, const rklog_Record*) {
    auto* self = static_cast<Blocking*>(ctx);
    if (self->entered.exchange(true)) return;
    tqtest::waitUntil([self] { return self->release.load(); }, 10s);
    self->finished = true;
  };
  int sinkId = rklog_AddSink(fn, &sink);
  std::thread writer([id] { logf(id, RKLOG_INFO, nullptr, "into the slow sink"); });
  EXPECT_TRUE(tqtest::waitUntil([&] { return sink.entered.load(); })) << "the sink never ran";
  std::atomic<bool> removed{false}, finishedAtReturn{false};
  std::thread remover([&] {
    rklog_RemoveSink(sinkId);
    finishedAtReturn = sink.finished.load();
    removed = true;
  });
  // While the sink is held, removal must not complete.
  EXPECT_FALSE(tqtest::waitUntil([&] { return removed.load(); }, 200ms));
  sink.release = true;
  remover.join();
  writer.join();
  EXPECT_TRUE(finishedAtReturn);
}

}  // namespace
