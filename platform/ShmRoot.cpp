#include "TarnRegFile/platform/ShmRoot.h"

#include "TarnRegFile/platform/Trace.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kiv::Shm {

namespace {

Kiv::TraceHandle kTrace("Shm/Root");

[[noreturn]] void throwErrno(std::string_view path, std::string_view what, std::string_view name, int error) {
  throw std::runtime_error(
      fmt::format("shared-memory path '{}': cannot {} '{}': {}", path, what, name, std::strerror(error)));
}

[[noreturn]] void throwSymlink(std::string_view path, std::string_view name) {
  throw std::runtime_error(
      fmt::format("shared-memory path '{}': '{}' is a symbolic link; refusing to follow it", path, name));
}

/// Explains why an O_NOFOLLOW open of @p name failed and throws.
[[noreturn]] void throwOpenFailure(int dir, std::string_view path, std::string_view name, std::string_view what,
                                   int error) {
  struct stat st {};
  if (::fstatat(dir, std::string(name).c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
    throwSymlink(path, name);
  throwErrno(path, what, name, error);
}

/// Refuses a directory that anybody may plant entries in.
void checkDirectory(int fd, std::string_view path, std::string_view name) {
  struct stat st {};
  if (::fstat(fd, &st) != 0)
    throwErrno(path, "inspect directory", name, errno);
  if (st.st_mode & S_IWOTH)
    throw std::runtime_error(fmt::format(
        "shared-memory path '{}': directory '{}' is writable by everyone; refusing to use it", path, name));
}

}  // namespace

Root::Root(std::string dir) : dir_(std::move(dir)) {}

void Root::validatePath(std::string_view path) {
  auto fail = [&](std::string_view why) {
    throw std::invalid_argument(fmt::format("shared-memory path '{}' {}", path, why));
  };
  if (path.find('\0') != std::string_view::npos)
    throw std::invalid_argument("shared-memory path contains a NUL character");
  if (path.empty())
    fail("is empty");
  if (path.size() > kMaxPathLength)
    fail(fmt::format("is longer than {} characters", kMaxPathLength));
  if (path.front() == '/')
    fail("is absolute; it must be relative to the shared-memory root");
  std::size_t begin = 0;
  while (begin <= path.size()) {
    std::size_t end = path.find('/', begin);
    if (end == std::string_view::npos)
      end = path.size();
    std::string_view const component = path.substr(begin, end - begin);
    if (component.empty())
      fail("has an empty component");
    if (component == "." || component == "..")
      fail(fmt::format("has a '{}' component", component));
    if (component.front() == '.')
      fail(fmt::format("has a component '{}' starting with '.'; such names are reserved", component));
    if (component.size() > kMaxComponentLength)
      fail(fmt::format("has a component longer than {} characters", kMaxComponentLength));
    begin = end + 1;
  }
}

Fd Root::openRoot(bool create, GroupMode group, std::string_view path) const {
  int const flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  Fd fd(::open(dir_.c_str(), flags));
  bool created = false;
  if (!fd && errno == ENOENT && create) {
    if (::mkdir(dir_.c_str(), dirMode(group)) == 0)
      created = true;
    else if (errno != EEXIST)
      throwErrno(path, "create root directory", dir_, errno);
    fd = Fd(::open(dir_.c_str(), flags));
  }
  if (!fd) {
    if (errno == ENOENT)
      return Fd();
    throwOpenFailure(AT_FDCWD, path, dir_, "open root directory", errno);
  }
  if (created) {
    ::fchmod(fd.get(), dirMode(group));  // exact mode whatever the umask
    kTrace.line(1, "created shared-memory root '{}'", dir_);
  }
  checkDirectory(fd.get(), path, dir_);
  return fd;
}

Fd Root::openDirAt(int parent, std::string const& name, bool create, GroupMode group, std::string_view path) const {
  int const flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  Fd fd(::openat(parent, name.c_str(), flags));
  bool created = false;
  if (!fd && errno == ENOENT && create) {
    if (::mkdirat(parent, name.c_str(), dirMode(group)) == 0)
      created = true;
    else if (errno != EEXIST)
      throwErrno(path, "create directory", name, errno);
    fd = Fd(::openat(parent, name.c_str(), flags));
  }
  if (!fd) {
    if (errno == ENOENT)
      return Fd();
    throwOpenFailure(parent, path, name, "open directory", errno);
  }
  if (created)
    ::fchmod(fd.get(), dirMode(group));
  checkDirectory(fd.get(), path, name);
  return fd;
}

Root::Place Root::place(std::string_view path, bool create, GroupMode group) const {
  validatePath(path);
  Place result;
  result.path = std::string(path);
  Fd dir = openRoot(create, group, path);
  std::size_t begin = 0;
  for (std::size_t slash; dir && (slash = path.find('/', begin)) != std::string_view::npos; begin = slash + 1)
    dir = openDirAt(dir.get(), std::string(path.substr(begin, slash - begin)), create, group, path);
  result.dir = std::move(dir);
  result.leaf = std::string(path.substr(begin));
  return result;
}

Fd Root::openFile(Place const& place, bool writable) const {
  // O_NONBLOCK keeps a planted FIFO from blocking the open; it changes nothing for regular files.
  int const flags = (writable ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  Fd fd(::openat(place.dir.get(), place.leaf.c_str(), flags));
  if (!fd) {
    if (errno == ENOENT)
      return Fd();
    throwOpenFailure(place.dir.get(), place.path, place.leaf, "open table file", errno);
  }
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0)
    throwErrno(place.path, "inspect table file", place.leaf, errno);
  if (!S_ISREG(st.st_mode))
    throw std::runtime_error(
        fmt::format("shared-memory path '{}': '{}' is not a regular file", place.path, place.leaf));
  return fd;
}

Fd Root::createUnnamed(Place const& place, GroupMode group) const {
  Fd fd(::openat(place.dir.get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, fileMode(group)));
  if (!fd)
    throwErrno(place.path, "create a nameless file in the directory of", place.leaf, errno);
  if (::fchmod(fd.get(), fileMode(group)) != 0)
    throwErrno(place.path, "set the mode of the new file", place.leaf, errno);
  return fd;
}

bool Root::linkAs(Place const& place, int fd, std::string const& name) const {
  // A nameless file is linked through its /proc entry, which needs no privilege.
  std::string const self = fmt::format("/proc/self/fd/{}", fd);
  int rc = ::linkat(AT_FDCWD, self.c_str(), place.dir.get(), name.c_str(), AT_SYMLINK_FOLLOW);
  if (rc != 0 && errno == ENOENT)  // no /proc: the privileged form
    rc = ::linkat(fd, "", place.dir.get(), name.c_str(), AT_EMPTY_PATH);
  if (rc == 0)
    return true;
  if (errno == EEXIST)
    return false;
  throwErrno(place.path, "name the new file", name, errno);
}

void Root::renameOver(Place const& place, std::string const& from, std::string const& to) const {
  if (::renameat(place.dir.get(), from.c_str(), place.dir.get(), to.c_str()) != 0)
    throwErrno(place.path, "rename over", to, errno);
}

void Root::unlinkName(Place const& place, std::string const& name) const {
  if (::unlinkat(place.dir.get(), name.c_str(), 0) != 0 && errno != ENOENT)
    throwErrno(place.path, "remove", name, errno);
}

bool Root::exists(std::string_view path) const {
  Place const where = place(path, false);
  if (!where.dir)
    return false;
  struct stat st {};
  if (::fstatat(where.dir.get(), where.leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT)
      return false;
    throwErrno(path, "inspect", where.leaf, errno);
  }
  if (S_ISLNK(st.st_mode))
    throwSymlink(path, where.leaf);
  return S_ISREG(st.st_mode);
}

bool Root::remove(std::string_view path) const {
  Place const where = place(path, false);
  if (!where.dir)
    return false;
  unlinkName(where, stagingName(where.leaf));  // a staging file left by a writer that died while growing
  if (::unlinkat(where.dir.get(), where.leaf.c_str(), 0) == 0) {
    kTrace.line(1, "removed shared-memory table '{}'", path);
    return true;
  }
  if (errno == ENOENT)
    return false;
  throwErrno(path, "remove", where.leaf, errno);
}

}  // namespace Kiv::Shm
