// Transport enumerations and descriptors: literals, triples and the generic interface.
#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivGeneric.h"

#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportDescriptorEnum.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace {

using namespace TarnRegFile;

// Every text route of one enumeration agrees with its literal table; a value past the table is refused.
template <class E>
void expectLiterals(std::vector<char const*> const& literals, E (*byValue)(unsigned), E (*byName)(Kiv::String const&)) {
  for (unsigned v = 0; v < literals.size(); ++v) {
    E const e = byValue(v);
    EXPECT_EQ(static_cast<unsigned>(e), v) << literals[v];
    EXPECT_EQ(byName(Kiv::String(literals[v])), e);
    EXPECT_EQ(fmt::format("{} {} {} {}", stringValue(e), valueToStrep(e), e, testing::PrintToString(e)),
              fmt::format("{0} '{0}' {0} {0}", literals[v]));
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

// Each kind of descriptor, built by type name with text arguments as the generic interface
// does, fixes its triple and keeps its arguments; bad arguments are refused.
TEST(TransportDescriptor, GenericConstructionTriplesAndAttributes) {
  auto& registry = Kiv::TypeRegistry::instance();
  struct Case {
    char const* type;
    std::vector<std::string> args;
    std::string triple;  // empty: refused
    std::vector<std::pair<char const*, char const*>> attributes;
  };
  Case const cases[] = {
      {"TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "0x50"},
       "i2c/I2cSmbusIoctl/I2cSmbusDataBlock", {{"devNode", "/dev/i2c-0"}, {"devId", "80"}}},
      {"TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataWord", "/dev/i2c-3", "7"},
       "i2c/I2cSmbusIoctl/I2cSmbusDataWord", {{"devNode", "/dev/i2c-3"}, {"devId", "7"}}},
      {"TarnRegFile::I2cVormTransportDescriptor", {"None", "7"}, "i2c/I2cVorm/I2cSmbusVorm",
       {{"devId", "7"}, {"vorm", "None"}}},
      {"TarnRegFile::PciTransportDescriptor", {"None"}, "pci/DirectAccess/PciDov", {{"pciDov", "None"}}},
      {"TarnRegFile::MockTransportDescriptor", {}, "mock/mockProtocol/mockFlavour",
       {{"dumpPath", "/tmp/MockTarnDebugReg.csv"}}},
      {"TarnRegFile::MockTransportDescriptor", {"/tmp/chip0.csv"}, "mock/mockProtocol/mockFlavour",
       {{"dumpPath", "/tmp/chip0.csv"}}},
      {"TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0"}, "", {}},
      {"TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "fifty"}, "", {}},
      {"TarnRegFile::I2cVormTransportDescriptor", {"someVorm", "1"}, "", {}},
      {"TarnRegFile::PciTransportDescriptor", {"../../etc/passwd", "0"}, "", {}},  // checked before anything is opened
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(fmt::format("{} with {} args", c.type, c.args.size()));
    if (c.triple.empty()) {
      EXPECT_THROW(registry.construct(c.type, c.args), std::runtime_error);
      continue;
    }
    auto const d = Kiv::ptr_cast<BaseTransportDescriptor>(registry.construct(c.type, c.args));
    ASSERT_TRUE(d);
    EXPECT_EQ(registry.attribute(*d, "type") + "/" + registry.attribute(*d, "protocol") + "/" +
                  registry.attribute(*d, "flavour"),
              c.triple);
    for (auto [attribute, text] : c.attributes) EXPECT_EQ(registry.attribute(*d, attribute), text) << attribute;
  }
}

}  // namespace
