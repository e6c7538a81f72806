#pragma once
/// @file RegisterFileHelper.h
/// @brief One lookup service over either a CSV register map or the platform's register-file model.
///
/// Transports resolve register names and addresses through a `RegFileHelper`
/// and never learn which source answered: both give
/// `Hardware::TarnRegFile::HardwareRegister` records and the same error texts.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/KivCollection.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include <memory>
#include <string_view>
#include <unordered_map>

namespace TarnRegFile {

class RegisterFile;

/// @brief A set of register names.
class TARN_API RegList : public Kiv::Entity {
public:
  /// @brief Observer of the name set.
  class Notifiee : public Kiv::Notifiee<RegList> {
  public:
    /// @brief A name was added or removed.
    virtual void onRegisterName(Kiv::String const&) {}
  };
  using Names = Kiv::KeyedCollection<Kiv::String, bool>;

  /// @brief Creates an empty list with notifications active.
  static Kiv::Ptr<RegList> RegListIs(Kiv::String const& name = Kiv::String());

  /// @brief Whether @p name is in the set.
  bool registerName(Kiv::String const& name) const { return names_.has(name); }
  /// @brief Whether @p name is in the set.
  bool registerNameHas(Kiv::String const& name) const { return names_.has(name); }
  /// @brief Adds @p name when @p present, removes it otherwise; adding a present name changes nothing.
  void registerNameIs(Kiv::String const& name, bool present);
  /// @brief Removes @p name; true when it was there.
  bool registerNameDel(Kiv::String const& name);
  /// @brief Empties the set, notifying once per removed name.
  void registerNameDelAll();
  /// @brief Number of names.
  U32 registerNameCount() const noexcept { return static_cast<U32>(names_.size()); }
  /// @brief The names, for iteration (unordered; the mapped value is always true).
  Names const& registerNames() const noexcept { return names_; }

  char const* fwkType() const override { return "TarnRegFile::RegList"; }

  explicit RegList(Kiv::String const& name);

private:
  Names names_;
};

/// @brief Free factory of RegList.
TARN_API Kiv::Ptr<RegList> regListFactory(Kiv::String const& name = Kiv::String());

/// @brief Register lookups from a CSV map or from a register-file model.
class TARN_API RegFileHelper : public Kiv::Entity {
public:
  using HardwareRegister = Hardware::TarnRegFile::HardwareRegister;
  using HardwareRegisterFile = Hardware::TarnRegFile::HardwareRegisterFile;

  /// @brief Creates a helper named @p name (the transport's CSV path) with notifications active.
  static Kiv::Ptr<RegFileHelper> RegFileHelperIs(Kiv::String const& name);

  explicit RegFileHelper(Kiv::String const& name);
  ~RegFileHelper() override;

  /// @brief Chooses the source: the CSV file at @p csvPath when non-empty (the model is then
  /// ignored), else @p regFileModel.
  /// @throws std::runtime_error "Must provide Csv path or KivPtr" when neither is given; the
  ///         loader's errors for an unreadable or malformed CSV file.
  void init(Kiv::String const& csvPath, U8 addrBlockSize, Kiv::Ptr<HardwareRegisterFile> const& regFileModel);

  /// @brief Replaces the CSV register file; the helper takes ownership (null drops it).
  void csvRegFileIs(RegisterFile const* regFile);
  /// @brief The CSV register file, or null when the model is used.
  RegisterFile const* csvRegFile() const noexcept { return csvRegFile_.get(); }
  /// @brief The model, or null when the CSV file is used.
  Kiv::Ptr<HardwareRegisterFile> const& regFileModel() const noexcept { return regFileModel_; }

  /// @brief Destroys the owned CSV register file. Run by the destructor as well.
  void handleDeletion();

  /// @brief The register called @p regName.
  /// @throws LookupError "RegisterFile does not have register '<name>'!"
  HardwareRegister const& findRegisterByName(Kiv::String const& regName) const;
  /// @brief The register called @p regName (no allocation when a CSV map answers).
  HardwareRegister const& findRegisterByName(char const* regName) const;
  /// @brief The name of the register at byte address @p addr.
  /// @throws LookupError "RegisterFile does not have address: <decimal>!"
  Kiv::String findRegNameByAddr(U32 addr) const;
  /// @brief Whether a register called @p regName exists.
  bool hasRegName(Kiv::String const& regName) const;
  /// @brief A new RegList holding every register name.
  Kiv::Ptr<RegList> regList() const;

  char const* fwkType() const override { return "TarnRegFile::RegFileHelper"; }

private:
  // CSV registers converted once into model records, so that a lookup per
  // register access neither converts nor allocates. The keys view the names
  // held by the records (the characters of a Kiv::String never move).
  struct CsvIndex {
    std::unordered_map<std::string_view, HardwareRegister> byName;
    std::unordered_map<U32, Kiv::String> nameByAddress;
  };
  void rebuildCsvIndex();
  HardwareRegister const& findCsv(std::string_view regName) const;
  HardwareRegister const& findModel(Kiv::String const& regName) const;

  std::unique_ptr<RegisterFile const> csvRegFile_;
  Kiv::Ptr<HardwareRegisterFile> regFileModel_;
  CsvIndex csvIndex_;
};

/// @brief Free factory of RegFileHelper.
TARN_API Kiv::Ptr<RegFileHelper> regFileHelperFactory(Kiv::String const& name);

}  // namespace TarnRegFile
