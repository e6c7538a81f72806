#include "TarnRegFile/RegisterFile.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/Errors.h"
#include "TarnRegFile/Utils.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <unordered_map>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/RegisterFile");

constexpr std::string_view kCsvHeader = "number,name,type,writeable,width";
constexpr U32 kCsvFieldCount = 5;
// The header, its "\r" and its "\n": a first line without a newline by then is not the
// header, and is not read any further (it could be endless: /dev/zero).
constexpr size_t kHeaderLineMax = kCsvHeader.size() + 2;
// What is read before the header is judged; the rest of a file follows in one read
// when its size is known.
constexpr size_t kFirstRead = 64 * 1024;
constexpr char const* kNulInName = "NUL byte in register name";

// Built on first use; C++ guarantees thread-safe initialisation of function-local statics.
std::unordered_map<RegisterType, std::string> const& textByType() {
  static std::unordered_map<RegisterType, std::string> const table{
      {RegisterType::Reserved, "reserved"}, {RegisterType::Const, "const"},     {RegisterType::Cfg, "cfg"},
      {RegisterType::Sts, "sts"},           {RegisterType::Counter, "counter"}, {RegisterType::Ctl, "ctl"},
  };
  return table;
}

// The six type names, told apart by length and then compared whole: no hashing per line.
RegisterType typeFromToken(std::string_view token) noexcept {
  using T = RegisterType;
  switch (token.size()) {
    case 3:
      if (token == "cfg") return T::Cfg;
      if (token == "sts") return T::Sts;
      if (token == "ctl") return T::Ctl;
      break;
    case 5:
      if (token == "const") return T::Const;
      break;
    case 7:
      if (token == "counter") return T::Counter;
      break;
    case 8:
      if (token == "reserved") return T::Reserved;
      break;
    default:
      break;
  }
  return T::Unknown;
}

// Every decimal number of a map goes through here.
U32 parseDecimal(std::string_view token, char const* error) {
  U32 value = 0;
  if (!Utils::strtoint(token, value, 10)) throw std::runtime_error(error);
  return value;
}

// One data line's fields; a field the line does not supply keeps its zero.
struct LineFields {
  U32 number = 0;
  U32 width = 0;
  RegisterType type = RegisterType::Unknown;
  bool writeable = false;
  std::string_view name;
};

// The parser of a data line, shared by Register and the loader. Tokens are split on ","
// as Utils::tokenize does: nothing trimmed, a separator at the very end gives no further
// token, two adjacent ones an empty token. The loader also refuses a NUL byte in a name
// (such a register could never be asked for by name).
template <bool kRefuseNulInName>
void parseLine(std::string_view line, U8 addrBlockSize, LineFields& f) {
  U32 fields = 0;
  for (size_t pos = 0; pos < line.size(); ++fields) {
    size_t end = line.find(',', pos);
    if (end == std::string_view::npos) end = line.size();
    std::string_view const token = line.substr(pos, end - pos);
    pos = end + 1;
    switch (fields) {
      case 0:
        // Wraps for huge numbers on purpose: the CSV number is trusted to fit the bus.
        f.number = parseDecimal(token, "Invalid address token") * addrBlockSize;
        break;
      case 1:
        if constexpr (kRefuseNulInName) {
          if (token.find('\0') != std::string_view::npos) throw std::runtime_error(kNulInName);
        }
        f.name = token;
        break;
      case 2:
        f.type = typeFromToken(token);
        if (f.type == RegisterType::Unknown) kTrace.line(8, "Unknown register type '{}'", token);
        break;
      case 3:
        // Only an explicit "false" protects a register; any other spelling leaves it writeable.
        f.writeable = token != "false";
        break;
      case 4:
        f.width = parseDecimal(token, "Invalid width token");
        if (f.width > Register::regOpWidth) throw std::runtime_error("Unsupported register width");
        break;
      default:
        kTrace.line(8, "Found extraneous field(s) in CSV file.");
        return;
    }
  }
  if (fields < kCsvFieldCount) kTrace.line(8, "Incomplete CSV fields. Found {} fields only.", fields);
}

std::string textForm(U32 number, std::string_view name, bool writeable, U32 width) {
  char const* const access = writeable ? "writeable" : "readonly";
  // Zero prints without the "0x" prefix, like printf's "%#08x" does.
  if (number == 0) return fmt::format("{:08x} {} {} {}", number, name, access, width);
  return fmt::format("{:#08x} {} {} {}", number, name, access, width);
}

// The whole text of a map, read once into one block.
class MapText {
public:
  MapText() = default;
  MapText(MapText const&) = delete;
  MapText& operator=(MapText const&) = delete;
  ~MapText() { std::free(data_); }

  char const* data() const noexcept { return data_; }
  size_t size() const noexcept { return size_; }

  // Reads through @p readSome(char* to, size_t max) -> size_t (0 at the end): first up to
  // kFirstRead bytes, enough to judge the header, then (only for a good header) the rest,
  // in one block of @p sizeHint bytes when the size is known. Returns the body's offset.
  template <class ReadSome>
  size_t read(ReadSome&& readSome, size_t sizeHint, std::string const& path) {
    reserve(std::min(std::max(sizeHint, kHeaderLineMax) + 1, kFirstRead));
    bool ended = false;
    while (!ended && size_ < kHeaderLineMax && std::memchr(data_, '\n', size_) == nullptr) ended = !fill(readSome);
    size_t const judged = std::min(size_, kHeaderLineMax);
    auto const* newline = static_cast<char const*>(std::memchr(data_, '\n', judged));
    if (newline == nullptr && (!ended || size_ >= kHeaderLineMax)) throw MapError(kWrongHeader, path, 1);
    std::string_view header(data_, newline ? size_t(newline - data_) : size_);
    if (!header.empty() && header.back() == '\r') header.remove_suffix(1);
    if (header != kCsvHeader) throw MapError(kWrongHeader, path, 1);
    size_t const body = newline ? size_t(newline - data_) + 1 : size_;
    if (!ended) {
      reserve(sizeHint + 1);
      while (fill(readSome)) {
        if (size_ == capacity_) reserve(capacity_ * 2);
      }
    }
    return body;
  }

  static constexpr char const* kWrongHeader = "Encountered wrong CSV header!";

private:
  template <class ReadSome>
  bool fill(ReadSome&& readSome) {
    if (size_ == capacity_) reserve(capacity_ * 2);
    size_t const n = readSome(data_ + size_, capacity_ - size_);
    size_ += n;
    return n != 0;
  }
  void reserve(size_t wanted) {
    if (wanted <= capacity_) return;
    void* const p = std::realloc(data_, wanted);
    if (p == nullptr) throw std::bad_alloc();
    data_ = static_cast<char*>(p);
    capacity_ = wanted;
  }

  char* data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

// Newlines in [p, p + n): eight bytes at a time, exactly (no false matches).
size_t countNewlines(char const* p, size_t n) noexcept {
  size_t count = 0;
  constexpr U64 kNl = 0x0A0A0A0A0A0A0A0Aull, kLow7 = 0x7F7F7F7F7F7F7F7Full;
  for (; n >= 8; p += 8, n -= 8) {
    U64 w;
    std::memcpy(&w, p, 8);
    w ^= kNl;  // a newline byte is now zero
    U64 const nonZero = ((w & kLow7) + kLow7) | w;
    count += std::popcount(~nonZero & ~kLow7);
  }
  for (; n > 0; ++p, --n) count += *p == '\n';
  return count;
}

// Parses the body of a map (everything after the header line) into @p index.
void loadBody(RegisterIndex& index, char const* text, size_t size, U8 addrBlockSize, std::string const& path) {
  // One line per register at most: both tables are sized once. An entry takes at most
  // its line's length plus the fixed part, a NUL and padding, so the arena needs no
  // more than this either; what it does not use is given back after the load.
  if (size != 0) {
    KIV_ASSERT(kTrace, addrBlockSize) << "a register file's address block size must not be 0";
  }
  size_t const lines = countNewlines(text, size) + 1;
  index.reserve(lines, size + lines * RegisterIndex::entryBytes(0));
  U32 lineNumber = 1;
  char const* const end = text + size;
  for (char const* p = text; p < end;) {
    ++lineNumber;
    auto const* newline = static_cast<char const*>(std::memchr(p, '\n', size_t(end - p)));
    char const* const lineEnd = newline ? newline : end;
    std::string_view line(p, size_t(lineEnd - p));
    p = lineEnd + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    LineFields f;
    try {
      parseLine<true>(line, addrBlockSize, f);
    } catch (std::runtime_error const& e) {
      // The record parser says what is wrong; only the loader knows where.
      throw MapError(e.what(), path, lineNumber);
    }
    bool added = false;
    RegisterIndex::Ref const ref =
        index.insert(f.name, RegisterIndex::hashName(f.name.data(), f.name.size()),
                     {f.number, f.width, Register::regOpWidth, static_cast<U8>(f.type), f.writeable}, added);
    // A duplicate name keeps its first record, but every line claims its address.
    index.claimAddress(f.number, ref);
  }
  index.shrinkToFit();
}

}  // namespace

// ---------------------------------------------------------------- Register

RegisterType Register::regTypeFromString(std::string_view const& token) { return typeFromToken(token); }

std::string const& Register::regTypeToString(RegisterType type) {
  static std::string const unknown = "(unknown)";
  auto const& table = textByType();
  auto const it = table.find(type);
  return it == table.end() ? unknown : it->second;
}

Register::Register(std::string_view const& line, U8 addrBlockSize) {
  KIV_ASSERT(kTrace, addrBlockSize) << "a register file's address block size must not be 0";
  LineFields f;
  parseLine<false>(line, addrBlockSize, f);
  number = f.number;
  width = f.width;
  type = f.type;
  writeable = f.writeable;
  name.assign(f.name);
}

Register::operator std::string() const { return textForm(number, name, writeable, width); }

RegisterRef::operator std::string() const { return textForm(number, name, writeable, width); }

// ---------------------------------------------------------------- RegisterFile

RegisterFile::RegisterFile(char const* csvPath, U8 addrBlockSize) {
  if (csvPath == nullptr) throw MapError("Error opening CSV file (null)", std::string(), 0, EINVAL);
  std::string const path = csvPath;
  int const fd = ::open(csvPath, O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw MapError(fmt::format("Error opening CSV file {}", path), path, 0, errno);
  Utils::UnixFdRes const held(fd);
  struct stat st {};
  bool const known = ::fstat(fd, &st) == 0;
  // A directory opens but reads as nothing, so its "header" is wrong; the error also
  // carries the reason, for a program to tell the user.
  if (known && S_ISDIR(st.st_mode)) throw MapError(MapText::kWrongHeader, path, 1, EISDIR);
  // Only a regular file's size means anything; a pipe or a device is read until it ends.
  size_t const sizeHint = known && S_ISREG(st.st_mode) ? static_cast<size_t>(st.st_size) : 0;
  MapText text;
  size_t const body = text.read(
      [&](char* to, size_t max) -> size_t {
        ssize_t n;
        do n = ::read(fd, to, std::min<size_t>(max, size_t(1) << 30));
        while (n < 0 && errno == EINTR);
        if (n < 0) throw MapError(fmt::format("Error reading CSV file {}", path), path, 0, errno);
        return static_cast<size_t>(n);
      },
      sizeHint, path);
  loadBody(index_, text.data() + body, text.size() - body, addrBlockSize, path);
}

RegisterFile::RegisterFile(std::istream& in, U8 addrBlockSize) {
  std::string const path;
  std::streambuf* const buffer = in ? in.rdbuf() : nullptr;
  MapText text;
  size_t const body = text.read(
      [&](char* to, size_t max) -> size_t {
        if (buffer == nullptr) return 0;
        auto const n = buffer->sgetn(to, static_cast<std::streamsize>(std::min<size_t>(max, size_t(1) << 30)));
        if (n <= 0) in.setstate(std::ios::eofbit);
        return n > 0 ? static_cast<size_t>(n) : 0;
      },
      buffer ? static_cast<size_t>(std::max<std::streamsize>(buffer->in_avail(), 0)) : 0, path);
  loadBody(index_, text.data() + body, text.size() - body, addrBlockSize, path);
}

// A null name is a name that no map has (the empty name may well exist: a blank line).
void RegisterFile::throwNoRegister(std::string_view name) { throw LookupError::noRegister(std::string(name)); }

bool RegisterFile::hasRegName(char const* name) const {
  return name != nullptr && hasRegName(std::string_view(name));
}

bool RegisterFile::hasRegName(std::string_view name) const { return index_.find(name) != 0; }

std::string RegisterFile::findRegNameByAddr(U32 address) const {
  char const* const name = nameAt(address);
  if (name == nullptr) throw LookupError::noAddress(address);
  return name;
}

}  // namespace TarnRegFile
