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
/// by the current user is ever rewritten. A rewrite replaces the file whole: the
/// new text goes to a spare file next to it (<dump>.tmp<pid>-<n>, which holds the
/// previous version between rewrites and is removed with the instance), which then
/// takes the dump file's place, so that a full disk or a crash leaves the old file
/// or the new one, never a cut-off line that would load as another value. A file reached through a symbolic or a
/// hard link, or whose mode does not let its owner write it, is not replaced.
/// A file that cannot be used is treated as absent when loading and left alone
/// when rewriting; the access succeeds, and dumpErrno() says why the file was
/// not written.

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
  /// @brief Why the last rewrite of the dump file did not happen (an errno value), 0 when it
  /// did. The mock's own refusals: ELOOP a symbolic link, EMLINK a file with other hard
  /// links, EPERM not a regular file of this user, EACCES a mode without the owner's write bit,
  /// EEXIST something other than this instance's own file under the spare file's name.
  int dumpErrno() const noexcept { return dumpErrno_; }
  /// @brief The simulated registers, by byte address.
  std::unordered_map<uint32_t, uint32_t> const& values() const noexcept { return values_; }

  /// @brief Address-level access of the core (the register is resolved and checked).
  uint32_t busRead(HardwareRegister const& reg);
  void busWrite(HardwareRegister const& reg, uint32_t value);

private:
  void load();
  void rewrite();
  int replaceDumpFile();

  std::string dumpPath_;
  std::unordered_map<uint32_t, uint32_t> values_;
  std::string tempPath_;  // the spare file: the next version is written there, then swapped into place
  std::string dumpText_;  // reused for every rewrite, so that steady state allocates nothing
  int dumpErrno_ = 0;
};

}  // namespace TarnRegFile
