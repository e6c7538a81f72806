#pragma once
/// @file ShmRoot.h
/// @brief The directory under which shared-memory tables live, and safe access to it.
///
/// Every table is one file in a tmpfs directory tree below a root (by default
/// "/dev/shm/tarnregfile"). Callers name tables by relative mount paths such
/// as "TarnRegFile/shadowFieldsConfig/chip0". A path never leaves its root: it
/// must be relative, made of non-empty components that do not start with '.'
/// (so no "." or "..", and the hidden names the tables use for staging files
/// stay out of reach), without NUL characters and of bounded length.
///
/// The tree is walked one component at a time with openat(O_NOFOLLOW), so a
/// symbolic link planted anywhere below the root is refused instead of
/// followed. Directories are created 0700 and files 0600, or 0750 and 0660 when
/// the owner asks for group access. A directory that everybody may write to is
/// refused: anyone could plant entries in it.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Fd.h"
#include "TarnRegFile/platform/Types.h"

#include <string>
#include <string_view>

namespace Kiv::Shm {

/// @brief Who besides the owner may open what a writer creates.
enum class GroupMode : U8 {
  Private,  ///< files 0600, directories 0700
  Group,    ///< files 0660, directories 0750
};

/// @brief A root directory of shared-memory tables.
class TARN_API Root {
public:
  static constexpr char const* kDefaultDir = "/dev/shm/tarnregfile";
  static constexpr std::size_t kMaxPathLength = 1024;
  static constexpr std::size_t kMaxComponentLength = 200;

  /// @brief Where a table file lives: its open parent directory and its name there.
  struct Place {
    Fd dir;
    std::string leaf;
    std::string path;  ///< the caller's mount path, for messages
  };

  /// @brief A root at @p dir; nothing is touched on disk until a table is opened.
  explicit Root(std::string dir = kDefaultDir);

  /// @brief The root directory.
  std::string const& dir() const noexcept { return dir_; }

  /// @brief Throws std::invalid_argument naming @p path unless it is a valid mount path.
  static void validatePath(std::string_view path);

  /// @brief Opens the directory that holds @p path's file, walking without following links.
  ///
  /// With @p create, missing directories (the root included) are made with the
  /// mode of @p group; otherwise a missing one is a std::runtime_error.
  Place place(std::string_view path, bool create, GroupMode group = GroupMode::Private) const;

  /// @brief Opens the existing file of @p place (read-only or read-write); an empty Fd when there is none.
  Fd openFile(Place const& place, bool writable) const;

  /// @brief Creates a nameless read-write file in @p place's directory with the mode of @p group.
  Fd createUnnamed(Place const& place, GroupMode group) const;

  /// @brief Gives the nameless file @p fd the name @p name in @p place's directory; false if the name is taken.
  bool linkAs(Place const& place, int fd, std::string const& name) const;

  /// @brief Atomically renames @p from over @p to in @p place's directory.
  void renameOver(Place const& place, std::string const& from, std::string const& to) const;

  /// @brief Removes @p name from @p place's directory; a missing name is not an error.
  void unlinkName(Place const& place, std::string const& name) const;

  /// @brief True when the table file of @p path exists.
  bool exists(std::string_view path) const;

  /// @brief Removes the table file of @p path; false when there was none. Mapped copies stay valid.
  bool remove(std::string_view path) const;

  /// @brief The hidden name under which a table file is prepared before it replaces @p leaf.
  static std::string stagingName(std::string const& leaf) { return "." + leaf + ".new"; }

  /// @brief Mode of files created with @p group.
  static unsigned fileMode(GroupMode group) noexcept { return group == GroupMode::Group ? 0660u : 0600u; }
  /// @brief Mode of directories created with @p group.
  static unsigned dirMode(GroupMode group) noexcept { return group == GroupMode::Group ? 0750u : 0700u; }

private:
  Fd openRoot(bool create, GroupMode group, std::string_view path) const;
  Fd openDirAt(int parent, std::string const& name, bool create, GroupMode group, std::string_view path) const;

  std::string dir_;
};

}  // namespace Kiv::Shm
