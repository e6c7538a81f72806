#pragma once
/// @file TransportChoice.h
/// @brief Which transport the command line asked for, with that transport's arguments.

#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/TransportDescriptor.h"

#include <string>

namespace Tarnreg {

/// @brief The transports `tarnreg` can reach registers through.
enum class TransportKind { None, Mock, Pci, I2c, I2cAsync };

/// @brief A transport and its arguments, as given on the command line.
struct TransportChoice {
  TransportKind kind = TransportKind::None;
  std::string mockFile = TarnRegFile::MockTransportDescriptor::kDefaultDumpPath;  ///< --mock-file
  std::string pciResource;                                               ///< --pci
  std::string i2cDevNode;                                                ///< --i2c or --i2c-async
  U32 i2cAddress = 0;                                                    ///< --addr
  bool i2cWordFlavour = false;                                           ///< --flavour word
};

/// @brief The factor from a map's register numbers to the byte addresses the transport uses.
///
/// The i2c-dev transport addresses chips register by register; PCI windows, the mock and
/// the asynchronous I2C transport (which divides by 4 again on the wire) in bytes of
/// 32-bit registers. Without a transport the map is shown as PCI and the mock see it.
constexpr U8 addrBlockSize(TransportKind kind) { return kind == TransportKind::I2c ? 1 : 4; }

}  // namespace Tarnreg
