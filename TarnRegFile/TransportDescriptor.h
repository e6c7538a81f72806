#pragma once
/// @file TransportDescriptor.h
/// @brief Descriptions of how one chip's registers are reached: PCI, I2C through the
/// hardware-access manager, I2C through i2c-dev, or the mock.
///
/// A descriptor is immutable after construction. Its (type, protocol, flavour)
/// triple selects the transport implementation; the concrete class carries the
/// arguments that implementation needs. Descriptors are entities of the runtime
/// so that they can be held as attributes of other entities.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivEntity.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/KivString.h"
#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/TransportDescriptorEnum.h"

#include <cstddef>
#include <type_traits>

namespace Hardware {
class DovImpl;  // the platform's PCI access object (TarnRegFile/platform/PciDov.h)
class Vorm;     // the platform's asynchronous hardware-access manager
}

namespace TarnRegFile {

/// @brief Common part of every descriptor: the triple that selects the implementation.
class TARN_API BaseTransportDescriptor : public Kiv::Entity {
public:
  /// @brief A descriptor of @p type whose protocol and flavour are both value 0.
  explicit BaseTransportDescriptor(TransportType type);
  ~BaseTransportDescriptor() override;

  TransportType type() const noexcept { return type_; }
  TransportProtocol protocol() const noexcept { return protocol_; }
  TransportFlavour flavour() const noexcept { return flavour_; }

  char const* fwkType() const override { return "TarnRegFile::BaseTransportDescriptor"; }

protected:
  BaseTransportDescriptor(TransportType type, TransportProtocol protocol, TransportFlavour flavour);

private:
  TransportType type_;
  TransportProtocol protocol_;
  TransportFlavour flavour_;
};

/// @brief Memory-mapped PCI: ("pci", "DirectAccess", "PciDov") and the chip's PCI access object.
class TARN_API PciTransportDescriptor : public BaseTransportDescriptor {
public:
  explicit PciTransportDescriptor(Kiv::Ptr<Hardware::DovImpl> const& pciDov);
  ~PciTransportDescriptor() override;

  /// @brief Allocates a descriptor with notifications active.
  static Kiv::Ptr<PciTransportDescriptor> PciTransportDescriptorIs(Kiv::Ptr<Hardware::DovImpl> const& pciDov);

  /// @brief The PCI access object (may be null).
  Kiv::Ptr<Hardware::DovImpl> const& pciDov() const noexcept { return pciDov_; }

  char const* fwkType() const override { return "TarnRegFile::PciTransportDescriptor"; }

private:
  Kiv::Ptr<Hardware::DovImpl> pciDov_;
};

/// @brief I2C through the hardware-access manager: ("i2c", "I2cVorm", "I2cSmbusVorm"), the
/// manager and the device identifier on it.
///
/// The manager is kept as a counted reference whose type is only needed where it is
/// handed in or taken out (the template members below), so this unit does not
/// depend on the manager's definition.
class TARN_API I2cVormTransportDescriptor : public BaseTransportDescriptor {
public:
  /// @brief A descriptor holding a reference to @p vorm.
  template <class V>
    requires std::is_same_v<V, Hardware::Vorm>
  I2cVormTransportDescriptor(Kiv::Ptr<V> const& vorm, U32 devId)
      : I2cVormTransportDescriptor(Kiv::Ptr<Kiv::PtrInterface>(vorm), devId, Erased{}) {}
  /// @brief A descriptor without a manager.
  I2cVormTransportDescriptor(std::nullptr_t, U32 devId);
  ~I2cVormTransportDescriptor() override;

  /// @brief Allocates a descriptor with notifications active.
  template <class V>
    requires std::is_same_v<V, Hardware::Vorm>
  static Kiv::Ptr<I2cVormTransportDescriptor> I2cVormTransportDescriptorIs(Kiv::Ptr<V> const& vorm, U32 devId) {
    return Kiv::create<I2cVormTransportDescriptor>(vorm, devId);
  }
  /// @brief Allocates a descriptor without a manager, with notifications active.
  static Kiv::Ptr<I2cVormTransportDescriptor> I2cVormTransportDescriptorIs(std::nullptr_t, U32 devId);

  /// @brief The hardware-access manager (may be null).
  template <class V = Hardware::Vorm>
  Kiv::Ptr<V> vorm() const noexcept {
    return Kiv::Ptr<V>(static_cast<V*>(vorm_.ptr()));
  }
  /// @brief Whether a manager is held.
  bool hasVorm() const noexcept { return static_cast<bool>(vorm_); }
  /// @brief The device identifier on the manager.
  U32 devId() const noexcept { return devId_; }

  char const* fwkType() const override { return "TarnRegFile::I2cVormTransportDescriptor"; }

private:
  struct Erased {};
  I2cVormTransportDescriptor(Kiv::Ptr<Kiv::PtrInterface> vorm, U32 devId, Erased);

  Kiv::Ptr<Kiv::PtrInterface> vorm_;
  U32 devId_;
};

/// @brief I2C through the Linux i2c-dev interface: ("i2c", "I2cSmbusIoctl", flavour), the
/// device node and the chip's peripheral address. The flavours meant for it are
/// "I2cSmbusDataBlock" and "I2cSmbusDataWord".
class TARN_API I2cTransportDescriptor : public BaseTransportDescriptor {
public:
  I2cTransportDescriptor(TransportFlavour flavour, Kiv::String const& devNode, U32 devId);
  ~I2cTransportDescriptor() override;

  /// @brief Allocates a descriptor with notifications active.
  static Kiv::Ptr<I2cTransportDescriptor> I2cTransportDescriptorIs(TransportFlavour flavour,
                                                                   Kiv::String const& devNode, U32 devId);

  /// @brief Path of the i2c-dev device node ("/dev/i2c-0").
  Kiv::String const& devNode() const noexcept { return devNode_; }
  /// @brief Peripheral address of the chip on that bus.
  U32 devId() const noexcept { return devId_; }

  char const* fwkType() const override { return "TarnRegFile::I2cTransportDescriptor"; }

private:
  Kiv::String devNode_;
  U32 devId_;
};

/// @brief No hardware: ("mock", "mockProtocol", "mockFlavour"), with the file the mock mirrors
/// its registers into.
class TARN_API MockTransportDescriptor : public BaseTransportDescriptor {
public:
  /// @brief The dump file when none is named.
  static constexpr char const* kDefaultDumpPath = "/tmp/MockTarnDebugReg.csv";

  explicit MockTransportDescriptor(Kiv::String const& dumpPath = kDefaultDumpPath);
  ~MockTransportDescriptor() override;

  /// @brief Allocates a descriptor with notifications active.
  static Kiv::Ptr<MockTransportDescriptor> MockTransportDescriptorIs(Kiv::String const& dumpPath = kDefaultDumpPath);

  /// @brief The file the mock loads its values from and rewrites after every access.
  Kiv::String const& dumpPath() const noexcept { return dumpPath_; }

  char const* fwkType() const override { return "TarnRegFile::MockTransportDescriptor"; }

private:
  Kiv::String dumpPath_;
};

/// @brief Free factory of PciTransportDescriptor.
TARN_API Kiv::Ptr<PciTransportDescriptor> pciTransportDescriptorFactory(Kiv::Ptr<Hardware::DovImpl> const& pciDov);

/// @brief Free factory of I2cVormTransportDescriptor.
template <class V>
  requires std::is_same_v<V, Hardware::Vorm>
Kiv::Ptr<I2cVormTransportDescriptor> i2cVormTransportDescriptorFactory(Kiv::Ptr<V> const& vorm, U32 devId) {
  return I2cVormTransportDescriptor::I2cVormTransportDescriptorIs(vorm, devId);
}
/// @brief Free factory of I2cVormTransportDescriptor without a manager.
TARN_API Kiv::Ptr<I2cVormTransportDescriptor> i2cVormTransportDescriptorFactory(std::nullptr_t, U32 devId);

/// @brief Free factory of I2cTransportDescriptor.
TARN_API Kiv::Ptr<I2cTransportDescriptor> i2cTransportDescriptorFactory(TransportFlavour flavour,
                                                                        Kiv::String const& devNode, U32 devId);

/// @brief Free factory of MockTransportDescriptor.
TARN_API Kiv::Ptr<MockTransportDescriptor> mockTransportDescriptorFactory(
    Kiv::String const& dumpPath = MockTransportDescriptor::kDefaultDumpPath);

}  // namespace TarnRegFile
