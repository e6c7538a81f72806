#pragma once
/// @file ShmEntityManager.h
/// @brief Entities mounted at paths of a shared-memory root, and what their collections report to.
///
/// The entity manager keeps a tree of entities named by slash-separated mount
/// paths such as "TarnRegFile/shadowFieldsConfig/chip0". Mounting a path
/// creates an entity of a registered type (through `Kiv::TypeRegistry`, named
/// after the last path component) and `Directory` entities for the components
/// above it, then places the entity under its parent with
/// `Kiv::Entity::parentIs`. The entity's `handleParent` attaches its
/// collections to the tables of its full path, asking the manager for the mode
/// (writer or reader) and the capacities of the mount description.
///
/// Mounts are made in groups: `mountGroup()` hands out a `MountGroup`,
/// `mount()` creates the entity right away (so that `entity(path)` can fetch
/// it) and `close()` places every mounted entity under its parent, which
/// attaches it. A group destroyed without `close()` takes back the entities it
/// created. Errors (a bad path, an unknown type, a capacity out of range, a
/// table that already has a writer in another process) are exceptions naming
/// the path.
///
/// Lifetime. The manager holds directories and entities that are not mounted
/// (yet, or any more) by counted references. A mounted `ControlledEntity`
/// (the shadow-field collections) is held only by its users: when its last
/// user reference goes while it is mounted, the entity hands itself over to
/// its `CollectionControl`, which keeps it (and its attachment) until the
/// manager's `unmount` (or the manager's end) detaches it and releases it.
/// So `entity(path)` finds a mounted entity even after every user let go,
/// and a later user gets the same entity with its contents.
///
/// Corruption. Collections that find a table inconsistent hand the
/// exception's message to a process-wide handler (`reportCorruption`), which
/// by default writes a level-0 trace line and can be replaced.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/ShmRoot.h"
#include "TarnRegFile/platform/Types.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv::Shm {

/// @brief How far a mount of an entity or a collection got.
enum class MountStatus : U8 {
  unmounted,  ///< not attached to shared memory
  mounting,   ///< mount requested, not completed yet
  mounted,    ///< attached
  failed,     ///< the attach failed; the entity is not attached
};

/// @brief "unmounted", "mounting", "mounted" or "failed".
TARN_API char const* mountStatusName(MountStatus status) noexcept;

/// @brief Whether entities attach to their tables as the writer or read-only.
enum class MountMode : U8 {
  writer,  ///< the only writer of each table (creates it when missing)
  reader,  ///< read-only; the tables must exist
};

/// @brief "writer" or "reader".
TARN_API char const* mountModeName(MountMode mode) noexcept;

// ---------------------------------------------------------------------------------------------- corruption handler

/// @brief Receives the message of a corruption exception that a collection caught.
using CorruptionHandler = std::function<void(std::string const& message)>;

/// @brief Replaces the process-wide corruption handler; an empty handler restores the default (a level-0 trace).
TARN_API void corruptionHandlerIs(CorruptionHandler handler);
/// @brief The handler set with corruptionHandlerIs (empty while the default is in force).
TARN_API CorruptionHandler const& corruptionHandler();
/// @brief Runs the corruption handler with @p message.
TARN_API void reportCorruption(std::string const& message);

// ---------------------------------------------------------------------------------------------- collection control

/// @brief What a mounted collection reports to its owner: mount status, quiesced flag, and the
/// entity it keeps alive after the entity's users let go.
class TARN_API CollectionControl : public Kiv::Entity {
public:
  class Notifiee : public Kiv::Notifiee<CollectionControl> {
  public:
    virtual void onMountStatus() {}
    virtual void onQuiesced() {}
    virtual void onEntity() {}
  };

  /// @brief A new control (status unmounted, not quiesced, no entity) with notification active.
  static Kiv::Ptr<CollectionControl> CollectionControlIs(Kiv::String const& name);

  char const* fwkType() const override { return "Kiv::Shm::CollectionControl"; }

  /// @brief The collection's mount status as last reported.
  MountStatus mountStatus() const noexcept { return mountStatus_; }
  /// @brief Sets the mount status; notifies on change.
  void mountStatusIs(MountStatus status);

  /// @brief Whether the collection's owner asked its readers to hold still.
  bool quiesced() const noexcept { return quiesced_; }
  /// @brief Sets the quiesced flag; notifies on change.
  void quiescedIs(bool quiesced);

  /// @brief The entity this control keeps alive, or null.
  Kiv::Ptr<Kiv::Entity> const& entity() const noexcept { return entity_; }
  /// @brief Holds (or, with null, releases) @p entity; notifies on change.
  void entityIs(Kiv::Ptr<Kiv::Entity> const& entity);

  explicit CollectionControl(Kiv::String name);

protected:
  ~CollectionControl() override;

private:
  MountStatus mountStatus_ = MountStatus::unmounted;
  bool quiesced_ = false;
  Kiv::Ptr<Kiv::Entity> entity_;
};

/// @brief Creates a CollectionControl named @p name.
TARN_API Kiv::Ptr<CollectionControl> collectionControlFactory(Kiv::String const& name);

/// @brief Implemented by mounted entity types that hand themselves over to a CollectionControl
/// when their last reference goes while they are mounted (see the file comment).
class TARN_API ControlledEntity {
public:
  /// @brief The control that takes the entity over; null when there is none.
  virtual Kiv::Ptr<CollectionControl> mountControl() const = 0;

protected:
  ControlledEntity() = default;
  virtual ~ControlledEntity();
};

// ---------------------------------------------------------------------------------------------- mounting

/// @brief Per-mount description: the capacity of each collection of the mounted entity, by collection name.
class TARN_API MountDescription {
public:
  /// @brief Sets the capacity (entries) of collection @p name.
  ///
  /// The capacity is a limit: the table's file follows the entries it holds, so a
  /// large limit costs nothing until entries fill it. Throws std::invalid_argument
  /// for an empty name or a capacity above Table::kMaxCapacity (2^31).
  /// A capacity of 0 is accepted: the table then holds one entry.
  MountDescription& collectionIs(std::string const& name, U32 capacity);
  /// @brief The capacity of collection @p name, or nothing when it is not described.
  std::optional<U32> capacity(std::string_view name) const;
  /// @brief Says that collection @p name will soon hold @p entries, so that a table created for it
  /// is sized for them at once (a hint: the capacity stays the limit).
  MountDescription& expectedEntriesIs(std::string const& name, U32 entries);
  /// @brief The entries expected in collection @p name (0 when not said).
  U32 expectedEntries(std::string_view name) const;
  /// @brief Every described collection, by name.
  std::map<std::string, U32, std::less<>> const& collections() const noexcept { return collections_; }

private:
  std::map<std::string, U32, std::less<>> collections_;
  std::map<std::string, U32, std::less<>> expectedEntries_;
};

/// @brief The entity at an intermediate component of a mount path.
class TARN_API Directory : public Kiv::Entity {
public:
  explicit Directory(Kiv::String name);
  char const* fwkType() const override { return "Kiv::Shm::Directory"; }
};

class EntityManager;

/// @brief A set of mounts completed together by close().
class TARN_API MountGroup {
public:
  MountGroup(MountGroup&&) noexcept;
  MountGroup& operator=(MountGroup&&) noexcept;
  MountGroup(MountGroup const&) = delete;
  MountGroup& operator=(MountGroup const&) = delete;
  /// @brief Takes back the entities created by mounts that were never closed.
  ~MountGroup();

  /// @brief Mounts an entity of type @p typeName at @p path with the capacities of @p description.
  ///
  /// A new path gets a new entity (and directories above it) at once, status
  /// mounting; an entity already mounted there with that type is kept and
  /// attached again by close() with the new description (a larger capacity
  /// raises the limit of its tables, keeping their entries). Throws std::invalid_argument for
  /// a bad path or description and std::runtime_error for an unknown type, a
  /// path mounted with another type, or a path that clashes with the tree.
  void mount(std::string const& path, std::string const& typeName, MountDescription const& description);

  /// @brief Attaches every entity mounted through this group (places it under its parent).
  ///
  /// Every mount is attempted; those that fail get status failed and are
  /// detached. Then, if any failed, throws std::runtime_error naming each
  /// failed path with its reason. Closing twice does nothing.
  void close();

  /// @brief The mode the group's mounts attach with.
  MountMode mode() const noexcept { return mode_; }

private:
  friend class EntityManager;
  struct Pending {
    std::string path;
    MountDescription description;
    bool created;  ///< the entity was made by this group
  };
  MountGroup(Kiv::Ptr<EntityManager> manager, MountMode mode);
  void abandon() noexcept;

  Kiv::Ptr<EntityManager> manager_;
  MountMode mode_;
  std::vector<Pending> pending_;
};

/// @brief The tree of entities mounted under one shared-memory root.
class TARN_API EntityManager : public Kiv::Entity {
public:
  /// @brief A manager over @p root whose mount groups attach as @p mode by default.
  static Kiv::Ptr<EntityManager> EntityManagerIs(Root root = Root(), MountMode mode = MountMode::writer);

  char const* fwkType() const override { return "Kiv::Shm::EntityManager"; }

  /// @brief The shared-memory root the tables live under.
  Root const& root() const noexcept { return root_; }
  /// @brief The default mode of mount groups.
  MountMode mode() const noexcept { return mode_; }

  /// @brief A new mount group in the default mode.
  MountGroup mountGroup();
  /// @brief A new mount group whose mounts attach as @p mode.
  MountGroup mountGroup(MountMode mode);

  /// @brief The entity at @p path (a mounted entity or a directory), or null.
  Kiv::Ptr<Kiv::Entity> entity(std::string_view path) const;
  /// @brief The mount status of the entity at @p path (unmounted when nothing is mounted there).
  MountStatus mountStatus(std::string_view path) const;
  /// @brief The mode the entity at @p path was mounted with; throws std::invalid_argument when none is.
  MountMode modeOf(std::string_view path) const;
  /// @brief Capacity of collection @p collectionName of the entity mounted at @p path.
  ///
  /// Throws std::invalid_argument when nothing is mounted there or its description lacks the collection.
  U32 capacityOf(std::string_view path, std::string_view collectionName) const;
  /// @brief The entries the mount description of @p path expects in @p collectionName (0: none said).
  U32 expectedEntriesOf(std::string_view path, std::string_view collectionName) const;
  /// @brief Paths of every mounted entity (directories excluded), sorted.
  std::vector<std::string> mountedPaths() const;

  /// @brief The path of @p entity in this tree: its parent's full name, "/" and its name ("" for the manager).
  ///
  /// Throws std::invalid_argument when @p entity is not in this manager's tree.
  std::string fullName(Kiv::Entity const* entity) const;

  /// @brief The manager whose tree holds @p entity (following parents up), or null.
  static EntityManager* managerOf(Kiv::Entity const* entity) noexcept;

  /// @brief Detaches the entity at @p path and forgets it (and directories left empty); false when none.
  ///
  /// The entity lives on while its users hold references. Throws
  /// std::runtime_error for a directory that still holds mounts.
  bool unmount(std::string_view path);

  EntityManager(Root root, MountMode mode);

protected:
  /// @brief Unmounts everything.
  ~EntityManager() override;

private:
  friend class MountGroup;
  struct Node {
    Kiv::Ptr<Kiv::Entity> held;    ///< counted reference, unless a mounted ControlledEntity
    Kiv::Entity* entity = nullptr;  ///< always the node's entity
    std::string typeName;           ///< empty for a directory
    MountDescription description;
    MountStatus status = MountStatus::unmounted;
    MountMode mode = MountMode::writer;
  };

  Node const* node(std::string_view path) const;
  Node* node(std::string_view path);
  bool hasChildren(std::string const& path) const;
  Kiv::Entity* parentEntityOf(std::string const& path);
  bool prepareMount(std::string const& path, std::string const& typeName, MountMode mode);
  void attach(std::string const& path, MountDescription const& description, MountMode mode);
  void detach(Node& node) noexcept;
  void forget(std::string const& path) noexcept;

  Root root_;
  MountMode mode_;
  std::map<std::string, Node, std::less<>> nodes_;
};

/// @brief Creates an entity manager over @p root (writer mode by default).
TARN_API Kiv::Ptr<EntityManager> entityManagerFactory(Root root = Root(), MountMode mode = MountMode::writer);

}  // namespace Kiv::Shm
