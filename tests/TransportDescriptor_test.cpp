// Transport enumerations and descriptors: literals, triples, factories and the generic interface.
#include "KivException.h"
#include "KivGeneric.h"
#include "PciDov.h"

#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportDescriptorEnum.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

using namespace TarnRegFile;

TEST(TransportDescriptorEnum, LiteralsAndValues) {
  EXPECT_EQ(stringValue(TransportType{0}), "i2c");
  EXPECT_EQ(stringValue(TransportType{1}), "pci");
  EXPECT_EQ(stringValue(TransportType{2}), "mock");
  char const* const protocols[] = {"DirectAccess", "I2cVorm", "I2cSmbusIoctl", "mockProtocol"};
  for (unsigned v = 0; v < std::size(protocols); ++v) {
    EXPECT_EQ(stringValue(TransportProtocolInstance(v)), protocols[v]);
    EXPECT_EQ(TransportProtocolInstance(Kiv::String(protocols[v])), TransportProtocol(v));
  }
  char const* const flavours[] = {"PciDov", "I2cSmbusVorm", "I2cSmbusDataBlock", "I2cSmbusDataWord", "mockFlavour"};
  for (unsigned v = 0; v < std::size(flavours); ++v) {
    EXPECT_EQ(stringValue(TransportFlavourInstance(v)), flavours[v]);
    EXPECT_EQ(TransportFlavourInstance(Kiv::String(flavours[v])), TransportFlavour(v));
  }
  EXPECT_EQ(TransportFlavourInstance("I2cSmbusDataWord"), TransportFlavour::I2cSmbusDataWord);
  EXPECT_EQ(static_cast<unsigned>(TransportFlavourInstance("I2cSmbusDataWord")), 3u);
  EXPECT_EQ(TransportTypeInstance("mock"), TransportType::mock);
}

TEST(TransportDescriptorEnum, RegisteredInOrderTypeProtocolFlavour) {
  auto const& table = transportDescriptorEnumTable();
  EXPECT_STREQ(table.typeName(0), "TarnRegFile::TransportType");
  EXPECT_STREQ(table.typeName(1), "TarnRegFile::TransportProtocol");
  EXPECT_STREQ(table.typeName(2), "TarnRegFile::TransportFlavour");
}

TEST(TransportDescriptorEnum, OutsideTheTableIsTheRuntimesRangeError) {
  EXPECT_THROW(TransportTypeInstance(3u), Kiv::RangeException);
  EXPECT_THROW(TransportFlavourInstance(Kiv::String("PciDOV")), Kiv::RangeException);
  EXPECT_THROW(stringValue(TransportProtocol{4}), Kiv::RangeException);
}

TEST(TransportDescriptorEnum, TextFormsParsingStreamsAndFormatting) {
  EXPECT_EQ(valueToStrep(TransportType::pci), "'pci'");
  EXPECT_EQ(valueToStrep(TransportFlavour::mockFlavour), "'mockFlavour'");

  std::string const text = "'I2cSmbusIoctl', rest";
  Kiv::String::IteratorConst pos = text.data();
  TransportProtocol protocol{};
  sequenceToValue(pos, text.data() + text.size(), &protocol);
  EXPECT_EQ(protocol, TransportProtocol::I2cSmbusIoctl);
  EXPECT_EQ(std::string_view(pos), ", rest");

  std::string const bare = "I2cSmbusDataBlock";
  pos = bare.data();
  TransportFlavour flavour{};
  sequenceToValue(pos, bare.data() + bare.size(), &flavour);
  EXPECT_EQ(flavour, TransportFlavour::I2cSmbusDataBlock);

  std::string const unknown = "usb";
  pos = unknown.data();
  TransportType type = TransportType::pci;
  EXPECT_THROW(sequenceToValue(pos, unknown.data() + unknown.size(), &type), Kiv::RangeException);
  EXPECT_EQ(type, TransportType::pci);
  EXPECT_EQ(pos, unknown.data());

  std::ostringstream os;
  os << TransportType::i2c << ' ' << TransportProtocol::I2cVorm << ' ' << TransportFlavour::PciDov;
  EXPECT_EQ(os.str(), "i2c I2cVorm PciDov");

  EXPECT_EQ(fmt::format("Unknown transport type '{}'", TransportType::i2c), "Unknown transport type 'i2c'");
  EXPECT_EQ(fmt::format("{}/{}", TransportProtocol::mockProtocol, TransportFlavour::I2cSmbusVorm),
            "mockProtocol/I2cSmbusVorm");
  // A value outside the table still formats, so an error text about it can be built.
  EXPECT_EQ(fmt::format("{}", TransportType{200}), "200");
}

struct Triple {
  unsigned type, protocol, flavour;
  bool operator==(Triple const&) const = default;
};
Triple tripleOf(BaseTransportDescriptor const& d) {
  return {static_cast<unsigned>(d.type()), static_cast<unsigned>(d.protocol()), static_cast<unsigned>(d.flavour())};
}

TEST(TransportDescriptor, EveryKindFixesItsTriple) {
  EXPECT_EQ(tripleOf(*mockTransportDescriptorFactory()), (Triple{2, 3, 4}));
  EXPECT_EQ(tripleOf(*MockTransportDescriptor::MockTransportDescriptorIs()), (Triple{2, 3, 4}));
  EXPECT_EQ(tripleOf(*pciTransportDescriptorFactory(nullptr)), (Triple{1, 0, 0}));
  EXPECT_EQ(tripleOf(*i2cVormTransportDescriptorFactory(nullptr, 0x50)), (Triple{0, 1, 1}));
  auto const i2c = i2cTransportDescriptorFactory(TransportFlavour::I2cSmbusDataBlock, "/dev/i2c-3", 0x50);
  EXPECT_EQ(tripleOf(*i2c), (Triple{0, 2, 2}));
  EXPECT_EQ(i2c->devNode(), "/dev/i2c-3");
  EXPECT_EQ(i2c->devId(), 0x50u);
  auto const word = I2cTransportDescriptor::I2cTransportDescriptorIs(TransportFlavour::I2cSmbusDataWord, "n", 1);
  EXPECT_EQ(tripleOf(*word), (Triple{0, 2, 3}));

  // Built directly, the base has protocol and flavour 0: with "pci" that is the PCI triple.
  auto const base = Kiv::create<BaseTransportDescriptor>(TransportType::pci);
  EXPECT_EQ(tripleOf(*base), (Triple{1, 0, 0}));
  EXPECT_TRUE(base->hasNotificationActive());
  EXPECT_TRUE(i2c->hasNotificationActive());
}

TEST(TransportDescriptor, PciDescriptorHoldsAReferenceToTheAccessObject) {
  char dir[] = "/tmp/tarn-desc-XXXXXX";
  ASSERT_TRUE(::mkdtemp(dir));
  std::string const file = std::string(dir) + "/bar0";
  std::ofstream(file) << std::string(4096, '\0');
  {
    auto dov = Hardware::pciDovImplFactory(file);
    U32 const before = dov->references();
    auto d = PciTransportDescriptor::PciTransportDescriptorIs(dov);
    EXPECT_EQ(d->pciDov().ptr(), dov.ptr());
    EXPECT_EQ(dov->references(), before + 1);
    auto const attr = Kiv::TypeRegistry::instance().attribute(*d, "pciDov");
    EXPECT_EQ(attr, "<PciDovImpl '" + file + "'>");
    d = nullptr;
    EXPECT_EQ(dov->references(), before);
  }
  std::filesystem::remove_all(dir);
}

TEST(TransportDescriptor, GenericConstructionAndAttributeReads) {
  auto& registry = Kiv::TypeRegistry::instance();
  auto const built =
      registry.construct("TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "0x50"});
  auto const i2c = Kiv::ptr_cast<I2cTransportDescriptor>(built);
  ASSERT_TRUE(i2c);
  EXPECT_EQ(tripleOf(*i2c), (Triple{0, 2, 2}));
  EXPECT_EQ(registry.attribute(*i2c, "type"), "i2c");
  EXPECT_EQ(registry.attribute(*i2c, "protocol"), "I2cSmbusIoctl");
  EXPECT_EQ(registry.attribute(*i2c, "flavour"), "I2cSmbusDataBlock");
  EXPECT_EQ(registry.attribute(*i2c, "devNode"), "/dev/i2c-0");
  EXPECT_EQ(registry.attribute(*i2c, "devId"), "80");

  auto const mock = Kiv::ptr_cast<MockTransportDescriptor>(registry.construct("TarnRegFile::MockTransportDescriptor", {}));
  ASSERT_TRUE(mock);
  EXPECT_EQ(registry.attribute(*mock, "flavour"), "mockFlavour");

  auto const pci = Kiv::ptr_cast<PciTransportDescriptor>(registry.construct("TarnRegFile::PciTransportDescriptor", {"None"}));
  ASSERT_TRUE(pci);
  EXPECT_FALSE(pci->pciDov());
  EXPECT_EQ(registry.attribute(*pci, "pciDov"), "None");

  auto const vorm =
      Kiv::ptr_cast<I2cVormTransportDescriptor>(registry.construct("TarnRegFile::I2cVormTransportDescriptor", {"None", "7"}));
  ASSERT_TRUE(vorm);
  EXPECT_EQ(vorm->devId(), 7u);
  EXPECT_FALSE(vorm->hasVorm());
  EXPECT_EQ(registry.attribute(*vorm, "vorm"), "None");
  EXPECT_EQ(registry.attribute(*vorm, "protocol"), "I2cVorm");
}

TEST(TransportDescriptor, GenericConstructionRefusesBadArguments) {
  auto& registry = Kiv::TypeRegistry::instance();
  auto const refuses = [&](char const* type, std::vector<std::string> const& args) {
    EXPECT_THROW(registry.construct(type, args), std::runtime_error) << type << " with " << args.size() << " args";
  };
  refuses("TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0"});
  refuses("TarnRegFile::I2cTransportDescriptor", {"Block", "/dev/i2c-0", "1"});
  refuses("TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock x", "/dev/i2c-0", "1"});
  refuses("TarnRegFile::I2cTransportDescriptor", {"I2cSmbusDataBlock", "/dev/i2c-0", "fifty"});
  refuses("TarnRegFile::MockTransportDescriptor", {"extra"});
  refuses("TarnRegFile::I2cVormTransportDescriptor", {"someVorm", "1"});
  // The PCI address is checked before anything is opened.
  refuses("TarnRegFile::PciTransportDescriptor", {"../../etc/passwd", "0"});
}

}  // namespace
