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
  // The text parser reads one literal and stops after it.
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

// Built by type name with text arguments, as the generic interface does; bad arguments are refused.
TEST(TransportDescriptor, GenericConstructionAndAttributeReads) {
  auto& registry = Kiv::TypeRegistry::instance();
  struct Case {
    char const* type;
    std::vector<std::string> args;
    std::vector<std::pair<char const*, char const*>> attributes;  // empty: refused
  };
  Case const cases[] = {
      {"TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "0x50"},
       {{"type", "i2c"}, {"protocol", "I2cSmbusIoctl"}, {"flavour", "I2cSmbusDataBlock"}, {"devNode", "/dev/i2c-0"},
        {"devId", "80"}}},
      {"TarnRegFile::I2cVormTransportDescriptor", {"None", "7"}, {{"devId", "7"}, {"vorm", "None"}}},
      {"TarnRegFile::PciTransportDescriptor", {"None"}, {{"pciDov", "None"}}},
      {"TarnRegFile::MockTransportDescriptor", {}, {{"dumpPath", "/tmp/MockTarnDebugReg.csv"}}},
      {"TarnRegFile::MockTransportDescriptor", {"/tmp/chip0.csv"}, {{"dumpPath", "/tmp/chip0.csv"}}},
      {"TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0"}, {}},
      {"TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "fifty"}, {}},
      {"TarnRegFile::I2cVormTransportDescriptor", {"someVorm", "1"}, {}},
      {"TarnRegFile::PciTransportDescriptor", {"../../etc/passwd", "0"}, {}},  // checked before anything is opened
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(fmt::format("{} with {} args", c.type, c.args.size()));
    if (c.attributes.empty()) {
      EXPECT_THROW(registry.construct(c.type, c.args), std::runtime_error);
      continue;
    }
    auto const d = Kiv::ptr_cast<BaseTransportDescriptor>(registry.construct(c.type, c.args));
    ASSERT_TRUE(d);
    for (auto [attribute, text] : c.attributes) EXPECT_EQ(registry.attribute(*d, attribute), text) << attribute;
  }
}

}  // namespace
