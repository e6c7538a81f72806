#pragma once
/// @file Utils.h
/// @brief Small text and Linux system helpers shared by the register-map loader and the transports.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/Fd.h"
#include "TarnRegFile/platform/FileLock.h"
#include "TarnRegFile/platform/Types.h"

#include <cstdint>
#include <functional>
#include <istream>
#include <limits>
#include <string>
#include <string_view>

namespace TarnRegFile::Utils {

// ---------------------------------------------------------------- text

/// @brief Takes the next @p sep separated token of @p text starting at @p pos.
///
/// Returns false (leaving @p token alone) once @p pos is at or past the end. Otherwise
/// @p token is the slice up to the next separator (or the end) and @p pos moves past
/// that separator. Hence an empty text yields nothing, a separator at the very end
/// yields no trailing empty token and two adjacent separators yield an empty one.
TARN_API bool tokenize(std::string_view const& text, U32& pos, std::string_view& token, char sep);

/// @brief Reads one line into @p buffer; @p line views it without one trailing "\r".
///
/// When the read fails @p line is empty. Returns @p in so the caller can test it.
TARN_API std::istream& getline_lea(std::istream& in, std::string& buffer, std::string_view& line);

/// @brief Strict unsigned conversion: only digits of @p base (2..36), nothing else, and the value fits in T.
///
/// No sign, no prefix, no white space. On failure @p value holds nothing meaningful.
template <class T>
bool strtoint(std::string_view const& text, T& value, int base) {
  static_assert(std::numeric_limits<T>::is_integer, "strtoint converts to integer types only");
  if (text.empty() || base < 2 || base > 36) return false;
  T const limit = std::numeric_limits<T>::max();
  T const radix = static_cast<T>(base);
  T result = 0;
  for (char const c : text) {
    int digit;
    if (c >= '0' && c <= '9')
      digit = c - '0';
    else if (c >= 'a' && c <= 'z')
      digit = c - 'a' + 10;
    else if (c >= 'A' && c <= 'Z')
      digit = c - 'A' + 10;
    else
      return false;
    if (digit >= base) return false;
    T const d = static_cast<T>(digit);
    if (result > (limit - d) / radix) return false;  // result * radix + d would not fit
    result = static_cast<T>(result * radix + d);
  }
  value = result;
  return true;
}

/// @brief Decimal conversion through strtoul with the checks callers forget.
///
/// @p ok becomes true only when at least one character was converted, nothing follows
/// the number and the value fits in 32 bits. Like strtoul it accepts leading white
/// space and a sign ("-1" gives 4294967295). Returns 0 on failure.
TARN_API U32 strtouint32_checked(char const* text, bool& ok);

// ---------------------------------------------------------------- system

/// @brief Makes the system call @p call, retrying it on EINTR and/or EAGAIN.
///
/// A result of 0 or more is returned at once. EINTR is retried immediately when
/// @p retryOnEintr, EAGAIN after a 1 ms pause when @p retryOnEagain; there is no
/// attempt limit. Any other failure is returned with errno as the call left it.
/// An empty @p call throws std::bad_function_call.
TARN_API int32_t syscallAutoRetry(std::function<int32_t()> const& call, bool retryOnEagain, bool retryOnEintr);

/// @brief The current errno as "<system error text> (<number>)". Never throws.
TARN_API std::string errnoMsg() noexcept;

/// @brief Owns one file descriptor and closes it when destroyed or overwritten. -1 holds nothing.
///
/// The platform's descriptor owner (Kiv::Fd) under the names the transports use.
class TARN_API UnixFdRes : public Kiv::Fd {
public:
  /// @brief Takes ownership of @p fd (a negative value owns nothing).
  explicit UnixFdRes(int32_t fd = -1) noexcept : Kiv::Fd(fd) {}
  UnixFdRes(UnixFdRes&& other) noexcept = default;
  /// @brief Closes the held descriptor, then takes the other's.
  UnixFdRes& operator=(UnixFdRes&& other) noexcept = default;

  /// @brief The held descriptor (-1 when none).
  int32_t fd() const noexcept { return get(); }
  /// @brief Closes the held descriptor, takes the other's and returns it (a self-move ends up holding nothing).
  int32_t _mov(UnixFdRes& other) noexcept;
  /// @brief Closes the held descriptor and returns close's result; with none held returns the descriptor.
  int32_t _destruct() noexcept;
};

/// @brief Holds a flock() advisory lock on a descriptor it does not own; unlocks when destroyed.
class TARN_API UnixFlockRes : public Kiv::FileLock {
public:
  /// @brief Locks @p fd with the flock operation bits @p mode (LOCK_SH or LOCK_EX, optionally LOCK_NB).
  ///
  /// A contended LOCK_NB request is polled every millisecond until it succeeds.
  /// Throws std::runtime_error on a bad descriptor or mode and when flock fails.
  UnixFlockRes(int32_t fd, int32_t mode);
};

}  // namespace TarnRegFile::Utils
