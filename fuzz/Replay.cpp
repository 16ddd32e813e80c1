// Stands in for libFuzzer where it is not available: runs every file of the
// given directories (or the given files) through the target once, in name
// order. Fails when nothing was replayed, so a mistyped corpus path shows.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzSupport.h"

extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace {

void collect(const std::string& path, std::vector<std::string>& files) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    files.push_back(path);
    return;
  }
  DIR* dir = ::opendir(path.c_str());
  if (dir == nullptr) return;
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(path + "/" + name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    struct stat fst {};
    if (::stat(name.c_str(), &fst) == 0 && S_ISREG(fst.st_mode)) files.push_back(name);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) collect(argv[i], files);
  for (const auto& file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::printf("replaying %s (%zu bytes)\n", file.c_str(), data.size());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  }
  std::printf("%zu inputs replayed\n", files.size());
  return files.empty() ? 1 : 0;
}
