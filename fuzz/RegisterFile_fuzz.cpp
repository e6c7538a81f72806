// Feeds arbitrary bytes to the whole-file loader as an in-memory CSV stream and
// cross-checks the two lookup maps of whatever loaded. A refused file is an
// expected std::runtime_error; anything else is a bug.

#include "TarnRegFile/RegisterFile.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
  std::istringstream in(std::string(reinterpret_cast<char const*>(data), size));
  try {
    TarnRegFile::RegisterFile const file(in, 4);
    for (auto const& [name, reg] : file.registers()) {
      if (reg.name != name) std::abort();
      if (&file.findRegisterByName(name.c_str()) != &reg && name.find('\0') == std::string::npos) std::abort();
      if (!file.hasRegName(std::string_view(name))) std::abort();
      // The line that produced a kept record always claimed its address (maybe for an earlier name).
      if (!file.hasRegName(std::string_view(file.findRegNameByAddr(reg.number)))) std::abort();
      if (reg.number % 4 != 0) std::abort();
    }
    for (auto const& [address, name] : file.namesByAddress())
      if (!file.hasRegName(std::string_view(name))) std::abort();
  } catch (std::runtime_error const&) {
  }
  return 0;
}
