// Mounts a shadow-field status collection as its writer in a process of its own,
// writes a known set of values, then keeps the table (and its writer lock) until
// its standard input closes. Tests use it to read a table another process owns.
//
//   shadow_writer <root-dir> <path> <count>
//
// Writes count values, key {i, i % 32, 1 + i % 32} with value 0x1000 + 7 i, in
// reverse order; prints "ready" once they are committed. Exit status: 0 done,
// 2 usage or error.

#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/ShadowTypes.h"

#include <cstdio>
#include <exception>
#include <string>

#include <unistd.h>

using namespace TarnRegFile;

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s <root-dir> <path> <count>\n", argv[0]);
    return 2;
  }
  try {
    U32 const count = static_cast<U32>(std::stoul(argv[3]));
    auto em = Kiv::Shm::EntityManager::EntityManagerIs(Kiv::Shm::Root(argv[1]));
    auto group = em->mountGroup();
    group.mount(argv[2], "TarnRegFile::ShadowFieldsStatus", Kiv::Shm::MountDescription().collectionIs("field", count));
    auto status = Kiv::ptr_cast<ShadowFieldsStatus>(em->entity(argv[2]));
    group.close();
    for (U32 i = count; i-- > 0;)
      status->fieldIs(ShadowFieldValue(ShadowFieldKey(i, U8(i % 32), U8(1 + i % 32)), 0x1000 + 7 * i));
    std::printf("ready\n");
    std::fflush(stdout);
    for (char c; ::read(STDIN_FILENO, &c, 1) > 0;) {
    }
    return 0;
  } catch (std::exception const& e) {
    std::fprintf(stderr, "shadow_writer: %s\n", e.what());
    return 2;
  }
}
