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

[[noreturn]] void throwNoRegister(std::string_view regName) {
  throw LookupError::noRegister(std::string(regName));
}

[[noreturn]] void throwNoAddress(U32 addr) {
  throw LookupError::noAddress(addr);
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

RegFileHelper::RegFileHelper(Kiv::String const& name) : Kiv::Entity(name) {}

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
  kTrace.line(5, "init: {} registers from model {}", regFileModel->regCount(), regFileModel->name());
}

void RegFileHelper::csvRegFileIs(RegisterFile const* regFile) {
  // Drop the index first: its keys view names owned by the old records.
  csvIndex_ = CsvIndex();
  csvRegFile_.reset(regFile);
  rebuildCsvIndex();
}

void RegFileHelper::handleDeletion() {
  csvIndex_ = CsvIndex();
  csvRegFile_.reset();
}

void RegFileHelper::rebuildCsvIndex() {
  if (!csvRegFile_) return;
  auto const& registers = csvRegFile_->registers();
  csvIndex_.byName.reserve(registers.size());
  for (auto const& [name, reg] : registers) {
    HardwareRegister record;
    record.name = Kiv::String(name);
    record.type = hardwareTypeOf(reg.type);
    record.writeable = reg.writeable;
    record.address = reg.number;
    record.width = reg.width;
    record.accessWidth = Register::regOpWidth;  // every CSV register is accessed 32 bits wide
    std::string_view const key = record.name.view();
    csvIndex_.byName.emplace(key, std::move(record));
  }
  auto const& names = csvRegFile_->namesByAddress();
  csvIndex_.nameByAddress.reserve(names.size());
  for (auto const& [addr, name] : names) {
    // Share the record's string rather than allocating another copy of the name.
    auto const it = csvIndex_.byName.find(name);
    csvIndex_.nameByAddress.emplace(addr, it != csvIndex_.byName.end() ? it->second.name : Kiv::String(name));
  }
}

HardwareRegister const& RegFileHelper::findCsv(std::string_view regName) const {
  auto const it = csvIndex_.byName.find(regName);
  if (it == csvIndex_.byName.end()) throwNoRegister(regName);
  return it->second;
}

HardwareRegister const& RegFileHelper::findModel(Kiv::String const& regName) const {
  if (!regFileModel_) throwNoRegister(regName.view());
  auto const* reg = regFileModel_->registers().find(regName);
  // A default record stands for "absent" in the model as well.
  if (!reg || !*reg) throwNoRegister(regName.view());
  return *reg;
}

HardwareRegister const& RegFileHelper::findRegisterByName(Kiv::String const& regName) const {
  if (csvRegFile_) return findCsv(regName.view());
  return findModel(regName);
}

HardwareRegister const& RegFileHelper::findRegisterByName(char const* regName) const {
  if (csvRegFile_) return findCsv(regName ? std::string_view(regName) : std::string_view());
  return findModel(Kiv::String(regName));
}

Kiv::String RegFileHelper::findRegNameByAddr(U32 addr) const {
  if (csvRegFile_) {
    auto const it = csvIndex_.nameByAddress.find(addr);
    if (it == csvIndex_.nameByAddress.end()) throwNoAddress(addr);
    return it->second;
  }
  if (!regFileModel_ || !regFileModel_->addressHas(addr)) throwNoAddress(addr);
  return regFileModel_->regByAddress(addr).name;
}

bool RegFileHelper::hasRegName(Kiv::String const& regName) const {
  if (csvRegFile_) return csvIndex_.byName.contains(regName.view());
  return regFileModel_ && regFileModel_->regHas(regName);
}

Kiv::Ptr<RegList> RegFileHelper::regList() const {
  auto list = RegList::RegListIs(name());
  if (csvRegFile_) {
    for (auto const& [key, record] : csvIndex_.byName) list->registerNameIs(record.name, true);
  } else if (regFileModel_) {
    for (auto const& [regName, record] : regFileModel_->registers()) list->registerNameIs(regName, true);
  }
  return list;
}

}  // namespace TarnRegFile
