// Transport enumerations and descriptors: literals, triples, factories and the generic interface.
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/PciDov.h"

#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportDescriptorEnum.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <sstream>

namespace {

using namespace TarnRegFile;

// Every text route of one enumeration agrees with its literal table; a value past the table is refused.
template <class E>
void expectLiterals(std::vector<char const*> const& literals, E (*byValue)(unsigned), E (*byName)(Kiv::String const&)) {
  for (unsigned v = 0; v < literals.size(); ++v) {
    E const e = byValue(v);
    EXPECT_EQ(static_cast<unsigned>(e), v) << literals[v];
    EXPECT_EQ(byName(Kiv::String(literals[v])), e);
    EXPECT_EQ(stringValue(e), literals[v]);
    EXPECT_EQ(valueToStrep(e), fmt::format("'{}'", literals[v]));
    EXPECT_EQ(fmt::format("{}", e), literals[v]);
    std::ostringstream os;
    os << e;
    EXPECT_EQ(os.str(), literals[v]);
  }
  EXPECT_THROW(byValue(static_cast<unsigned>(literals.size())), Kiv::RangeException);
}

TEST(TransportDescriptorEnum, LiteralsValuesAndTextForms) {
  expectLiterals<TransportType>({"i2c", "pci", "mock"}, TransportTypeInstance, TransportTypeInstance);
  expectLiterals<TransportProtocol>({"DirectAccess", "I2cVorm", "I2cSmbusIoctl", "mockProtocol"},
                                    TransportProtocolInstance, TransportProtocolInstance);
  expectLiterals<TransportFlavour>({"PciDov", "I2cSmbusVorm", "I2cSmbusDataBlock", "I2cSmbusDataWord", "mockFlavour"},
                                   TransportFlavourInstance, TransportFlavourInstance);
  EXPECT_THROW(TransportFlavourInstance(Kiv::String("PciDOV")), Kiv::RangeException);
  // A value outside the table still formats, so an error text about it can be built.
  EXPECT_EQ(fmt::format("{}", TransportType{200}), "200");
  auto const& table = transportDescriptorEnumTable();
  EXPECT_STREQ(table.typeName(0), "TarnRegFile::TransportType");
  EXPECT_STREQ(table.typeName(1), "TarnRegFile::TransportProtocol");
  EXPECT_STREQ(table.typeName(2), "TarnRegFile::TransportFlavour");
}

TEST(TransportDescriptorEnum, SequenceToValueReadsOneLiteral) {
  std::string const text = "'I2cSmbusIoctl', rest";
  Kiv::String::IteratorConst pos = text.data();
  TransportProtocol protocol{};
  sequenceToValue(pos, text.data() + text.size(), &protocol);
  EXPECT_EQ(protocol, TransportProtocol::I2cSmbusIoctl);
  EXPECT_EQ(std::string_view(pos), ", rest");
}

std::vector<unsigned> tripleOf(BaseTransportDescriptor const& d) {
  return {static_cast<unsigned>(d.type()), static_cast<unsigned>(d.protocol()), static_cast<unsigned>(d.flavour())};
}

TEST(TransportDescriptor, EveryKindFixesItsTripleAndKeepsItsArguments) {
  using V = std::vector<unsigned>;
  EXPECT_EQ(tripleOf(*mockTransportDescriptorFactory()), (V{2, 3, 4}));
  EXPECT_EQ(tripleOf(*i2cVormTransportDescriptorFactory(nullptr, 0x50)), (V{0, 1, 1}));
  auto const i2c = i2cTransportDescriptorFactory(TransportFlavour::I2cSmbusDataWord, "/dev/i2c-3", 0x50);
  EXPECT_EQ(tripleOf(*i2c), (V{0, 2, 3}));
  EXPECT_EQ(i2c->devNode(), "/dev/i2c-3");
  EXPECT_EQ(i2c->devId(), 0x50u);
  // Built directly, the base has protocol and flavour 0: with "pci" that is the PCI triple.
  auto const base = Kiv::create<BaseTransportDescriptor>(TransportType::pci);
  EXPECT_EQ(tripleOf(*base), (V{1, 0, 0}));
  EXPECT_TRUE(base->hasNotificationActive());

  // The PCI descriptor holds a reference to its access object.
  struct SomeDov : Hardware::DovImpl {};
  Kiv::Ptr<Hardware::DovImpl> const dov(new SomeDov);
  U32 const before = dov->references();
  auto pci = pciTransportDescriptorFactory(dov);
  EXPECT_EQ(tripleOf(*pci), (V{1, 0, 0}));
  EXPECT_EQ(pci->pciDov().ptr(), dov.ptr());
  EXPECT_EQ(dov->references(), before + 1);
  pci = nullptr;
  EXPECT_EQ(dov->references(), before);
}

TEST(TransportDescriptor, GenericConstructionAndAttributeReads) {
  auto& registry = Kiv::TypeRegistry::instance();
  auto const build = [&](char const* type, std::vector<std::string> const& args) {
    return Kiv::ptr_cast<BaseTransportDescriptor>(registry.construct(type, args));
  };
  auto const i2c = build("TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "0x50"});
  ASSERT_TRUE(i2c);
  for (auto [attribute, text] : {std::pair{"type", "i2c"}, {"protocol", "I2cSmbusIoctl"},
                                 {"flavour", "I2cSmbusDataBlock"}, {"devNode", "/dev/i2c-0"}, {"devId", "80"}})
    EXPECT_EQ(registry.attribute(*i2c, attribute), text) << attribute;
  auto const vorm = build("TarnRegFile::I2cVormTransportDescriptor", {"None", "7"});
  ASSERT_TRUE(vorm);
  EXPECT_EQ(registry.attribute(*vorm, "devId"), "7");
  EXPECT_EQ(registry.attribute(*vorm, "vorm"), "None");
  auto const pci = build("TarnRegFile::PciTransportDescriptor", {"None"});
  ASSERT_TRUE(pci);
  EXPECT_EQ(registry.attribute(*pci, "pciDov"), "None");
  auto const mock = build("TarnRegFile::MockTransportDescriptor", {});
  ASSERT_TRUE(mock);
  EXPECT_EQ(registry.attribute(*mock, "dumpPath"), "/tmp/MockTarnDebugReg.csv");
  EXPECT_EQ(registry.attribute(*build("TarnRegFile::MockTransportDescriptor", {"/tmp/chip0.csv"}), "dumpPath"),
            "/tmp/chip0.csv");

  std::pair<char const*, std::vector<std::string>> const refused[] = {
      {"TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0"}},
      {"TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "fifty"}},
      {"TarnRegFile::I2cVormTransportDescriptor", {"someVorm", "1"}},
      // The PCI address is checked before anything is opened.
      {"TarnRegFile::PciTransportDescriptor", {"../../etc/passwd", "0"}},
  };
  for (auto const& [type, args] : refused)
    EXPECT_THROW(registry.construct(type, args), std::runtime_error) << type << " with " << args.size() << " args";
}

}  // namespace
