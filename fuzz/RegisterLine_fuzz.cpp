// Feeds arbitrary bytes to the CSV line parser. The first byte is the address
// block size (0 is a programming error, so it is mapped to 1); the rest is the
// line. A bad number or width is an expected std::runtime_error; anything else
// (another exception, a crash, a sanitizer report, a broken invariant) is a bug.

#include "TarnRegFile/RegisterFile.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  if (size == 0) return 0;
  U8 const blockSize = data[0] == 0 ? 1 : data[0];
  std::string_view const line(reinterpret_cast<char const*>(data + 1), size - 1);
  try {
    TarnRegFile::Register const reg(line, blockSize);
    if (reg.width > TarnRegFile::Register::regOpWidth) std::abort();
    if (reg.name.size() > line.size()) std::abort();
    if (static_cast<U8>(reg.type) > 6) std::abort();
    std::string const text = reg;
    if (text.find(reg.writeable ? " writeable " : " readonly ") == std::string::npos) std::abort();
    if (TarnRegFile::Register::regTypeToString(reg.type).empty()) std::abort();
  } catch (std::runtime_error const&) {
  }
  return 0;
}
