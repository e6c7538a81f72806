#pragma once
/// @file MockTransportMethodImpl.h
/// @brief The bus backend used without hardware: register values in memory, mirrored into a text file.
///
/// Values are kept per register address. After every access the whole set is
/// written to the dump file ("Address, Value" header, then "<address>,<value>"
/// lines in decimal) so that a developer can watch it, and the next instance
/// starts from what the file holds, which is also how values are seeded.
///
/// The dump file lives in a world-writable directory, so it is opened without
/// following symbolic links, only regular files are used, and only a file owned
/// by the current user is ever rewritten. A file that cannot be used is treated
/// as absent when loading and left alone when rewriting; the access succeeds.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/HardwareRegisterFile.h"
#include "TarnRegFile/platform/KivPtr.h"
#include "TarnRegFile/platform/Types.h"

#include "TarnRegFile/BaseTransportMethodImpl.h"
#include "TarnRegFile/TransportDescriptor.h"

#include <cstdint>
#include <string>
#include <unordered_map>

namespace TarnRegFile {

class TARN_API MockTransportMethodImpl : public BusTransport<MockTransportMethodImpl> {
public:
  /// @brief The dump file of a mock descriptor that names none.
  static constexpr char const* kDumpPath = MockTransportDescriptor::kDefaultDumpPath;

  /// @brief A mock over the CSV map at @p csvPath (else @p regFileModel), register numbers
  /// scaled by 4, starting from the values in @p dumpPath.
  /// @throws the base's errors; DumpFileInvalid / DumpFileOutOfRange (std::invalid_argument /
  ///         std::out_of_range "stoul", with the file and line) for a dump file line whose
  ///         address or value is not a 32-bit decimal number.
  MockTransportMethodImpl(char const* csvPath,
                          Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel,
                          std::string dumpPath = kDumpPath);
  ~MockTransportMethodImpl() override;

  /// @brief The common access through the core: reads (0 when never written, which then
  /// records it) or stores, then rewrites the dump file.
  uint32_t _regRWCommon(bool isWrite, char const* regName, uint32_t value);

  /// @brief The dump file of this instance.
  std::string const& dumpPath() const noexcept { return dumpPath_; }
  /// @brief The simulated registers, by byte address.
  std::unordered_map<uint32_t, uint32_t> const& values() const noexcept { return values_; }

  /// @brief Address-level access of the core (the register is resolved and checked).
  uint32_t busRead(HardwareRegister const& reg);
  void busWrite(HardwareRegister const& reg, uint32_t value);

private:
  void load();
  void rewrite();

  std::string dumpPath_;
  std::unordered_map<uint32_t, uint32_t> values_;
  std::string dumpText_;  // reused for every rewrite, so that steady state allocates nothing
};

}  // namespace TarnRegFile
