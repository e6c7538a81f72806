#pragma once
/// @file HardwareRegisterFile.h
/// @brief The platform's register-file model: registers by name and by address, built in code.
///
/// A platform that describes its chips in code (rather than in CSV maps)
/// publishes one `HardwareRegisterFile` per chip; the library's register-file
/// helper answers lookups from it exactly as from a CSV map.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivCollection.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/Types.h"

#include <string>

namespace Hardware::TarnRegFile {

/// @brief Kind of a register; numbering shared with the CSV register types (0 = unknown .. 6 = ctl).
enum class HardwareRegisterType : U8 { unknown = 0, reserved = 1, constant = 2, cfg = 3, sts = 4, counter = 5, ctl = 6 };

/// @brief One register of the model.
struct TARN_API HardwareRegister {
  Kiv::String name;
  HardwareRegisterType type = HardwareRegisterType::unknown;
  bool writeable = false;
  U32 address = 0;      ///< byte address
  U32 width = 0;        ///< width in bits
  U32 accessWidth = 32; ///< width of one access in bits

  /// @brief False for the default register (what a lookup miss yields).
  explicit operator bool() const noexcept { return !(*this == HardwareRegister()); }
  bool operator==(HardwareRegister const&) const = default;
};

/// @brief The register map of one chip.
class TARN_API HardwareRegisterFile : public Kiv::Entity {
public:
  /// @brief Creates an empty model with notifications active.
  static Kiv::Ptr<HardwareRegisterFile> HardwareRegisterFileIs(Kiv::String const& name);

  /// @brief Adds or replaces a register (keyed by name); its address then maps to it.
  void registerIs(HardwareRegister const& reg);
  /// @brief Removes a register and its address entry.
  void registerDel(Kiv::String const& name);
  /// @brief The register of that name, or a default register when absent.
  HardwareRegister reg(Kiv::String const& name) const;
  bool regHas(Kiv::String const& name) const;
  /// @brief The register at that byte address, or a default register when absent.
  HardwareRegister regByAddress(U32 address) const;
  bool addressHas(U32 address) const;
  U32 regCount() const noexcept { return static_cast<U32>(byName_.size()); }

  /// @brief All registers by name (unordered).
  Kiv::KeyedCollection<Kiv::String, HardwareRegister> const& registers() const noexcept { return byName_; }

  char const* fwkType() const override { return "Hardware::TarnRegFile::HardwareRegisterFile"; }

  explicit HardwareRegisterFile(Kiv::String const& name);

private:
  Kiv::KeyedCollection<Kiv::String, HardwareRegister> byName_;
  Kiv::KeyedCollection<U32, Kiv::String> nameByAddress_;
};

/// @brief Free factory of the model.
TARN_API Kiv::Ptr<HardwareRegisterFile> hardwareRegisterFileFactory(Kiv::String const& name);

}  // namespace Hardware::TarnRegFile
