#include <fcntl.h>
#include <gtest/gtest.h>
#include <rklog.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
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

// Restores the test binary's own configuration (and output file) afterwards.
class LogTest : public ::testing::Test {
 protected:
  void TearDown() override {
    env_.restore();
    rklog_Configure(nullptr);
  }
  tqtest::TestEnv env_;
};

// Checks "YYYY-MM-DD HH:MM:SS.mmm <tid> " and returns what follows it.
std::optional<std::string> afterTimeAndThread(const std::string& line) {
  const std::string shape = "dddd-dd-dd dd:dd:dd.ddd ";
  if (line.size() < shape.size()) return std::nullopt;
  for (size_t i = 0; i < shape.size(); ++i) {
    bool ok = shape[i] == 'd' ? (line[i] >= '0' && line[i] <= '9') : line[i] == shape[i];
    if (!ok) return std::nullopt;
  }
  size_t pos = shape.size(), digits = pos;
  while (pos < line.size() && line[pos] >= '0' && line[pos] <= '9') ++pos;
  if (pos == digits || pos >= line.size() || line[pos] != ' ') return std::nullopt;
  return line.substr(pos + 1);
}

std::vector<std::string> readLines(const fs::path& p) {
  std::vector<std::string> out;
  std::ifstream in(p);
  for (std::string l; std::getline(in, l);) out.push_back(l);
  return out;
}

TEST_F(LogTest, LevelsFollowConfigurationAndParentChain) {
  rklog_Configure("LvRoot=debug,LvOwn=error,LvGrand=info,LvNum=0x21,LvOff=off,LvAll=all");
  unsigned root = rklog_Register("LvRoot", nullptr, 1);
  unsigned child = rklog_Register("LvChild", "LvRoot", 1);
  unsigned own = rklog_Register("LvOwn", "LvRoot", 1);
  unsigned plain = rklog_Register("LvPlain", nullptr, 1);
  unsigned orphan = rklog_Register("LvOrphan", "LvMissing", 1);
  unsigned num = rklog_Register("LvNum", "LvRoot", 1);
  unsigned off = rklog_Register("LvOff", nullptr, 1);
  unsigned all = rklog_Register("LvAll", nullptr, 1);
  unsigned muted = rklog_Register("LvMuted", "LvRoot", 0);
  struct Case {
    unsigned id;
    unsigned expected;
  } cases[] = {
      {root, 0x1F}, {child, 0x1F}, {own, 0x03}, {plain, 0x07}, {orphan, 0x07},
      {num, 0x21},  {off, 0},      {all, 0x3F}, {muted, 0},
  };
  for (const Case& c : cases) EXPECT_EQ(mask(c.id), c.expected) << "source id " << c.id;

  // The missing parent turns up later, under a configured grandparent.
  rklog_Register("LvMissing", "LvGrand", 1);
  EXPECT_EQ(mask(orphan), 0x0Fu);

  // Reconfiguring reaches sources registered earlier.
  rklog_Configure("lvroot=TRACE,*=fatal");
  EXPECT_EQ(mask(child), 0x3Fu);
  EXPECT_EQ(mask(plain), 0x01u);
  EXPECT_EQ(mask(own), 0x3Fu);                   // its own entry is gone, so it inherits
  rklog_Configure("LvRoot=bogus,LvPlain=warn");  // a bad word is skipped, not fatal
  EXPECT_EQ(mask(child), 0x07u);
  EXPECT_EQ(mask(plain), 0x07u);
}

TEST_F(LogTest, RegistrationIdentity) {
  unsigned a = rklog_Register("RegSame", nullptr, 1);
  EXPECT_NE(a, 0u);
  EXPECT_EQ(rklog_Register("RegSame", "Other", 1), a);
  EXPECT_NE(rklog_Register("RegOther", nullptr, 1), a);
  EXPECT_EQ(rklog_Register(nullptr, nullptr, 1), 0u);
  EXPECT_EQ(rklog_Register("", nullptr, 1), 0u);
  EXPECT_EQ(rklog_Enabled(0, RKLOG_FATAL), 0);
  EXPECT_EQ(rklog_Enabled(999999, RKLOG_FATAL), 0);
}

TEST_F(LogTest, LineFormatAndFiltering) {
  rklog_Configure("FmtSrc=info");
  unsigned id = rklog_Register("FmtSrc", nullptr, 1);
  tqtest::LogCapture cap;
  logf(id, RKLOG_DEBUG, nullptr, "hidden %d", 1);
  logf(999999, RKLOG_ERROR, nullptr, "unknown source");
  logf(id, RKLOG_INFO, "D07", "value %d:%s\n\n", 42, "x");
  rklog_IncIndent(&cap);
  rklog_IncIndent(&cap);
  logf(id, RKLOG_WARNING, "", "nested");
  rklog_DecIndent(&cap);
  rklog_DecIndent(&cap);
  rklog_DecIndent(&cap);  // never below zero
  logf(id, RKLOG_ERROR, nullptr, "flat");

  auto lines = cap.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].text, "value 42:x");
  EXPECT_EQ(lines[0].userId, "D07");
  EXPECT_EQ(lines[0].source, "FmtSrc");
  EXPECT_EQ(lines[0].level, unsigned(RKLOG_INFO));
  EXPECT_EQ(lines[0].threadId, static_cast<unsigned long>(gettid()));
  EXPECT_EQ(afterTimeAndThread(lines[0].line), "FmtSrc:D07 Info value 42:x") << lines[0].line;
  EXPECT_EQ(lines[1].indent, 2);
  EXPECT_EQ(afterTimeAndThread(lines[1].line), "FmtSrc Warning     nested");
  EXPECT_EQ(lines[2].indent, 0);
  EXPECT_EQ(afterTimeAndThread(lines[2].line), "FmtSrc Error flat");
}

TEST_F(LogTest, LongTextIsWrittenWhole) {
  rklog_Configure("LongSrc=all");
  unsigned id = rklog_Register("LongSrc", nullptr, 1);
  tqtest::LogCapture cap;
  std::string big(20000, 'x');
  big += "END";
  logf(id, RKLOG_TRACE, nullptr, "%s", big.c_str());
  auto lines = cap.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].text, big);
}

TEST_F(LogTest, IndentationIsPerThread) {
  rklog_Configure("IndSrc=all");
  unsigned id = rklog_Register("IndSrc", nullptr, 1);
  tqtest::LogCapture cap;
  rklog_IncIndent(nullptr);
  std::thread other([&] {
    logf(id, RKLOG_INFO, nullptr, "other");
    rklog_IncIndent(nullptr);
    rklog_IncIndent(nullptr);
    rklog_IncIndent(nullptr);
    logf(id, RKLOG_INFO, nullptr, "other deep");
  });
  other.join();
  logf(id, RKLOG_INFO, nullptr, "main");
  rklog_DecIndent(nullptr);
  auto lines = cap.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].indent, 0);
  EXPECT_EQ(lines[1].indent, 3);
  EXPECT_EQ(lines[2].indent, 1);
}

TEST_F(LogTest, ManyThreadsLoseAndTearNothing) {
  fs::path dir = env_.dir();
  fs::path file = dir / "many.log";
  env_.set("TQ_LOG_FILE", file.string());
  env_.set("TQ_LOG", "ManySrc=info");
  rklog_Configure(nullptr);
  unsigned id = rklog_Register("ManySrc", nullptr, 1);
  constexpr int kThreads = 8, kLines = 400;
  std::set<std::string> expected;
  {
    tqtest::LogCapture cap;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
      threads.emplace_back([t, id] {
        std::string pad(t * 37 % 300, 'p');
        for (int i = 0; i < kLines; ++i) logf(id, RKLOG_INFO, nullptr, "t%d n%d %s|", t, i, pad.c_str());
      });
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t)
      for (int i = 0; i < kLines; ++i)
        expected.insert("t" + std::to_string(t) + " n" + std::to_string(i) + " " +
                        std::string(t * 37 % 300, 'p') + "|");
    std::set<std::string> seen;
    for (const auto& l : cap.lines()) seen.insert(l.text);
    EXPECT_EQ(seen, expected);
  }
  std::set<std::string> fromFile;
  const std::string head = "ManySrc Info ";
  for (const auto& l : readLines(file)) {
    auto rest = afterTimeAndThread(l);
    ASSERT_TRUE(rest && rest->compare(0, head.size(), head) == 0) << "torn line: " << l;
    EXPECT_TRUE(fromFile.insert(rest->substr(head.size())).second) << "duplicate: " << l;
  }
  EXPECT_EQ(fromFile, expected);
}

TEST_F(LogTest, RegularFileRotatesAtLimit) {
  fs::path dir = env_.dir();
  fs::path file = dir / "rot.log";
  env_.set("TQ_LOG_FILE", file.string());
  env_.set("TQ_LOG_FILE_MAX", "4096");
  env_.set("TQ_LOG", "RotSrc=info");
  rklog_Configure(nullptr);
  unsigned id = rklog_Register("RotSrc", nullptr, 1);
  std::string pad(100, 'r');
  for (int i = 0; i < 200; ++i) logf(id, RKLOG_INFO, nullptr, "line %03d %s", i, pad.c_str());
  ASSERT_TRUE(fs::exists(fs::path(file.string() + ".1")));
  EXPECT_LE(fs::file_size(file), 4096u);
  EXPECT_LE(fs::file_size(file.string() + ".1"), 4096u);
  auto current = readLines(file);
  auto previous = readLines(file.string() + ".1");
  ASSERT_FALSE(current.empty());
  ASSERT_FALSE(previous.empty());
  EXPECT_NE(current.back().find("line 199 "), std::string::npos);
  // The rotated file ends exactly where the current one starts.
  auto number = [](const std::string& l) { return std::stoi(l.substr(l.find("line ") + 5, 3)); };
  EXPECT_EQ(number(previous.back()) + 1, number(current.front()));
}

TEST_F(LogTest, FifoIsNeverRotated) {
  fs::path dir = env_.dir();
  fs::path fifo = dir / "pipe";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  int reader = open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
  ASSERT_GE(reader, 0);
  env_.set("TQ_LOG_FILE", fifo.string());
  env_.set("TQ_LOG_FILE_MAX", "64");
  env_.set("TQ_LOG", "FifoSrc=info");
  rklog_Configure(nullptr);
  unsigned id = rklog_Register("FifoSrc", nullptr, 1);
  for (int i = 0; i < 5; ++i) logf(id, RKLOG_INFO, nullptr, "through the pipe %d", i);
  EXPECT_FALSE(fs::exists(dir / "pipe.1"));
  EXPECT_TRUE(fs::is_fifo(fifo));
  char buf[4096];
  ssize_t n = read(reader, buf, sizeof(buf));
  ASSERT_GT(n, 0);
  std::string got(buf, static_cast<size_t>(n));
  EXPECT_NE(got.find("through the pipe 4\n"), std::string::npos);
  close(reader);
  // The reader is gone: the line is lost, the process must live on.
  logf(id, RKLOG_INFO, nullptr, "into a broken pipe");
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

struct BlockingSink {
  std::atomic<bool> entered{false};
  std::atomic<bool> release{false};
  std::atomic<bool> finished{false};
  static void fn(void* ctx, const rklog_Record*) {
    auto* self = static_cast<BlockingSink*>(ctx);
    if (self->entered.exchange(true)) return;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!self->release && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
    self->finished = true;
  }
};

TEST_F(LogTest, RemoveSinkWaitsForRunningSink) {
  rklog_Configure("SinkSrc=info");
  unsigned id = rklog_Register("SinkSrc", nullptr, 1);
  BlockingSink sink;
  int sinkId = rklog_AddSink(&BlockingSink::fn, &sink);
  ASSERT_GT(sinkId, 0);
  std::thread writer([id] { logf(id, RKLOG_INFO, nullptr, "into the slow sink"); });
  auto deadline = std::chrono::steady_clock::now() + 10s;
  while (!sink.entered && std::chrono::steady_clock::now() < deadline) std::this_thread::yield();
  if (!sink.entered) {
    sink.release = true;
    writer.join();
    rklog_RemoveSink(sinkId);
    FAIL() << "the sink never ran";
  }
  std::atomic<bool> removed{false};
  bool finishedAtReturn = false;
  std::thread remover([&] {
    rklog_RemoveSink(sinkId);
    finishedAtReturn = sink.finished;
    removed = true;
  });
  // While the sink is held, removal must not complete.
  auto until = std::chrono::steady_clock::now() + 200ms;
  while (!removed && std::chrono::steady_clock::now() < until) std::this_thread::yield();
  EXPECT_FALSE(removed);
  sink.release = true;
  remover.join();
  writer.join();
  EXPECT_TRUE(finishedAtReturn);
}

// A sink that logs must neither deadlock nor call itself again.
TEST_F(LogTest, SinkMayLogAndRemoveItself) {
  rklog_Configure("ReSrc=info");
  static unsigned id = rklog_Register("ReSrc", nullptr, 1);
  struct Ctx {
    int calls = 0;
    int sinkId = 0;
  } ctx;
  auto fn = [](void* c, const rklog_Record*) {
    auto* self = static_cast<Ctx*>(c);
    ++self->calls;
    logf(id, RKLOG_INFO, nullptr, "from inside the sink");
    rklog_RemoveSink(self->sinkId);
  };
  ctx.sinkId = rklog_AddSink(fn, &ctx);
  tqtest::LogCapture cap;
  logf(id, RKLOG_INFO, nullptr, "first");
  logf(id, RKLOG_INFO, nullptr, "second");
  EXPECT_EQ(ctx.calls, 1);
  EXPECT_EQ(cap.count("from inside the sink"), 0u);
  EXPECT_EQ(cap.count("first") + cap.count("second"), 2u);
}

}  // namespace
