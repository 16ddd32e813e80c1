#include "hid/UdevText.h"

#include <cstdio>

std::string sExec(const std::string& command) {
  std::string result;
  FILE* pipe = ::popen(command.c_str(), "re");
  if (pipe == nullptr) return result;
  char piece[128];
  while (std::fgets(piece, sizeof piece, pipe) != nullptr) result += piece;
  ::pclose(pipe);
  return result;
}

std::string sGetString(const std::string& text, const std::string& key) {
  // npos + 1 wraps to 0: a missing key means "search from the start".
  size_t from = text.find(key) + 1;
  size_t open = text.find('"', from);
  size_t close = open == std::string::npos ? std::string::npos : text.find('"', open + 1);
  size_t begin = open == std::string::npos ? 0 : open + 1;
  return text.substr(begin, close == std::string::npos ? std::string::npos : close - begin);
}
