#include "TarnRegFile/TransportDescriptor.h"

#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/PciDov.h"

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace TarnRegFile {

// ---------------------------------------------------------------- BaseTransportDescriptor

BaseTransportDescriptor::BaseTransportDescriptor(TransportType type)
    : BaseTransportDescriptor(type, TransportProtocol{0}, TransportFlavour{0}) {}

BaseTransportDescriptor::BaseTransportDescriptor(TransportType type, TransportProtocol protocol,
                                                 TransportFlavour flavour)
    : type_(type), protocol_(protocol), flavour_(flavour) {}

BaseTransportDescriptor::~BaseTransportDescriptor() = default;

// ---------------------------------------------------------------- PCI

PciTransportDescriptor::PciTransportDescriptor(Kiv::Ptr<Hardware::DovImpl> const& pciDov)
    : BaseTransportDescriptor(TransportType::pci, TransportProtocol::DirectAccess, TransportFlavour::PciDov),
      pciDov_(pciDov) {}

PciTransportDescriptor::~PciTransportDescriptor() = default;

Kiv::Ptr<PciTransportDescriptor> PciTransportDescriptor::PciTransportDescriptorIs(
    Kiv::Ptr<Hardware::DovImpl> const& pciDov) {
  return Kiv::create<PciTransportDescriptor>(pciDov);
}

Kiv::Ptr<PciTransportDescriptor> pciTransportDescriptorFactory(Kiv::Ptr<Hardware::DovImpl> const& pciDov) {
  return PciTransportDescriptor::PciTransportDescriptorIs(pciDov);
}

// ---------------------------------------------------------------- asynchronous I2C

I2cVormTransportDescriptor::I2cVormTransportDescriptor(Kiv::Ptr<Kiv::PtrInterface> vorm, U32 devId, Erased)
    : BaseTransportDescriptor(TransportType::i2c, TransportProtocol::I2cVorm, TransportFlavour::I2cSmbusVorm),
      vorm_(std::move(vorm)),
      devId_(devId) {}

I2cVormTransportDescriptor::I2cVormTransportDescriptor(std::nullptr_t, U32 devId)
    : I2cVormTransportDescriptor(Kiv::Ptr<Kiv::PtrInterface>(), devId, Erased{}) {}

I2cVormTransportDescriptor::~I2cVormTransportDescriptor() = default;

Kiv::Ptr<I2cVormTransportDescriptor> I2cVormTransportDescriptor::I2cVormTransportDescriptorIs(std::nullptr_t,
                                                                                              U32 devId) {
  return Kiv::create<I2cVormTransportDescriptor>(nullptr, devId);
}

Kiv::Ptr<I2cVormTransportDescriptor> i2cVormTransportDescriptorFactory(std::nullptr_t, U32 devId) {
  return I2cVormTransportDescriptor::I2cVormTransportDescriptorIs(nullptr, devId);
}

// ---------------------------------------------------------------- i2c-dev

I2cTransportDescriptor::I2cTransportDescriptor(TransportFlavour flavour, Kiv::String const& devNode, U32 devId)
    : BaseTransportDescriptor(TransportType::i2c, TransportProtocol::I2cSmbusIoctl, flavour),
      devNode_(devNode),
      devId_(devId) {}

I2cTransportDescriptor::~I2cTransportDescriptor() = default;

Kiv::Ptr<I2cTransportDescriptor> I2cTransportDescriptor::I2cTransportDescriptorIs(TransportFlavour flavour,
                                                                                  Kiv::String const& devNode,
                                                                                  U32 devId) {
  return Kiv::create<I2cTransportDescriptor>(flavour, devNode, devId);
}

Kiv::Ptr<I2cTransportDescriptor> i2cTransportDescriptorFactory(TransportFlavour flavour, Kiv::String const& devNode,
                                                               U32 devId) {
  return I2cTransportDescriptor::I2cTransportDescriptorIs(flavour, devNode, devId);
}

// ---------------------------------------------------------------- mock

MockTransportDescriptor::MockTransportDescriptor(Kiv::String const& dumpPath)
    : BaseTransportDescriptor(TransportType::mock, TransportProtocol::mockProtocol, TransportFlavour::mockFlavour),
      dumpPath_(dumpPath) {}

MockTransportDescriptor::~MockTransportDescriptor() = default;

Kiv::Ptr<MockTransportDescriptor> MockTransportDescriptor::MockTransportDescriptorIs(Kiv::String const& dumpPath) {
  return Kiv::create<MockTransportDescriptor>(dumpPath);
}

Kiv::Ptr<MockTransportDescriptor> mockTransportDescriptorFactory(Kiv::String const& dumpPath) {
  return MockTransportDescriptor::MockTransportDescriptorIs(dumpPath);
}

// ---------------------------------------------------------------- generic interface

namespace {

void expectArgs(std::vector<std::string> const& args, size_t n) {
  if (args.size() != n)
    throw std::invalid_argument(fmt::format("expected {} argument(s), got {}", n, args.size()));
}

// A literal, bare or quoted, and nothing after it.
TransportFlavour flavourFromText(std::string const& text) {
  Kiv::String::IteratorConst pos = text.data();
  Kiv::String::IteratorConst const end = text.data() + text.size();
  TransportFlavour flavour{};
  try {
    sequenceToValue(pos, end, &flavour);
  } catch (std::exception const& e) {
    throw std::invalid_argument(e.what());
  }
  if (pos != end) throw std::invalid_argument(fmt::format("trailing text after flavour: {}", text));
  return flavour;
}

bool isNone(std::string const& text) { return text == "None" || text == "none"; }

template <class D, class F>
Kiv::TypeRegistry::Method reader(F read) {
  return [read](Kiv::Entity& e, std::vector<std::string> const& args) -> std::string {
    expectArgs(args, 0);
    auto* d = dynamic_cast<D*>(&e);
    if (!d) throw std::invalid_argument(std::string("attribute does not apply to ") + e.fwkType());
    return read(*d);
  };
}

void registerTripleReaders(Kiv::TypeRegistry::Type& t) {
  t.attributes["type"] = reader<BaseTransportDescriptor>([](auto& d) { return stringValue(d.type()).str(); });
  t.attributes["protocol"] =
      reader<BaseTransportDescriptor>([](auto& d) { return stringValue(d.protocol()).str(); });
  t.attributes["flavour"] = reader<BaseTransportDescriptor>([](auto& d) { return stringValue(d.flavour()).str(); });
}

std::string dovText(Kiv::Ptr<Hardware::DovImpl> const& dov) {
  if (!dov) return "None";
  if (auto const* pci = dynamic_cast<Hardware::PciDovImpl const*>(dov.ptr()))
    return fmt::format("<{} {}>", pci->kind(), Kiv::strep(Kiv::String(pci->path())));
  return fmt::format("<{}>", dov->kind());
}

bool const kRegistered = [] {
  auto& registry = Kiv::TypeRegistry::instance();

  auto& base = registry.typeIs("TarnRegFile::BaseTransportDescriptor");
  registerTripleReaders(base);

  // ("None") for a descriptor without device, or (PCI address, BAR index): the
  // address is validated by the PCI access object, so text cannot name an
  // arbitrary file to be mapped.
  auto& pci = registry.typeIs("TarnRegFile::PciTransportDescriptor");
  registerTripleReaders(pci);
  pci.attributes["pciDov"] = reader<PciTransportDescriptor>([](auto& d) { return dovText(d.pciDov()); });
  pci.constructor = [](std::vector<std::string> const& args) -> Kiv::Ptr<Kiv::PtrInterface> {
    if (args.size() == 1 && isNone(args[0])) return pciTransportDescriptorFactory(nullptr);
    if (args.size() != 2)
      throw std::invalid_argument("expected None, or a PCI address and a BAR index (\"0000:00:04.0\", \"0\")");
    auto const bar = static_cast<int>(Kiv::fromText<U8>(args[1]));
    Kiv::Ptr<Hardware::DovImpl> dov(Hardware::pciDovImplFactory(args[0], bar));
    return pciTransportDescriptorFactory(dov);
  };

  // The manager cannot be named in text; only a descriptor without one can be built.
  auto& vorm = registry.typeIs("TarnRegFile::I2cVormTransportDescriptor");
  registerTripleReaders(vorm);
  vorm.attributes["vorm"] =
      reader<I2cVormTransportDescriptor>([](auto& d) { return std::string(d.hasVorm() ? "<Hardware::Vorm>" : "None"); });
  vorm.attributes["devId"] = reader<I2cVormTransportDescriptor>([](auto& d) { return Kiv::toStrep(d.devId()); });
  vorm.constructor = [](std::vector<std::string> const& args) -> Kiv::Ptr<Kiv::PtrInterface> {
    expectArgs(args, 2);
    if (!isNone(args[0])) throw std::invalid_argument("the hardware-access manager can only be given as None");
    return i2cVormTransportDescriptorFactory(nullptr, Kiv::fromText<U32>(args[1]));
  };

  auto& i2c = registry.typeIs("TarnRegFile::I2cTransportDescriptor");
  registerTripleReaders(i2c);
  i2c.attributes["devNode"] = reader<I2cTransportDescriptor>([](auto& d) { return d.devNode().str(); });
  i2c.attributes["devId"] = reader<I2cTransportDescriptor>([](auto& d) { return Kiv::toStrep(d.devId()); });
  i2c.constructor = [](std::vector<std::string> const& args) -> Kiv::Ptr<Kiv::PtrInterface> {
    expectArgs(args, 3);
    return i2cTransportDescriptorFactory(flavourFromText(args[0]), Kiv::fromText<Kiv::String>(args[1]),
                                         Kiv::fromText<U32>(args[2]));
  };

  auto& mock = registry.typeIs("TarnRegFile::MockTransportDescriptor");
  registerTripleReaders(mock);
  mock.attributes["dumpPath"] = reader<MockTransportDescriptor>([](auto& d) { return d.dumpPath().str(); });
  // () for the default dump file, or (path).
  mock.constructor = [](std::vector<std::string> const& args) -> Kiv::Ptr<Kiv::PtrInterface> {
    if (args.empty()) return mockTransportDescriptorFactory();
    expectArgs(args, 1);
    return mockTransportDescriptorFactory(Kiv::fromText<Kiv::String>(args[0]));
  };
  return true;
}();

}  // namespace

}  // namespace TarnRegFile
