#include "TarnRegFile/MockTransportMethodImpl.h"

#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/Utils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/MockTransportMethodImpl");

constexpr std::string_view kHeader = "Address, Value\n";
constexpr U8 kAddrBlockSize = 4;

// Decimal text to 32 bits with the standard conversion's rules (leading white
// space skipped, trailing text ignored). The conversion is made 64 bits wide on
// every architecture and then range-checked, so a value that does not fit in 32
// bits (or a negative one) is refused the same way on i386 and amd64. Failures
// carry the conversion's name, "stoul", as their text, and the file and line.
uint32_t toU32(std::string const& text, std::string const& path, U32 line) {
  unsigned long long value;
  try {
    value = std::stoull(text, nullptr, 10);
  } catch (std::invalid_argument const&) {
    throw DumpFileInvalid(path, line);
  } catch (std::out_of_range const&) {
    throw DumpFileOutOfRange(path, line);
  }
  if (value > 0xFFFFFFFFull) throw DumpFileOutOfRange(path, line);
  return static_cast<uint32_t>(value);
}

// Only a regular file can be a dump file: anything else (a FIFO, a device) is
// somebody else's, and opening it could block or have effects.
bool usableForReading(struct stat const& st) {
  // Files of the current user or of root are trusted; another user's file in the
  // shared directory is not loaded.
  return S_ISREG(st.st_mode) && (st.st_uid == ::geteuid() || st.st_uid == 0);
}

// Writes the whole text at offset 0.
bool writeAllAtStart(int fd, std::string_view text) {
  off_t offset = 0;
  while (!text.empty()) {
    ssize_t const n = ::pwrite(fd, text.data(), text.size(), offset);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    text.remove_prefix(static_cast<size_t>(n));
    offset += n;
  }
  return true;
}

// Names the spare file of one instance (see replaceDumpFile): unique among the
// processes and the instances of a process that share a dump file.
std::string tempPathFor(std::string const& dumpPath) {
  static std::atomic<U32> instances{0};
  return dumpPath + ".tmp" + std::to_string(::getpid()) + "-" + std::to_string(instances++);
}

void appendDecimal(std::string& out, uint32_t value) {
  char digits[10];
  auto const r = std::to_chars(digits, digits + sizeof digits, value);
  out.append(digits, r.ptr);
}

BaseTransportMethodImpl* createMockTransport(BaseTransportDescriptor const& descriptor,
                                             TransportMethodRegFile const& regFile) {
  auto const& mock =
      transportDescriptorAs<MockTransportDescriptor>(descriptor, "TarnRegFile::MockTransportDescriptor");
  return new MockTransportMethodImpl(regFile.csvPath().c_str(), regFile.regFileModel(), mock.dumpPath().str());
}

[[maybe_unused]] bool const kRegistered = [] {
  TransportMethod::transportFactoryIs(kMockTransportKey, createMockTransport);
  return true;
}();

}  // namespace

MockTransportMethodImpl::MockTransportMethodImpl(
    char const* csvPath, Kiv::Ptr<Hardware::TarnRegFile::HardwareRegisterFile> const& regFileModel,
    std::string dumpPath)
    : BusTransport(csvPath, kAddrBlockSize, regFileModel),
      dumpPath_(std::move(dumpPath)),
      tempPath_(tempPathFor(dumpPath_)) {
  load();
}

// The previous version of the dump file kept for reuse goes with the instance.
MockTransportMethodImpl::~MockTransportMethodImpl() { ::unlink(tempPath_.c_str()); }

uint32_t MockTransportMethodImpl::_regRWCommon(bool isWrite, char const* regName, uint32_t value) {
  if (!isWrite) return regRead(regName);
  regWrite(regName, value);
  return value;
}

uint32_t MockTransportMethodImpl::busRead(HardwareRegister const& reg) {
  // A register never written reads 0 and is listed in the dump from now on.
  uint32_t const result = values_.try_emplace(reg.address, 0).first->second;
  rewrite();
  return result;
}

void MockTransportMethodImpl::busWrite(HardwareRegister const& reg, uint32_t value) {
  values_[reg.address] = value;
  rewrite();
}

void MockTransportMethodImpl::load() {
  Utils::UnixFdRes file(::open(dumpPath_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
  if (file.fd() < 0) return;  // no dump yet (or a symbolic link planted there): start empty
  struct stat st;
  if (::fstat(file.fd(), &st) != 0 || !usableForReading(st)) {
    kTrace.line(5, "Ignoring dump file {}: not a regular file of this user", dumpPath_);
    return;
  }
  std::string text;
  char chunk[4096];
  for (;;) {
    ssize_t const n = ::read(file.fd(), chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    text.append(chunk, static_cast<size_t>(n));
  }

  std::string_view rest(text);
  U32 lineNumber = 0;
  while (!rest.empty()) {
    size_t const eol = rest.find('\n');
    std::string_view const line = rest.substr(0, eol);
    rest.remove_prefix(eol == std::string_view::npos ? rest.size() : eol + 1);
    if (++lineNumber == 1) continue;  // the first line is the header, whatever it says
    size_t const comma = line.find(',');
    if (line.empty() || comma == std::string_view::npos) continue;
    uint32_t const address = toU32(std::string(line.substr(0, comma)), dumpPath_, lineNumber);
    uint32_t const value = toU32(std::string(line.substr(comma + 1)), dumpPath_, lineNumber);
    values_.try_emplace(address, value);  // the first line of an address wins
  }
  kTrace.line(5, "Loaded {} values from {}", values_.size(), dumpPath_);
}

void MockTransportMethodImpl::rewrite() {
  dumpText_.clear();
  dumpText_.append(kHeader);
  for (auto const& [address, value] : values_) {
    appendDecimal(dumpText_, address);
    dumpText_ += ',';
    appendDecimal(dumpText_, value);
    dumpText_ += '\n';
  }
  dumpErrno_ = replaceDumpFile();
}

int MockTransportMethodImpl::replaceDumpFile() {
  // What is there now decides whether it may be replaced, and gives the new file its mode.
  // A new file is not writable by others (and the umask applies).
  mode_t mode = 0644;
  struct stat st;
  bool const exists = ::lstat(dumpPath_.c_str(), &st) == 0;
  if (exists) {
    if (S_ISLNK(st.st_mode)) return ELOOP;
    if (!S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) return EPERM;
    // Replacing one name of a file with other names would leave those holding the old
    // text while this one moves on; writing through it would change a file that is
    // not the dump file. Neither is done.
    if (st.st_nlink > 1) return EMLINK;
    if ((st.st_mode & S_IWUSR) == 0) return EACCES;  // made read-only on purpose, also for root
    mode = st.st_mode & 07777;
  } else if (errno != ENOENT) {
    return errno;
  }
  // The new text goes into the file that the last swap below left under the temporary
  // name (the previous version), overwritten and cut to length: reusing it spares the file
  // system an allocation and a release per access, and ext4 starts writing a file to disk
  // at once when it is cut to zero or renamed over another, which would cost about a
  // millisecond per access. What is found under that name must be this instance's own.
  Utils::UnixFdRes file(::open(tempPath_.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, mode));
  if (file.fd() < 0) return errno;
  struct stat temp;
  if (::fstat(file.fd(), &temp) != 0) return errno;
  if (!S_ISREG(temp.st_mode) || temp.st_uid != ::geteuid() || temp.st_nlink != 1) return EEXIST;
  int error = 0;
  if (!writeAllAtStart(file.fd(), dumpText_) || ::ftruncate(file.fd(), off_t(dumpText_.size())) != 0 ||
      ((temp.st_mode & 07777) != mode && ::fchmod(file.fd(), mode) != 0))  // the umask may have cut the mode
    error = errno;
  if (file._destruct() != 0 && error == 0) error = errno;  // a delayed write error shows at close
  if (error == 0) {
    // Swapped, the old version stays under the temporary name for the next rewrite.
    if (exists && ::renameat2(AT_FDCWD, tempPath_.c_str(), AT_FDCWD, dumpPath_.c_str(), RENAME_EXCHANGE) == 0)
      return 0;
    if (::rename(tempPath_.c_str(), dumpPath_.c_str()) == 0) return 0;  // first version, or no swap here
    error = errno;
  }
  ::unlink(tempPath_.c_str());  // a cut-off text is not kept, nor the space it holds
  return error;
}

}  // namespace TarnRegFile
