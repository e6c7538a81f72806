#include "TarnRegFile/MockTransportMethodImpl.h"

#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/TransportMethod.h"
#include "TarnRegFile/Utils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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

bool usableForWriting(struct stat const& st) { return S_ISREG(st.st_mode) && st.st_uid == ::geteuid(); }

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
    : BusTransport(csvPath, kAddrBlockSize, regFileModel), dumpPath_(std::move(dumpPath)) {
  load();
}

MockTransportMethodImpl::~MockTransportMethodImpl() = default;

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
  // Not truncated on open: the file is checked first, so that a file of another
  // user is never emptied.
  Utils::UnixFdRes file(::open(dumpPath_.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0644));
  if (file.fd() < 0) return;
  struct stat st;
  if (::fstat(file.fd(), &st) != 0 || !usableForWriting(st)) return;
  // Overwrite in place, then cut to the new length. Cutting to zero first would
  // make some file systems flush the file to disk on close (their guard for
  // "truncate and rewrite"), which costs milliseconds per register access.
  if (!writeAllAtStart(file.fd(), dumpText_)) return;
  if (::ftruncate(file.fd(), static_cast<off_t>(dumpText_.size())) != 0) return;
}

}  // namespace TarnRegFile
