#pragma once
/// @file TransportMethod.h
/// @brief The entity through which a chip's registers are read and written by name.
///
/// A `TransportMethod` is configured with a transport descriptor and a register-map
/// source, builds the matching implementation from the process-wide implementation
/// table and forwards accesses to it. It is the place where I/O failures stop: a
/// bus error or a driver's runtime error becomes a failure result (0xFFFFFFFF for
/// reads, status 2 for callbacks), a trace line and a signal on the error
/// notifier that the owning agent watches.

#include "Export.h"
#include "HardwareRegisterFile.h"
#include "KivEntity.h"
#include "KivPtr.h"
#include "KivString.h"
#include "Types.h"

#include "TarnRegFile/BaseTransportMethodImpl.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportDescriptorEnum.h"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <unordered_map>
#include <vector>

namespace TarnRegFile {

/// @brief Where a transport's register map comes from: a CSV path or a register-file model.
class TARN_API TransportMethodRegFile {
public:
  using HardwareRegisterFile = Hardware::TarnRegFile::HardwareRegisterFile;

  TransportMethodRegFile() = default;
  TransportMethodRegFile(Kiv::String csvPath, Kiv::Ptr<HardwareRegisterFile> regFileModel = nullptr)
      : csvPath_(std::move(csvPath)), regFileModel_(std::move(regFileModel)) {}
  /// @brief Parses the text form at @p pos (advanced past it). Only a null model can be given
  /// in text ("None"): a model is a live object that text cannot name.
  /// @throws Kiv::ParseException for text that is not this value's text form.
  TransportMethodRegFile(Kiv::String::IteratorConst& pos, Kiv::String::IteratorConst const& end);

  /// @brief Path of a CSV register map; empty when not used.
  Kiv::String const& csvPath() const noexcept { return csvPath_; }
  void csvPathIs(Kiv::String const& csvPath) { csvPath_ = csvPath; }
  /// @brief The register-file model; null when not used.
  Kiv::Ptr<HardwareRegisterFile> const& regFileModel() const noexcept { return regFileModel_; }
  void regFileModelIs(Kiv::Ptr<HardwareRegisterFile> const& model) { regFileModel_ = model; }

  bool operator==(TransportMethodRegFile const& o) const {
    return csvPath_ == o.csvPath_ && regFileModel_ == o.regFileModel_;
  }

  /// @brief "Value('TarnRegFile::TransportMethodRegFile', ** {'csvPath': ..., 'regFileModel': ...})".
  std::string valueToStrep() const;

private:
  Kiv::String csvPath_;
  Kiv::Ptr<HardwareRegisterFile> regFileModel_;
};

/// @brief Writes the text form.
TARN_API std::ostream& operator<<(std::ostream& os, TransportMethodRegFile const& v);

/// @brief The error notifier of one chip's transport, watched by the owning agent.
class TARN_API TransportMethodError : public Kiv::Entity {
public:
  class Notifiee : public Kiv::Notifiee<TransportMethodError> {
  public:
    /// @brief `error` changed, or a transport failure was signalled (even when it was already true).
    virtual void onError() {}
  };

  /// @brief Creates a notifier for @p chipName with notifications active.
  static Kiv::Ptr<TransportMethodError> TransportMethodErrorIs(Kiv::String const& chipName);

  explicit TransportMethodError(Kiv::String const& chipName);

  /// @brief The chip whose transport this is.
  Kiv::String const& chipName() const noexcept { return chipName_; }
  /// @brief Latched by a transport failure; cleared by the watching agent.
  bool error() const noexcept { return error_; }
  /// @brief Sets `error`, notifying when it changes.
  void errorIs(bool error);
  /// @brief Sets `error` to true and notifies every time: each failure is a signal of its own.
  void errorSignal();

  char const* fwkType() const override { return "TarnRegFile::TransportMethodError"; }

private:
  Kiv::String chipName_;
  bool error_ = false;
};

/// @brief Free factory of TransportMethodError.
TARN_API Kiv::Ptr<TransportMethodError> transportMethodErrorFactory(Kiv::String const& chipName);

/// @brief Key of the implementation table.
struct TARN_API TransportKey {
  TransportType type;
  TransportProtocol protocol;
  TransportFlavour flavour;
  bool operator==(TransportKey const&) const = default;
};

/// @brief Hash of the key (the runtime's hash over the three bytes).
struct TARN_API TransportKeyHash {
  size_t operator()(TransportKey const& k) const noexcept;
};

/// @brief Reads and writes one chip's registers by name through a transport implementation.
class TARN_API TransportMethod : public Kiv::Entity {
public:
  using HardwareRegisterFile = Hardware::TarnRegFile::HardwareRegisterFile;

  class Notifiee : public Kiv::Notifiee<TransportMethod> {
  public:
    virtual void onErrorNotifier() {}
    virtual void onCsvPath() {}
    virtual void onRegFileModel() {}
    virtual void onDescriptor() {}
  };

  // ------------------------------------------------------------ implementation table

  /// @brief Creates an implementation: (descriptor, CSV path, model) -> new implementation.
  using CreateFn = std::function<BaseTransportMethodImpl*(Kiv::Ptr<BaseTransportDescriptor> const& descriptor,
                                                           Kiv::String const& csvPath,
                                                           Kiv::Ptr<HardwareRegisterFile> const& regFileModel)>;
  using ImplementationTable = std::unordered_map<TransportKey, CreateFn, TransportKeyHash>;

  /// @brief The process-wide table, built when the library is loaded.
  static ImplementationTable const& implementationTable();

  /// @brief Constructor hooks of the implementations that live in other units. Each unit
  /// registers its hook from a load-time initialiser; the table's rows down-cast the
  /// descriptor and call the hook with these arguments. A row whose hook is not
  /// registered throws std::runtime_error "transport implementation '<type>/<protocol>/<flavour>'
  /// is not available in this build".
  ///
  /// `new PciTransportMethodImpl(pciDov, csvPath, regFileModel)`
  using PciImplementationFn = BaseTransportMethodImpl* (*)(Kiv::Ptr<Hardware::DovImpl> const& pciDov,
                                                           char const* csvPath,
                                                           Kiv::Ptr<HardwareRegisterFile> const& regFileModel);
  /// `new I2cTransportMethodImpl(devNode, devId, csvPath, I2cFlavour(i2cFlavour), regFileModel)`;
  /// @p i2cFlavour is 1 (SMBus I2C block data) or 2 (SMBus word data).
  using I2cImplementationFn = BaseTransportMethodImpl* (*)(char const* devNode, int devId, char const* csvPath,
                                                           U8 i2cFlavour,
                                                           Kiv::Ptr<HardwareRegisterFile> const& regFileModel);
  /// `new I2cTransportVormImpl(descriptor.vorm(), descriptor.devId(), csvPath, regFileModel)`;
  /// the descriptor is passed whole because the manager's type is not known here.
  using I2cVormImplementationFn = BaseTransportMethodImpl* (*)(I2cVormTransportDescriptor const& descriptor,
                                                               char const* csvPath,
                                                               Kiv::Ptr<HardwareRegisterFile> const& regFileModel);

  /// @brief Registers the PCI hook; returns the previous one (null when none).
  static PciImplementationFn pciImplementationIs(PciImplementationFn fn) noexcept;
  /// @brief Registers the i2c-dev hook (both SMBus flavours); returns the previous one.
  static I2cImplementationFn i2cImplementationIs(I2cImplementationFn fn) noexcept;
  /// @brief Registers the asynchronous I2C hook; returns the previous one.
  static I2cVormImplementationFn i2cVormImplementationIs(I2cVormImplementationFn fn) noexcept;

  // ------------------------------------------------------------ creation

  /// @brief Creates a transport named after its chip, with notifications active.
  static Kiv::Ptr<TransportMethod> TransportMethodIs(Kiv::String const& name);

  explicit TransportMethod(Kiv::String const& name);
  /// @brief Runs handleDeletion() if it has not run.
  ~TransportMethod() override;

  // ------------------------------------------------------------ attributes

  Kiv::Ptr<TransportMethodError> const& errorNotifier() const noexcept { return errorNotifier_; }
  /// @brief Makes a new error notifier for @p chipName the current one.
  void errorNotifierIs(Kiv::String const& chipName);
  /// @brief Drops the error notifier.
  void errorNotifierDel();

  Kiv::String const& csvPath() const noexcept { return csvPath_; }
  void csvPathIs(Kiv::String const& csvPath);
  Kiv::Ptr<HardwareRegisterFile> const& regFileModel() const noexcept { return regFileModel_; }
  void regFileModelIs(Kiv::Ptr<HardwareRegisterFile> const& regFileModel);
  Kiv::Ptr<BaseTransportDescriptor> const& descriptor() const noexcept { return descriptor_; }
  void descriptorIs(Kiv::Ptr<BaseTransportDescriptor> const& descriptor);

  /// @brief The implementation, or null before a successful fullInit().
  BaseTransportMethodImpl* implPtr() const noexcept { return impl_; }
  /// @brief Makes @p impl the implementation; the entity owns it from now on. The previous
  /// one is not destroyed here: it stays alive (its asynchronous completions may still be
  /// due) until handleDeletion().
  void implPtrIs(BaseTransportMethodImpl* impl);

  // ------------------------------------------------------------ configuration

  /// @brief Builds the implementation for @p descriptor over the map of @p regFile.
  /// @throws std::runtime_error "CSV and KIV Ptr cannot be both empty.", "TransportDescriptor is null!",
  ///         "Unknown transport type '<type>'", "TransportMethod implementation init failed" and
  ///         the implementation's construction errors.
  void fullInit(Kiv::Ptr<BaseTransportDescriptor> const& descriptor, TransportMethodRegFile const& regFile);
  /// @brief fullInit() over a CSV map.
  void init(Kiv::Ptr<BaseTransportDescriptor> const& descriptor, Kiv::String const& csvPath);
  /// @brief Destroys the implementation(s). Run by the destructor as well.
  void handleDeletion();

  // ------------------------------------------------------------ names
  // Each throws std::runtime_error "TransportMethod implementation does not exist" without an
  // implementation, and lets the register-file helper's errors pass.

  uint32_t regNameToAddr(Kiv::String const& regName) const;
  Kiv::String regAddrToName(uint32_t addr) const;
  Kiv::Ptr<RegList> regList() const;
  bool hasRegName(Kiv::String const& regName) const;

  // ------------------------------------------------------------ register access

  /// @brief The register's value; 0xFFFFFFFF when the access failed (signalled on the notifier).
  uint32_t regRead(Kiv::String const& regName);
  /// @brief Writes the register; a failure is signalled on the notifier.
  void regWrite(Kiv::String const& regName, uint32_t value);
  /// @brief Reads with completion callback; a failure calls @p cb with status 2 and 0xFFFFFFFF.
  void regReadWithCallback(Kiv::String const& regName, RegReadCallback const& cb);
  /// @brief Writes with completion callback; a failure calls @p cb with status 2.
  void regWriteWithCallback(Kiv::String const& regName, uint32_t value, RegWriteCallback const& cb);

  /// @brief Traces the failure and signals it on the error notifier (every time).
  void handleExceptionGeneric();

  char const* fwkType() const override { return "TarnRegFile::TransportMethod"; }

private:
  BaseTransportMethodImpl& impl() const;
  template <class Access>
  void tryPerformIO(Kiv::String const& regName, Access&& access);
  template <class Access, class Fail>
  void tryWithCallback(Access&& access, Fail&& fail);

  Kiv::Ptr<TransportMethodError> errorNotifier_;
  Kiv::String csvPath_;
  Kiv::Ptr<HardwareRegisterFile> regFileModel_;
  Kiv::Ptr<BaseTransportDescriptor> descriptor_;
  BaseTransportMethodImpl* impl_ = nullptr;
  std::vector<BaseTransportMethodImpl*> retired_;  // replaced implementations, destroyed by handleDeletion
};

/// @brief Free factory of TransportMethod.
TARN_API Kiv::Ptr<TransportMethod> transportMethodFactory(Kiv::String const& name);

}  // namespace TarnRegFile
