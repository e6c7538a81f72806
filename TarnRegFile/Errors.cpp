#include "TarnRegFile/Errors.h"

#include <fmt/format.h>

namespace TarnRegFile {

MapError::MapError(std::string const& text, std::string path, U32 line, int errnum)
    : std::runtime_error(text), path_(std::move(path)), line_(line), errnum_(errnum) {}

LookupError::LookupError(std::string const& text, bool byName, std::string regName, U32 address)
    : std::runtime_error(text), byName_(byName), regName_(std::move(regName)), address_(address) {}

LookupError LookupError::noRegister(std::string name) {
  std::string text = fmt::format("RegisterFile does not have register '{}'!", name);
  return LookupError(text, true, std::move(name), 0);
}

LookupError LookupError::noAddress(U32 address) {
  return LookupError(fmt::format("RegisterFile does not have address: {}!", address), false, std::string(), address);
}

char const* kindText(TransportErrorKind kind) noexcept {
  switch (kind) {
    case TransportErrorKind::System: return "system";
    case TransportErrorKind::BusError: return "bus error";
    case TransportErrorKind::OutOfRange: return "out of range";
    case TransportErrorKind::WidthUnsupported: return "width unsupported";
    case TransportErrorKind::UnknownRegister: return "unknown register";
    case TransportErrorKind::NoDevice: return "no device";
    case TransportErrorKind::Other: break;
  }
  return "other";
}

char const* operationText(TransportOperation op) noexcept { return op == TransportOperation::Write ? "write" : "read"; }

TransportError::TransportError(std::string const& text, TransportErrorKind kind, std::string regName,
                               TransportOperation op, int errnum)
    : std::runtime_error(text), kind_(kind), op_(op), errnum_(errnum), regName_(std::move(regName)) {}

DumpFileError::~DumpFileError() = default;

DumpFileInvalid::DumpFileInvalid(std::string path, U32 line)
    : std::invalid_argument("stoul"), DumpFileError(std::move(path)) {
  lineIs(line);
}

DumpFileOutOfRange::DumpFileOutOfRange(std::string path, U32 line)
    : std::out_of_range("stoul"), DumpFileError(std::move(path)) {
  lineIs(line);
}

}  // namespace TarnRegFile
