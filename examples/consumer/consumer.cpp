// Loads a register map through the installed library and looks a register up both ways.
#include <TarnRegFile/RegisterFile.h>

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: consumer MAP.csv\n");
    return 2;
  }
  try {
    TarnRegFile::RegisterFile map(argv[1], 4);
    auto const scratch = map.findRegisterByName("scratch");
    std::string const back = map.findRegNameByAddr(scratch.number);
    std::printf("%s (%u bits) at 0x%x -> %s\n", static_cast<std::string>(scratch).c_str(), scratch.width,
                scratch.number, back.c_str());
    return back == "scratch" ? 0 : 1;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "consumer: %s\n", e.what());
    return 1;
  }
}
