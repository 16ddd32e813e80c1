// Shared pieces of the fuzz targets: reading structured values off the fuzz
// input, and a scratch file for targets whose input is a file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fuzz {

// Reads values off the input front to back; past its end every read yields
// zeros, so a short input is still a complete run.
class Input {
 public:
  Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool empty() const { return pos_ >= size_; }
  size_t remaining() const { return empty() ? 0 : size_ - pos_; }
  uint8_t byte() { return empty() ? 0 : data_[pos_++]; }
  uint16_t u16() { return static_cast<uint16_t>(byte() | byte() << 8); }
  uint32_t u32() { return u16() | static_cast<uint32_t>(u16()) << 16; }
  // Exactly n bytes, zero-padded at the end of the input.
  std::vector<uint8_t> bytes(size_t n);
  std::string rest();

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// A file of this process in $TMPDIR (or /tmp), removed at exit.
const std::string& scratchFile();
// Replaces the scratch file's content; false when it cannot be written.
bool writeScratch(const void* data, size_t size);

// Aborts with a message: a broken property is a finding like a crash.
[[noreturn]] void fail(const char* what);

}  // namespace fuzz
