// Integer settings from an ini file, parsed by inih.
//
// inih fixes its comment characters when it is built, so the characters asked
// for at RkIniOpen are handled here: comment lines are blanked and trailing
// comments cut before the text reaches the parser.
#include <ini.h>
#include <rkini.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <new>
#include <string>

#define TQ_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// inih reads lines into a buffer of this many bytes, newline and NUL included;
// a longer line would be split into fragments that parse as nonsense.
constexpr size_t kParserLineMax = 200 - 3;
// inih keeps this many characters of section and key names; lookups cut the
// same way, so a long name still finds its value.
constexpr size_t kParserNameMax = 50 - 1;

using Section = std::map<std::string, std::string>;
using Content = std::map<std::string, Section>;

std::string lower(const char* text) {
  std::string out(text ? text : "");
  if (out.size() > kParserNameMax) out.resize(kParserNameMax);
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Blanks comment lines, cuts comments that follow whitespace and unindents.
// Fails on a line the parser could not take whole.
bool filterComments(const std::string& text, const std::string& commentChars, std::string* out) {
  out->clear();
  out->reserve(text.size());
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(pos, end - pos);
    pos = end + 1;
    size_t first = 0;
    while (first < line.size() && isBlank(line[first])) ++first;
    if (first < line.size() && commentChars.find(line[first]) != std::string::npos) {
      line.clear();
    } else {
      for (size_t i = first + 1; i < line.size(); ++i) {
        if (commentChars.find(line[i]) != std::string::npos && isBlank(line[i - 1])) {
          line.resize(i);
          break;
        }
      }
      while (!line.empty() && isBlank(line.back())) line.pop_back();
      // The parser would take an indented line as the continuation of the
      // previous value; settings files indent keys for looks only.
      line.erase(0, first);
      if (line.size() > kParserLineMax) return false;
    }
    out->append(line).push_back('\n');
  }
  return true;
}

bool readFile(const char* path, std::string* text) {
  FILE* f = fopen(path, "re");
  if (!f) return false;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) text->append(buf, n);
  bool ok = !ferror(f);
  fclose(f);
  return ok;
}

int storeValue(void* user, const char* section, const char* name, const char* value) {
  try {
    (*static_cast<Content*>(user))[lower(section)][lower(name)] = value ? value : "";
    return 1;
  } catch (const std::exception&) {
    return 0;  // inih counts it as an error on this line
  }
}

bool parseInteger(const std::string& text, bool allowHex, long* result) {
  const char* p = text.c_str();
  while (isBlank(*p) || *p == '\n') ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  int base = 10;
  if (allowHex && p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
    base = 16;
    p += 2;
  }
  // strtoul would also take a second sign or leading blanks here.
  bool digitFirst = base == 16 ? isxdigit(static_cast<unsigned char>(*p)) != 0 : (*p >= '0' && *p <= '9');
  if (!digitFirst) return false;
  errno = 0;
  char* end = nullptr;
  unsigned long magnitude = strtoul(p, &end, base);
  if (errno == ERANGE) return false;
  while (isBlank(*end)) ++end;
  if (*end != '\0') return false;
  unsigned long limit = negative ? static_cast<unsigned long>(LONG_MAX) + 1 : LONG_MAX;
  if (magnitude > limit) return false;
  *result = negative ? static_cast<long>(0 - magnitude) : static_cast<long>(magnitude);
  return true;
}

}  // namespace

struct RkIni {
  std::mutex mutex;
  std::string commentChars;
  Content content;
};

TQ_EXPORT RkIniHandle RkIniOpen(const char* commentChars) {
  try {
    auto* ini = new (std::nothrow) RkIni;
    if (ini) ini->commentChars = commentChars ? commentChars : ";#";
    return ini;
  } catch (const std::exception&) {
    return nullptr;
  }
}

TQ_EXPORT int RkIniLoad(RkIniHandle ini, const char* path) {
  if (!ini || !path) return 0;
  try {
    std::string raw, filtered;
    if (!readFile(path, &raw)) return 0;
    if (!filterComments(raw, ini->commentChars, &filtered)) return 0;
    Content fresh;
    if (ini_parse_string(filtered.c_str(), storeValue, &fresh) != 0) return 0;
    std::lock_guard<std::mutex> lock(ini->mutex);
    ini->content.swap(fresh);
    return 1;
  } catch (const std::exception&) {
    return 0;
  }
}

TQ_EXPORT long RkIniGetInteger(RkIniHandle ini, const char* section, const char* key, long defaultValue,
                               int flags) {
  if (!ini || !key) return defaultValue;
  try {
    std::lock_guard<std::mutex> lock(ini->mutex);
    auto s = ini->content.find(lower(section));
    if (s == ini->content.end()) return defaultValue;
    auto k = s->second.find(lower(key));
    if (k == s->second.end()) return defaultValue;
    long value = 0;
    return parseInteger(k->second, (flags & 1) != 0, &value) ? value : defaultValue;
  } catch (const std::exception&) {
    return defaultValue;
  }
}

TQ_EXPORT void RkIniClose(RkIniHandle ini) { delete ini; }
