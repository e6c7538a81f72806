#include "TarnRegFile/RegisterFileHelper.h"

#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/Errors.h"
#include "TarnRegFile/RegisterFile.h"

#include <fmt/format.h>

#include <array>
#include <stdexcept>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/RegisterFileHelper");

using Hardware::TarnRegFile::HardwareRegister;
using Hardware::TarnRegFile::HardwareRegisterType;

// RegisterType -> HardwareRegisterType, indexed by the RegisterType value. The
// two numberings agree; the table keeps the conversion explicit. Constant data,
// so it is in place before any code of the library runs.
constexpr std::array<HardwareRegisterType, 7> kHardwareTypeOf{
    HardwareRegisterType::unknown,  // RegisterType::Unknown
    HardwareRegisterType::reserved, // RegisterType::Reserved
    HardwareRegisterType::constant, // RegisterType::Const
    HardwareRegisterType::cfg,      // RegisterType::Cfg
    HardwareRegisterType::sts,      // RegisterType::Sts
    HardwareRegisterType::counter,  // RegisterType::Counter
    HardwareRegisterType::ctl,      // RegisterType::Ctl
};

HardwareRegisterType hardwareTypeOf(RegisterType type) noexcept {
  auto const index = static_cast<size_t>(type);
  return index < kHardwareTypeOf.size() ? kHardwareTypeOf[index] : HardwareRegisterType::unknown;
}

RegisterIndex const& emptyIndex() {
  static RegisterIndex const empty;
  return empty;
}

}  // namespace

// ---------------------------------------------------------------- RegList

RegList::RegList(Kiv::String const& name) : Kiv::Entity(name) {}

Kiv::Ptr<RegList> RegList::RegListIs(Kiv::String const& name) { return Kiv::create<RegList>(name); }

Kiv::Ptr<RegList> regListFactory(Kiv::String const& name) { return RegList::RegListIs(name); }

void RegList::registerNameIs(Kiv::String const& name, bool present) {
  if (!present) {
    registerNameDel(name);
    return;
  }
  if (!names_.set(name, true)) return;
  notify<Notifiee>([&](Notifiee& n) { n.onRegisterName(name); });
}

bool RegList::registerNameDel(Kiv::String const& name) {
  if (!names_.erase(name)) return false;
  notify<Notifiee>([&](Notifiee& n) { n.onRegisterName(name); });
  return true;
}

void RegList::registerNameDelAll() {
  // A snapshot of the keys: observers may change the set while being notified.
  for (auto const& name : names_.keys()) registerNameDel(name);
}

// ---------------------------------------------------------------- RegFileHelper

RegFileHelper::RegFileHelper(Kiv::String const& name) : Kiv::Entity(name), index_(&emptyIndex()) {}

RegFileHelper::~RegFileHelper() { handleDeletion(); }

Kiv::Ptr<RegFileHelper> RegFileHelper::RegFileHelperIs(Kiv::String const& name) {
  return Kiv::create<RegFileHelper>(name);
}

Kiv::Ptr<RegFileHelper> regFileHelperFactory(Kiv::String const& name) { return RegFileHelper::RegFileHelperIs(name); }

void RegFileHelper::init(Kiv::String const& csvPath, U8 addrBlockSize,
                         Kiv::Ptr<HardwareRegisterFile> const& regFileModel) {
  if (!csvPath.empty()) {
    // The CSV file wins when both sources are given.
    csvRegFileIs(new RegisterFile(csvPath.c_str(), addrBlockSize));
    regFileModel_ = nullptr;
    kTrace.line(5, "init: {} registers from CSV file {}", csvRegFile_->size(), csvPath);
    return;
  }
  if (!regFileModel) throw std::runtime_error("Must provide Csv path or KivPtr");
  csvRegFileIs(nullptr);
  regFileModel_ = regFileModel;
  index_ = &regFileModel_->index();
  kTrace.line(5, "init: {} registers from model {}", regFileModel->regCount(), regFileModel->name());
}

void RegFileHelper::csvRegFileIs(RegisterFile const* regFile) {
  csvRegFile_.reset(regFile);
  index_ = csvRegFile_ ? &csvRegFile_->index() : regFileModel_ ? &regFileModel_->index() : &emptyIndex();
}

void RegFileHelper::handleDeletion() {
  csvRegFile_.reset();
  index_ = regFileModel_ ? &regFileModel_->index() : &emptyIndex();
}

void RegFileHelper::throwNoRegister(std::string_view regName) { throw LookupError::noRegister(std::string(regName)); }

void RegFileHelper::throwNoAddress(U32 addr) { throw LookupError::noAddress(addr); }

HardwareRegister RegFileHelper::recordOf(RegisterIndex::Entry const& e) const {
  if (!csvRegFile_) {
    HardwareRegister const reg = HardwareRegisterFile::recordOf(e);
    // A default record stands for "absent" in the model as well.
    if (!reg) throwNoRegister(reg.name);
    return reg;
  }
  // A CSV register in the model's terms: its type converted, accessed 32 bits wide
  // whatever its width (the loader stores Register::regOpWidth as the access width).
  return {e.nameView(), hardwareTypeOf(static_cast<RegisterType>(e.type)), e.writeable(), e.address, e.width,
          e.accessWidth};
}

Kiv::Ptr<RegList> RegFileHelper::regList() const {
  auto list = RegList::RegListIs(name());
  index_->forEach([&](RegisterIndex::Entry const& e) { list->registerNameIs(Kiv::String(e.nameView()), true); });
  return list;
}

}  // namespace TarnRegFile
