// Writes or checks a known pattern in a shared-memory table. Built for both
// architectures, so the table tests of one can hand a table to the other.
//
//   shm_peer write  <root-dir> <path>   create the table and write the pattern
//   shm_peer verify <root-dir> <path>   check the pattern as a reader
//   shm_peer attach <root-dir> <path>   attach as writer (recount, repair) and check the pattern
//
// Exit status: 0 the pattern matches, 1 it does not (reason on stderr), 2 usage or error.

#include "helpers/ShmTestTraits.h"

#include <cstdio>
#include <exception>
#include <string>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s write|verify|attach <root-dir> <path>\n", argv[0]);
    return 2;
  }
  std::string const command = argv[1];
  Kiv::Shm::Root const root(argv[2]);
  std::string const path = argv[3];
  try {
    std::string problem;
    if (command == "write") {
      ShmTest::writePattern(root, path);
    } else if (command == "verify") {
      auto table = ShmTest::Collection::openReader(root, path);
      problem = ShmTest::verifyPattern(table);
    } else if (command == "attach") {
      auto table = ShmTest::Collection::openWriter(root, path, ShmTest::kPatternCapacity);
      problem = ShmTest::verifyPattern(table);
    } else {
      std::fprintf(stderr, "unknown command '%s'\n", command.c_str());
      return 2;
    }
    if (!problem.empty()) {
      std::fprintf(stderr, "shm_peer (%zu-bit): %s\n", sizeof(void*) * 8, problem.c_str());
      return 1;
    }
    return 0;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "shm_peer (%zu-bit): %s\n", sizeof(void*) * 8, e.what());
    return 2;
  }
}
