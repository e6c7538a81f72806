#pragma once
/// @file TransportChoice.h
/// @brief Which transport the command line asked for, with that transport's arguments.

#include "Types.h"

#include "TarnRegFile/TransportDescriptor.h"

#include <string>

namespace Tarnreg {

/// @brief The transports `tarnreg` can reach registers through.
enum class TransportKind { None, Mock, Pci, I2c };

/// @brief A transport and its arguments, as given on the command line.
struct TransportChoice {
  TransportKind kind = TransportKind::None;
  std::string mockFile = TarnRegFile::MockTransportDescriptor::kDefaultDumpPath;  ///< --mock-file
  std::string pciResource;                                               ///< --pci
  std::string i2cDevNode;                                                ///< --i2c
  U32 i2cAddress = 0;                                                    ///< --addr
  bool i2cWordFlavour = false;                                           ///< --flavour word
};

/// @brief The factor from a map's register numbers to the byte addresses the transport uses.
///
/// I2C chips are addressed register by register; PCI windows and the mock in bytes of
/// 32-bit registers. Without a transport the map is shown as PCI and the mock see it.
constexpr U8 addrBlockSize(TransportKind kind) { return kind == TransportKind::I2c ? 1 : 4; }

}  // namespace Tarnreg
