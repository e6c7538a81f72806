#pragma once
/// @file SystemStatusShm.h
/// @brief The system status as the platform publishes it in shared memory, and the
/// follower that keeps an agent's `PossibleSystemStatus` in step with it.
///
/// One shared-memory table per system, at `systemStatusPath(system)`, that is
/// "hardware/<system>/system/status" (MountConstants::systemStatusPathFormat),
/// holds both collections of the status: one record per chip present (name,
/// device identifier, profile name) and one per profile in use (name,
/// hardware interface version). One table means one writer lock, one bell and
/// one descriptor for the agent to poll.
///
/// Publisher (the platform's side; `tarnreg status` is one):
///
///     auto status = SystemStatusPublisher::open(root, "sys0");
///     status.profileIs(PossibleProfile("p1", PossibleHwApi(1, 2)));
///     status.chipIs("chip0", Hardware::DevId(7), "p1");
///     status.chipDel("chip0");
///
/// Follower (the agent's side), on the agent's event loop:
///
///     SystemStatusFollower follower(root, "sys0");        // the status as published now
///     auto sm = ...derived SystemChipStatusSmBase...(manager, follower.systemStatus(), ...);
///     sm->handleSystemChipStatus();                       // the chips already present
///     // poll(follower.fd(), POLLIN) ... then:
///     follower.dispatch();                                // the publisher's changes, applied
///
/// The follower applies a dispatch's changes in an order that keeps the status
/// coherent for the state machine's hooks: new and changed profiles first, then
/// new and changed chips (a new chip's device identifier and profile name are set
/// before `chipStatus` announces it), then removed chips, then removed profiles.
/// The table may be published after the follower starts: the status is empty
/// until then.
///
/// Names (chip and profile) are 1 to 63 bytes without NUL; longer ones are refused
/// with std::invalid_argument before anything changes.

#include "TarnRegFile/SystemChipStatusSm.h"
#include "TarnRegFile/platform/DevId.h"
#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/ShmCollection.h"
#include "TarnRegFile/platform/ShmRoot.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv::Shm {
template <class Traits>
class CollectionWatcher;  // TarnRegFile/platform/ShmWatch.h; the follower holds its watcher by pointer
}

namespace TarnRegFile {

/// @brief The mount path of system @p system's status: "hardware/<system>/system/status".
///
/// Throws std::invalid_argument when @p system is not a single valid path component.
TARN_API std::string systemStatusPath(std::string_view system);

/// @brief One record of the status table: a chip or a profile.
struct TARN_API SystemStatusRecord {
  enum class Kind : U8 { chip = 1, profile = 2 };
  static constexpr std::size_t kMaxNameBytes = 63;

  Kind kind = Kind::chip;
  std::string name;               ///< chip name or profile name (the key, with kind)
  Hardware::DevId devId;          ///< chip
  std::string profileName;        ///< chip: the profile it runs
  PossibleHwApi hwApi;            ///< profile

  bool operator==(SystemStatusRecord const&) const = default;
};

/// @brief Key of a status record: its kind and name.
struct TARN_API SystemStatusKey {
  SystemStatusRecord::Kind kind = SystemStatusRecord::Kind::chip;
  std::string name;
  bool operator==(SystemStatusKey const&) const = default;
};

/// @brief The table encoding of a status record: 136 bytes, the first 64 its key.
///
/// Byte 0 kind, 1-63 name (NUL-padded), 64-67 device identifier or major, 68-71
/// minor, 72-135 profile name (NUL-padded). Little-endian, the same on i386 and amd64.
struct TARN_API SystemStatusTraits {
  using Value = SystemStatusRecord;
  using Key = SystemStatusKey;
  static constexpr U32 keySize = 64;
  static constexpr U32 valueSize = 136;

  static void encodeKey(Key const& key, std::byte* out);
  static void encode(Value const& value, std::byte* out);
  static Value decode(std::byte const* in);
  static Key keyOf(Value const& value) { return Key{value.kind, value.name}; }
  static U32 hash(Key const& key, U32 seed) noexcept;
};

/// @brief The status table as a typed collection.
using SystemStatusCollection = Kiv::Shm::Collection<SystemStatusTraits>;

/// @brief A published status read at one moment, sorted by name.
struct TARN_API SystemStatusSnapshot {
  std::vector<SystemStatusRecord> chips;
  std::vector<SystemStatusRecord> profiles;
};

/// @brief Every record of system @p system's status table.
///
/// Throws std::runtime_error when nothing is published for it, Kiv::Shm::CorruptionException
/// when the table is damaged.
TARN_API SystemStatusSnapshot readSystemStatus(Kiv::Shm::Root const& root, std::string_view system);

/// @brief The writer of a system's status table (one process at a time).
class TARN_API SystemStatusPublisher {
public:
  /// The most chips and profiles together a status table holds.
  static constexpr U32 kCapacity = 4096;

  /// @brief Creates system @p system's status table, or attaches to it as its writer.
  ///
  /// Throws std::invalid_argument for a bad system name, std::runtime_error when
  /// another process is the writer, Kiv::Shm::CorruptionException for a damaged table.
  static SystemStatusPublisher open(Kiv::Shm::Root const& root, std::string_view system,
                                    Kiv::Shm::GroupMode group = Kiv::Shm::GroupMode::Private);

  /// @brief Publishes chip @p name (new, or its device identifier and profile replaced).
  void chipIs(std::string const& name, Hardware::DevId devId, std::string const& profileName);
  /// @brief Withdraws chip @p name; false when it was not published.
  bool chipDel(std::string const& name);
  /// @brief Publishes @p profile under its name (new, or its version replaced).
  void profileIs(PossibleProfile const& profile);
  /// @brief Withdraws profile @p name; false when it was not published.
  bool profileDel(std::string const& name);

  /// @brief The chip @p name as published, if it is.
  std::optional<SystemStatusRecord> chip(std::string const& name) const;
  /// @brief The profile @p name as published, if it is.
  std::optional<SystemStatusRecord> profile(std::string const& name) const;
  /// @brief Everything published.
  SystemStatusSnapshot snapshot() const;

  /// @brief The table's mount path.
  std::string const& path() const noexcept { return collection_.table().path(); }

private:
  explicit SystemStatusPublisher(SystemStatusCollection collection) : collection_(std::move(collection)) {}
  SystemStatusCollection collection_;
};

/// @brief Keeps a local PossibleSystemStatus in step with a system's published status
/// (see the file comment). Belongs to the agent's event loop thread.
class TARN_API SystemStatusFollower {
public:
  /// @brief Follows system @p system's status: the status holds what is published now
  /// (nothing when nothing is), and dispatch() applies later changes.
  ///
  /// Throws like systemStatusPath and Kiv::Shm::Watcher, and Kiv::Shm::CorruptionException
  /// (after reporting it to the corruption handler) for a damaged table.
  SystemStatusFollower(Kiv::Shm::Root const& root, std::string_view system,
                       Kiv::Shm::GroupMode group = Kiv::Shm::GroupMode::Private);
  ~SystemStatusFollower();
  SystemStatusFollower(SystemStatusFollower const&) = delete;
  SystemStatusFollower& operator=(SystemStatusFollower const&) = delete;

  /// @brief The status kept in step (named after the system); give it to the state machine.
  Kiv::Ptr<PossibleSystemStatus> const& systemStatus() const noexcept { return status_; }

  /// @brief Readable when the publisher changed something (or went); never changes.
  int fd() const noexcept;

  /// @brief Applies the publisher's changes to systemStatus(), with its notifications;
  /// returns the number of records that changed. Never blocks.
  ///
  /// A damaged table is reported to the corruption handler (Kiv::Shm::reportCorruption)
  /// and changes nothing; exceptions from the status's observers propagate.
  U32 dispatch();

  /// @brief The table's mount path.
  std::string const& path() const noexcept;

private:
  class Status;
  void apply(std::vector<SystemStatusRecord> const& present, std::vector<SystemStatusKey> const& gone);

  Kiv::Ptr<PossibleSystemStatus> status_;
  Status* mirror_ = nullptr;  ///< status_, as the type that can announce a chip it completed
  std::unique_ptr<Kiv::Shm::CollectionWatcher<SystemStatusTraits>> watcher_;
  std::vector<SystemStatusRecord> pendingPresent_;  ///< filled by one dispatch, then applied
  std::vector<SystemStatusKey> pendingGone_;
};

}  // namespace TarnRegFile
