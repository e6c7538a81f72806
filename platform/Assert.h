#pragma once
/// @file Assert.h
/// @brief Fatal assertions for programming errors.
///
///     KIV_ASSERT(kTrace, ready()) << "LogicalChip " << name() << " is not populated yet!";
///
/// When the condition is false the streamed message is collected, then the
/// condition text, the message, the source unit (the trace handle's name) and
/// the function's full signature are printed to stderr, followed by the recent
/// lines of the trace ring buffer, and the process aborts (SIGABRT).
/// The unconditional form is for places that must never be reached (a case a
/// caller's mistake made possible, a table found inconsistent). It prints the
/// same report with a text saying what went wrong in place of the condition:
///
///     KIV_FATAL(kTrace, "tableConsistent") << fwkType() << " " << name() << ": " << operation;
///
/// The macros are the one place where a macro is needed: only the preprocessor
/// can turn the condition into text and name the enclosing function.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Trace.h"

#include <sstream>

namespace Kiv {

class TARN_API FatalAssertion {
public:
  FatalAssertion(TraceHandle const& unit, char const* condition, char const* function, char const* file, int line);
  /// @brief Prints everything and aborts.
  [[noreturn]] ~FatalAssertion();
  FatalAssertion(FatalAssertion const&) = delete;
  FatalAssertion& operator=(FatalAssertion const&) = delete;

  template <class T>
  FatalAssertion& operator<<(T const& v) {
    message_ << v;
    return *this;
  }

private:
  TraceHandle const& unit_;
  char const* condition_;
  char const* function_;
  char const* file_;
  int line_;
  std::ostringstream message_;
};

}  // namespace Kiv

#define KIV_ASSERT(traceHandle, condition)                 \
  if (__builtin_expect(static_cast<bool>(condition), 1)) { \
  } else                                                   \
    ::Kiv::FatalAssertion((traceHandle), #condition, __PRETTY_FUNCTION__, __FILE__, __LINE__)

/// Never returns: the report is printed and the process aborts at the end of the statement.
#define KIV_FATAL(traceHandle, what) \
  ::Kiv::FatalAssertion((traceHandle), (what), __PRETTY_FUNCTION__, __FILE__, __LINE__)
