#pragma once
/// @file TransportMethod.h
/// @brief The entity through which a chip's registers are read and written by name.
///
/// A `TransportMethod` is configured with a transport descriptor and a register-map
/// source, builds the matching implementation through the process-wide transport
/// registry and forwards accesses to it. It is the place where I/O failures stop: a
/// bus error or a driver's runtime error becomes a failure result (0xFFFFFFFF for
/// reads, status 2 for callbacks), a trace line, the error notifier's last failure
/// (register, operation, kind, errno, reason) and a signal on that notifier, which
/// the owning agent watches.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/BaseTransportMethodImpl.h"
#include "TarnRegFile/Errors.h"
#include "TarnRegFile/RegisterFileHelper.h"
#include "TarnRegFile/TransportDescriptor.h"
#include "TarnRegFile/TransportDescriptorEnum.h"

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
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
  /// @brief The last failed access (empty register name before the first failure).
  TransportFailure const& lastFailure() const noexcept { return lastFailure_; }
  /// @brief Records the last failure (no notification: errorSignal() follows).
  void lastFailureIs(std::string_view regName, TransportOperation operation, TransportErrorKind kind, int errnum,
                     std::string_view reason);

  char const* fwkType() const override { return "TarnRegFile::TransportMethodError"; }

private:
  Kiv::String chipName_;
  bool error_ = false;
  TransportFailure lastFailure_;
};

/// @brief Free factory of TransportMethodError.
TARN_API Kiv::Ptr<TransportMethodError> transportMethodErrorFactory(Kiv::String const& chipName);

/// @brief Key of the transport registry: the descriptor's triple.
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

/// @brief The rows of the transport registry.
inline constexpr TransportKey kPciTransportKey{TransportType::pci, TransportProtocol::DirectAccess,
                                               TransportFlavour::PciDov};
inline constexpr TransportKey kI2cVormTransportKey{TransportType::i2c, TransportProtocol::I2cVorm,
                                                   TransportFlavour::I2cSmbusVorm};
inline constexpr TransportKey kI2cBlockTransportKey{TransportType::i2c, TransportProtocol::I2cSmbusIoctl,
                                                    TransportFlavour::I2cSmbusDataBlock};
inline constexpr TransportKey kI2cWordTransportKey{TransportType::i2c, TransportProtocol::I2cSmbusIoctl,
                                                   TransportFlavour::I2cSmbusDataWord};
inline constexpr TransportKey kMockTransportKey{TransportType::mock, TransportProtocol::mockProtocol,
                                                TransportFlavour::mockFlavour};

/// @brief "<type>/<protocol>/<flavour>", as transport errors name a row.
TARN_API std::string transportKeyText(TransportKey const& key);

[[noreturn]] TARN_API void throwDescriptorMismatch(BaseTransportDescriptor const& descriptor, char const* expected);

/// @brief The descriptor of a registry row as its concrete class @p D (fwkType @p expected).
/// A base descriptor built with a row's triple is a caller's mistake, reported like every
/// transport error: std::runtime_error "descriptor of transport '<key>' is a <class>, not a <expected>".
template <class D>
D const& transportDescriptorAs(BaseTransportDescriptor const& descriptor, char const* expected) {
  auto const* concrete = dynamic_cast<D const*>(&descriptor);
  if (!concrete) throwDescriptorMismatch(descriptor, expected);
  return *concrete;
}

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

  // ------------------------------------------------------------ transport registry

  /// @brief Builds the implementation of a registry row from the descriptor (of the row's
  /// class) and the register-map source (a CSV path, or else a model: the CSV map wins and
  /// the model is then not handed on).
  using TransportFactory = BaseTransportMethodImpl* (*)(BaseTransportDescriptor const& descriptor,
                                                        TransportMethodRegFile const& regFile);

  /// @brief Sets the factory of the row @p key (adding the row if need be); returns the
  /// previous one. Each backend registers its rows from a load-time initialiser. The rows of
  /// the five triples exist from the start; one without a factory fails with
  /// std::runtime_error "transport implementation '<type>/<protocol>/<flavour>' is not
  /// available in this build".
  static TransportFactory transportFactoryIs(TransportKey const& key, TransportFactory factory);
  /// @brief The factory of the row @p key; null when the row has none.
  /// @throws std::runtime_error "Unknown transport type '<type>'" when there is no such row.
  static TransportFactory transportFactory(TransportKey const& key);

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
  ///         "Unknown transport type '<type>'", "transport implementation '<key>' is not
  ///         available in this build", "TransportMethod implementation init failed" and the
  ///         implementation's construction errors (MapError for the register map).
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
  bool tryPerformIO(Kiv::String const& regName, TransportOperation op, bool traced, Access&& access);
  void failed(Kiv::String const& regName, TransportOperation op, TransportErrorKind kind, int errnum,
              char const* reason);

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
