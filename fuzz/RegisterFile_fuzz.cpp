// Feeds arbitrary bytes to the whole-file loader as an in-memory CSV stream and
// cross-checks both sides of the index of whatever loaded. A refused file is an
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
    size_t registers = 0;
    file.forEachRegister([&](TarnRegFile::RegisterRef const& reg) {
      ++registers;
      // Names hold no NUL (the loader refuses one), so the C string is the whole name.
      if (reg.name.find('\0') != std::string_view::npos || reg.name.data()[reg.name.size()] != '\0') std::abort();
      auto const found = file.findRegisterByName(reg.name.data());
      if (found.name.data() != reg.name.data() || found.number != reg.number) std::abort();
      // The line that produced a kept record always claimed its address (maybe for an earlier name).
      char const* const atAddress = file.nameAt(reg.number);
      if (atAddress == nullptr || !file.hasRegName(atAddress)) std::abort();
      if (reg.number % 4 != 0) std::abort();
    });
    if (registers != file.size()) std::abort();
    size_t addresses = 0;
    file.index().forEachAddress([&](U32 address, TarnRegFile::RegisterIndex::Entry const& e) {
      ++addresses;
      if (file.nameAt(address) != e.name() || !file.hasRegName(e.name())) std::abort();
    });
    if (addresses != file.addressCount()) std::abort();
  } catch (std::runtime_error const&) {
  }
  return 0;
}
