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
  std::string const command = argc == 4 ? argv[1] : "";
  if (command != "write" && command != "verify" && command != "attach") {
    std::fprintf(stderr, "usage: %s write|verify|attach <root-dir> <path>\n", argv[0]);
    return 2;
  }
  Kiv::Shm::Root const root(argv[2]);
  try {
    if (command == "write") {
      ShmTest::writePattern(root, argv[3]);
      return 0;
    }
    auto table = command == "verify" ? ShmTest::Collection::openReader(root, argv[3])
                                     : ShmTest::Collection::openWriter(root, argv[3], ShmTest::kPatternCapacity);
    std::string const problem = ShmTest::verifyPattern(table);
    if (!problem.empty())
      std::fprintf(stderr, "shm_peer (%zu-bit): %s\n", sizeof(void*) * 8, problem.c_str());
    return problem.empty() ? 0 : 1;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "shm_peer (%zu-bit): %s\n", sizeof(void*) * 8, e.what());
    return 2;
  }
}
