#include "TarnRegFile/LogicalChip.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/platform/Trace.h"
#include "TarnRegFile/ShadowTypes.h"

#include <algorithm>
#include <vector>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/LogicalChip");

// Shift counts are taken modulo 64 on purpose: a shift by 64 is a shift by 0.
// Register images of existing chips were built with that arithmetic (a field
// ending at bit 63 keeps its old bits OR-ed in), and read-back must agree.
constexpr U64 shl(U64 v, unsigned count) noexcept { return v << (count & 63u); }
constexpr U64 shr(U64 v, unsigned count) noexcept { return v >> (count & 63u); }

/// The register value after placing the low @p size bits of @p value at bit @p start.
constexpr U64 fieldInsert(U64 reg, unsigned start, unsigned size, U32 value) noexcept {
  unsigned const end = start + size;
  U64 const field = shr(shl(U64{value}, 64u - size), 64u - end);
  U64 const upper = shl(shr(reg, end), end);
  // Guarded so that a field at bit 0 does not pick up the whole old value.
  U64 const lower = start == 0 ? 0 : shr(shl(reg, 64u - start), 64u - start);
  return field | upper | lower;
}

/// Bits start .. start + size - 1 of @p reg.
constexpr U32 fieldExtract(U64 reg, unsigned start, unsigned size) noexcept {
  return static_cast<U32>(shr(shl(reg, 64u - (start + size)), 64u - size));
}

static_assert(fieldInsert(0x12, 8, 8, 0x34) == 0x3412);
static_assert(fieldInsert(0, 8, 8, 0x1FF) == 0xFF00);
static_assert(fieldInsert(0x0F00000000000000ull, 56, 8, 0xF0) == 0xFF00000000000000ull);
static_assert(fieldExtract(0x1234, 8, 8) == 0x12);

/// True when @p full is @p head + "-" + @p tail.
bool composes(std::string_view full, std::string_view head, std::string_view tail) noexcept {
  return full.size() == head.size() + 1 + tail.size() && full.substr(0, head.size()) == head &&
         full[head.size()] == '-' && full.substr(head.size() + 1) == tail;
}

/// "chip-register-field" composed on the stack, for the lines of the per-write path.
class FullNameText {
public:
  FullNameText(std::string_view chip, std::string_view reg, std::string_view field) {
    text_.append(chip);
    text_.push_back('-');
    text_.append(reg);
    text_.push_back('-');
    text_.append(field);
  }
  std::string_view view() const noexcept { return {text_.data(), text_.size()}; }

private:
  fmt::basic_memory_buffer<char, 128> text_;
};

template <class T>
T& slotAt(std::vector<T>& slots, size_t pos) {
  if (pos >= slots.size()) slots.resize(pos + 1);
  return slots[pos];
}

}  // namespace

// ================================================================ ChipNames

template <>
size_t ChipNames::Hash<ChipNames::StringProbe>::operator()(Id id) const noexcept {
  return names->strings_[id].hash();
}
template <>
size_t ChipNames::Hash<ChipNames::FieldProbe>::operator()(Id id) const noexcept {
  Field const& f = names->fields_[id];
  return (*this)(FieldProbe{f.reg, f.name});
}
template <>
size_t ChipNames::Hash<ChipNames::ApartRegisterProbe>::operator()(Id id) const noexcept {
  return names->apartRegisters_[id].fullName.hash();
}
template <>
size_t ChipNames::Hash<ChipNames::ApartTailProbe>::operator()(Id id) const noexcept {
  return names->apartTails_[id].fullName.hash();
}

template <>
bool ChipNames::Equal<ChipNames::StringProbe>::operator()(StringProbe const& p, Id id) const noexcept {
  return names->strings_[id].view() == p.text;
}
template <>
bool ChipNames::Equal<ChipNames::FieldProbe>::operator()(FieldProbe const& p, Id id) const noexcept {
  return names->fields_[id].reg == p.reg && names->fields_[id].name == p.name;
}
template <>
bool ChipNames::Equal<ChipNames::ApartRegisterProbe>::operator()(ApartRegisterProbe const& p, Id id) const noexcept {
  ApartRegister const& r = names->apartRegisters_[id];
  return r.fullName == p.fullName && r.chip == p.chip && r.name == p.name;
}
template <>
bool ChipNames::Equal<ChipNames::ApartTailProbe>::operator()(ApartTailProbe const& p, Id id) const noexcept {
  ApartTail const& t = names->apartTails_[id];
  return t.fullName == p.fullName && t.name == p.name;
}

ChipNames::ChipNames(Kiv::String const& chipName) : chip_(chipName) {}

ChipNames::Id ChipNames::findString(Kiv::String const& s) const noexcept {
  CachedString& cached = stringCache_[s.hash() & 7u];
  if (cached.id != none && cached.text == s) return cached.id;
  auto const it = stringIndex_.find(StringProbe{s.view(), s.hash()});
  if (it == stringIndex_.end()) return none;
  cached.text = s;
  cached.id = *it;
  return *it;
}

ChipNames::Id ChipNames::stringId(Kiv::String const& s) {
  Id const found = findString(s);
  if (found != none) return found;
  Id const id = static_cast<Id>(strings_.size());
  strings_.push_back(s);
  stringIndex_.insert(id);
  return id;
}

bool ChipNames::composesRegister(Kiv::String const& chip, Kiv::String const& reg,
                                 Kiv::String const& fullName) const noexcept {
  return chip == chip_ && composes(fullName.view(), chip_.view(), reg.view());
}

Kiv::String const& ChipNames::registerFullNameIfApart(Id reg) const noexcept {
  return apartRegisters_[reg & ~kApart].fullName;
}

bool ChipNames::composesField(Id reg, Kiv::String const& field, Kiv::String const& fullName) const noexcept {
  std::string_view const full = fullName.view();
  if (reg & kApart) return composes(full, registerFullNameIfApart(reg).view(), field.view());
  // "chip-reg-field", without composing "chip-reg".
  std::string_view const chip = chip_.view();
  return full.size() > chip.size() && full.substr(0, chip.size()) == chip && full[chip.size()] == '-' &&
         composes(full.substr(chip.size() + 1), strings_[reg].view(), field.view());
}

ChipNames::Id ChipNames::findRegister(Kiv::String const& reg) const noexcept { return findString(reg); }

ChipNames::Id ChipNames::findRegister(Kiv::String const& chip, Kiv::String const& reg,
                                      Kiv::String const& fullName) const noexcept {
  if (composesRegister(chip, reg, fullName)) return findString(reg);
  auto const it = apartRegisterIndex_.find(ApartRegisterProbe{chip, reg, fullName});
  return it == apartRegisterIndex_.end() ? none : (kApart | *it);
}

ChipNames::Id ChipNames::registerId(Kiv::String const& reg) { return stringId(reg); }

ChipNames::Id ChipNames::registerId(Kiv::String const& chip, Kiv::String const& reg, Kiv::String const& fullName) {
  if (composesRegister(chip, reg, fullName)) return stringId(reg);
  Id const found = findRegister(chip, reg, fullName);
  if (found != none) return found;
  Id const index = static_cast<Id>(apartRegisters_.size());
  apartRegisters_.push_back(ApartRegister{chip, reg, fullName});
  apartRegisterIndex_.insert(index);
  return kApart | index;
}

ChipNames::Id ChipNames::findTail(Id reg, Kiv::String const& field, Kiv::String const& fullName) const noexcept {
  if (composesField(reg, field, fullName)) return findString(field);
  auto const it = apartTailIndex_.find(ApartTailProbe{field, fullName});
  return it == apartTailIndex_.end() ? none : (kApart | *it);
}

ChipNames::Id ChipNames::tailId(Id reg, Kiv::String const& field, Kiv::String const& fullName) {
  if (composesField(reg, field, fullName)) return stringId(field);
  Id const found = findTail(reg, field, fullName);
  if (found != none) return found;
  Id const index = static_cast<Id>(apartTails_.size());
  apartTails_.push_back(ApartTail{field, fullName});
  apartTailIndex_.insert(index);
  return kApart | index;
}

ChipNames::Id ChipNames::findField(FieldProbe probe) const noexcept {
  if (probe.reg == lastFieldProbe_.reg && probe.name == lastFieldProbe_.name) return lastField_;
  auto const it = fieldIndex_.find(probe);
  if (it == fieldIndex_.end()) return none;
  lastFieldProbe_ = Field{probe.reg, probe.name};
  lastField_ = *it;
  return *it;
}

ChipNames::Id ChipNames::fieldId(FieldProbe probe) {
  Id const found = findField(probe);
  if (found != none) return found;
  // A new name: stored and indexed in one probe of the index.
  Id const id = static_cast<Id>(fields_.size());
  fields_.push_back(Field{probe.reg, probe.name});
  fieldIndex_.insert(id);
  return id;
}

ChipNames::Id ChipNames::findField(Id reg, Kiv::String const& field) const noexcept {
  Id const name = findString(field);
  return name == none ? none : findField(FieldProbe{reg, name});
}

ChipNames::Id ChipNames::findField(Id reg, Kiv::String const& field, Kiv::String const& fullName) const noexcept {
  Id const name = findTail(reg, field, fullName);
  return name == none ? none : findField(FieldProbe{reg, name});
}

ChipNames::Id ChipNames::fieldId(Id reg, Kiv::String const& field) { return fieldId(FieldProbe{reg, stringId(field)}); }

ChipNames::Id ChipNames::fieldId(Id reg, Kiv::String const& field, Kiv::String const& fullName) {
  return fieldId(FieldProbe{reg, tailId(reg, field, fullName)});
}

template <class RegisterName>
RegisterName ChipNames::registerName(Id reg) const {
  if (!(reg & kApart)) return RegisterName(chip_, strings_[reg]);
  ApartRegister const& a = apartRegisters_[reg & ~kApart];
  RegisterName n;
  n.chipName = a.chip;
  n.name = a.name;
  n.fullName = a.fullName;
  return n;
}

template <class FieldName>
FieldName ChipNames::fieldName(Id field) const {
  using RegisterName = decltype(FieldName().regName);
  Field const& f = fields_[field];
  if (!(f.name & kApart)) return FieldName(registerName<RegisterName>(f.reg), strings_[f.name]);
  ApartTail const& t = apartTails_[f.name & ~kApart];
  FieldName n;
  n.regName = registerName<RegisterName>(f.reg);
  n.name = t.name;
  n.fullName = t.fullName;
  return n;
}

template LogicalRegisterName ChipNames::registerName<LogicalRegisterName>(Id) const;
template PhysicalRegisterName ChipNames::registerName<PhysicalRegisterName>(Id) const;
template LogicalFieldName ChipNames::fieldName<LogicalFieldName>(Id) const;
template PhysicalFieldName ChipNames::fieldName<PhysicalFieldName>(Id) const;

void ChipNames::appendFullName(Id field, fmt::memory_buffer& out) const {
  Field const& f = fields_[field];
  if (f.name & kApart) {
    out.append(apartTails_[f.name & ~kApart].fullName.view());
    return;
  }
  if (f.reg & kApart) {
    out.append(registerFullNameIfApart(f.reg).view());
  } else {
    out.append(chip_.view());
    out.push_back('-');
    out.append(strings_[f.reg].view());
  }
  out.push_back('-');
  out.append(strings_[f.name].view());
}

std::string ChipNames::fullName(Id field) const {
  fmt::memory_buffer out;
  appendFullName(field, out);
  return fmt::to_string(out);
}

// ================================================================ Translation

Translation::Translation(Kiv::String const& name) : Translation(name, std::make_shared<ChipNames>(name)) {}

Translation::Translation(Kiv::String const& name, std::shared_ptr<ChipNames> names)
    : Kiv::Entity(name), names_(std::move(names)) {}

Translation::~Translation() = default;

Kiv::Ptr<Translation> Translation::TranslationIs(Kiv::String const& name) { return Kiv::create<Translation>(name); }

Kiv::Ptr<Translation> translationFactory(Kiv::String const& name) { return Translation::TranslationIs(name); }

void Translation::Direction::map(FieldId from, FieldId target) {
  if (from >= to.size()) to.resize(from + 1, noField);
  if (to[from] == noField) ++count;
  to[from] = target;
}

void Translation::Direction::unmap(FieldId from) noexcept {
  if (from >= to.size() || to[from] == noField) return;
  to[from] = noField;
  --count;
}

void Translation::Direction::clear() noexcept {
  std::fill(to.begin(), to.end(), noField);
  count = 0;
}

// Both directions work alike on the shared name table; only the map and the name types differ.
template <class To, class From>
To Translation::mapped(Direction const& d, From const& from) const {
  FieldId const id = d.at(names_->findField(from));
  return id == noField ? To() : names_->fieldName<To>(id);
}

template <class From>
bool Translation::mappedHas(Direction const& d, From const& from) const noexcept {
  return d.at(names_->findField(from)) != noField;
}

template <class From, class To>
void Translation::mapIs(Direction& d, From const& from, To const& to) {
  FieldId const id = names_->fieldId(from);
  d.map(id, names_->fieldId(to));
}

template <class From>
void Translation::mapDel(Direction& d, From const& from) noexcept {
  d.unmap(names_->findField(from));
}

PhysicalFieldName Translation::logicalToPhysical(LogicalFieldName const& lf) const {
  return mapped<PhysicalFieldName>(forward_, lf);
}
bool Translation::logicalToPhysicalHas(LogicalFieldName const& lf) const noexcept { return mappedHas(forward_, lf); }
void Translation::logicalToPhysicalIs(LogicalFieldName const& lf, PhysicalFieldName const& pf) {
  mapIs(forward_, lf, pf);
}
void Translation::logicalToPhysicalDel(LogicalFieldName const& lf) noexcept { mapDel(forward_, lf); }
void Translation::logicalToPhysicalDelAll() noexcept { forward_.clear(); }

LogicalFieldName Translation::physicalToLogical(PhysicalFieldName const& pf) const {
  return mapped<LogicalFieldName>(reverse_, pf);
}
bool Translation::physicalToLogicalHas(PhysicalFieldName const& pf) const noexcept { return mappedHas(reverse_, pf); }
void Translation::physicalToLogicalIs(PhysicalFieldName const& pf, LogicalFieldName const& lf) {
  mapIs(reverse_, pf, lf);
}
void Translation::physicalToLogicalDel(PhysicalFieldName const& pf) noexcept { mapDel(reverse_, pf); }
void Translation::physicalToLogicalDelAll() noexcept { reverse_.clear(); }

void Translation::populate(Kiv::String const& logicalReg, Kiv::String const& logicalField,
                           Kiv::String const& physicalReg, Kiv::String const& physicalField) {
  // The names LogicalFieldName(LogicalRegisterName(name(), logicalReg), logicalField) and its
  // physical mirror, by their ids: nothing is composed.
  FieldId const lf = names_->fieldId(names_->registerId(logicalReg), logicalField);
  // Describers often name both sides alike.
  FieldId const pf = physicalReg == logicalReg && physicalField == logicalField
                         ? lf
                         : names_->fieldId(names_->registerId(physicalReg), physicalField);
  forward_.map(lf, pf);
  reverse_.map(pf, lf);
}

PhysicalFieldName Translation::getPhysicalFieldName(LogicalFieldName const& lfName) {
  FieldId const pf = physicalFieldId(names_->findField(lfName));
  if (pf == noField) {
    KIV_FATAL(kTrace, "logicalToPhysicalHas( lfName )") << "No physicalField name mapping to " << lfName.fullName;
  }
  return names_->fieldName<PhysicalFieldName>(pf);
}

LogicalFieldName Translation::getLogicalFieldName(PhysicalFieldName const& pfName) {
  FieldId const lf = logicalFieldId(names_->findField(pfName));
  if (lf == noField) {
    KIV_FATAL(kTrace, "physicalToLogicalHas( pfName )") << "No logicalField mapping to " << pfName.fullName;
  }
  return names_->fieldName<LogicalFieldName>(lf);
}

// ---- views

namespace {

/// The first position at or after @p pos whose entry is mapped.
size_t nextMapped(std::vector<ChipNames::Id> const& to, size_t pos) noexcept {
  while (pos < to.size() && to[pos] == ChipNames::none) ++pos;
  return pos;
}

}  // namespace

template <>
size_t LogicalToPhysicalSource::positions() const noexcept { return owner->forward_.to.size(); }
template <>
size_t LogicalToPhysicalSource::next(size_t pos) const noexcept { return nextMapped(owner->forward_.to, pos); }
template <>
size_t LogicalToPhysicalSource::size() const noexcept { return owner->forward_.count; }
template <>
std::pair<LogicalFieldName, PhysicalFieldName> LogicalToPhysicalSource::entry(size_t pos) const {
  ChipNames const& names = owner->names();
  return {names.fieldName<LogicalFieldName>(static_cast<ChipNames::Id>(pos)),
          names.fieldName<PhysicalFieldName>(owner->forward_.to[pos])};
}
template <>
std::optional<PhysicalFieldName> LogicalToPhysicalSource::find(LogicalFieldName const& key) const {
  if (!owner->logicalToPhysicalHas(key)) return std::nullopt;
  return owner->logicalToPhysical(key);
}

template <>
size_t PhysicalToLogicalSource::positions() const noexcept { return owner->reverse_.to.size(); }
template <>
size_t PhysicalToLogicalSource::next(size_t pos) const noexcept { return nextMapped(owner->reverse_.to, pos); }
template <>
size_t PhysicalToLogicalSource::size() const noexcept { return owner->reverse_.count; }
template <>
std::pair<PhysicalFieldName, LogicalFieldName> PhysicalToLogicalSource::entry(size_t pos) const {
  ChipNames const& names = owner->names();
  return {names.fieldName<PhysicalFieldName>(static_cast<ChipNames::Id>(pos)),
          names.fieldName<LogicalFieldName>(owner->reverse_.to[pos])};
}
template <>
std::optional<LogicalFieldName> PhysicalToLogicalSource::find(PhysicalFieldName const& key) const {
  if (!owner->physicalToLogicalHas(key)) return std::nullopt;
  return owner->physicalToLogical(key);
}

// ================================================================ LogicalChip: storage

template <>
size_t LogicalChip::SlotHash<LogicalChip::RegisterSlot>::operator()(U32 pos) const noexcept {
  return (*this)(NameProbe{(*slots)[pos].name});
}
template <>
size_t LogicalChip::SlotHash<LogicalChip::ShadowSlot>::operator()(U32 pos) const noexcept {
  return (*this)((*slots)[pos].key);
}
template <>
bool LogicalChip::SlotEqual<LogicalChip::RegisterSlot>::operator()(U32 a, U32 b) const noexcept {
  return (*slots)[a].name == (*slots)[b].name;
}
template <>
bool LogicalChip::SlotEqual<LogicalChip::ShadowSlot>::operator()(U32 a, U32 b) const noexcept {
  return (*slots)[a].key == (*slots)[b].key;
}
template <>
bool LogicalChip::SlotEqual<LogicalChip::RegisterSlot>::operator()(NameProbe p, U32 pos) const noexcept {
  return (*slots)[pos].name == p.name;
}
template <>
bool LogicalChip::SlotEqual<LogicalChip::ShadowSlot>::operator()(ShadowFieldKey const& key, U32 pos) const noexcept {
  return (*slots)[pos].key == key;
}

U32 LogicalChip::findRegisterSlot(Id reg) const noexcept {
  if (reg == none) return none;
  if (reg == lastRegister_) return lastRegisterSlot_;
  auto const it = registerIndex_.find(NameProbe{reg});
  if (it == registerIndex_.end()) return none;
  lastRegister_ = reg;
  lastRegisterSlot_ = *it;
  return *it;
}

U32 LogicalChip::registerSlot(Id reg) {
  U32 const found = findRegisterSlot(reg);
  if (found != none) return found;
  U32 const pos = static_cast<U32>(registers_.size());
  registers_.push_back(RegisterSlot{});
  registers_.back().name = reg;
  registerIndex_.insert(pos);
  return pos;
}

U32 LogicalChip::findShadowSlot(ShadowFieldKey const& key) const noexcept {
  auto const it = shadowIndex_.find(key);
  return it == shadowIndex_.end() ? none : *it;
}

LogicalChip::Id LogicalChip::fieldSetFind(RegisterSlot const& slot, Id field) const noexcept {
  for (Id link = slot.head; link != none; link = links_[link].next)
    if ((links_[link].field & ~kFlagBit) == field) return link;
  return none;
}

bool LogicalChip::fieldSetHas(RegisterSlot const& slot, Id field) const noexcept {
  // A field of the register itself says so in its own slot; others are looked for in the list.
  if (names_->fieldRegister(field) == slot.name) return field < logical_.size() && (logical_[field].flags & kInOwnRegister);
  return fieldSetFind(slot, field) != none;
}

bool LogicalChip::fieldSetIs(U32 pos, Id field, bool flag) {
  bool const own = names_->fieldRegister(field) == registers_[pos].name;
  Id const member = field | (flag ? kFlagBit : 0);
  if (own) {
    LogicalSlot& l = slotAt(logical_, field);
    if (l.flags & kInOwnRegister) {
      if (bool(l.flags & kOwnRegisterFlag) == flag) return false;
      l.flags = static_cast<U8>(flag ? (l.flags | kOwnRegisterFlag) : (l.flags & ~kOwnRegisterFlag));
      links_[fieldSetFind(registers_[pos], field)].field = member;
      return true;
    }
    l.flags = static_cast<U8>(l.flags | kInOwnRegister | (flag ? kOwnRegisterFlag : 0));
  } else if (Id const link = fieldSetFind(registers_[pos], field); link != none) {
    if (links_[link].field == member) return false;
    links_[link].field = member;
    return true;
  }
  Id link = freeLinks_;
  if (link != none) {
    freeLinks_ = links_[link].next;
    links_[link] = SetLink{member, none};
  } else {
    link = static_cast<Id>(links_.size());
    links_.push_back(SetLink{member, none});
  }
  RegisterSlot& slot = registers_[pos];
  if (slot.tail == none) {
    slot.head = link;
  } else {
    links_[slot.tail].next = link;
  }
  slot.tail = link;
  ++slot.fields;
  return true;
}

void LogicalChip::fieldSetClear(U32 pos) noexcept {
  RegisterSlot& slot = registers_[pos];
  for (Id link = slot.head; link != none;) {
    Id const field = links_[link].field & ~kFlagBit;
    if (names_->fieldRegister(field) == slot.name)
      logical_[field].flags = static_cast<U8>(logical_[field].flags & ~(kInOwnRegister | kOwnRegisterFlag));
    Id const next = links_[link].next;
    links_[link].next = freeLinks_;
    freeLinks_ = link;
    link = next;
  }
  slot.head = slot.tail = none;
  slot.fields = 0;
}

bool LogicalChip::sameFieldSet(RegisterSlot const& slot, LogicalRegister::FieldSet const& fields) const {
  if (fields.size() != slot.fields) return false;
  for (auto const& [name, flag] : fields) {
    Id const field = names_->findField(name);
    if (field == none) return false;
    Id const link = fieldSetFind(slot, field);
    if (link == none || bool(links_[link].field & kFlagBit) != flag) return false;
  }
  return true;
}

LogicalRegister LogicalChip::registerValue(U32 pos, LogicalRegisterName const& name) const {
  RegisterSlot const& slot = registers_[pos];
  LogicalRegister reg(name);
  reg.value = slot.value;
  for (Id link = slot.head; link != none; link = links_[link].next)
    reg.fieldIs(names_->fieldName<LogicalFieldName>(links_[link].field & ~kFlagBit), links_[link].field & kFlagBit);
  return reg;
}

LogicalField LogicalChip::logicalFieldValueOf(Id field, LogicalFieldName const& name) const {
  LogicalSlot const& slot = logical_[field];
  LogicalField out;
  out.name = name;
  out.start = slot.start;
  out.size = slot.size;
  out.value = slot.value;
  return out;
}

PhysicalField LogicalChip::physicalFieldValueOf(Id field, PhysicalFieldName const& name) const {
  PhysicalSlot const& slot = physical_[field];
  PhysicalField out;
  out.name = name;
  out.start = slot.start;
  out.size = slot.size;
  out.key = slot.key;
  return out;
}

// ================================================================ LogicalChip: life

LogicalChip::LogicalChip(Kiv::String const& name)
    : Kiv::Entity(name), names_(std::make_shared<ChipNames>(name)) {
  handleInitialized();
}

LogicalChip::~LogicalChip() = default;

Kiv::Ptr<LogicalChip> LogicalChip::LogicalChipIs(Kiv::String const& name) { return Kiv::create<LogicalChip>(name); }

Kiv::Ptr<LogicalChip> logicalChipFactory(Kiv::String const& name) { return LogicalChip::LogicalChipIs(name); }

void LogicalChip::handleInitialized() {
  translationIs();
  initializedIs(true);
}

// ================================================================ LogicalChip: attributes

LogicalRegister LogicalChip::regColl(LogicalRegisterName const& name) const {
  U32 const pos = findRegisterSlot(names_->findRegister(name.chipName, name.name, name.fullName));
  return pos != none && registers_[pos].present ? registerValue(pos, name) : LogicalRegister();
}

bool LogicalChip::regCollHas(LogicalRegisterName const& name) const noexcept {
  U32 const pos = findRegisterSlot(names_->findRegister(name.chipName, name.name, name.fullName));
  return pos != none && registers_[pos].present;
}

void LogicalChip::regCollIs(LogicalRegister const& reg) {
  U32 const pos = registerSlot(names_->registerId(reg.name.chipName, reg.name.name, reg.name.fullName));
  if (registers_[pos].present && registers_[pos].value == reg.value && sameFieldSet(registers_[pos], reg.fields()))
    return;
  fieldSetClear(pos);
  for (auto const& [name, flag] : reg.fields()) fieldSetIs(pos, names_->fieldId(name), flag);
  registers_[pos].value = reg.value;
  if (!registers_[pos].present) ++registerCount_;
  registers_[pos].present = true;
  notify<Notifiee>([&](Notifiee& n) { n.onRegColl(reg.name); });
}

void LogicalChip::regCollDel(LogicalRegisterName const& name) {
  U32 const pos = findRegisterSlot(names_->findRegister(name.chipName, name.name, name.fullName));
  if (pos == none || !registers_[pos].present) return;
  fieldSetClear(pos);
  registers_[pos].present = false;
  registers_[pos].value = 0;
  --registerCount_;
  notify<Notifiee>([&](Notifiee& n) { n.onRegColl(name); });
}

void LogicalChip::regCollDelAll() {
  for (auto const& name : regCollEntries().keys()) regCollDel(name);
}

LogicalField LogicalChip::logicalField(LogicalFieldName const& name) const {
  Id const field = names_->findField(name);
  return logicalFieldValue(field) ? logicalFieldValueOf(field, name) : LogicalField();
}

bool LogicalChip::logicalFieldHas(LogicalFieldName const& name) const noexcept {
  return logicalFieldValue(names_->findField(name)) != nullptr;
}

void LogicalChip::logicalFieldIsAt(Id field, LogicalSlot const& wanted) {
  LogicalSlot& slot = slotAt(logical_, field);
  U8 const flags = static_cast<U8>(slot.flags | kPresent);
  if (slot.flags == flags && slot.value == wanted.value && slot.start == wanted.start && slot.size == wanted.size)
    return;
  if (!(slot.flags & kPresent)) ++logicalCount_;
  slot.value = wanted.value;
  slot.start = wanted.start;
  slot.size = wanted.size;
  slot.flags = flags;
  if (observed()) {
    LogicalFieldName const name = names_->fieldName<LogicalFieldName>(field);
    notify<Notifiee>([&](Notifiee& n) { n.onLogicalField(name); });
  }
}

void LogicalChip::logicalFieldIs(LogicalField const& field) {
  Id const id = names_->fieldId(field.name);
  LogicalSlot& slot = slotAt(logical_, id);
  if ((slot.flags & kPresent) && slot.value == field.value && slot.start == field.start && slot.size == field.size)
    return;
  if (!(slot.flags & kPresent)) ++logicalCount_;
  slot.value = field.value;
  slot.start = field.start;
  slot.size = field.size;
  slot.flags = static_cast<U8>(slot.flags | kPresent);
  notify<Notifiee>([&](Notifiee& n) { n.onLogicalField(field.name); });
}

void LogicalChip::logicalFieldDel(LogicalFieldName const& name) {
  Id const field = names_->findField(name);
  if (!logicalFieldValue(field)) return;
  LogicalSlot& slot = logical_[field];
  slot.flags = static_cast<U8>(slot.flags & ~kPresent);
  slot.value = 0;
  slot.start = 0;
  slot.size = 1;
  --logicalCount_;
  notify<Notifiee>([&](Notifiee& n) { n.onLogicalField(name); });
}

void LogicalChip::logicalFieldDelAll() {
  for (auto const& name : logicalFieldEntries().keys()) logicalFieldDel(name);
}

std::vector<LogicalChip::FieldId> LogicalChip::logicalFieldIds() const {
  std::vector<FieldId> ids;
  ids.reserve(logicalCount_);
  for (size_t id = 0; id < logical_.size(); ++id)
    if (logical_[id].flags & kPresent) ids.push_back(static_cast<FieldId>(id));
  return ids;
}

Kiv::Ptr<Translation> LogicalChip::translationIs() {
  if (translation_) return translation_;
  translation_ = Kiv::create<Translation>(name(), names_);
  notify<Notifiee>([](Notifiee& n) { n.onTranslation(); });
  return translation_;
}

void LogicalChip::translationDel() {
  if (!translation_) return;
  translation_ = nullptr;
  notify<Notifiee>([](Notifiee& n) { n.onTranslation(); });
}

PhysicalField LogicalChip::physicalField(PhysicalFieldName const& name) const {
  Id const field = names_->findField(name);
  return physicalFieldKey(field) ? physicalFieldValueOf(field, name) : PhysicalField();
}

bool LogicalChip::physicalFieldHas(PhysicalFieldName const& name) const noexcept {
  return physicalFieldKey(names_->findField(name)) != nullptr;
}

void LogicalChip::physicalFieldIsAt(Id field, PhysicalSlot const& wanted) {
  PhysicalSlot& slot = slotAt(physical_, field);
  if (slot.present && slot.key == wanted.key && slot.start == wanted.start && slot.size == wanted.size) return;
  if (!slot.present) ++physicalCount_;
  slot = wanted;
  slot.present = true;
  if (observed()) {
    PhysicalFieldName const name = names_->fieldName<PhysicalFieldName>(field);
    notify<Notifiee>([&](Notifiee& n) { n.onPhysicalField(name); });
  }
}

void LogicalChip::physicalFieldIs(PhysicalField const& field) {
  Id const id = names_->fieldId(field.name);
  PhysicalSlot& slot = slotAt(physical_, id);
  if (slot.present && slot.key == field.key && slot.start == field.start && slot.size == field.size) return;
  if (!slot.present) ++physicalCount_;
  slot = PhysicalSlot{field.key, field.start, field.size, true};
  notify<Notifiee>([&](Notifiee& n) { n.onPhysicalField(field.name); });
}

void LogicalChip::physicalFieldDel(PhysicalFieldName const& name) {
  Id const field = names_->findField(name);
  if (!physicalFieldKey(field)) return;
  physical_[field] = PhysicalSlot{};
  --physicalCount_;
  notify<Notifiee>([&](Notifiee& n) { n.onPhysicalField(name); });
}

void LogicalChip::physicalFieldDelAll() {
  for (auto const& name : physicalFieldEntries().keys()) physicalFieldDel(name);
}

void LogicalChip::physicalFieldCountIs(U32 count) {
  if (count == physicalFieldCount_) return;
  physicalFieldCount_ = count;
  notify<Notifiee>([](Notifiee& n) { n.onPhysicalFieldCount(); });
}

U32 LogicalChip::physicalFieldCountInc(U32 n) {
  if (n != 0) {
    physicalFieldCount_ += n;
    notify<Notifiee>([](Notifiee& o) { o.onPhysicalFieldCount(); });
  }
  return physicalFieldCount_;
}

PhysicalFieldName LogicalChip::shadowToPhysicalName(ShadowFieldKey const& key) const {
  U32 const pos = findShadowSlot(key);
  return pos != none && shadow_[pos].field != none ? names_->fieldName<PhysicalFieldName>(shadow_[pos].field)
                                                   : PhysicalFieldName();
}

bool LogicalChip::shadowToPhysicalNameHas(ShadowFieldKey const& key) const noexcept {
  U32 const pos = findShadowSlot(key);
  return pos != none && shadow_[pos].field != none;
}

void LogicalChip::shadowToPhysicalNameIsAt(ShadowFieldKey const& key, Id field) {
  // Keys are mostly new (one per populated physical field): offer a new slot to the index,
  // and take it back when the key was there already.
  shadow_.push_back(ShadowSlot{key, none});
  auto const [it, inserted] = shadowIndex_.insert(static_cast<U32>(shadow_.size() - 1));
  if (!inserted) shadow_.pop_back();
  U32 const pos = *it;
  if (shadow_[pos].field == field) return;
  if (shadow_[pos].field == none) ++shadowCount_;
  shadow_[pos].field = field;
  notify<Notifiee>([&](Notifiee& n) { n.onShadowToPhysicalName(key); });
}

void LogicalChip::shadowToPhysicalNameIs(ShadowFieldKey const& key, PhysicalFieldName const& name) {
  shadowToPhysicalNameIsAt(key, names_->fieldId(name));
}

void LogicalChip::shadowToPhysicalNameDel(ShadowFieldKey const& key) {
  U32 const pos = findShadowSlot(key);
  if (pos == none || shadow_[pos].field == none) return;
  shadow_[pos].field = none;
  --shadowCount_;
  notify<Notifiee>([&](Notifiee& n) { n.onShadowToPhysicalName(key); });
}

void LogicalChip::shadowToPhysicalNameDelAll() {
  for (auto const& key : shadowToPhysicalNameEntries().keys()) shadowToPhysicalNameDel(key);
}

void LogicalChip::readyIs(bool ready) {
  if (ready == ready_) return;
  ready_ = ready;
  notify<Notifiee>([](Notifiee& n) { n.onReady(); });
}

void LogicalChip::initializedIs(bool initialized) {
  if (initialized == initialized_) return;
  initialized_ = initialized;
  notify<Notifiee>([](Notifiee& n) { n.onInitialized(); });
}

// ---- views

template <>
size_t RegCollSource::positions() const noexcept { return owner->registers_.size(); }
template <>
size_t RegCollSource::next(size_t pos) const noexcept {
  while (pos < owner->registers_.size() && !owner->registers_[pos].present) ++pos;
  return pos;
}
template <>
size_t RegCollSource::size() const noexcept { return owner->registerCount_; }
template <>
std::pair<LogicalRegisterName, LogicalRegister> RegCollSource::entry(size_t pos) const {
  auto name = owner->names().registerName<LogicalRegisterName>(owner->registers_[pos].name);
  auto reg = owner->registerValue(static_cast<U32>(pos), name);
  return {std::move(name), std::move(reg)};
}
template <>
std::optional<LogicalRegister> RegCollSource::find(LogicalRegisterName const& key) const {
  if (!owner->regCollHas(key)) return std::nullopt;
  return owner->regColl(key);
}

template <>
size_t LogicalFieldSource::positions() const noexcept { return owner->logical_.size(); }
template <>
size_t LogicalFieldSource::next(size_t pos) const noexcept {
  while (pos < owner->logical_.size() && !(owner->logical_[pos].flags & LogicalChip::kPresent)) ++pos;
  return pos;
}
template <>
size_t LogicalFieldSource::size() const noexcept { return owner->logicalCount_; }
template <>
std::pair<LogicalFieldName, LogicalField> LogicalFieldSource::entry(size_t pos) const {
  auto const id = static_cast<ChipNames::Id>(pos);
  auto name = owner->names().fieldName<LogicalFieldName>(id);
  auto field = owner->logicalFieldValueOf(id, name);
  return {std::move(name), std::move(field)};
}
template <>
std::optional<LogicalField> LogicalFieldSource::find(LogicalFieldName const& key) const {
  ChipNames::Id const id = owner->names().findField(key);
  if (!owner->logicalFieldValue(id)) return std::nullopt;
  return owner->logicalFieldValueOf(id, key);
}

template <>
size_t PhysicalFieldSource::positions() const noexcept { return owner->physical_.size(); }
template <>
size_t PhysicalFieldSource::next(size_t pos) const noexcept {
  while (pos < owner->physical_.size() && !owner->physical_[pos].present) ++pos;
  return pos;
}
template <>
size_t PhysicalFieldSource::size() const noexcept { return owner->physicalCount_; }
template <>
std::pair<PhysicalFieldName, PhysicalField> PhysicalFieldSource::entry(size_t pos) const {
  auto const id = static_cast<ChipNames::Id>(pos);
  auto name = owner->names().fieldName<PhysicalFieldName>(id);
  auto field = owner->physicalFieldValueOf(id, name);
  return {std::move(name), std::move(field)};
}
template <>
std::optional<PhysicalField> PhysicalFieldSource::find(PhysicalFieldName const& key) const {
  ChipNames::Id const id = owner->names().findField(key);
  if (!owner->physicalFieldKey(id)) return std::nullopt;
  return owner->physicalFieldValueOf(id, key);
}

template <>
size_t ShadowToPhysicalNameSource::positions() const noexcept { return owner->shadow_.size(); }
template <>
size_t ShadowToPhysicalNameSource::next(size_t pos) const noexcept {
  while (pos < owner->shadow_.size() && owner->shadow_[pos].field == ChipNames::none) ++pos;
  return pos;
}
template <>
size_t ShadowToPhysicalNameSource::size() const noexcept { return owner->shadowCount_; }
template <>
std::pair<ShadowFieldKey, PhysicalFieldName> ShadowToPhysicalNameSource::entry(size_t pos) const {
  auto const& slot = owner->shadow_[pos];
  return {slot.key, owner->names().fieldName<PhysicalFieldName>(slot.field)};
}
template <>
std::optional<PhysicalFieldName> ShadowToPhysicalNameSource::find(ShadowFieldKey const& key) const {
  if (!owner->shadowToPhysicalNameHas(key)) return std::nullopt;
  return owner->shadowToPhysicalName(key);
}

// ================================================================ LogicalChip: population

void LogicalChip::populatePhysicalField(Kiv::String const& reg, Kiv::String const& field, U8 start, U8 size) {
  KIV_ASSERT(kTrace, !ready()) << "Populating fields after chip ready is not allowed!";
  // The field's bound checks, before anything changes; its name is stored by id below.
  (void)PhysicalField(PhysicalFieldName(), start, size);
  Id const id = names_->fieldId(names_->registerId(reg), field);
  ShadowFieldKey const key(physicalFieldCount_, start, size);
  physicalFieldCountInc(1);
  physicalFieldIsAt(id, PhysicalSlot{key, start, size, true});
  shadowToPhysicalNameIsAt(key, id);
}

void LogicalChip::populateLogicalField(Kiv::String const& reg, Kiv::String const& field, U8 start, U8 size,
                                       U32 value) {
  KIV_ASSERT(kTrace, !ready()) << "Populating fields after chip ready is not allowed!";
  (void)LogicalField(LogicalFieldName(), start, size);  // bound checks first: nothing has changed yet
  Id const regId = names_->registerId(reg);
  Id const id = names_->fieldId(regId, field);
  // The register as stored (or a new one), with the field in its set and the value merged in.
  U32 const pos = registerSlot(regId);
  bool changed = !registers_[pos].present;
  if (changed) {
    registers_[pos].present = true;
    registers_[pos].value = 0;
    ++registerCount_;
  }
  changed |= fieldSetIs(pos, id, true);
  U64 const regValue = fieldInsert(registers_[pos].value, start, size, value);
  changed |= regValue != registers_[pos].value;
  registers_[pos].value = regValue;
  if (changed && observed()) {
    LogicalRegisterName const lrName(name(), reg);
    notify<Notifiee>([&](Notifiee& n) { n.onRegColl(lrName); });
  }
  logicalFieldIsAt(id, LogicalSlot{value, start, size, 0});
}

// ================================================================ LogicalChip: writes and read-back
//
// The checks are written out in each operation so that a failure names the
// operation the client called.

void LogicalChip::fieldWrite(Kiv::String const& reg, Kiv::String const& field, U32 value) {
  kTrace.printf(5, "LogicalChip::fieldWrite reg: %s field: %s value: %s", reg, field, value);
  KIV_ASSERT(kTrace, ready()) << "LogicalChip " << name() << " is not populated yet!";
  Id const regId = names_->findRegister(reg);
  U32 const pos = findRegisterSlot(regId);
  if (pos == none || !registers_[pos].present) {
    LogicalRegisterName const lrName(name(), reg);
    KIV_FATAL(kTrace, "regCollHas( lrName )") << "LogicalRegister " << lrName.fullName << " is not populated yet!";
  }
  Id const id = names_->findField(regId, field);
  if (!logicalFieldValue(id) || !(logical_[id].flags & kInOwnRegister)) {
    LogicalFieldName const lfName(LogicalRegisterName(name(), reg), field);
    KIV_FATAL(kTrace, "lReg.fieldHas( lfName ) && logicalFieldHas( lfName )")
        << "LogicalRegister " << lfName.regName.fullName << " does not have field " << field;
  }

  // Both caches are changed in place: only the values differ from what is stored,
  // so comparing the values is the whole change test.
  RegisterSlot& lReg = registers_[pos];
  LogicalSlot& lField = logical_[id];
  U64 const regValue = fieldInsert(lReg.value, lField.start, lField.size, value);
  if (regValue != lReg.value) {
    lReg.value = regValue;
    if (observed()) {
      // An observer of the register may change or remove the field (or the register);
      // carry on with copies, as a copying write would.
      LogicalSlot updated = lField;
      updated.value = value;
      LogicalRegisterName const lrName(name(), reg);
      notify<Notifiee>([&](Notifiee& n) { n.onRegColl(lrName); });
      kTrace.printf(0, "Write field: %s value: %s", FullNameText(name(), reg, field).view(), value);
      logicalFieldIsAt(id, updated);
      return;
    }
  }
  kTrace.printf(0, "Write field: %s value: %s", FullNameText(name(), reg, field).view(), value);
  // The field keeps all 32 bits as given, although the register took only its width.
  if (lField.value == value) return;
  lField.value = value;
  if (!observed()) return;
  LogicalFieldName const lfName(LogicalRegisterName(name(), reg), field);
  notify<Notifiee>([&](Notifiee& n) { n.onLogicalField(lfName); });
}

void LogicalChip::regWrite(Kiv::String const& reg, U64 value) {
  kTrace.printf(5, "LogicalChip::regWrite regName: %s value: %s", reg, value);
  KIV_ASSERT(kTrace, ready()) << "LogicalChip " << name() << " is not populated yet!";
  Id const regId = names_->findRegister(reg);
  U32 const pos = findRegisterSlot(regId);
  if (pos == none || !registers_[pos].present) {
    LogicalRegisterName const lrName(name(), reg);
    KIV_FATAL(kTrace, "regCollHas( lrName )") << "LogicalRegister " << lrName.fullName << " is not populated yet!";
  }
  // Observers of the register or of earlier fields may change the field set meanwhile:
  // every field the register had when the write started is written.
  std::vector<Id> fields;
  fields.reserve(registers_[pos].fields);
  for (Id link = registers_[pos].head; link != none; link = links_[link].next)
    fields.push_back(links_[link].field & ~kFlagBit);
  if (registers_[pos].value != value) {
    registers_[pos].value = value;
    if (observed()) {
      LogicalRegisterName const lrName(name(), reg);
      notify<Notifiee>([&](Notifiee& n) { n.onRegColl(lrName); });
    }
  }
  for (Id const id : fields) {
    // A field dropped from the cache comes back as a 1-bit field at 0.
    LogicalSlot logical = logicalFieldValue(id) ? logical_[id] : LogicalSlot{};
    logical.value = fieldExtract(value, logical.start, logical.size);
    logicalFieldIsAt(id, logical);
  }
}

U64 LogicalChip::regGetLastWritten(Kiv::String const& reg) {
  kTrace.printf(5, "LogicalChip::regGetLastWritten regName: %s", reg);
  KIV_ASSERT(kTrace, ready()) << "LogicalChip " << name() << " is not populated yet!";
  U32 const pos = findRegisterSlot(names_->findRegister(reg));
  if (pos == none || !registers_[pos].present) {
    LogicalRegisterName const lrName(name(), reg);
    KIV_FATAL(kTrace, "regCollHas( lrName )") << "LogicalRegister " << lrName.fullName << " is not populated yet!";
  }
  return registers_[pos].value;
}

U32 LogicalChip::fieldGetLastWritten(Kiv::String const& reg, Kiv::String const& field) {
  kTrace.printf(5, "LogicalChip::fieldGetLastWritten reg: %s field: %s", reg, field);
  KIV_ASSERT(kTrace, ready()) << "LogicalChip " << name() << " is not populated yet!";
  Id const regId = names_->findRegister(reg);
  U32 const pos = findRegisterSlot(regId);
  if (pos == none || !registers_[pos].present) {
    LogicalRegisterName const lrName(name(), reg);
    KIV_FATAL(kTrace, "regCollHas( lrName )") << "LogicalRegister " << lrName.fullName << " is not populated yet!";
  }
  Id const id = names_->findField(regId, field);
  if (!logicalFieldValue(id) || !(logical_[id].flags & kInOwnRegister)) {
    LogicalFieldName const lfName(LogicalRegisterName(name(), reg), field);
    KIV_FATAL(kTrace, "lReg.fieldHas( lfName ) && logicalFieldHas( lfName )")
        << "LogicalRegister " << lfName.regName.fullName << " does not have field " << field;
  }
  return logical_[id].value;
}

// ================================================================ shadow collections

void LogicalChip::shadowFieldsConfigIs(Kiv::Ptr<ShadowFieldsConfig> const& config) {
  if (shadowFieldsConfig_ == config) return;
  shadowFieldsConfig_ = config;
  notify<Notifiee>([](Notifiee& n) { n.onShadowFieldsConfig(); });
}

void LogicalChip::shadowFieldsStatusIs(Kiv::Ptr<ShadowFieldsStatus> const& status) {
  if (shadowFieldsStatus_ == status) return;
  shadowFieldsStatus_ = status;
  notify<Notifiee>([](Notifiee& n) { n.onShadowFieldsStatus(); });
}

void LogicalChip::mountShadowFields(Kiv::Ptr<Kiv::Shm::EntityManager> const& entityManager,
                                    Kiv::String const& configPath, Kiv::String const& statusPath) {
  kTrace.line(5, "LogicalChip::mountShadowFields chip: {} config: {} status: {}", name(), configPath, statusPath);
  // The capacity follows the shadow addresses handed out so far (a describer may set the count
  // to register addresses); the tables are sized for the fields at once, not grown to them.
  U32 fields = 0;
  for (auto const& record : physical_) fields += record.present ? 1u : 0u;
  auto const description = Kiv::Shm::MountDescription()
                               .collectionIs("field", physicalFieldCount_)
                               .expectedEntriesIs("field", std::min(fields, physicalFieldCount_));
  auto group = entityManager->mountGroup();
  group.mount(configPath.str(), "TarnRegFile::ShadowFieldsConfig", description);
  shadowFieldsConfigIs(Kiv::ptr_cast<ShadowFieldsConfig>(entityManager->entity(configPath.view())));
  group.mount(statusPath.str(), "TarnRegFile::ShadowFieldsStatus", description);
  shadowFieldsStatusIs(Kiv::ptr_cast<ShadowFieldsStatus>(entityManager->entity(statusPath.view())));
  group.close();

  // Mounting resets every desired value: the logical fields' own values reach the
  // configuration through the logical write state machine. Every physical field must have
  // a logical counterpart; the translation shares the chip's name ids, so that is checked
  // by id, and only a missing one builds its name (for the fatal report).
  for (size_t id = 0; id < physical_.size(); ++id) {
    if (!physical_[id].present) continue;
    if (translation_->logicalFieldId(static_cast<Id>(id)) == none)
      (void)translation_->getLogicalFieldName(names_->fieldName<PhysicalFieldName>(static_cast<Id>(id)));
    shadowFieldsConfig_->fieldIs(ShadowFieldValue(physical_[id].key, 0));
  }
}

namespace {

bool const registered = [] {
  auto& registry = Kiv::TypeRegistry::instance();

  auto& translation = registry.typeIs("TarnRegFile::Translation");
  translation.factory = [](Kiv::String const& n) { return Kiv::Ptr<Kiv::Entity>(translationFactory(n)); };
  translation.methods["populate"] = Kiv::method<&Translation::populate>();
  translation.methods["getPhysicalFieldName"] = Kiv::method<&Translation::getPhysicalFieldName>();
  translation.methods["getLogicalFieldName"] = Kiv::method<&Translation::getLogicalFieldName>();

  auto& chip = registry.typeIs("TarnRegFile::LogicalChip");
  chip.factory = [](Kiv::String const& n) { return Kiv::Ptr<Kiv::Entity>(logicalChipFactory(n)); };
  chip.methods["populatePhysicalField"] = Kiv::method<&LogicalChip::populatePhysicalField>();
  chip.methods["populateLogicalField"] = Kiv::method<&LogicalChip::populateLogicalField>();
  chip.methods["fieldWrite"] = Kiv::method<&LogicalChip::fieldWrite>();
  chip.methods["regWrite"] = Kiv::method<&LogicalChip::regWrite>();
  chip.methods["regGetLastWritten"] = Kiv::method<&LogicalChip::regGetLastWritten>();
  chip.methods["fieldGetLastWritten"] = Kiv::method<&LogicalChip::fieldGetLastWritten>();
  chip.methods["handleInitialized"] = Kiv::method<&LogicalChip::handleInitialized>();
  chip.methods["mountShadowFields"] = Kiv::method<&LogicalChip::mountShadowFields>();
  chip.attributes["ready"] = Kiv::method<&LogicalChip::ready>();
  chip.attributes["initialized"] = Kiv::method<&LogicalChip::initialized>();
  chip.attributes["physicalFieldCount"] = Kiv::method<&LogicalChip::physicalFieldCount>();
  chip.attributes["name"] = [](Kiv::Entity& e, std::vector<std::string> const&) { return e.name().str(); };
  chip.attributeWriters["ready"] = Kiv::method<&LogicalChip::readyIs>();
  return true;
}();

}  // namespace

}  // namespace TarnRegFile
