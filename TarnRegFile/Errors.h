#pragma once
/// @file Errors.h
/// @brief The library's recoverable errors, typed so that a program can act on them.
///
/// Every one keeps the fixed message as its text (what a person reads in a log);
/// the type adds what a program needs without parsing that text: the map and
/// line that stopped a load, the register, operation and reason of a failed
/// access, the register name or address a lookup missed, the mock dump file that
/// cannot be read. Catch by type, look at the fields.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Types.h"

#include <stdexcept>
#include <string>

namespace TarnRegFile {

/// @brief A register map that cannot be loaded.
///
/// The text is the loader's ("Error opening CSV file <path>", "Encountered wrong CSV
/// header!", "Invalid width token", ...).
class TARN_API MapError : public std::runtime_error {
public:
  MapError(std::string const& text, std::string path, U32 line, int errnum = 0);

  /// @brief The map's path; empty for a map read from a stream.
  std::string const& path() const noexcept { return path_; }
  /// @brief The 1-based line at fault (1 is the header); 0 when no line is (the map cannot be opened).
  U32 line() const noexcept { return line_; }
  /// @brief The system's reason when the map could not be opened or read, else 0.
  int errnum() const noexcept { return errnum_; }

private:
  std::string path_;
  U32 line_;
  int errnum_;
};

/// @brief A lookup in a register map that missed: "RegisterFile does not have register '<name>'!"
/// or "RegisterFile does not have address: <decimal>!".
class TARN_API LookupError : public std::runtime_error {
public:
  /// @brief A name that is not in the map.
  static LookupError noRegister(std::string name);
  /// @brief An address that is not in the map.
  static LookupError noAddress(U32 address);

  /// @brief True when a name missed, false when an address did.
  bool byName() const noexcept { return byName_; }
  /// @brief The name looked for (empty for an address lookup).
  std::string const& regName() const noexcept { return regName_; }
  /// @brief The address looked for (0 for a name lookup).
  U32 address() const noexcept { return address_; }

private:
  LookupError(std::string const& text, bool byName, std::string regName, U32 address);

  bool byName_;
  std::string regName_;
  U32 address_;
};

/// @brief Why a register access failed.
enum class TransportErrorKind : U8 {
  System,            ///< a system call failed; the errno says why
  BusError,          ///< the device did not answer (a bus error, or a device known to be gone)
  OutOfRange,        ///< the register's address is one the bus cannot reach (beyond the mapping, misaligned, too large)
  WidthUnsupported,  ///< the register is wider than one access
  UnknownRegister,   ///< the name is not in the transport's register map
  NoDevice,          ///< the transport has no device to access
  Other,             ///< any other runtime error of the implementation
};

/// @brief "system", "bus error", "out of range", "width unsupported", "unknown register", "no device", "other".
TARN_API char const* kindText(TransportErrorKind kind) noexcept;

/// @brief Which way an access went.
enum class TransportOperation : U8 { Read, Write };

/// @brief "read" or "write".
TARN_API char const* operationText(TransportOperation op) noexcept;

/// @brief A register access that failed in a transport implementation.
class TARN_API TransportError : public std::runtime_error {
public:
  TransportError(std::string const& text, TransportErrorKind kind, std::string regName, TransportOperation op,
                 int errnum = 0);

  TransportErrorKind kind() const noexcept { return kind_; }
  /// @brief The register as the caller named it.
  std::string const& regName() const noexcept { return regName_; }
  TransportOperation operation() const noexcept { return op_; }
  /// @brief The errno of a failed system call (kind System), else 0.
  int errnum() const noexcept { return errnum_; }

private:
  TransportErrorKind kind_;
  TransportOperation op_;
  int errnum_;
  std::string regName_;
};

/// @brief What a program learns about a failed access at the TransportMethod boundary.
struct TARN_API TransportFailure {
  std::string regName;
  TransportOperation operation = TransportOperation::Read;
  TransportErrorKind kind = TransportErrorKind::Other;
  int errnum = 0;      ///< the errno when kind is System, else 0
  std::string reason;  ///< the error's text ("Caught SIGBUS" for a bus error)
};

/// @brief The mock's dump file holds a line that is not two decimal numbers.
///
/// Thrown as one of the two classes below, which are the standard conversion errors with
/// the text "stoul"; catch this base to learn the file whichever it was.
class TARN_API DumpFileError {
public:
  explicit DumpFileError(std::string path) : path_(std::move(path)) {}
  virtual ~DumpFileError();
  /// @brief The dump file.
  std::string const& path() const noexcept { return path_; }
  /// @brief The 1-based line at fault.
  U32 line() const noexcept { return line_; }
  void lineIs(U32 line) noexcept { line_ = line; }

private:
  std::string path_;
  U32 line_ = 0;
};

/// @brief A dump-file number that is not a number: std::invalid_argument "stoul".
class TARN_API DumpFileInvalid : public std::invalid_argument, public DumpFileError {
public:
  DumpFileInvalid(std::string path, U32 line);
};

/// @brief A dump-file number beyond 32 bits: std::out_of_range "stoul".
class TARN_API DumpFileOutOfRange : public std::out_of_range, public DumpFileError {
public:
  DumpFileOutOfRange(std::string path, U32 line);
};

}  // namespace TarnRegFile
