#include "TarnRegFile/RegisterIndex.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <utility>

namespace TarnRegFile {
namespace {

// A reference is a 32-bit count of 4-byte units: the arena ends below 16 GiB.
constexpr size_t kMaxArenaBytes = (size_t(0xFFFFFFFEu) << 2) > size_t(0xFFFFFFFEu)
                                      ? (size_t(0xFFFFFFFEu) << 2)
                                      : size_t(0xFFFFFFFCu);

template <class T>
T* allocateZeroed(size_t count) {
  // calloc of a large block maps fresh zero pages: untouched slots cost no memory.
  void* const p = std::calloc(count, sizeof(T));
  if (p == nullptr) throw std::bad_alloc();
  return static_cast<T*>(p);
}

}  // namespace

RegisterIndex::RegisterIndex(RegisterIndex const& other)
    : arenaUsed_(other.arenaUsed_),
      erasedBytes_(other.erasedBytes_),
      nameCapacity_(other.nameCapacity_),
      names_(other.names_),
      addressCapacity_(other.addressCapacity_),
      addresses_(other.addresses_) {
  RegisterIndex guard;  // frees what was copied if a later allocation fails
  if (other.arenaUsed_ != 0) {
    guard.arena_ = static_cast<char*>(std::malloc(other.arenaUsed_));
    if (guard.arena_ == nullptr) throw std::bad_alloc();
    std::memcpy(guard.arena_, other.arena_, other.arenaUsed_);
  }
  if (other.nameSlots_ != nullptr) {
    guard.nameSlots_ = allocateZeroed<Slot>(other.nameCapacity_);
    std::memcpy(guard.nameSlots_, other.nameSlots_, other.nameCapacity_ * sizeof(Slot));
  }
  if (other.addressSlots_ != nullptr) {
    guard.addressSlots_ = allocateZeroed<Slot>(other.addressCapacity_);
    std::memcpy(guard.addressSlots_, other.addressSlots_, other.addressCapacity_ * sizeof(Slot));
  }
  arena_ = std::exchange(guard.arena_, nullptr);
  arenaCapacity_ = arenaUsed_;
  nameSlots_ = std::exchange(guard.nameSlots_, nullptr);
  addressSlots_ = std::exchange(guard.addressSlots_, nullptr);
}

RegisterIndex::RegisterIndex(RegisterIndex&& other) noexcept { swap(other); }

RegisterIndex& RegisterIndex::operator=(RegisterIndex other) noexcept {
  swap(other);
  return *this;
}

RegisterIndex::~RegisterIndex() {
  std::free(arena_);
  std::free(nameSlots_);
  std::free(addressSlots_);
}

void RegisterIndex::swap(RegisterIndex& o) noexcept {
  std::swap(arena_, o.arena_);
  std::swap(arenaUsed_, o.arenaUsed_);
  std::swap(arenaCapacity_, o.arenaCapacity_);
  std::swap(erasedBytes_, o.erasedBytes_);
  std::swap(nameSlots_, o.nameSlots_);
  std::swap(nameCapacity_, o.nameCapacity_);
  std::swap(names_, o.names_);
  std::swap(addressSlots_, o.addressSlots_);
  std::swap(addressCapacity_, o.addressCapacity_);
  std::swap(addresses_, o.addresses_);
}

size_t RegisterIndex::bytes() const noexcept {
  return arenaCapacity_ + (nameCapacity_ + addressCapacity_) * sizeof(Slot);
}

void RegisterIndex::reserve(size_t registers, size_t arenaBytes) {
  growSlots(nameSlots_, nameCapacity_, registers, false);
  growSlots(addressSlots_, addressCapacity_, registers, true);
  growArena(arenaBytes);
}

void RegisterIndex::shrinkToFit() {
  if (arenaCapacity_ == arenaUsed_ || arena_ == nullptr) return;
  if (arenaUsed_ == 0) {
    std::free(std::exchange(arena_, nullptr));
    arenaCapacity_ = 0;
    return;
  }
  // Shrinking a large block in place (the allocator gives the tail pages back) or not at all.
  if (void* const p = std::realloc(arena_, arenaUsed_)) {
    arena_ = static_cast<char*>(p);
    arenaCapacity_ = arenaUsed_;
  }
}

void RegisterIndex::growArena(size_t wanted) {
  if (wanted <= arenaCapacity_) return;
  if (wanted > kMaxArenaBytes) throw std::length_error("register map too large: its names pass 16 GiB");
  void* const p = std::realloc(arena_, wanted);
  if (p == nullptr) throw std::bad_alloc();
  arena_ = static_cast<char*>(p);
  arenaCapacity_ = wanted;
}

// A table is rebuilt in a new block of the wanted size from the slots of the old one.
void RegisterIndex::growSlots(Slot*& table, size_t& tableCapacity, size_t wanted, bool byAddress) {
  size_t const capacity = capacityFor(wanted);
  if (capacity <= tableCapacity) return;
  Slot* const slots = allocateZeroed<Slot>(capacity);
  for (size_t i = 0; i < tableCapacity; ++i) {
    Slot const& s = table[i];
    if (s.ref == 0) continue;
    size_t j = homeOf(byAddress ? addressHash(s.key) : s.key, capacity);
    while (slots[j].ref != 0) j = next(j, capacity);
    slots[j] = s;
  }
  std::free(std::exchange(table, slots));
  tableCapacity = capacity;
}

RegisterIndex::Ref RegisterIndex::insert(std::string_view name, U32 hash, Fields const& fields, bool& inserted) {
  inserted = false;
  if (Ref const existing = find(name, hash)) return existing;
  // At most 4/5 full: a table sized by reserve() for the whole map never grows here.
  if ((names_ + 1) * 5 > nameCapacity_ * 4) growSlots(nameSlots_, nameCapacity_, std::max<size_t>(names_ * 2, 8), false);
  size_t const bytes = entryBytes(name.size());
  if (arenaUsed_ + bytes > arenaCapacity_)
    growArena(std::max(arenaUsed_ + bytes, std::min(arenaCapacity_ * 2, kMaxArenaBytes)));
  auto* const e = reinterpret_cast<Entry*>(arena_ + arenaUsed_);
  e->shortLength = name.size() < kLongName ? static_cast<U16>(name.size()) : kLongName;
  if (!name.empty()) std::memcpy(e + 1, name.data(), name.size());  // an empty view may have no data
  reinterpret_cast<char*>(e + 1)[name.size()] = '\0';
  Ref const ref = static_cast<Ref>(arenaUsed_ >> 2) + 1;
  arenaUsed_ += bytes;
  update(ref, fields);
  size_t i = homeOf(hash, nameCapacity_);
  while (nameSlots_[i].ref != 0) i = next(i, nameCapacity_);
  nameSlots_[i] = {hash, ref};
  ++names_;
  inserted = true;
  return ref;
}

void RegisterIndex::update(Ref ref, Fields const& fields) noexcept {
  Entry& e = mutableEntry(ref);
  e.address = fields.address;
  e.width = fields.width;
  e.accessWidth = fields.accessWidth;
  e.type = fields.type;
  e.flags = fields.writeable ? kWriteable : 0;
}

// Removal without tombstones: the slots after the freed one that would no longer be
// reachable from their home slot move back into the gap.
void RegisterIndex::eraseSlot(Slot* slots, size_t capacity, size_t i, bool byAddress) noexcept {
  for (size_t j = next(i, capacity); slots[j].ref != 0; j = next(j, capacity)) {
    size_t const home = homeOf(byAddress ? addressHash(slots[j].key) : slots[j].key, capacity);
    bool const staysReachable = i <= j ? (i < home && home <= j) : (i < home || home <= j);
    if (staysReachable) continue;
    slots[i] = slots[j];
    i = j;
  }
  slots[i] = Slot{0, 0};
}

void RegisterIndex::erase(Ref ref) {
  Entry& e = mutableEntry(ref);
  U32 const hash = hashName(e.name(), e.length());
  for (size_t i = homeOf(hash, nameCapacity_); nameSlots_[i].ref != 0; i = next(i, nameCapacity_)) {
    if (nameSlots_[i].ref != ref) continue;
    eraseSlot(nameSlots_, nameCapacity_, i, false);
    --names_;
    break;
  }
  e.flags |= kErased;
  erasedBytes_ += entryBytes(e.length());
  // Space of erased entries is reclaimed once it is most of the arena.
  if (erasedBytes_ > 4096 && erasedBytes_ * 2 > arenaUsed_) compact();
}

bool RegisterIndex::claimAddress(U32 address, Ref ref) {
  if ((addresses_ + 1) * 5 > addressCapacity_ * 4) growSlots(addressSlots_, addressCapacity_, std::max<size_t>(addresses_ * 2, 8), true);
  size_t i = homeOf(addressHash(address), addressCapacity_);
  for (; addressSlots_[i].ref != 0; i = next(i, addressCapacity_)) {
    if (addressSlots_[i].key != address) continue;
    // An address left behind by an erased entry is free again.
    if (!(entry(addressSlots_[i].ref).flags & kErased)) return false;
    addressSlots_[i].ref = ref;
    return true;
  }
  addressSlots_[i] = {address, ref};
  ++addresses_;
  return true;
}

void RegisterIndex::setAddress(U32 address, Ref ref) {
  if (claimAddress(address, ref)) return;
  for (size_t i = homeOf(addressHash(address), addressCapacity_);; i = next(i, addressCapacity_)) {
    if (addressSlots_[i].key != address) continue;
    addressSlots_[i].ref = ref;
    return;
  }
}

void RegisterIndex::eraseAddress(U32 address) {
  if (addressSlots_ == nullptr) return;
  for (size_t i = homeOf(addressHash(address), addressCapacity_); addressSlots_[i].ref != 0;
       i = next(i, addressCapacity_)) {
    if (addressSlots_[i].key != address) continue;
    eraseSlot(addressSlots_, addressCapacity_, i, true);
    --addresses_;
    return;
  }
}

void RegisterIndex::compact() {
  // Live entries move to a new arena in their order and both tables are rebuilt. Each
  // old entry's width field is overwritten with its new reference (0 for an erased one):
  // the old arena is discarded afterwards.
  size_t const live = std::max<size_t>(arenaUsed_ - erasedBytes_, 4);
  char* fresh = static_cast<char*>(std::malloc(live));
  Slot* names = nullptr;
  Slot* addresses = nullptr;
  try {
    names = allocateZeroed<Slot>(nameCapacity_);
    addresses = allocateZeroed<Slot>(addressCapacity_);
  } catch (std::bad_alloc const&) {
  }
  if (fresh == nullptr || names == nullptr || addresses == nullptr) {
    // Keep the garbage rather than fail a removal.
    std::free(fresh);
    std::free(names);
    std::free(addresses);
    return;
  }
  size_t used = 0;
  for (size_t offset = 0; offset < arenaUsed_;) {
    auto& e = *reinterpret_cast<Entry*>(arena_ + offset);
    size_t const bytes = entryBytes(e.length());
    offset += bytes;
    if (e.flags & kErased) {
      e.width = 0;
      continue;
    }
    std::memcpy(fresh + used, &e, bytes);
    e.width = static_cast<U32>(used >> 2) + 1;
    used += bytes;
  }
  for (size_t i = 0; i < nameCapacity_; ++i) {
    Slot const& s = nameSlots_[i];
    if (s.ref == 0) continue;
    size_t j = homeOf(s.key, nameCapacity_);
    while (names[j].ref != 0) j = next(j, nameCapacity_);
    names[j] = {s.key, entry(s.ref).width};
  }
  addresses_ = 0;
  for (size_t i = 0; i < addressCapacity_; ++i) {
    Slot const& s = addressSlots_[i];
    if (s.ref == 0 || entry(s.ref).width == 0) continue;  // an address of an erased entry goes
    size_t j = homeOf(addressHash(s.key), addressCapacity_);
    while (addresses[j].ref != 0) j = next(j, addressCapacity_);
    addresses[j] = {s.key, entry(s.ref).width};
    ++addresses_;
  }
  std::free(std::exchange(arena_, fresh));
  std::free(std::exchange(nameSlots_, names));
  std::free(std::exchange(addressSlots_, addresses));
  arenaCapacity_ = live;
  arenaUsed_ = used;
  erasedBytes_ = 0;
}

}  // namespace TarnRegFile
