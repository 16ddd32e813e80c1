#include "hid/UdevText.h"

#include <cstdio>
#include <deque>
#include <memory>
#include <utility>

namespace {

struct PipeCloser {
  void operator()(FILE* pipe) const { ::pclose(pipe); }
};
using Pipe = std::unique_ptr<FILE, PipeCloser>;

Pipe startShell(const std::string& command) { return Pipe(::popen(command.c_str(), "re")); }

std::string readAll(FILE* pipe) {
  std::string result;
  char piece[128];
  while (std::fgets(piece, sizeof piece, pipe) != nullptr) result += piece;
  return result;
}

// Output of a shell that ran beside others; false when it did not end with
// status 0 (-1 means it was reaped elsewhere, which says nothing of it).
bool readAndClose(Pipe pipe, std::string& output) {
  output = readAll(pipe.get());
  const int status = ::pclose(pipe.release());
  return status == 0 || status == -1;
}

}  // namespace

std::string sExec(const std::string& command) {
  Pipe pipe = startShell(command);
  return pipe ? readAll(pipe.get()) : std::string();
}

std::vector<std::string> sExecAll(const std::vector<std::string>& commands, size_t parallel) {
  std::vector<std::string> results(commands.size());
  if (parallel == 0) parallel = 1;
  struct Running {
    size_t index;
    Pipe pipe;
    bool overlapped;  // another command ran at some time during this one
  };
  // Outputs are read in order; a command further on writes into its pipe
  // meanwhile and waits only if its output outgrows the pipe.
  std::deque<Running> running;
  // A shell refused a fork for lack of processes ends non-zero with nothing
  // on its output, as a walk of an unknown node does; only those that ran
  // beside others can have met that, and they run again alone at the end.
  std::vector<size_t> again;
  size_t next = 0;
  while (next < commands.size() || !running.empty()) {
    if (next < commands.size() && running.size() < parallel) {
      Pipe pipe = startShell(commands[next]);
      if (pipe) {
        for (auto& r : running) r.overlapped = true;
        running.push_back({next++, std::move(pipe), !running.empty()});
        continue;
      }
      if (running.empty()) {
        ++next;  // cannot start even alone: empty output
        continue;
      }
      // Out of processes or descriptors: let a running one end, then retry.
    }
    Running done = std::move(running.front());
    running.pop_front();
    std::string& output = results[done.index];
    if (!readAndClose(std::move(done.pipe), output) && output.empty() && done.overlapped)
      again.push_back(done.index);
  }
  for (size_t index : again) results[index] = sExec(commands[index]);
  return results;
}

std::string sGetString(const std::string& text, const std::string& key) {
  // npos + 1 wraps to 0: a missing key means "search from the start".
  size_t from = text.find(key) + 1;
  size_t open = text.find('"', from);
  size_t close = open == std::string::npos ? std::string::npos : text.find('"', open + 1);
  size_t begin = open == std::string::npos ? 0 : open + 1;
  return text.substr(begin, close == std::string::npos ? std::string::npos : close - begin);
}
