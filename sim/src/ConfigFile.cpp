#include "ConfigFile.h"

#include <sys/stat.h>
#include <tqsim/Sim.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "Camera.h"

namespace tqsim {

namespace {

std::string trim(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) ++begin;
  while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
  return text.substr(begin, end - begin);
}

std::string lower(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// Splits off a '#' or ';' comment: outside double quotes, at the start of
// the line or after a blank, so that a bare value such as AB#12 stays whole.
std::string stripComment(const std::string& line) {
  bool quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\\' && quoted) {
      ++i;
    } else if (line[i] == '"') {
      quoted = !quoted;
    } else if (!quoted && (line[i] == '#' || line[i] == ';') &&
               (i == 0 || std::isspace(static_cast<unsigned char>(line[i - 1])))) {
      return line.substr(0, i);
    }
  }
  return line;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// A value: "quoted text" with \" \\ \n \t \xNN escapes (blanks kept), the
// word hex followed by byte values, or bare text (trimmed).
bool parseText(const std::string& raw, std::string& out, std::string& why) {
  const std::string value = trim(raw);
  if (value.rfind("hex ", 0) == 0 || value == "hex") {
    std::istringstream in(value.substr(3));
    std::string byte;
    out.clear();
    while (in >> byte) {
      if (byte.size() > 2 || hexDigit(byte[0]) < 0 || (byte.size() == 2 && hexDigit(byte[1]) < 0)) {
        why = "bad hex byte '" + byte + "'";
        return false;
      }
      out += static_cast<char>(byte.size() == 1 ? hexDigit(byte[0])
                                                : hexDigit(byte[0]) * 16 + hexDigit(byte[1]));
    }
    return true;
  }
  if (value.empty() || value[0] != '"') {
    out = value;
    return true;
  }
  out.clear();
  for (size_t i = 1; i < value.size(); ++i) {
    const char c = value[i];
    if (c == '"') {
      if (i + 1 != value.size()) {
        why = "text after the closing quote";
        return false;
      }
      return true;
    }
    if (c != '\\') {
      out += c;
      continue;
    }
    if (++i >= value.size()) break;
    switch (value[i]) {
      case 'n':
        out += '\n';
        break;
      case 't':
        out += '\t';
        break;
      case 'x': {
        const int high = i + 1 < value.size() ? hexDigit(value[i + 1]) : -1;
        const int low = i + 2 < value.size() ? hexDigit(value[i + 2]) : -1;
        if (high < 0 || low < 0) {
          why = "bad \\x escape";
          return false;
        }
        out += static_cast<char>(high * 16 + low);
        i += 2;
        break;
      }
      default:
        out += value[i];
        break;
    }
  }
  why = "missing closing quote";
  return false;
}

bool parseInt(const std::string& raw, long long low, long long high, long long& out, std::string& why) {
  const std::string value = trim(raw);
  errno = 0;
  char* end = nullptr;
  const long long number = std::strtoll(value.c_str(), &end, 0);
  if (value.empty() || errno != 0 || end == nullptr || *end != '\0' || number < low || number > high) {
    why = "'" + value + "' is not a number in " + std::to_string(low) + ".." + std::to_string(high);
    return false;
  }
  out = number;
  return true;
}

bool parseBool(const std::string& raw, bool& out, std::string& why) {
  const std::string value = lower(trim(raw));
  if (value == "true" || value == "yes" || value == "1" || value == "on") {
    out = true;
  } else if (value == "false" || value == "no" || value == "0" || value == "off") {
    out = false;
  } else {
    why = "'" + value + "' is not a truth value";
    return false;
  }
  return true;
}

// One interval: "30" (frames per second, interval 1/30) or "1/30".
bool parseInterval(const std::string& text, FrameInterval& interval, std::string& why) {
  const size_t slash = text.find('/');
  long long numerator = 1;
  long long denominator = 0;
  if (slash == std::string::npos) {
    if (!parseInt(text, 1, 1000, denominator, why)) return false;
  } else if (!parseInt(text.substr(0, slash), 1, 1000000, numerator, why) ||
             !parseInt(text.substr(slash + 1), 1, 1000000, denominator, why)) {
    return false;
  }
  interval = {static_cast<uint32_t>(numerator), static_cast<uint32_t>(denominator)};
  return true;
}

// "1280x960 30 15": a size with discrete intervals 1/30 and 1/15;
// "1280x960 stepwise 1/30 1/5 1/30": min, max and step (continuous alike).
bool parseSize(const std::string& raw, FrameSize& size, std::string& why) {
  std::istringstream in(raw);
  std::string dims;
  in >> dims;
  const size_t x = dims.find('x');
  long long width = 0;
  long long height = 0;
  if (x == std::string::npos || !parseInt(dims.substr(0, x), 1, kMaxFrameSide, width, why) ||
      !parseInt(dims.substr(x + 1), 1, kMaxFrameSide, height, why)) {
    why = "size must be WIDTHxHEIGHT (1.." + std::to_string(kMaxFrameSide) + " each) followed by frame rates";
    return false;
  }
  size.width = static_cast<uint32_t>(width);
  size.height = static_cast<uint32_t>(height);
  size.intervalKind = IntervalKind::Discrete;
  std::string token;
  bool first = true;
  while (in >> token) {
    if (first && (token == "stepwise" || token == "continuous")) {
      size.intervalKind = token == "stepwise" ? IntervalKind::Stepwise : IntervalKind::Continuous;
      first = false;
      continue;
    }
    first = false;
    FrameInterval interval;
    if (!parseInterval(token, interval, why)) return false;
    size.intervals.push_back(interval);
  }
  if (size.intervalKind != IntervalKind::Discrete && size.intervals.size() != 3) {
    why = "a stepwise or continuous size needs min, max and step intervals";
    return false;
  }
  if (size.intervals.empty()) {
    why = "a size needs at least one frame rate";
    return false;
  }
  return true;
}

bool readFile(const std::string& path, std::string& out) {
  // Regular files only: a device or fifo named by mistake (xml = /dev/zero)
  // would never end.
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  out = text.str();
  return true;
}

struct Section {
  CameraConfig config;
  bool sizesGiven = false;
  std::set<uint16_t> memoryGiven;
};

// Identity memory follows the identity unless the section set it itself.
void finish(Section& section, std::vector<CameraConfig>& cameras) {
  CameraConfig& c = section.config;
  if (!section.memoryGiven.count(kMemManufacturer)) c.memory[kMemManufacturer] = c.manufacturer;
  if (!section.memoryGiven.count(kMemModel)) c.memory[kMemModel] = c.product;
  if (!section.memoryGiven.count(kMemSerial)) c.memory[kMemSerial] = c.serial;
  cameras.push_back(std::move(c));
}

}  // namespace

bool applyFault(CameraConfig& c, const std::string& name, const std::string& value, std::string& why) {
  const std::string& argument = name;
  const std::string fault = lower(argument);
  long long number = 0;
  bool ok = true;
  if (fault == "no-answer") {
    ok = parseBool(value, c.hidFaults.noAnswer, why);
  } else if (fault == "late-answer-ms") {
    ok = parseInt(value, 0, 3600000, number, why);
    c.hidFaults.lateAnswerMs = static_cast<uint32_t>(number);
  } else if (fault == "wrong-echo") {
    ok = parseInt(value, -1, 255, number, why);
    c.hidFaults.wrongEcho = static_cast<int>(number);
  } else if (fault == "status") {
    ok = parseInt(value, 0, 255, number, why);
    c.hidFaults.status = static_cast<uint8_t>(number);
  } else if (fault == "feature-fails") {
    ok = parseBool(value, c.hidFaults.featureFails, why);
  } else if (fault == "only-command") {
    ok = parseInt(value, -1, 255, number, why);
    c.hidFaults.onlyCommand = static_cast<int>(number);
  } else if (fault == "udev-fails") {
    ok = parseBool(value, c.udevFaults.fails, why);
  } else if (fault == "udev-garbage") {
    ok = parseBool(value, c.udevFaults.garbage, why);
  } else if (fault == "video-without-serial") {
    ok = parseBool(value, c.udevFaults.videoWithoutSerial, why);
  } else if (fault == "video-serial") {
    ok = parseText(value, c.udevFaults.videoSerial, why);
  } else if (fault == "video-open-fails") {
    ok = parseBool(value, c.videoFaults.openFails, why);
  } else if (fault == "video-stops") {
    ok = parseBool(value, c.videoFaults.stopSending, why);
  } else if (fault == "video-select-fails") {
    ok = parseBool(value, c.videoFaults.selectFails, why);
  } else if (fault == "video-format-errno" || fault == "video-dqbuf-errno" ||
             fault == "video-enum-sizes-errno") {
    ok = parseInt(value, 0, 4095, number, why);
    (fault == "video-format-errno"  ? c.videoFaults.formatError
     : fault == "video-dqbuf-errno" ? c.videoFaults.dqbufErrno
                                    : c.videoFaults.enumSizesErrno) = static_cast<int>(number);
  } else if (fault == "video-answer-format") {
    std::string fourcc;
    ok = parseText(value, fourcc, why);
    if (ok && fourcc.size() != 4) {
      why = "a pixel format is four characters, e.g. MJPG";
      ok = false;
    }
    if (ok) {
      c.videoFaults.answerPixelFormat = static_cast<uint8_t>(fourcc[0]) |
                                        (static_cast<uint32_t>(static_cast<uint8_t>(fourcc[1])) << 8) |
                                        (static_cast<uint32_t>(static_cast<uint8_t>(fourcc[2])) << 16) |
                                        (static_cast<uint32_t>(static_cast<uint8_t>(fourcc[3])) << 24);
    }
  } else if (fault == "video-answer-size") {
    FrameSize answered;
    ok = parseSize(value + " 1", answered, why);
    c.videoFaults.answerWidth = answered.width;
    c.videoFaults.answerHeight = answered.height;
  } else if (fault == "video-short-frame-bytes") {
    ok = parseInt(value, 0, 0xFFFFFFFFLL, number, why);
    c.videoFaults.shortFrameBytes = static_cast<uint32_t>(number);
  } else {
    why = "unknown fault '" + argument + "'";
    ok = false;
  }
  return ok;
}

bool parseConfig(const std::string& path, std::vector<CameraConfig>& cameras, std::string* error) {
  std::string text;
  if (!readFile(path, text)) {
    if (error) *error = path + ": " + std::strerror(errno);
    return false;
  }
  const size_t slash = path.rfind('/');
  const std::string baseDir = slash == std::string::npos ? "." : path.substr(0, slash);
  return parseConfigText(text, baseDir, path, cameras, error);
}

bool parseConfigText(const std::string& text, const std::string& baseDir, const std::string& name,
                     std::vector<CameraConfig>& cameras, std::string* error) {
  std::vector<CameraConfig> result;
  std::unique_ptr<Section> section;
  // Editors on some systems start a UTF-8 file with a byte-order mark.
  static const std::string kByteOrderMark = "\xEF\xBB\xBF";
  std::istringstream in(text.rfind(kByteOrderMark, 0) == 0 ? text.substr(kByteOrderMark.size()) : text);
  std::string line;
  int lineNumber = 0;
  std::string why;
  auto fail = [&]() {
    if (error) *error = name + ":" + std::to_string(lineNumber) + ": " + why;
    return false;
  };

  while (std::getline(in, line)) {
    ++lineNumber;
    const std::string content = trim(stripComment(line));
    if (content.empty()) continue;
    if (content.front() == '[') {
      if (lower(content) != "[camera]") {
        why = "unknown section " + content;
        return fail();
      }
      if (section) finish(*section, result);
      section = std::make_unique<Section>();
      section->config = defaultCameraConfig();
      // Each further camera gets the next free numbers by default.
      const int index = static_cast<int>(result.size());
      section->config.hidrawNumber = index;
      section->config.videoNumber = 2 * index;
      section->config.metadataVideoNumber = 2 * index + 1;
      continue;
    }
    if (!section) {
      why = "setting outside a [camera] section";
      return fail();
    }
    const size_t eq = content.find('=');
    if (eq == std::string::npos) {
      why = "expected key = value";
      return fail();
    }
    std::istringstream keyStream(content.substr(0, eq));
    std::string key;
    std::string argument;
    keyStream >> key >> argument;
    key = lower(key);
    const std::string value = content.substr(eq + 1);
    CameraConfig& c = section->config;
    long long number = 0;
    bool ok = true;

    if (key == "serial") {
      ok = parseText(value, c.serial, why);
    } else if (key == "manufacturer") {
      ok = parseText(value, c.manufacturer, why);
    } else if (key == "product") {
      ok = parseText(value, c.product, why);
    } else if (key == "hid-product") {
      ok = parseText(value, c.hidProductText, why);
    } else if (key == "vendor-id" || key == "product-id") {
      ok = parseInt(value, 0, 0xFFFF, number, why);
      (key == "vendor-id" ? c.vendorId : c.productId) = static_cast<uint16_t>(number);
    } else if (key == "hidraw" || key == "video") {
      ok = parseInt(value, 0, 255, number, why);
      (key == "hidraw" ? c.hidrawNumber : c.videoNumber) = static_cast<int>(number);
    } else if (key == "metadata") {
      ok = parseInt(value, -1, 255, number, why);
      c.metadataVideoNumber = static_cast<int>(number);
    } else if (key == "register" || key == "memory") {
      long long address = 0;
      if (argument.empty()) {
        why = key + " needs an address: " + key + " 0x0A04 = value";
        return fail();
      }
      ok = parseInt(argument, 0, 0xFFFF, address, why);
      if (ok && key == "register") {
        ok = parseInt(value, 0, 0xFFFFFFFFLL, number, why);
        c.registers[static_cast<uint16_t>(address)] = static_cast<uint32_t>(number);
      } else if (ok) {
        std::string bytes;
        ok = parseText(value, bytes, why);
        c.memory[static_cast<uint16_t>(address)] = bytes;
        section->memoryGiven.insert(static_cast<uint16_t>(address));
      }
    } else if (key == "xml") {
      std::string file;
      ok = parseText(value, file, why);
      if (ok && file == "builtin") {
        c.xmlFile = builtInXml();
      } else if (ok && file == "none") {
        c.xmlFile.clear();
      } else if (ok) {
        const std::string path = (!file.empty() && file[0] == '/') ? file : baseDir + "/" + file;
        std::string data;
        if (!readFile(path, data)) {
          why = "cannot read " + path;
          return fail();
        }
        c.xmlFile.assign(data.begin(), data.end());
      }
    } else if (key == "size") {
      FrameSize size;
      ok = parseSize(value, size, why);
      if (ok && !section->sizesGiven) c.video.sizes.clear();
      section->sizesGiven = true;
      if (ok) c.video.sizes.push_back(size);
    } else if (key == "free-run") {
      ok = parseBool(value, c.video.freeRun, why);
    } else if (key == "size-kind") {
      const std::string kind = lower(trim(value));
      if (kind == "discrete") {
        c.video.sizeKind = SizeKind::Discrete;
      } else if (kind == "stepwise") {
        c.video.sizeKind = SizeKind::Stepwise;
      } else if (kind == "continuous") {
        c.video.sizeKind = SizeKind::Continuous;
      } else {
        why = "size-kind is discrete, stepwise or continuous";
        ok = false;
      }
    } else if (key == "fault") {
      ok = applyFault(c, argument, value, why);
    } else {
      why = "unknown key '" + key + "'";
      ok = false;
    }
    if (!ok) return fail();
  }
  if (section) finish(*section, result);
  cameras = std::move(result);
  return true;
}

}  // namespace tqsim
