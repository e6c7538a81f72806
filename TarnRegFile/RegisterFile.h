#pragma once
/// @file RegisterFile.h
/// @brief CSV register maps of a chip: one `Register` per line, looked up by name and by address.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/RegisterIndex.h"

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>
#include <string_view>

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

/// @brief A register of a loaded map: its fields, and its name viewed where the map keeps it.
///
/// Valid as long as the RegisterFile it came from.
struct TARN_API RegisterRef {
  U32 number = 0;  ///< byte address
  U32 width = 0;   ///< width in bits
  RegisterType type = RegisterType::Unknown;
  bool writeable = false;
  std::string_view name;  ///< NUL-terminated in the map (name.data() is a C string)

  /// @brief The same text form as Register's.
  operator std::string() const;
};

/// @brief An immutable register map loaded from a CSV file or stream.
///
/// Registers are found by name and names by (scaled) address. When a name occurs
/// twice the first record is kept; when an address occurs twice the first name is
/// kept. Both rules apply line by line independently, so the second line of a
/// duplicated name may still claim an address of its own. The map lives in one
/// RegisterIndex: every name once, no allocation per register.
class TARN_API RegisterFile {
public:
  /// @brief Loads the CSV file at @p csvPath: read once, whatever it is (a file, a pipe, a device).
  /// @throws MapError "Error opening CSV file <path>" (line 0, with the errno),
  ///         "Encountered wrong CSV header!" (line 1; errno EISDIR for a directory; also for a
  ///         first line longer than any header, which is not read to its end), "Error reading
  ///         CSV file <path>" (with the errno), the record parser's errors and "NUL byte in
  ///         register name", each with the line that caused it; the path is @p csvPath.
  RegisterFile(char const* csvPath, U8 addrBlockSize);
  /// @brief Loads from an open stream (which is left open); a MapError has an empty path.
  RegisterFile(std::istream& in, U8 addrBlockSize);

  /// @brief The register called @p name; throws LookupError if there is none (also for null).
  RegisterRef findRegisterByName(char const* name) const {
    if (name == nullptr) [[unlikely]]
      throwNoRegister("(null)");
    return findRegisterByName(std::string_view(name));
  }
  /// @brief The register called @p name; throws LookupError if there is none.
  RegisterRef findRegisterByName(std::string_view name) const {
    RegisterIndex::Ref const ref = index_.find(name);
    if (ref == 0) [[unlikely]]
      throwNoRegister(name);
    return refOf(index_.entry(ref));
  }
  /// @brief Whether a register called @p name exists.
  bool hasRegName(char const* name) const;
  /// @brief Whether a register called @p name exists.
  bool hasRegName(std::string_view name) const;
  /// @brief The name at byte address @p address; throws LookupError if there is none.
  std::string findRegNameByAddr(U32 address) const;
  /// @brief The name at byte address @p address as the map keeps it, or null if there is none.
  char const* nameAt(U32 address) const noexcept {
    RegisterIndex::Ref const ref = index_.findAddress(address);
    return ref ? index_.entry(ref).name() : nullptr;
  }

  /// @brief Number of registers reachable by name.
  size_t size() const noexcept { return index_.size(); }
  /// @brief Number of addresses that map to a name.
  size_t addressCount() const noexcept { return index_.addressCount(); }
  /// @brief Calls @p f(RegisterRef) for every register reachable by name, in the order of the file.
  template <class F>
  void forEachRegister(F&& f) const {
    index_.forEach([&](RegisterIndex::Entry const& e) { f(refOf(e)); });
  }
  /// @brief The index itself (what RegFileHelper answers from).
  RegisterIndex const& index() const noexcept { return index_; }
  /// @brief The register an index entry describes.
  static RegisterRef refOf(RegisterIndex::Entry const& e) noexcept {
    return {e.address, e.width, static_cast<RegisterType>(e.type), e.writeable(), e.nameView()};
  }

private:
  [[noreturn]] static void throwNoRegister(std::string_view name);

  RegisterIndex index_;
};

}  // namespace TarnRegFile
