#include "TarnRegFile/platform/ShmEntityManager.h"

#include "TarnRegFile/platform/KivGeneric.h"
#include "TarnRegFile/platform/ShmTable.h"
#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

namespace Kiv::Shm {

namespace {

Kiv::TraceHandle kTrace("Shm/EntityManager");

CorruptionHandler& handlerSlot() {
  static CorruptionHandler handler;
  return handler;
}

/// The path without its last component ("" for a single component).
std::string_view parentPath(std::string_view path) {
  auto const slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

std::string_view lastComponent(std::string_view path) {
  auto const slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

char const* mountStatusName(MountStatus status) noexcept {
  switch (status) {
    case MountStatus::unmounted: return "unmounted";
    case MountStatus::mounting: return "mounting";
    case MountStatus::mounted: return "mounted";
    case MountStatus::failed: return "failed";
  }
  return "unknown";
}

char const* mountModeName(MountMode mode) noexcept { return mode == MountMode::reader ? "reader" : "writer"; }

// ---------------------------------------------------------------------------------------------- corruption handler

void corruptionHandlerIs(CorruptionHandler handler) { handlerSlot() = std::move(handler); }

CorruptionHandler const& corruptionHandler() { return handlerSlot(); }

void reportCorruption(std::string const& message) {
  CorruptionHandler const& handler = handlerSlot();
  if (handler)
    handler(message);
  else
    kTrace.line(0, "shared-memory corruption: {}", message);
}

// ---------------------------------------------------------------------------------------------- collection control

CollectionControl::CollectionControl(Kiv::String name) : Kiv::Entity(std::move(name)) {}

CollectionControl::~CollectionControl() = default;

Kiv::Ptr<CollectionControl> CollectionControl::CollectionControlIs(Kiv::String const& name) {
  return Kiv::create<CollectionControl>(name);
}

Kiv::Ptr<CollectionControl> collectionControlFactory(Kiv::String const& name) {
  return CollectionControl::CollectionControlIs(name);
}

void CollectionControl::mountStatusIs(MountStatus status) {
  if (status == mountStatus_)
    return;
  mountStatus_ = status;
  notify<Notifiee>([](Notifiee& n) { n.onMountStatus(); });
}

void CollectionControl::quiescedIs(bool quiesced) {
  if (quiesced == quiesced_)
    return;
  quiesced_ = quiesced;
  notify<Notifiee>([](Notifiee& n) { n.onQuiesced(); });
}

void CollectionControl::entityIs(Kiv::Ptr<Kiv::Entity> const& entity) {
  if (entity == entity_)
    return;
  // Keep this control alive while the released entity (which may own it) goes away.
  Kiv::Ptr<CollectionControl> const self(this);
  Kiv::Ptr<Kiv::Entity> released = std::exchange(entity_, entity);
  notify<Notifiee>([](Notifiee& n) { n.onEntity(); });
  released = nullptr;
}

ControlledEntity::~ControlledEntity() = default;

// ---------------------------------------------------------------------------------------------- descriptions

MountDescription& MountDescription::collectionIs(std::string const& name, U32 capacity) {
  if (name.empty())
    throw std::invalid_argument("a mount description needs a collection name");
  if (capacity > Table::kMaxCapacity)
    throw std::invalid_argument(fmt::format("collection '{}': capacity {} is above the largest a table accepts ({})",
                                            name, capacity, Table::kMaxCapacity));
  collections_[name] = capacity;
  return *this;
}

std::optional<U32> MountDescription::capacity(std::string_view name) const {
  auto const it = collections_.find(name);
  if (it == collections_.end())
    return std::nullopt;
  return it->second;
}

MountDescription& MountDescription::expectedEntriesIs(std::string const& name, U32 entries) {
  expectedEntries_[name] = entries;
  return *this;
}

U32 MountDescription::expectedEntries(std::string_view name) const {
  auto const it = expectedEntries_.find(name);
  return it == expectedEntries_.end() ? 0 : it->second;
}

Directory::Directory(Kiv::String name) : Kiv::Entity(std::move(name)) {}

// ---------------------------------------------------------------------------------------------- mount groups

MountGroup::MountGroup(Kiv::Ptr<EntityManager> manager, MountMode mode) : manager_(std::move(manager)), mode_(mode) {}

MountGroup::MountGroup(MountGroup&& other) noexcept
    : manager_(std::move(other.manager_)), mode_(other.mode_), pending_(std::move(other.pending_)) {
  other.pending_.clear();
}

MountGroup& MountGroup::operator=(MountGroup&& other) noexcept {
  if (this != &other) {
    abandon();
    manager_ = std::move(other.manager_);
    mode_ = other.mode_;
    pending_ = std::move(other.pending_);
    other.pending_.clear();
  }
  return *this;
}

MountGroup::~MountGroup() { abandon(); }

void MountGroup::abandon() noexcept {
  if (!manager_)
    return;
  for (auto it = pending_.rbegin(); it != pending_.rend(); ++it) {
    if (!it->created)
      continue;
    EntityManager::Node const* n = manager_->node(it->path);
    if (n && n->status == MountStatus::mounting) {
      kTrace.line(1, "mount of '{}' abandoned: its group was not closed", it->path);
      manager_->forget(it->path);
    }
  }
  pending_.clear();
}

void MountGroup::mount(std::string const& path, std::string const& typeName, MountDescription const& description) {
  if (!manager_)
    throw std::logic_error("mount through a mount group that was moved from");
  Root::validatePath(path);
  bool const created = manager_->prepareMount(path, typeName, mode_);
  pending_.push_back(Pending{path, description, created});
}

void MountGroup::close() {
  if (!manager_)
    return;
  std::vector<Pending> work = std::move(pending_);
  pending_.clear();
  std::string failures;
  for (Pending const& p : work) {
    try {
      manager_->attach(p.path, p.description, mode_);
    } catch (std::exception const& e) {
      kTrace.line(0, "mount of '{}' failed: {}", p.path, e.what());
      failures += fmt::format("{}'{}': {}", failures.empty() ? "" : "; ", p.path, e.what());
    }
  }
  if (!failures.empty())
    throw std::runtime_error("cannot mount " + failures);
}

// ---------------------------------------------------------------------------------------------- entity manager

EntityManager::EntityManager(Root root, MountMode mode)
    : Kiv::Entity(Kiv::String(root.dir())), root_(std::move(root)), mode_(mode) {}

Kiv::Ptr<EntityManager> EntityManager::EntityManagerIs(Root root, MountMode mode) {
  return Kiv::create<EntityManager>(std::move(root), mode);
}

Kiv::Ptr<EntityManager> entityManagerFactory(Root root, MountMode mode) {
  return EntityManager::EntityManagerIs(std::move(root), mode);
}

EntityManager::~EntityManager() {
  // Children before their parents: in path order a child sorts after its parent.
  std::vector<Kiv::Ptr<Kiv::Entity>> keep;
  keep.reserve(nodes_.size());
  for (auto it = nodes_.rbegin(); it != nodes_.rend(); ++it) {
    keep.emplace_back(it->second.entity);
    detach(it->second);
  }
  nodes_.clear();
  keep.clear();  // entities nobody else holds go now, after the tree is gone
}

MountGroup EntityManager::mountGroup() { return mountGroup(mode_); }

MountGroup EntityManager::mountGroup(MountMode mode) { return MountGroup(Kiv::Ptr<EntityManager>(this), mode); }

EntityManager::Node const* EntityManager::node(std::string_view path) const {
  auto const it = nodes_.find(path);
  return it == nodes_.end() ? nullptr : &it->second;
}

EntityManager::Node* EntityManager::node(std::string_view path) {
  auto const it = nodes_.find(path);
  return it == nodes_.end() ? nullptr : &it->second;
}

bool EntityManager::hasChildren(std::string const& path) const {
  std::string const prefix = path + "/";
  auto const it = nodes_.lower_bound(prefix);
  return it != nodes_.end() && it->first.compare(0, prefix.size(), prefix) == 0;
}

Kiv::Entity* EntityManager::parentEntityOf(std::string const& path) {
  std::string_view const up = parentPath(path);
  if (up.empty())
    return this;
  Node* const n = node(up);
  return n ? n->entity : nullptr;
}

Kiv::Ptr<Kiv::Entity> EntityManager::entity(std::string_view path) const {
  Node const* const n = node(path);
  return n ? Kiv::Ptr<Kiv::Entity>(n->entity) : Kiv::Ptr<Kiv::Entity>();
}

MountStatus EntityManager::mountStatus(std::string_view path) const {
  Node const* const n = node(path);
  if (!n)
    return MountStatus::unmounted;
  return n->typeName.empty() ? MountStatus::mounted : n->status;
}

MountMode EntityManager::modeOf(std::string_view path) const {
  Node const* const n = node(path);
  if (!n || n->typeName.empty())
    throw std::invalid_argument(fmt::format("nothing is mounted at '{}'", path));
  return n->mode;
}

U32 EntityManager::capacityOf(std::string_view path, std::string_view collectionName) const {
  Node const* const n = node(path);
  if (!n || n->typeName.empty())
    throw std::invalid_argument(fmt::format("nothing is mounted at '{}'", path));
  std::optional<U32> const capacity = n->description.capacity(collectionName);
  if (!capacity)
    throw std::invalid_argument(
        fmt::format("the mount description of '{}' gives no capacity for collection '{}'", path, collectionName));
  return *capacity;
}

U32 EntityManager::expectedEntriesOf(std::string_view path, std::string_view collectionName) const {
  Node const* const n = node(path);
  return n && !n->typeName.empty() ? n->description.expectedEntries(collectionName) : 0;
}

std::vector<std::string> EntityManager::mountedPaths() const {
  std::vector<std::string> paths;
  for (auto const& [path, n] : nodes_)
    if (!n.typeName.empty())
      paths.push_back(path);
  return paths;
}

EntityManager* EntityManager::managerOf(Kiv::Entity const* entity) noexcept {
  if (!entity)
    return nullptr;
  while (entity->parent())
    entity = entity->parent();
  return const_cast<EntityManager*>(dynamic_cast<EntityManager const*>(entity));
}

std::string EntityManager::fullName(Kiv::Entity const* entity) const {
  if (entity == this)
    return std::string();
  if (!entity || managerOf(entity) != this)
    throw std::invalid_argument(fmt::format("entity '{}' is not in the tree of the entity manager of '{}'",
                                            entity ? entity->name().str() : std::string("(null)"), root_.dir()));
  std::string const up = fullName(entity->parent());
  return up.empty() ? entity->name().str() : up + "/" + entity->name().str();
}

bool EntityManager::prepareMount(std::string const& path, std::string const& typeName, MountMode mode) {
  if (Node const* const n = node(path)) {
    if (n->typeName.empty())
      throw std::runtime_error(fmt::format("cannot mount '{}': it is a directory holding other mounts", path));
    if (n->typeName != typeName)
      throw std::runtime_error(
          fmt::format("cannot mount '{}' as {}: it is mounted as {}", path, typeName, n->typeName));
    return false;
  }
  for (std::string_view up = parentPath(path); !up.empty(); up = parentPath(up)) {
    Node const* const n = node(up);
    if (n && !n->typeName.empty())
      throw std::runtime_error(fmt::format("cannot mount '{}': '{}' is mounted as {} and cannot hold other mounts",
                                           path, up, n->typeName));
  }

  // The entity first: an unknown type must leave the tree as it was.
  Kiv::Ptr<Kiv::Entity> const created =
      Kiv::TypeRegistry::instance().create(typeName, Kiv::String(std::string(lastComponent(path))));
  if (!created)
    throw std::runtime_error(fmt::format("cannot mount '{}': the factory of {} made no entity", path, typeName));

  std::vector<std::string> missing;
  for (std::string_view up = parentPath(path); !up.empty() && !node(up); up = parentPath(up))
    missing.emplace_back(up);
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    Kiv::Ptr<Kiv::Entity> const dir(new Directory(Kiv::String(std::string(lastComponent(*it)))));
    Node& n = nodes_[*it];
    n.held = dir;
    n.entity = dir.ptr();
    n.status = MountStatus::mounted;
    dir->parentIs(parentEntityOf(*it));
  }
  Node& n = nodes_[path];
  n.held = created;
  n.entity = created.ptr();
  n.typeName = typeName;
  n.status = MountStatus::mounting;
  n.mode = mode;
  return true;
}

void EntityManager::attach(std::string const& path, MountDescription const& description, MountMode mode) {
  Node* const n = node(path);
  if (!n || n->typeName.empty())
    throw std::runtime_error("it was unmounted before its group was closed");
  Kiv::Ptr<Kiv::Entity> const keep(n->entity);
  n->held = keep;  // counted while it is not mounted
  if (keep->parent())
    keep->parentIs(nullptr);  // a remount attaches again with the new description
  n->description = description;
  n->mode = mode;
  n->status = MountStatus::mounting;
  Kiv::Entity* const parent = parentEntityOf(path);
  if (!parent) {
    n->status = MountStatus::failed;
    throw std::runtime_error("its parent directory is missing from the tree");
  }
  std::string const up = fullName(parent);
  std::string const named = up.empty() ? keep->name().str() : up + "/" + keep->name().str();
  if (named != path) {
    n->status = MountStatus::failed;
    throw std::runtime_error(fmt::format("the entity made for it is named '{}', which places it at '{}'",
                                         keep->name(), named));
  }
  try {
    keep->parentIs(parent);
  } catch (...) {
    n->status = MountStatus::failed;
    try {
      keep->parentIs(nullptr);
    } catch (std::exception const& e) {
      kTrace.line(0, "detaching '{}' after its failed mount: {}", path, e.what());
    }
    throw;
  }
  n->status = MountStatus::mounted;
  kTrace.line(1, "mounted '{}' as {} ({})", path, n->typeName, mountModeName(mode));
  if (dynamic_cast<ControlledEntity*>(keep.ptr()))
    n->held = nullptr;  // from now on its users, or its control, keep it
}

void EntityManager::detach(Node& n) noexcept {
  Kiv::Ptr<Kiv::Entity> const keep(n.entity);
  n.held = keep;
  try {
    keep->parentIs(nullptr);
  } catch (std::exception const& e) {
    kTrace.line(0, "detaching '{}': {}", keep->name(), e.what());
  }
  if (auto const* const controlled = dynamic_cast<ControlledEntity const*>(keep.ptr())) {
    Kiv::Ptr<CollectionControl> const control = controlled->mountControl();
    if (control && control->entity() == keep)
      control->entityIs(nullptr);
  }
  if (!n.typeName.empty())
    n.status = MountStatus::unmounted;
}

void EntityManager::forget(std::string const& path) noexcept {
  std::vector<Kiv::Ptr<Kiv::Entity>> keep;  // released once the tree is consistent again
  auto it = nodes_.find(path);
  if (it == nodes_.end())
    return;
  keep.push_back(std::move(it->second.held));
  nodes_.erase(it);
  // Directories left without children go too.
  for (std::string up(parentPath(path)); !up.empty(); up = std::string(parentPath(up))) {
    auto const dir = nodes_.find(up);
    if (dir == nodes_.end() || !dir->second.typeName.empty() || hasChildren(up))
      break;
    keep.push_back(dir->second.held);
    detach(dir->second);
    nodes_.erase(dir);
  }
}

bool EntityManager::unmount(std::string_view path) {
  auto const it = nodes_.find(path);
  if (it == nodes_.end())
    return false;
  std::string const key = it->first;
  if (it->second.typeName.empty() && hasChildren(key))
    throw std::runtime_error(fmt::format("cannot unmount '{}': it is a directory holding other mounts", key));
  Kiv::Ptr<Kiv::Entity> const keep(it->second.entity);
  detach(it->second);
  forget(key);
  kTrace.line(1, "unmounted '{}'", key);
  return true;
}

// ---------------------------------------------------------------------------------------------- registration

namespace {

bool const kRegistered = [] {
  auto& control = Kiv::TypeRegistry::instance().typeIs("Kiv::Shm::CollectionControl");
  control.factory = [](Kiv::String const& name) { return Kiv::Ptr<Kiv::Entity>(collectionControlFactory(name)); };
  control.attributes["mountStatus"] = [](Kiv::Entity& e, std::vector<std::string> const&) -> std::string {
    auto* self = dynamic_cast<CollectionControl*>(&e);
    if (!self)
      throw std::invalid_argument(std::string("attribute does not apply to ") + e.fwkType());
    return mountStatusName(self->mountStatus());
  };
  control.attributes["quiesced"] = [](Kiv::Entity& e, std::vector<std::string> const&) -> std::string {
    auto* self = dynamic_cast<CollectionControl*>(&e);
    if (!self)
      throw std::invalid_argument(std::string("attribute does not apply to ") + e.fwkType());
    return self->quiesced() ? "True" : "False";
  };
  return true;
}();

}  // namespace

}  // namespace Kiv::Shm
