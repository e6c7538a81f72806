#include "TarnRegFile/RegisterFile.h"

#include "TarnRegFile/platform/Assert.h"
#include "TarnRegFile/platform/Trace.h"

#include "TarnRegFile/Errors.h"
#include "TarnRegFile/Utils.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

namespace TarnRegFile {
namespace {

Kiv::TraceHandle kTrace("TarnRegFile/RegisterFile");

constexpr std::string_view kCsvHeader = "number,name,type,writeable,width";
constexpr U32 kCsvFieldCount = 5;
// A line such as "12,interrupt_status,sts,false,32" rarely has fewer characters.
constexpr std::intmax_t kTypicalCsvLineBytes = 24;
// A size hint is taken before the header is checked, so a huge file that is not a
// register map at all must not make the loader reserve a lot of memory; maps beyond
// this size (millions of registers) simply grow as they load.
constexpr std::intmax_t kMaxSizeHintBytes = std::intmax_t(64) << 20;

// Built on first use; C++ guarantees thread-safe initialisation of function-local statics.
std::unordered_map<std::string_view, RegisterType> const& typeByText() {
  static std::unordered_map<std::string_view, RegisterType> const table{
      {"reserved", RegisterType::Reserved}, {"const", RegisterType::Const}, {"cfg", RegisterType::Cfg},
      {"sts", RegisterType::Sts},           {"counter", RegisterType::Counter}, {"ctl", RegisterType::Ctl},
  };
  return table;
}

std::unordered_map<RegisterType, std::string> const& textByType() {
  static std::unordered_map<RegisterType, std::string> const table{
      {RegisterType::Reserved, "reserved"}, {RegisterType::Const, "const"},     {RegisterType::Cfg, "cfg"},
      {RegisterType::Sts, "sts"},           {RegisterType::Counter, "counter"}, {RegisterType::Ctl, "ctl"},
  };
  return table;
}

U32 parseDecimal(std::string_view token, char const* error) {
  U32 value = 0;
  if (!Utils::strtoint(token, value, 10)) throw std::runtime_error(error);
  return value;
}

}  // namespace

// ---------------------------------------------------------------- Register

RegisterType Register::regTypeFromString(std::string_view const& token) {
  auto const& table = typeByText();
  auto const it = table.find(token);
  return it == table.end() ? RegisterType::Unknown : it->second;
}

std::string const& Register::regTypeToString(RegisterType type) {
  static std::string const unknown = "(unknown)";
  auto const& table = textByType();
  auto const it = table.find(type);
  return it == table.end() ? unknown : it->second;
}

Register::Register(std::string_view const& line, U8 addrBlockSize) {
  KIV_ASSERT(kTrace, addrBlockSize) << "a register file's address block size must not be 0";
  U32 pos = 0;
  U32 fields = 0;
  std::string_view token;
  for (; Utils::tokenize(line, pos, token, ','); ++fields) {
    switch (fields) {
      case 0:
        // Wraps for huge numbers on purpose: the CSV number is trusted to fit the bus.
        number = parseDecimal(token, "Invalid address token") * addrBlockSize;
        break;
      case 1:
        name.assign(token);
        break;
      case 2:
        type = regTypeFromString(token);
        if (type == RegisterType::Unknown) kTrace.line(8, "Unknown register type '{}'", token);
        break;
      case 3:
        // Only an explicit "false" protects a register; any other spelling leaves it writeable.
        writeable = token != "false";
        break;
      case 4:
        width = parseDecimal(token, "Invalid width token");
        if (width > regOpWidth) throw std::runtime_error("Unsupported register width");
        break;
      default:
        kTrace.line(8, "Found extraneous field(s) in CSV file.");
        return;
    }
  }
  if (fields < kCsvFieldCount) kTrace.line(8, "Incomplete CSV fields. Found {} fields only.", fields);
}

Register::operator std::string() const {
  char const* const access = writeable ? "writeable" : "readonly";
  // Zero prints without the "0x" prefix, like printf's "%#08x" does.
  if (number == 0) return fmt::format("{:08x} {} {} {}", number, name, access, width);
  return fmt::format("{:#08x} {} {} {}", number, name, access, width);
}

// ---------------------------------------------------------------- RegisterFile

RegisterFile::RegisterFile(char const* csvPath, U8 addrBlockSize) {
  if (csvPath == nullptr) throw MapError("Error opening CSV file (null)", std::string(), 0, EINVAL);
  std::ifstream in(csvPath);
  if (!in.is_open()) throw MapError(fmt::format("Error opening CSV file {}", csvPath), csvPath, 0, errno);
  // A directory opens as a stream and reads as nothing, so its "header" is wrong; the
  // error also carries the reason, for a program to tell the user.
  std::error_code statError;
  if (std::filesystem::is_directory(csvPath, statError))
    throw MapError("Encountered wrong CSV header!", csvPath, 1, EISDIR);
  std::error_code sizeUnknown;
  auto const bytes = std::filesystem::file_size(csvPath, sizeUnknown);  // a hint: no error if unknown
  if (!sizeUnknown) reserveFor(static_cast<std::intmax_t>(std::min<std::uintmax_t>(bytes, kMaxSizeHintBytes)));
  _construct(in, addrBlockSize, csvPath);
}

RegisterFile::RegisterFile(std::istream& in, U8 addrBlockSize) { _construct(in, addrBlockSize, std::string()); }

void RegisterFile::_construct(std::istream& in, U8 addrBlockSize, std::string const& path) {
  std::string buffer;
  std::string_view line;
  if (!Utils::getline_lea(in, buffer, line) || line != kCsvHeader)
    throw MapError("Encountered wrong CSV header!", path, 1);
  // String streams (and small files) tell how many characters are left without
  // being read or moved; other streams report nothing and the maps grow as they go.
  if (in.rdbuf() != nullptr) reserveFor(in.rdbuf()->in_avail());
  U32 lineNumber = 1;
  while (Utils::getline_lea(in, buffer, line)) {
    ++lineNumber;
    std::optional<Register> reg;
    try {
      reg.emplace(line, addrBlockSize);
    } catch (std::runtime_error const& e) {
      // The record parser says what is wrong; only the loader knows where.
      throw MapError(e.what(), path, lineNumber);
    }
    U32 const address = reg->number;
    // The key is copied from reg.name before the record is moved into the node
    // (pair members are built in order); a duplicate name keeps the first record.
    auto const named = registersByName_.try_emplace(reg->name, std::move(*reg)).first;
    // Every line claims its address, also one whose name was a duplicate.
    namesByAddress_.try_emplace(address, named->first);
  }
}

void RegisterFile::reserveFor(std::intmax_t bytes) {
  // Sizing both maps for the whole file up front spares the repeated rehashing of
  // large maps. Only ever grows: an estimate from a partly buffered stream must not
  // undo a better one.
  if (bytes <= 0) return;
  auto const expected = static_cast<size_t>(std::min(bytes, kMaxSizeHintBytes) / kTypicalCsvLineBytes);
  if (expected <= registersByName_.bucket_count()) return;
  registersByName_.reserve(expected);
  namesByAddress_.reserve(expected);
}

// A null name is a name that no map has (the empty name may well exist: a blank line).
Register const& RegisterFile::findRegisterByName(char const* name) const {
  if (name == nullptr) throw LookupError::noRegister("(null)");
  return findRegisterByName(std::string_view(name));
}

Register const& RegisterFile::findRegisterByName(std::string_view name) const {
  auto const it = registersByName_.find(name);
  if (it == registersByName_.end())
    throw LookupError::noRegister(std::string(name));
  return it->second;
}

bool RegisterFile::hasRegName(char const* name) const {
  return name != nullptr && hasRegName(std::string_view(name));
}

bool RegisterFile::hasRegName(std::string_view name) const { return registersByName_.contains(name); }

std::string RegisterFile::findRegNameByAddr(U32 address) const {
  auto const it = namesByAddress_.find(address);
  if (it == namesByAddress_.end())
    throw LookupError::noAddress(address);
  return it->second;
}

}  // namespace TarnRegFile
