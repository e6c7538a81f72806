#include "TarnRegFile/TransportMethod.h"

#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/KivValueText.h"
#include "TarnRegFile/platform/SigbusGuard.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <algorithm>
#include <ostream>
#include <stdexcept>
#include <unordered_map>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/TransportMethod");

using HardwareRegisterFile = Hardware::TarnRegFile::HardwareRegisterFile;

constexpr uint32_t kFailedRead = 0xFFFFFFFF;
constexpr char const* kNoImplementation = "TransportMethod implementation does not exist";

using Registry = std::unordered_map<TransportKey, TransportMethod::TransportFactory, TransportKeyHash>;

// The process-wide registry. Built on first use, so that a backend may register its
// rows from its own load-time initialiser whatever the order in which units are
// initialised; only read once the library is loaded. The asynchronous I2C row
// exists without a factory until that backend registers one.
Registry& registry() {
  static Registry r{
      {kPciTransportKey, nullptr},      {kI2cVormTransportKey, nullptr}, {kI2cBlockTransportKey, nullptr},
      {kI2cWordTransportKey, nullptr}, {kMockTransportKey, nullptr},
  };
  return r;
}

[[maybe_unused]] Registry const& kRegistryBuiltAtLoad = registry();

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

void TransportMethodError::lastFailureIs(std::string_view regName, TransportOperation operation,
                                         TransportErrorKind kind, int errnum, std::string_view reason) {
  // Assigned in place, so the strings reuse what they hold: a transport that keeps
  // failing allocates nothing more per failure.
  lastFailure_.regName.assign(regName);
  lastFailure_.operation = operation;
  lastFailure_.kind = kind;
  lastFailure_.errnum = errnum;
  lastFailure_.reason.assign(reason);
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

// ---------------------------------------------------------------- registry

std::string transportKeyText(TransportKey const& key) {
  return fmt::format("{}/{}/{}", key.type, key.protocol, key.flavour);
}

void throwDescriptorMismatch(BaseTransportDescriptor const& descriptor, char const* expected) {
  TransportKey const key{descriptor.type(), descriptor.protocol(), descriptor.flavour()};
  throw std::runtime_error(fmt::format("descriptor of transport '{}' is a {}, not a {}", transportKeyText(key),
                                       descriptor.fwkType(), expected));
}

TransportMethod::TransportFactory TransportMethod::transportFactoryIs(TransportKey const& key,
                                                                      TransportFactory factory) {
  return std::exchange(registry()[key], factory);
}

TransportMethod::TransportFactory TransportMethod::transportFactory(TransportKey const& key) {
  auto const& rows = registry();
  auto const row = rows.find(key);
  if (row == rows.end()) throw std::runtime_error(fmt::format("Unknown transport type '{}'", key.type));
  return row->second;
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

  TransportKey const key{descriptor->type(), descriptor->protocol(), descriptor->flavour()};
  TransportFactory const factory = transportFactory(key);
  if (!factory)
    throw std::runtime_error(
        fmt::format("transport implementation '{}' is not available in this build", transportKeyText(key)));

  // The CSV map wins: the model is deliberately not handed on when both are given.
  BaseTransportMethodImpl* const created =
      factory(*descriptor, csvPath_.empty() ? TransportMethodRegFile(Kiv::String(), regFileModel_)
                                            : TransportMethodRegFile(csvPath_, nullptr));
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

// Returns true when the access succeeded. On failure the last failure is recorded
// (and, unless it is a callback form, traced) before the caller reports it.
template <class Access>
bool TransportMethod::tryPerformIO(Kiv::String const& regName, TransportOperation op, bool traced,
                                   Access&& access) {
  BaseTransportMethodImpl& implementation = impl();
  try {
    access(implementation);
    return true;
  } catch (Kiv::SigbusException const& e) {
    if (traced) kTrace.lineIn(0, "tryPerformIO", "Got SIGBUS when performing operation on register '{}'", regName);
    failed(regName, op, TransportErrorKind::BusError, 0, e.what());
  } catch (TransportError const& e) {
    if (traced) kTrace.lineIn(0, "tryPerformIO", "TransportMethod error on register '{}': {}", regName, e.what());
    failed(regName, op, e.kind(), e.errnum(), e.what());
  } catch (LookupError const& e) {
    if (traced) kTrace.lineIn(0, "tryPerformIO", "TransportMethod error on register '{}': {}", regName, e.what());
    failed(regName, op, TransportErrorKind::UnknownRegister, 0, e.what());
  } catch (std::runtime_error const& e) {
    if (traced) kTrace.lineIn(0, "tryPerformIO", "TransportMethod error on register '{}': {}", regName, e.what());
    failed(regName, op, TransportErrorKind::Other, 0, e.what());
  } catch (Kiv::RangeException const& e) {
    // A device address the bus cannot carry (the asynchronous I2C transport's 7-bit peripheral).
    if (traced) kTrace.lineIn(0, "tryPerformIO", "TransportMethod error on register '{}': {}", regName, e.what());
    failed(regName, op, TransportErrorKind::OutOfRange, 0, e.what());
  }
  return false;
}

void TransportMethod::failed(Kiv::String const& regName, TransportOperation op, TransportErrorKind kind, int errnum,
                             char const* reason) {
  if (!errorNotifier_) return;
  errorNotifier_->lastFailureIs(regName.view(), op, kind, errnum, reason);
}

uint32_t TransportMethod::regRead(Kiv::String const& regName) {
  uint32_t result = kFailedRead;
  // Outside the handlers: observers of the notifier run no code inside a catch block.
  if (!tryPerformIO(regName, TransportOperation::Read, true,
                    [&](BaseTransportMethodImpl& i) { result = i.regRead(regName.c_str()); }))
    handleExceptionGeneric();
  return result;
}

void TransportMethod::regWrite(Kiv::String const& regName, uint32_t value) {
  if (!tryPerformIO(regName, TransportOperation::Write, true,
                    [&](BaseTransportMethodImpl& i) { i.regWrite(regName.c_str(), value); }))
    handleExceptionGeneric();
}

// The callback forms write no trace line of their own: the callback is the report.
void TransportMethod::regReadWithCallback(Kiv::String const& regName, RegReadCallback const& cb) {
  if (tryPerformIO(regName, TransportOperation::Read, false,
                   [&](BaseTransportMethodImpl& i) { i.regReadWithCallback(regName.c_str(), cb); }))
    return;
  if (cb) cb(regName.c_str(), RegCallbackStatusFailure, kFailedRead);
  handleExceptionGeneric();
}

void TransportMethod::regWriteWithCallback(Kiv::String const& regName, uint32_t value, RegWriteCallback const& cb) {
  if (tryPerformIO(regName, TransportOperation::Write, false,
                   [&](BaseTransportMethodImpl& i) { i.regWriteWithCallback(regName.c_str(), value, cb); }))
    return;
  if (cb) cb(regName.c_str(), RegCallbackStatusFailure);
  handleExceptionGeneric();
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
