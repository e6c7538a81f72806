#pragma once
/// @file MockTransportMethodImpl.h
/// @brief The transport used without hardware: register values in memory, mirrored into a text file.
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

#include "Export.h"
#include "HardwareRegisterFile.h"
#include "KivPtr.h"
#include "Types.h"

#include "TarnRegFile/BaseTransportMethodImpl.h"

#include <cstdint>
#include <string>
#include <unordered_map>

namespace TarnRegFile {

class TARN_API MockTransportMethodImpl : public BaseTransportMethodImpl {
public:
  /// @brief The dump file every mock transport uses.
  static constexpr char const* kDumpPath = "/tmp/MockTarnDebugReg.csv";

  /// @brief A mock over the CSV map at @p csvPath (else @p regFileModel), register numbers
  /// scaled by 4, starting from the values in @p dumpPath.
  /// @throws the base's errors; std::invalid_argument / std::out_of_range "stoul" for a dump
  ///         file line whose address or value is not a 32-bit decimal number.
  MockTransportMethodImpl(char const* csvPath,
                          Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel,
                          std::string dumpPath = kDumpPath);
  ~MockTransportMethodImpl() override;

  /// @brief The stored value of the register (0 when never written, which then records it).
  uint32_t regRead(char const* regName) override;
  /// @brief Stores @p value for the register.
  void regWrite(char const* regName, uint32_t value) override;

  /// @brief The common access: resolves the name, reads or stores, rewrites the dump file.
  uint32_t _regRWCommon(bool isWrite, char const* regName, uint32_t value);

  /// @brief The dump file of this instance.
  std::string const& dumpPath() const noexcept { return dumpPath_; }
  /// @brief The simulated registers, by byte address.
  std::unordered_map<uint32_t, uint32_t> const& values() const noexcept { return values_; }

private:
  void load();
  void rewrite();

  std::string dumpPath_;
  std::unordered_map<uint32_t, uint32_t> values_;
  std::string dumpText_;  // reused for every rewrite, so that steady state allocates nothing
};

}  // namespace TarnRegFile
