#pragma once
/// @file HardwareRegisterFile.h
/// @brief The platform's register-file model: registers by name and by address, built in code.
///
/// A platform that describes its chips in code (rather than in CSV maps)
/// publishes one `HardwareRegisterFile` per chip; the library's register-file
/// helper answers lookups from it exactly as from a CSV map.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/RegisterIndex.h"

#include <string_view>

namespace Hardware::TarnRegFile {

/// @brief Kind of a register; numbering shared with the CSV register types (0 = unknown .. 6 = ctl).
enum class HardwareRegisterType : U8 { unknown = 0, reserved = 1, constant = 2, cfg = 3, sts = 4, counter = 5, ctl = 6 };

/// @brief One register of the model, and the record every register-map lookup hands to transports.
///
/// The name is a view: in a record a lookup returned it points into the map (valid as
/// long as the map, until the model is changed); in a record handed to registerIs it is
/// the caller's, and the model copies it.
struct TARN_API HardwareRegister {
  std::string_view name;
  HardwareRegisterType type = HardwareRegisterType::unknown;
  bool writeable = false;
  U32 address = 0;      ///< byte address
  U32 width = 0;        ///< width in bits
  U32 accessWidth = 32; ///< width of one access in bits

  /// @brief False for the default register (what a lookup miss yields).
  explicit operator bool() const noexcept { return !(*this == HardwareRegister()); }
  bool operator==(HardwareRegister const&) const = default;
};

/// @brief The register map of one chip, kept in one flat register index (no allocation per register).
class TARN_API HardwareRegisterFile : public Kiv::Entity {
public:
  using RegisterIndex = ::TarnRegFile::RegisterIndex;

  /// @brief Creates an empty model with notifications active.
  static Kiv::Ptr<HardwareRegisterFile> HardwareRegisterFileIs(Kiv::String const& name);
  /// @brief Creates a model holding the registers of @p index (a loaded CSV map's, for one):
  /// the same names, records and addresses, without reading anything again.
  static Kiv::Ptr<HardwareRegisterFile> HardwareRegisterFileIs(Kiv::String const& name, RegisterIndex index);

  /// @brief Adds or replaces a register (keyed by name); its address then maps to it.
  /// @throws std::invalid_argument for a name holding a NUL byte.
  void registerIs(HardwareRegister const& reg);
  /// @brief Removes a register and its address entry.
  void registerDel(std::string_view name);
  /// @brief The register of that name, or a default register when absent.
  HardwareRegister reg(std::string_view name) const;
  bool regHas(std::string_view name) const;
  /// @brief The register at that byte address, or a default register when absent.
  HardwareRegister regByAddress(U32 address) const;
  bool addressHas(U32 address) const;
  U32 regCount() const noexcept { return static_cast<U32>(index_.size()); }

  /// @brief The index the registers live in (what lookups answer from).
  RegisterIndex const& index() const noexcept { return index_; }
  /// @brief The record of an index entry.
  static HardwareRegister recordOf(RegisterIndex::Entry const& e) noexcept {
    return {e.nameView(), static_cast<HardwareRegisterType>(e.type), e.writeable(), e.address, e.width, e.accessWidth};
  }
  /// @brief Calls @p f(HardwareRegister) for every register, in the order they were added.
  template <class F>
  void forEachRegister(F&& f) const {
    index_.forEach([&](RegisterIndex::Entry const& e) { f(recordOf(e)); });
  }

  char const* fwkType() const override { return "Hardware::TarnRegFile::HardwareRegisterFile"; }

  explicit HardwareRegisterFile(Kiv::String const& name);

private:
  RegisterIndex index_;
};

/// @brief Free factory of the model.
TARN_API Kiv::Ptr<HardwareRegisterFile> hardwareRegisterFileFactory(Kiv::String const& name);

}  // namespace Hardware::TarnRegFile
