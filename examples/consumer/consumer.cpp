// A program outside the library's tree, built against an installed TarnRegFile with nothing but
// its include directory, -ltarnregfile and fmt. It uses each exported family once: a register map,
// a transport (the mock, its dump file in a private directory), a logical chip whose shadow fields
// live in a private shared-memory root, the two state machines that carry a logical write to the
// register, and the system model that holds them.
#include <TarnRegFile/LogicalChip.h>
#include <TarnRegFile/LogicalSms.h>
#include <TarnRegFile/MockTransportMethodImpl.h>
#include <TarnRegFile/RegisterFile.h>
#include <TarnRegFile/ShadowSms.h>
#include <TarnRegFile/SystemModels.h>
#include <TarnRegFile/TransportMethod.h>
#include <TarnRegFile/platform/ShmEntityManager.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>

namespace {

bool check(bool ok, char const* what) {
  std::printf("%s: %s\n", ok ? "ok" : "FAILED", what);
  return ok;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: consumer MAP.csv\n");
    return 2;
  }
  char dirTemplate[] = "/tmp/tarn-consumer-XXXXXX";
  if (::mkdtemp(dirTemplate) == nullptr) {
    std::perror("consumer: mkdtemp");
    return 1;
  }
  std::string const dir = dirTemplate;
  bool ok = true;
  try {
    // Register maps.
    TarnRegFile::RegisterFile map(argv[1], 4);
    auto const& scratch = map.findRegisterByName("scratch");
    ok &= check(map.findRegNameByAddr(scratch.number) == "scratch", "register map looked up both ways");

    // Transports.
    auto transport = TarnRegFile::TransportMethod::TransportMethodIs(Kiv::String("demo"));
    transport->implPtrIs(new TarnRegFile::MockTransportMethodImpl(argv[1], nullptr, dir + "/dump.csv"));
    transport->regWrite(Kiv::String("scratch"), 0x12345678);
    ok &= check(transport->regRead(Kiv::String("scratch")) == 0x12345678, "register written and read back");

    // Logical model and shadow fields: one 8-bit field in the low byte of scratch, whose shadow
    // key carries the register's byte address.
    auto em = Kiv::Shm::EntityManager::EntityManagerIs(Kiv::Shm::Root(dir + "/shm"));
    auto chip = TarnRegFile::LogicalChip::LogicalChipIs(Kiv::String("demo"));
    Kiv::String const reg("scratch"), field("low");
    chip->physicalFieldCountIs(scratch.number);  // the map was loaded with 4-byte blocks: a byte address
    chip->populatePhysicalField(reg, field, 0, 8);
    chip->populateLogicalField(reg, field, 0, 8, 0);
    chip->translationIs()->populate(reg, field, reg, field);
    chip->mountShadowFields(em, Kiv::String("TarnRegFile/shadowFieldsConfig/demo"),
                            Kiv::String("TarnRegFile/shadowFieldsStatus/demo"));
    chip->readyIs(true);

    // System model: the chip and its two machines, as a chip-status machine would store them.
    auto logical = TarnRegFile::LogicalModel::LogicalModelIs();
    auto physical = TarnRegFile::PhysicalModel::PhysicalModelIs();
    logical->chipIs(chip);
    logical->writeSmIs(TarnRegFile::logicalWriteSmFactory(chip));
    physical->transportIs(transport);
    physical->shadowSmIs(
        TarnRegFile::shadowFieldsSmFactory(chip->shadowFieldsConfig(), chip->shadowFieldsStatus(), transport, false));

    chip->fieldWrite(reg, field, 0x5a);
    ok &= check(transport->regRead(reg) == 0x5a, "logical write carried to the register (its image is the shadow fields)");
    auto const applied = TarnRegFile::ShadowFields::readShadowTable(Kiv::Shm::Root(dir + "/shm"),
                                                                    "TarnRegFile/shadowFieldsStatus/demo");
    ok &= check(applied.size() == 1 && applied[0].value == 0x5a, "applied value read from shared memory");
    physical->shadowSmDelAll();
    logical->chipDelAll();
  } catch (std::exception const& e) {
    std::fprintf(stderr, "consumer: %s\n", e.what());
    ok = false;
  }
  std::filesystem::remove_all(dir);
  return ok ? 0 : 1;
}
