#pragma once
/// @file RegisterFile.h
/// @brief CSV register maps of a chip: one `Register` per line, looked up by name and by address.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Types.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <istream>
#include <string>
#include <string_view>
#include <unordered_map>

namespace TarnRegFile {

/// @brief Kind of a register, as named in the CSV `type` column.
enum class RegisterType : U8 {
  Unknown = 0,   ///< type token not recognised, printed as "(unknown)"
  Reserved = 1,  ///< "reserved"
  Const = 2,     ///< "const": read-only identification
  Cfg = 3,       ///< "cfg": configuration
  Sts = 4,       ///< "sts": status
  Counter = 5,   ///< "counter"
  Ctl = 6,       ///< "ctl": control
};

/// @brief One register of a CSV register map.
struct TARN_API Register {
  /// @brief Width of one register access in bits; also the widest register a map may declare.
  static constexpr U32 regOpWidth = 32;

  U32 number = 0;  ///< byte address: the CSV number times the map's address block size
  U32 width = 0;   ///< width in bits, 0..32
  RegisterType type = RegisterType::Unknown;
  bool writeable = false;
  std::string name;  ///< exactly as written in the CSV

  /// @brief Parses one CSV data line "number,name,type,writeable,width" (without its line end).
  ///
  /// Throws std::runtime_error on a bad number or width. A short line keeps zero in the
  /// fields it lacks; unknown types and extra fields are only traced. @p addrBlockSize
  /// must not be zero.
  Register(std::string_view const& line, U8 addrBlockSize);

  /// @brief The type named by @p token (exact, case-sensitive); Unknown for anything else.
  static RegisterType regTypeFromString(std::string_view const& token);
  /// @brief The CSV name of @p type, or "(unknown)"; the reference stays valid for the process's life.
  static std::string const& regTypeToString(RegisterType type);

  /// @brief Text form "<address> <name> writeable|readonly <width>", e.g. "0x000040 scratch writeable 32".
  operator std::string() const;
};

/// @brief An immutable register map loaded from a CSV file or stream.
///
/// Registers are found by name and names by (scaled) address. When a name occurs
/// twice the first record is kept; when an address occurs twice the first name is
/// kept. Both rules apply line by line independently, so the second line of a
/// duplicated name may still claim an address of its own.
class TARN_API RegisterFile {
public:
  /// @brief Hash over names that also accepts string views, so lookups need no std::string.
  ///
  /// Deliberately not noexcept: the standard library then keeps each name's hash code
  /// in its node, so growing the map never hashes a name again and a lookup compares
  /// codes before it compares strings.
  struct NameHash {
    using is_transparent = void;
    size_t operator()(std::string_view name) const { return std::hash<std::string_view>{}(name); }
  };
  using RegistersByName = std::unordered_map<std::string, Register, NameHash, std::equal_to<>>;
  using NamesByAddress = std::unordered_map<U32, std::string>;

  /// @brief Loads the CSV file at @p csvPath.
  /// @throws MapError "Error opening CSV file <path>" (line 0, with the errno),
  ///         "Encountered wrong CSV header!" (line 1; errno EISDIR for a directory) and the
  ///         record parser's errors with the line that caused them; the path is @p csvPath.
  RegisterFile(char const* csvPath, U8 addrBlockSize);
  /// @brief Loads from an open stream (which is left open); a MapError has an empty path.
  RegisterFile(std::istream& in, U8 addrBlockSize);

  /// @brief The register called @p name; throws LookupError if there is none.
  Register const& findRegisterByName(char const* name) const;
  /// @brief The register called @p name; throws LookupError if there is none.
  Register const& findRegisterByName(std::string_view name) const;
  /// @brief Whether a register called @p name exists.
  bool hasRegName(char const* name) const;
  /// @brief Whether a register called @p name exists.
  bool hasRegName(std::string_view name) const;
  /// @brief The name at byte address @p address; throws LookupError if there is none.
  std::string findRegNameByAddr(U32 address) const;

  /// @brief Number of registers reachable by name.
  size_t size() const noexcept { return registersByName_.size(); }
  /// @brief Every register, keyed by name, in no particular order.
  RegistersByName const& registers() const noexcept { return registersByName_; }
  /// @brief Every claimed address with its name, in no particular order.
  NamesByAddress const& namesByAddress() const noexcept { return namesByAddress_; }

private:
  void _construct(std::istream& in, U8 addrBlockSize, std::string const& path);
  void reserveFor(std::intmax_t bytes);

  RegistersByName registersByName_;
  NamesByAddress namesByAddress_;
};

}  // namespace TarnRegFile
