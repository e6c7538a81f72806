#pragma once
/// @file SystemDescription.h
/// @brief The system description `tarnagent` starts from: one JSON file naming the system and,
/// per chip, its register map, its transport, its physical fields and its logical registers.
///
/// The library takes no configuration files; this is the agent's own. A description is read
/// and checked whole before anything is built: a mistake is refused with one line naming the
/// element and the reason ("chips[1].fields[3].start: 40 is beyond 31"), so that an agent never
/// starts with half its chips, and never reaches a fatal assertion of the library because of
/// what a file said (every physical field needs a logical field, names must exist in the map).
///
/// Chips of one kind share a layout (`chipTypes`): a switch carries tens of identical chips of
/// tens of thousands of fields, whose description is then written, read and checked once.
/// docs/agent.md gives the format.

#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace TarnAgent {

/// @brief A description that cannot be used: the text names the element and the reason.
class DescriptionError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// @brief How a chip's registers are reached.
enum class TransportKind : U8 { Mock, Pci, I2c, I2cAsync };

/// @brief "mock", "pci", "i2c" or "i2c-async".
char const* transportKindName(TransportKind kind) noexcept;

struct TransportEntry {
  TransportKind kind = TransportKind::Mock;
  std::string file;      ///< mock: the register dump file
  std::string resource;  ///< pci: the resource file (or a regular file standing in for a BAR)
  std::string device;    ///< i2c, i2c-async: the adapter's node
  U32 address = 0;       ///< i2c, i2c-async: the chip's 7-bit address
  bool wordFlavour = false;  ///< i2c: SMBus word flavour instead of block
};

/// @brief The factor from a map's register numbers to the byte addresses of the transport.
constexpr U32 addrBlockSize(TransportKind kind) noexcept { return kind == TransportKind::I2c ? 1 : 4; }

/// @brief A bit slice of a 32-bit register of the map.
struct PhysicalFieldEntry {
  Kiv::String reg;  // the library's strings: a chip built from them shares their characters
  Kiv::String field;
  U32 regNumber = 0;  ///< the register's number in the map
  U8 start = 0;
  U8 size = 1;
  U32 logical = 0;  ///< index of the logical field mapped to it
};

/// @brief A bit slice of a logical register (up to 64 bits), backed by one physical field.
struct LogicalFieldEntry {
  Kiv::String reg;
  Kiv::String field;
  U8 start = 0;
  U8 size = 1;
  U32 initial = 0;
  U32 physical = 0;  ///< index into ChipLayout::physical
};

/// @brief What chips of one kind have in common: the map and the fields.
struct ChipLayout {
  std::string mapPath;  ///< as resolved (relative paths are taken from the description's directory)
  std::vector<PhysicalFieldEntry> physical;
  std::vector<LogicalFieldEntry> logical;
  U32 maxRegNumber = 0;  ///< the highest register number a physical field uses
};

struct ChipEntry {
  std::string name;
  TransportEntry transport;
  std::shared_ptr<ChipLayout const> layout;
  /// The capacity of the chip's shadow tables (an entry per physical field), and at least one
  /// past the highest byte address a field uses: the physical field count the chip is left
  /// with, which mounting takes as the capacity.
  U32 shadowCapacity() const noexcept {
    return std::max<U32>(static_cast<U32>(layout->physical.size()), layout->maxRegNumber * addrBlockSize(transport.kind) + 1);
  }
};

struct SystemDescription {
  std::string system;
  std::vector<ChipEntry> chips;
  /// @brief The chip called @p name, or null.
  ChipEntry const* chip(std::string_view name) const noexcept;
};

/// @brief Reads and checks the description in @p text; relative map paths are taken from
/// @p baseDir. Every register map named is loaded to check the register names.
/// @throws DescriptionError with "<element>: <reason>".
SystemDescription parseSystemDescription(std::string_view text, std::string const& baseDir);

/// @brief Reads and checks the description file at @p path.
/// @throws DescriptionError ("<path>: ..." when the file cannot be read).
SystemDescription loadSystemDescription(std::string const& path);

/// @brief Whether @p name may name a system or a chip: letters, digits, '_', '-' and '.', not
/// starting with '.', at most 64 characters (it becomes part of shared-memory paths).
bool isValidName(std::string_view name) noexcept;

}  // namespace TarnAgent
