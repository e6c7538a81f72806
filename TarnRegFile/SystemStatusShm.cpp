#include "TarnRegFile/SystemStatusShm.h"

#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/ShmEntityManager.h"
#include "TarnRegFile/platform/ShmWatch.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace TarnRegFile {

namespace {

Kiv::TraceHandle kTrace("TarnRegFile/SystemStatusShm");

using Kind = SystemStatusRecord::Kind;

constexpr U32 kNameOffset = 1, kFirstWord = 64, kSecondWord = 68, kProfileOffset = 72;
constexpr std::size_t kFieldBytes = SystemStatusRecord::kMaxNameBytes + 1;

char const* kindName(Kind kind) { return kind == Kind::chip ? "chip" : "profile"; }

void checkName(std::string_view name, char const* what) {
  if (name.empty())
    throw std::invalid_argument(fmt::format("{} name is empty", what));
  if (name.size() > SystemStatusRecord::kMaxNameBytes)
    throw std::invalid_argument(fmt::format("{} name '{}' is longer than {} bytes", what, name,
                                            SystemStatusRecord::kMaxNameBytes));
  if (name.find('\0') != std::string_view::npos)
    throw std::invalid_argument(fmt::format("{} name contains a NUL character", what));
}

void putName(std::string_view name, std::byte* out, std::size_t room) {
  std::memset(out, 0, room);
  if (!name.empty())  // an empty view may have no characters at all (a null pointer)
    std::memcpy(out, name.data(), std::min(name.size(), room));
}

std::string getName(std::byte const* in, std::size_t room) {
  auto const* chars = reinterpret_cast<char const*>(in);
  return std::string(chars, ::strnlen(chars, room));
}

void putWord(U32 value, std::byte* out) { std::memcpy(out, &value, 4); }  // the targets are little-endian
U32 getWord(std::byte const* in) {
  U32 value;
  std::memcpy(&value, in, 4);
  return value;
}

bool byName(SystemStatusRecord const& a, SystemStatusRecord const& b) { return a.name < b.name; }

}  // namespace

std::string systemStatusPath(std::string_view system) {
  if (system.empty() || system.find('/') != std::string_view::npos)
    throw std::invalid_argument(fmt::format("system name '{}' must be one non-empty path component", system));
  std::string path = MountConstants::systemStatusPathFormat;
  path.replace(path.find("%s"), 2, system);
  Kiv::Shm::Root::validatePath(path);
  return path;
}

// ---- table encoding ---------------------------------------------------------------------------------------------

void SystemStatusTraits::encodeKey(Key const& key, std::byte* out) {
  checkName(key.name, kindName(key.kind));
  out[0] = static_cast<std::byte>(key.kind);
  putName(key.name, out + kNameOffset, keySize - kNameOffset);
}

void SystemStatusTraits::encode(Value const& value, std::byte* out) {
  encodeKey(keyOf(value), out);
  bool const chip = value.kind == Kind::chip;
  if (chip && !value.profileName.empty())
    checkName(value.profileName, "profile");
  putWord(chip ? value.devId.value() : value.hwApi.major, out + kFirstWord);
  putWord(chip ? 0 : value.hwApi.minor, out + kSecondWord);
  putName(chip ? value.profileName : std::string_view(), out + kProfileOffset, kFieldBytes);
}

SystemStatusRecord SystemStatusTraits::decode(std::byte const* in) {
  SystemStatusRecord r;
  r.kind = static_cast<Kind>(in[0]);
  r.name = getName(in + kNameOffset, keySize - kNameOffset);
  if (r.kind == Kind::chip) {
    r.devId = Hardware::DevId(static_cast<U8>(getWord(in + kFirstWord)));
    r.profileName = getName(in + kProfileOffset, kFieldBytes);
  } else {
    r.hwApi = PossibleHwApi(getWord(in + kFirstWord), getWord(in + kSecondWord));
  }
  return r;
}

U32 SystemStatusTraits::hash(Key const& key, U32 seed) noexcept {
  return Kiv::Hash(seed).mix1(static_cast<U8>(key.kind)).mixBytes(key.name).result();
}

namespace {

SystemStatusSnapshot snapshotOf(SystemStatusCollection const& collection) {
  SystemStatusSnapshot s;
  for (SystemStatusRecord const& r : collection) {
    if (r.kind == Kind::chip)
      s.chips.push_back(r);
    else if (r.kind == Kind::profile)
      s.profiles.push_back(r);
  }
  std::sort(s.chips.begin(), s.chips.end(), byName);
  std::sort(s.profiles.begin(), s.profiles.end(), byName);
  return s;
}

}  // namespace

SystemStatusSnapshot readSystemStatus(Kiv::Shm::Root const& root, std::string_view system) {
  std::string const path = systemStatusPath(system);
  if (!root.exists(path))
    throw std::runtime_error(fmt::format("no status is published for system '{}' (no table '{}' under {})", system,
                                         path, root.dir()));
  return snapshotOf(SystemStatusCollection::openReader(root, path));
}

// ---- publisher --------------------------------------------------------------------------------------------------

SystemStatusPublisher SystemStatusPublisher::open(Kiv::Shm::Root const& root, std::string_view system,
                                                  Kiv::Shm::GroupMode group) {
  return SystemStatusPublisher(SystemStatusCollection::openWriter(root, systemStatusPath(system), kCapacity, group));
}

void SystemStatusPublisher::chipIs(std::string const& name, Hardware::DevId devId, std::string const& profileName) {
  SystemStatusRecord r;
  r.kind = Kind::chip;
  r.name = name;
  r.devId = devId;
  r.profileName = profileName;
  collection_.write(r);
}

bool SystemStatusPublisher::chipDel(std::string const& name) { return collection_.remove(SystemStatusKey{Kind::chip, name}); }

void SystemStatusPublisher::profileIs(PossibleProfile const& profile) {
  SystemStatusRecord r;
  r.kind = Kind::profile;
  r.name = profile.profileName.str();
  r.hwApi = profile.hwApi;
  collection_.write(r);
}

bool SystemStatusPublisher::profileDel(std::string const& name) {
  return collection_.remove(SystemStatusKey{Kind::profile, name});
}

std::optional<SystemStatusRecord> SystemStatusPublisher::chip(std::string const& name) const {
  return collection_.lookup(SystemStatusKey{Kind::chip, name});
}

std::optional<SystemStatusRecord> SystemStatusPublisher::profile(std::string const& name) const {
  return collection_.lookup(SystemStatusKey{Kind::profile, name});
}

SystemStatusSnapshot SystemStatusPublisher::snapshot() const { return snapshotOf(collection_); }

// ---- follower ---------------------------------------------------------------------------------------------------

/// The followed status: a PossibleSystemStatus that can announce a chip after filling it in,
/// so that the state machine's hooks never see a new chip without its device and profile.
class SystemStatusFollower::Status : public PossibleSystemStatus {
public:
  explicit Status(Kiv::String const& name) : PossibleSystemStatus(name) {}

  void chipIs(SystemStatusRecord const& r) {
    Kiv::String const name(r.name);
    if (chipStatusHas(name)) {
      Kiv::Ptr<PossibleChipStatus> const chip = chipStatus(name);
      chip->devIdIs(r.devId);
      chip->profileNameIs(Kiv::String(r.profileName));
      return;
    }
    hasNotificationActiveIs(false);
    Kiv::Ptr<PossibleChipStatus> chip;
    try {
      chip = chipStatusIs(name);
    } catch (...) {
      hasNotificationActiveIs(true);
      throw;
    }
    hasNotificationActiveIs(true);
    chip->devIdIs(r.devId);
    chip->profileNameIs(Kiv::String(r.profileName));
    notify<Notifiee>([&](Notifiee& n) { n.onChipStatus(name); });
  }

protected:
  ~Status() override = default;
  template <class T, class... A>
  friend Kiv::Ptr<T> Kiv::create(A&&...);
};

SystemStatusFollower::SystemStatusFollower(Kiv::Shm::Root const& root, std::string_view system,
                                           Kiv::Shm::GroupMode group) {
  std::string const path = systemStatusPath(system);
  Kiv::Ptr<Status> status = Kiv::create<Status>(Kiv::String(system));
  mirror_ = status.ptr();
  status_ = status;
  try {
    watcher_ = std::make_unique<Kiv::Shm::CollectionWatcher<SystemStatusTraits>>(root, path, group);
  } catch (Kiv::Shm::CorruptionException const& e) {
    Kiv::Shm::reportCorruption(e.what());
    // Follow it anyway: a writer that repairs or rebuilds it rings.
    throw;
  }
  std::vector<SystemStatusRecord> present;
  if (watcher_->present())
    for (SystemStatusRecord const& r : watcher_->collection()) present.push_back(r);
  apply(present, {});
  watcher_->changeHandlerIs([this](SystemStatusKey const& key, SystemStatusRecord const* now) {
    if (now != nullptr)
      pendingPresent_.push_back(*now);
    else
      pendingGone_.push_back(key);
  });
  kTrace.line(1, "following the status of system '{}' at '{}': {} chip(s) and profile(s)", system, path,
              present.size());
}

SystemStatusFollower::~SystemStatusFollower() = default;

int SystemStatusFollower::fd() const noexcept { return watcher_->fd(); }

std::string const& SystemStatusFollower::path() const noexcept { return watcher_->path(); }

U32 SystemStatusFollower::dispatch() {
  pendingPresent_.clear();
  pendingGone_.clear();
  U32 changed = 0;
  try {
    changed = watcher_->dispatch();
  } catch (Kiv::Shm::CorruptionException const& e) {
    Kiv::Shm::reportCorruption(e.what());
    return 0;
  }
  if (changed != 0)
    apply(pendingPresent_, pendingGone_);
  return changed;
}

void SystemStatusFollower::apply(std::vector<SystemStatusRecord> const& present,
                                 std::vector<SystemStatusKey> const& gone) {
  for (SystemStatusRecord const& r : present)
    if (r.kind == Kind::profile) {
      kTrace.line(2, "system '{}': profile {} {}.{}", status_->name().view(), r.name, r.hwApi.major, r.hwApi.minor);
      status_->profileIs(PossibleProfile(Kiv::String(r.name), r.hwApi));
    }
  for (SystemStatusRecord const& r : present)
    if (r.kind == Kind::chip) {
      kTrace.line(2, "system '{}': chip {} device {} profile {}", status_->name().view(), r.name, r.devId,
                  r.profileName);
      mirror_->chipIs(r);
    }
  for (SystemStatusKey const& key : gone)
    if (key.kind == Kind::chip) {
      kTrace.line(2, "system '{}': chip {} withdrawn", status_->name().view(), key.name);
      status_->chipStatusDel(Kiv::String(key.name));
    }
  for (SystemStatusKey const& key : gone)
    if (key.kind == Kind::profile) {
      kTrace.line(2, "system '{}': profile {} withdrawn", status_->name().view(), key.name);
      status_->profileDel(Kiv::String(key.name));
    }
}

}  // namespace TarnRegFile
