#include "TarnRegFile/TransportMethod.h"

#include "KivException.h"
#include "KivGeneric.h"
#include "KivHash.h"
#include "KivValueText.h"
#include "SigbusGuard.h"
#include "Trace.h"

#include "TarnRegFile/MockTransportMethodImpl.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>
#include <stdexcept>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/TransportMethod");

using HardwareRegisterFile = Hardware::TarnRegFile::HardwareRegisterFile;

constexpr uint32_t kFailedRead = 0xFFFFFFFF;
constexpr char const* kNoImplementation = "TransportMethod implementation does not exist";

// Constructor hooks of implementations in other units. Constant-initialised, so
// a unit may register its hook from its own load-time initialiser whatever the
// order in which units are initialised.
constinit TransportMethod::PciImplementationFn gPciImplementation = nullptr;
constinit TransportMethod::I2cImplementationFn gI2cImplementation = nullptr;
constinit TransportMethod::I2cVormImplementationFn gI2cVormImplementation = nullptr;

constexpr TransportKey kPciKey{TransportType::pci, TransportProtocol::DirectAccess, TransportFlavour::PciDov};
constexpr TransportKey kI2cVormKey{TransportType::i2c, TransportProtocol::I2cVorm, TransportFlavour::I2cSmbusVorm};
constexpr TransportKey kI2cBlockKey{TransportType::i2c, TransportProtocol::I2cSmbusIoctl,
                                    TransportFlavour::I2cSmbusDataBlock};
constexpr TransportKey kI2cWordKey{TransportType::i2c, TransportProtocol::I2cSmbusIoctl,
                                   TransportFlavour::I2cSmbusDataWord};
constexpr TransportKey kMockKey{TransportType::mock, TransportProtocol::mockProtocol, TransportFlavour::mockFlavour};

// The i2c-dev implementation's own flavour numbers.
constexpr U8 kI2cFlavourBlockData = 1;
constexpr U8 kI2cFlavourWordData = 2;

std::string keyText(TransportKey const& key) {
  return fmt::format("{}/{}/{}", key.type, key.protocol, key.flavour);
}

// The descriptor of a row must be of the row's class. Building a base descriptor
// with a row's triple is a caller's mistake, reported like every transport error.
template <class D>
D const& descriptorAs(Kiv::Ptr<BaseTransportDescriptor> const& descriptor, TransportKey const& key,
                      char const* expected) {
  auto const* concrete = dynamic_cast<D const*>(descriptor.ptr());
  if (!concrete)
    throw std::runtime_error(fmt::format("descriptor of transport '{}' is a {}, not a {}", keyText(key),
                                         descriptor->fwkType(), expected));
  return *concrete;
}

template <class Fn>
Fn hookOf(Fn fn, TransportKey const& key) {
  if (!fn)
    throw std::runtime_error(
        fmt::format("transport implementation '{}' is not available in this build", keyText(key)));
  return fn;
}

BaseTransportMethodImpl* createPci(Kiv::Ptr<BaseTransportDescriptor> const& descriptor, Kiv::String const& csvPath,
                                   Kiv::Ptr<HardwareRegisterFile> const& regFileModel) {
  auto const& pci = descriptorAs<PciTransportDescriptor>(descriptor, kPciKey, "TarnRegFile::PciTransportDescriptor");
  return hookOf(gPciImplementation, kPciKey)(pci.pciDov(), csvPath.c_str(), regFileModel);
}

BaseTransportMethodImpl* createI2cVorm(Kiv::Ptr<BaseTransportDescriptor> const& descriptor,
                                       Kiv::String const& csvPath,
                                       Kiv::Ptr<HardwareRegisterFile> const& regFileModel) {
  auto const& vorm =
      descriptorAs<I2cVormTransportDescriptor>(descriptor, kI2cVormKey, "TarnRegFile::I2cVormTransportDescriptor");
  return hookOf(gI2cVormImplementation, kI2cVormKey)(vorm, csvPath.c_str(), regFileModel);
}

BaseTransportMethodImpl* createI2c(TransportKey const& key, U8 i2cFlavour,
                                   Kiv::Ptr<BaseTransportDescriptor> const& descriptor, Kiv::String const& csvPath,
                                   Kiv::Ptr<HardwareRegisterFile> const& regFileModel) {
  auto const& i2c = descriptorAs<I2cTransportDescriptor>(descriptor, key, "TarnRegFile::I2cTransportDescriptor");
  return hookOf(gI2cImplementation, key)(i2c.devNode().c_str(), static_cast<int>(i2c.devId()), csvPath.c_str(),
                                         i2cFlavour, regFileModel);
}

BaseTransportMethodImpl* createMock(Kiv::Ptr<BaseTransportDescriptor> const&, Kiv::String const& csvPath,
                                    Kiv::Ptr<HardwareRegisterFile> const& regFileModel) {
  return new MockTransportMethodImpl(csvPath.c_str(), regFileModel);
}

TransportMethod::ImplementationTable const& table() {
  static TransportMethod::ImplementationTable const t{
      {kPciKey, createPci},
      {kI2cVormKey, createI2cVorm},
      {kI2cBlockKey,
       [](auto const& d, auto const& csv, auto const& model) {
         return createI2c(kI2cBlockKey, kI2cFlavourBlockData, d, csv, model);
       }},
      {kI2cWordKey,
       [](auto const& d, auto const& csv, auto const& model) {
         return createI2c(kI2cWordKey, kI2cFlavourWordData, d, csv, model);
       }},
      {kMockKey, createMock},
  };
  return t;
}

// Builds the table when the library is loaded; afterwards it is only read.
[[maybe_unused]] TransportMethod::ImplementationTable const& kTableBuiltAtLoad = table();

}  // namespace

// ---------------------------------------------------------------- TransportMethodRegFile

TransportMethodRegFile::TransportMethodRegFile(Kiv::String::IteratorConst& pos,
                                               Kiv::String::IteratorConst const& end) {
  Kiv::ValueReader r(pos, end);
  r.expect("Value('TarnRegFile::TransportMethodRegFile', ** {");
  r.expect("'csvPath': ");
  r.attr("csvPath", csvPath_);
  r.expect(", 'regFileModel': ");
  constexpr std::string_view none = "None";
  if (static_cast<size_t>(end - pos) < none.size() || std::string_view(pos, none.size()) != none)
    throw Kiv::ParseException("regFileModel: only None can be given in text (a register-file model is a live object)");
  pos += none.size();
  r.expect("})");
}

std::string TransportMethodRegFile::valueToStrep() const {
  std::string out;
  Kiv::ValueWriter w(out, "TarnRegFile::TransportMethodRegFile");
  w.attr("csvPath", csvPath_).attr("regFileModel", regFileModel_);
  w.end();
  return out;
}

std::ostream& operator<<(std::ostream& os, TransportMethodRegFile const& v) { return os << v.valueToStrep(); }

// ---------------------------------------------------------------- TransportMethodError

TransportMethodError::TransportMethodError(Kiv::String const& chipName) : Kiv::Entity(chipName), chipName_(chipName) {}

Kiv::Ptr<TransportMethodError> TransportMethodError::TransportMethodErrorIs(Kiv::String const& chipName) {
  return Kiv::create<TransportMethodError>(chipName);
}

Kiv::Ptr<TransportMethodError> transportMethodErrorFactory(Kiv::String const& chipName) {
  return TransportMethodError::TransportMethodErrorIs(chipName);
}

void TransportMethodError::errorIs(bool error) {
  if (error == error_) return;
  error_ = error;
  notify<Notifiee>([](Notifiee& n) { n.onError(); });
}

void TransportMethodError::errorSignal() {
  error_ = true;
  notify<Notifiee>([](Notifiee& n) { n.onError(); });
}

// ---------------------------------------------------------------- TransportKey

size_t TransportKeyHash::operator()(TransportKey const& k) const noexcept {
  return Kiv::Hash(0x54524e53u)
      .mix1(static_cast<U8>(k.type))
      .mix1(static_cast<U8>(k.protocol))
      .mix1(static_cast<U8>(k.flavour))
      .result();
}

// ---------------------------------------------------------------- TransportMethod: table

TransportMethod::ImplementationTable const& TransportMethod::implementationTable() { return table(); }

TransportMethod::PciImplementationFn TransportMethod::pciImplementationIs(PciImplementationFn fn) noexcept {
  return std::exchange(gPciImplementation, fn);
}

TransportMethod::I2cImplementationFn TransportMethod::i2cImplementationIs(I2cImplementationFn fn) noexcept {
  return std::exchange(gI2cImplementation, fn);
}

TransportMethod::I2cVormImplementationFn TransportMethod::i2cVormImplementationIs(
    I2cVormImplementationFn fn) noexcept {
  return std::exchange(gI2cVormImplementation, fn);
}

// ---------------------------------------------------------------- TransportMethod: creation

TransportMethod::TransportMethod(Kiv::String const& name) : Kiv::Entity(name) {}

TransportMethod::~TransportMethod() { handleDeletion(); }

Kiv::Ptr<TransportMethod> TransportMethod::TransportMethodIs(Kiv::String const& name) {
  return Kiv::create<TransportMethod>(name);
}

Kiv::Ptr<TransportMethod> transportMethodFactory(Kiv::String const& name) {
  return TransportMethod::TransportMethodIs(name);
}

// ---------------------------------------------------------------- TransportMethod: attributes

void TransportMethod::errorNotifierIs(Kiv::String const& chipName) {
  errorNotifier_ = TransportMethodError::TransportMethodErrorIs(chipName);
  notify<Notifiee>([](Notifiee& n) { n.onErrorNotifier(); });
}

void TransportMethod::errorNotifierDel() {
  if (!errorNotifier_) return;
  errorNotifier_ = nullptr;
  notify<Notifiee>([](Notifiee& n) { n.onErrorNotifier(); });
}

void TransportMethod::csvPathIs(Kiv::String const& csvPath) {
  if (csvPath == csvPath_) return;
  csvPath_ = csvPath;
  notify<Notifiee>([](Notifiee& n) { n.onCsvPath(); });
}

void TransportMethod::regFileModelIs(Kiv::Ptr<HardwareRegisterFile> const& regFileModel) {
  if (regFileModel == regFileModel_) return;
  regFileModel_ = regFileModel;
  notify<Notifiee>([](Notifiee& n) { n.onRegFileModel(); });
}

void TransportMethod::descriptorIs(Kiv::Ptr<BaseTransportDescriptor> const& descriptor) {
  if (descriptor == descriptor_) return;
  descriptor_ = descriptor;
  notify<Notifiee>([](Notifiee& n) { n.onDescriptor(); });
}

void TransportMethod::implPtrIs(BaseTransportMethodImpl* impl) {
  if (impl == impl_) return;
  // Taking back a retired implementation must not leave it in the list twice.
  retired_.erase(std::remove(retired_.begin(), retired_.end(), impl), retired_.end());
  if (impl_) retired_.push_back(impl_);
  impl_ = impl;
}

// ---------------------------------------------------------------- TransportMethod: configuration

void TransportMethod::fullInit(Kiv::Ptr<BaseTransportDescriptor> const& descriptor,
                               TransportMethodRegFile const& regFile) {
  kTrace.line(5, "fullInit {}: csvPath '{}', model {}", name(), regFile.csvPath(),
              regFile.regFileModel() ? "given" : "none");
  if (regFile.csvPath().empty() && !regFile.regFileModel())
    throw std::runtime_error("CSV and KIV Ptr cannot be both empty.");
  csvPathIs(regFile.csvPath());
  regFileModelIs(regFile.regFileModel());
  descriptorIs(descriptor);
  if (!descriptor) throw std::runtime_error("TransportDescriptor is null!");

  auto const& rows = table();
  auto const row = rows.find(TransportKey{descriptor->type(), descriptor->protocol(), descriptor->flavour()});
  if (row == rows.end()) throw std::runtime_error(fmt::format("Unknown transport type '{}'", descriptor->type()));

  // The CSV map wins: the model is deliberately not handed on when both are given.
  BaseTransportMethodImpl* const created = csvPath_.empty() ? row->second(descriptor, Kiv::String(), regFileModel_)
                                                            : row->second(descriptor, csvPath_, nullptr);
  implPtrIs(created);
  if (!created) throw std::runtime_error("TransportMethod implementation init failed");
  errorNotifierIs(name());
  kTrace.line(5, "fullInit {}: done", name());
}

void TransportMethod::init(Kiv::Ptr<BaseTransportDescriptor> const& descriptor, Kiv::String const& csvPath) {
  fullInit(descriptor, TransportMethodRegFile(csvPath, nullptr));
}

void TransportMethod::handleDeletion() {
  if (!impl_ && retired_.empty()) return;
  kTrace.line(5, "handleDeletion {}", name());
  delete std::exchange(impl_, nullptr);
  // Newest first, the reverse of creation.
  for (auto it = retired_.rbegin(); it != retired_.rend(); ++it) delete *it;
  retired_.clear();
}

// ---------------------------------------------------------------- TransportMethod: names

BaseTransportMethodImpl& TransportMethod::impl() const {
  if (!impl_) [[unlikely]]
    throw std::runtime_error(kNoImplementation);
  return *impl_;
}

uint32_t TransportMethod::regNameToAddr(Kiv::String const& regName) const {
  return impl().regFileHelper()->findRegisterByName(regName).address;
}

Kiv::String TransportMethod::regAddrToName(uint32_t addr) const {
  return impl().regFileHelper()->findRegNameByAddr(addr);
}

Kiv::Ptr<RegList> TransportMethod::regList() const { return impl().regFileHelper()->regList(); }

bool TransportMethod::hasRegName(Kiv::String const& regName) const {
  return impl().regFileHelper()->hasRegName(regName);
}

// ---------------------------------------------------------------- TransportMethod: access

template <class Access>
void TransportMethod::tryPerformIO(Kiv::String const& regName, Access&& access) {
  BaseTransportMethodImpl& implementation = impl();
  try {
    access(implementation);
    return;
  } catch (Kiv::SigbusException const&) {
    kTrace.lineIn(0, "tryPerformIO", "Got SIGBUS when performing operation on register '{}'", regName);
  } catch (std::runtime_error const& e) {
    kTrace.lineIn(0, "tryPerformIO", "TransportMethod error on register '{}': {}", regName, e.what());
  }
  // Outside the handlers: observers of the notifier run no code inside a catch block.
  handleExceptionGeneric();
}

template <class Access, class Fail>
void TransportMethod::tryWithCallback(Access&& access, Fail&& fail) {
  BaseTransportMethodImpl& implementation = impl();
  try {
    access(implementation);
    return;
  } catch (std::runtime_error const&) {
    // Kiv::SigbusException is a std::runtime_error: both end here, without a trace line.
  }
  fail();
  handleExceptionGeneric();
}

uint32_t TransportMethod::regRead(Kiv::String const& regName) {
  uint32_t result = kFailedRead;
  tryPerformIO(regName, [&](BaseTransportMethodImpl& i) { result = i.regRead(regName.c_str()); });
  return result;
}

void TransportMethod::regWrite(Kiv::String const& regName, uint32_t value) {
  tryPerformIO(regName, [&](BaseTransportMethodImpl& i) { i.regWrite(regName.c_str(), value); });
}

void TransportMethod::regReadWithCallback(Kiv::String const& regName, RegReadCallback const& cb) {
  tryWithCallback([&](BaseTransportMethodImpl& i) { i.regReadWithCallback(regName.c_str(), cb); },
                  [&] {
                    if (cb) cb(regName.c_str(), RegCallbackStatusFailure, kFailedRead);
                  });
}

void TransportMethod::regWriteWithCallback(Kiv::String const& regName, uint32_t value, RegWriteCallback const& cb) {
  tryWithCallback([&](BaseTransportMethodImpl& i) { i.regWriteWithCallback(regName.c_str(), value, cb); },
                  [&] {
                    if (cb) cb(regName.c_str(), RegCallbackStatusFailure);
                  });
}

void TransportMethod::handleExceptionGeneric() {
  kTrace.lineIn(0, "handleExceptionGeneric", "TransportMethod exception caught, Notifying agent: {}", name());
  // A local reference: an observer may drop or replace the notifier while being told.
  if (auto const notifier = errorNotifier_) notifier->errorSignal();
}

// ---------------------------------------------------------------- generic interface

namespace {

template <class E, class F>
Kiv::TypeRegistry::Method reader(F read) {
  return [read](Kiv::Entity& e, std::vector<std::string> const& args) -> std::string {
    if (!args.empty()) throw std::invalid_argument("an attribute read takes no argument");
    auto* self = dynamic_cast<E*>(&e);
    if (!self) throw std::invalid_argument(std::string("attribute does not apply to ") + e.fwkType());
    return read(*self);
  };
}

bool const kRegistered = [] {
  auto& registry = Kiv::TypeRegistry::instance();

  auto& error = registry.typeIs("TarnRegFile::TransportMethodError");
  error.factory = [](Kiv::String const& name) {
    return Kiv::Ptr<Kiv::Entity>(TransportMethodError::TransportMethodErrorIs(name));
  };
  error.attributes["chipName"] = reader<TransportMethodError>([](auto& e) { return e.chipName().str(); });
  error.attributes["error"] = reader<TransportMethodError>([](auto& e) { return Kiv::toStrep(e.error()); });
  error.attributeWriters["error"] = Kiv::method<&TransportMethodError::errorIs>();

  auto& transport = registry.typeIs("TarnRegFile::TransportMethod");
  transport.factory = [](Kiv::String const& name) {
    return Kiv::Ptr<Kiv::Entity>(TransportMethod::TransportMethodIs(name));
  };
  transport.attributes["name"] = reader<TransportMethod>([](auto& t) { return t.name().str(); });
  transport.attributes["csvPath"] = reader<TransportMethod>([](auto& t) { return t.csvPath().str(); });
  transport.attributes["regFileModel"] = reader<TransportMethod>([](auto& t) { return Kiv::toStrep(t.regFileModel()); });
  transport.attributes["descriptor"] = reader<TransportMethod>([](auto& t) { return Kiv::toStrep(t.descriptor()); });
  transport.methods["regRead"] = Kiv::method<&TransportMethod::regRead>();
  transport.methods["regWrite"] = Kiv::method<&TransportMethod::regWrite>();
  transport.methods["regNameToAddr"] = Kiv::method<&TransportMethod::regNameToAddr>();
  transport.methods["regAddrToName"] = Kiv::method<&TransportMethod::regAddrToName>();
  transport.methods["hasRegName"] = Kiv::method<&TransportMethod::hasRegName>();
  transport.methods["handleExceptionGeneric"] = Kiv::method<&TransportMethod::handleExceptionGeneric>();
  return true;
}();

}  // namespace

}  // namespace TarnRegFile
