#include "StateFile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace tqsim {

namespace {

constexpr const char* kMagic = "tqsim-state 1";

// Values may hold any byte (manufacturer texts with trailing blanks, odd
// serials); only the line structure needs protecting.
std::string escape(const std::string& value) {
  std::string out;
  for (char c : value) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else
      out += c;
  }
  return out;
}

std::string unescape(const std::string& value) {
  std::string out;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] == '\\' && i + 1 < value.size()) {
      ++i;
      out += value[i] == 'n' ? '\n' : value[i] == 'r' ? '\r' : value[i];
    } else {
      out += value[i];
    }
  }
  return out;
}

bool toInt(const std::string& text, long long& out) {
  if (text.empty()) return false;
  errno = 0;
  char* end = nullptr;
  out = std::strtoll(text.c_str(), &end, 0);
  return errno == 0 && end != nullptr && *end == '\0';
}

}  // namespace

std::string formatState(const State& state) {
  std::ostringstream out;
  out << kMagic << '\n' << "start=" << state.startTimeMs << '\n';
  for (const StateCamera& c : state.cameras) {
    out << "camera=" << c.id << '\n'
        << "port=" << c.port << '\n'
        << "devnum=" << c.devnum << '\n'
        << "hidSequence=" << c.hidSequence << '\n'
        << "plugTime=" << c.plugTimeMs << '\n'
        << "vendor=" << c.vendorId << '\n'
        << "productId=" << c.productId << '\n'
        << "hidraw=" << c.hidrawNumber << '\n'
        << "video=" << c.videoNumber << '\n'
        << "metadata=" << c.metadataVideoNumber << '\n'
        << "serial=" << escape(c.serial) << '\n'
        << "manufacturer=" << escape(c.manufacturer) << '\n'
        << "product=" << escape(c.product) << '\n'
        << "udevFails=" << c.udevFails << '\n'
        << "udevGarbage=" << c.udevGarbage << '\n'
        << "videoWithoutSerial=" << c.videoWithoutSerial << '\n'
        << "videoSerial=" << escape(c.videoSerial) << '\n'
        << "end\n";
  }
  return out.str();
}

bool parseState(const std::string& text, State& state, std::string* error) {
  auto fail = [&](const std::string& why) {
    if (error) *error = why;
    return false;
  };
  std::istringstream in(text);
  std::string line;
  if (!std::getline(in, line) || line != kMagic) return fail("not a state file");
  State result;
  StateCamera* current = nullptr;
  int lineNumber = 1;
  while (std::getline(in, line)) {
    ++lineNumber;
    if (line == "end") {
      current = nullptr;
      continue;
    }
    const size_t eq = line.find('=');
    if (eq == std::string::npos) return fail("line " + std::to_string(lineNumber) + ": no '='");
    const std::string key = line.substr(0, eq);
    const std::string value = unescape(line.substr(eq + 1));
    long long number = 0;
    const bool numeric = toInt(value, number);
    if (key == "start") {
      if (!numeric) return fail("bad start time");
      result.startTimeMs = number;
      continue;
    }
    if (key == "camera") {
      if (!numeric) return fail("bad camera id");
      result.cameras.emplace_back();
      current = &result.cameras.back();
      current->id = static_cast<int>(number);
      continue;
    }
    if (current == nullptr) return fail("line " + std::to_string(lineNumber) + ": outside a camera");
    StateCamera& c = *current;
    if (key == "serial")
      c.serial = value;
    else if (key == "manufacturer")
      c.manufacturer = value;
    else if (key == "product")
      c.product = value;
    else if (key == "videoSerial")
      c.videoSerial = value;
    else if (!numeric)
      return fail("line " + std::to_string(lineNumber) + ": bad number");
    else if (key == "port")
      c.port = static_cast<int>(number);
    else if (key == "devnum")
      c.devnum = static_cast<int>(number);
    else if (key == "hidSequence")
      c.hidSequence = static_cast<int>(number);
    else if (key == "plugTime")
      c.plugTimeMs = number;
    else if (key == "vendor")
      c.vendorId = static_cast<uint16_t>(number);
    else if (key == "productId")
      c.productId = static_cast<uint16_t>(number);
    else if (key == "hidraw")
      c.hidrawNumber = static_cast<int>(number);
    else if (key == "video")
      c.videoNumber = static_cast<int>(number);
    else if (key == "metadata")
      c.metadataVideoNumber = static_cast<int>(number);
    else if (key == "udevFails")
      c.udevFails = number != 0;
    else if (key == "udevGarbage")
      c.udevGarbage = number != 0;
    else if (key == "videoWithoutSerial")
      c.videoWithoutSerial = number != 0;
    // Unknown keys come from a newer writer; ignore them.
  }
  state = std::move(result);
  return true;
}

bool writeStateFile(const std::string& path, const State& state) {
  const std::string temp = path + ".tmp";
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (!out) return false;
    out << formatState(state);
    if (!out.flush()) return false;
  }
  return std::rename(temp.c_str(), path.c_str()) == 0;
}

bool readStateFile(const std::string& path, State& state, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (error) *error = path + ": " + std::strerror(errno);
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return parseState(text.str(), state, error);
}

}  // namespace tqsim
