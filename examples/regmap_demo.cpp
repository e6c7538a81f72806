// regmap_demo MAP.csv [NAME|ADDRESS...]
//
// Loads a CSV register map with an address block size of 4 (byte addresses of
// 32-bit registers), lists every register sorted by address, then resolves each
// further argument: a register name prints its address, anything else is taken
// as an address (decimal or 0x-prefixed hex) and prints the name there.
// Every failure prints one "regmap_demo: ..." line on stderr; the exit code is 1
// if anything failed.

#include "TarnRegFile/RegisterFile.h"
#include "TarnRegFile/Utils.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr U8 kAddrBlockSize = 4;

void fail(std::string const& message) { std::fprintf(stderr, "regmap_demo: %s\n", message.c_str()); }

bool parseAddress(std::string_view text, U32& address) {
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
    return TarnRegFile::Utils::strtoint(text.substr(2), address, 16);
  return TarnRegFile::Utils::strtoint(text, address, 10);
}

void listRegisters(TarnRegFile::RegisterFile const& file) {
  std::vector<TarnRegFile::RegisterRef> sorted;
  sorted.reserve(file.size());
  file.forEachRegister([&](TarnRegFile::RegisterRef const& reg) { sorted.push_back(reg); });
  std::sort(sorted.begin(), sorted.end(), [](auto const& a, auto const& b) {
    return a.number != b.number ? a.number < b.number : a.name < b.name;
  });
  for (auto const& reg : sorted) {
    std::string const text = reg;
    std::printf("%s\n", text.c_str());
  }
}

// Resolves one argument; returns false (after reporting) when it names nothing in the map.
bool lookUp(TarnRegFile::RegisterFile const& file, char const* argument) {
  try {
    if (file.hasRegName(argument)) {
      std::printf("%s -> %#x\n", argument, file.findRegisterByName(argument).number);
      return true;
    }
    U32 address = 0;
    if (!parseAddress(argument, address)) {
      file.findRegisterByName(argument);  // neither a name nor an address: report the missing name
      return false;
    }
    std::string const name = file.findRegNameByAddr(address);
    std::printf("%#x -> %s\n", address, name.c_str());
    return true;
  } catch (std::exception const& e) {
    fail(e.what());
    return false;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fail("usage: regmap_demo MAP.csv [NAME|ADDRESS...]");
    return 1;
  }
  try {
    TarnRegFile::RegisterFile const file(argv[1], kAddrBlockSize);
    listRegisters(file);
    bool ok = true;
    for (int i = 2; i < argc; ++i) ok = lookUp(file, argv[i]) && ok;
    return ok ? 0 : 1;
  } catch (std::exception const& e) {
    fail(e.what());
    return 1;
  }
}
