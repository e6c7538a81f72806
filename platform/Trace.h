#pragma once
/// @file Trace.h
/// @brief Per-unit trace handles with numbered levels 0..9.
///
/// Every source unit owns one `Kiv::TraceHandle` named like "TarnRegFile/RegisterFile".
/// A line goes to two places when its level is enabled there:
///  - the in-memory ring buffer (always present; levels 0..2 enabled by default),
///    which a fatal assertion dumps and `Kiv::Trace::ringLines()` returns;
///  - the text output (stderr unless changed; no level enabled by default).
/// Levels are enabled per unit by glob pattern (`Kiv::Trace::textLevelsIs`).
/// A disabled level costs one load and one predictable branch: the arguments are
/// not formatted and nothing is allocated.
///
/// A line that goes only to the ring (the usual case for levels 0..2) is not
/// formatted when it is emitted: its ring record keeps the format, the unit, the
/// level and the arguments (numbers as raw values, strings as a copy of their
/// bytes), and is formatted when the ring is read. Formats must therefore be
/// literals, which a checked "{}" format and a printf format written at the call
/// site are. Arguments of other types (the library's value types, enumerations)
/// are formatted at once, as are lines that also go to text output or a capture.

#include "TarnRegFile/platform/Export.h"

#include <fmt/format.h>

#include <atomic>
#include <concepts>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Kiv {

namespace detail {

// One argument of a line as the ring record keeps it.
enum class TraceArgKind : uint8_t { Bool = 1, Char, Signed, Unsigned, Float, Double, Pointer, String, NullString };

struct TraceArg {
  TraceArgKind kind;
  union {
    bool b;
    char c;
    int64_t i;
    uint64_t u;
    float f;
    double d;
    void const* p;
    struct {
      char const* data;
      size_t size;
    } s;
  };
};

// A type whose text form is its characters says so with a `traceText(t)` found by
// argument-dependent lookup (Kiv::String does).
void traceText() = delete;

template <class T>
concept TraceTextLike = requires(T const& t) {
  { traceText(t) } -> std::same_as<std::string_view>;
};

// The kind a ring record keeps an argument of type T as; 0 when it has to be formatted at once.
template <class T>
constexpr TraceArgKind traceArgKind() {
  if constexpr (std::is_same_v<T, bool>) return TraceArgKind::Bool;
  else if constexpr (std::is_same_v<T, char>) return TraceArgKind::Char;
  else if constexpr (std::is_same_v<T, wchar_t> || std::is_same_v<T, char8_t> || std::is_same_v<T, char16_t> ||
                     std::is_same_v<T, char32_t>)
    return TraceArgKind{};
  else if constexpr (std::is_integral_v<T> && sizeof(T) <= 8)
    return std::is_signed_v<T> ? TraceArgKind::Signed : TraceArgKind::Unsigned;
  else if constexpr (std::is_same_v<T, float>) return TraceArgKind::Float;
  else if constexpr (std::is_same_v<T, double>) return TraceArgKind::Double;
  else if constexpr (std::is_same_v<T, void*> || std::is_same_v<T, void const*> || std::is_same_v<T, std::nullptr_t>)
    return TraceArgKind::Pointer;
  else if constexpr (std::is_same_v<T, char*> || std::is_same_v<T, char const*> || std::is_same_v<T, std::string> ||
                     std::is_same_v<T, std::string_view> || TraceTextLike<T>)
    return TraceArgKind::String;
  else
    return TraceArgKind{};
}

template <class... A>
constexpr bool traceRecordable = ((traceArgKind<std::decay_t<A>>() != TraceArgKind{}) && ...);

template <class A>
TraceArg traceArg(A const& a) noexcept {
  using T = std::decay_t<A>;
  constexpr TraceArgKind kind = traceArgKind<T>();
  TraceArg arg;
  arg.kind = kind;
  arg.u = 0;  // the record copies 8 bytes whatever the kind
  if constexpr (kind == TraceArgKind::Bool) arg.b = a;
  else if constexpr (kind == TraceArgKind::Char) arg.c = a;
  else if constexpr (kind == TraceArgKind::Signed) arg.i = a;
  else if constexpr (kind == TraceArgKind::Unsigned) arg.u = a;
  else if constexpr (kind == TraceArgKind::Float) arg.f = a;
  else if constexpr (kind == TraceArgKind::Double) arg.d = a;
  else if constexpr (kind == TraceArgKind::Pointer) arg.p = a;
  else {
    std::string_view text;
    if constexpr (std::is_array_v<A>) {
      text = std::string_view(static_cast<char const*>(a));  // formatted as a C string
    } else if constexpr (std::is_pointer_v<T>) {
      if (!a) {  // formatting it fails; the record keeps that failure for the reader
        arg.kind = TraceArgKind::NullString;
        arg.s = {nullptr, 0};
        return arg;
      }
      text = std::string_view(a);
    } else if constexpr (TraceTextLike<T>) {
      text = traceText(a);
    } else {
      text = std::string_view(a);
    }
    arg.s = {text.data(), text.size()};
  }
  return arg;
}

enum class TraceStyle : uint8_t { Braces = 1, Printf };

}  // namespace detail

/// @brief One emitted trace line, as handed to captures.
struct TraceRecord {
  std::string unit;
  unsigned level = 0;
  std::string function;  ///< may be empty
  std::string text;
};

class TARN_API TraceHandle {
public:
  /// @brief Registers a handle for @p unit; the name must outlive the handle (a literal).
  explicit TraceHandle(char const* unit);
  ~TraceHandle();
  TraceHandle(TraceHandle const&) = delete;
  TraceHandle& operator=(TraceHandle const&) = delete;

  /// @brief The unit name, e.g. "TarnRegFile/RegisterFile".
  char const* unit() const noexcept { return unit_; }

  /// @brief True when @p level goes anywhere (ring buffer, text output or a capture).
  bool enabled(unsigned level) const noexcept {
    return (mask_.load(std::memory_order_relaxed) >> level) & 1u;
  }

  /// @brief Most arguments a ring record keeps; a line with more is formatted at once.
  static constexpr size_t kMaxRecordedArgs = 8;

  /// @brief A "{}"-style line.
  template <class... A>
  void line(unsigned level, fmt::format_string<A...> format, A&&... args) {
    lineIn(level, nullptr, format, std::forward<A>(args)...);
  }

  /// @brief A "{}"-style line attributed to @p function (a literal short name such as "handleExceptionGeneric").
  template <class... A>
  void lineIn(unsigned level, char const* function, fmt::format_string<A...> format, A&&... args) {
    if (enabled(level)) [[unlikely]] {
      if constexpr (sizeof...(A) <= kMaxRecordedArgs && detail::traceRecordable<A...>) {
        if (ringOnly(level)) {
          detail::TraceArg const recorded[sizeof...(A) + 1] = {detail::traceArg(args)..., {}};
          fmt::string_view const text = format;
          record(level, function, detail::TraceStyle::Braces, text.data(), text.size(), recorded, sizeof...(A));
          return;
        }
      }
      vline(level, function, format, fmt::make_format_args(args...));
    }
  }

  /// @brief A printf-like line: %s prints any argument in its text form, %u %d %x %X %llu %c %% as usual.
  /// @p format must be a literal.
  template <class... A>
  void printf(unsigned level, char const* format, A const&... args) {
    if (enabled(level)) [[unlikely]] {
      if constexpr (sizeof...(A) <= kMaxRecordedArgs && detail::traceRecordable<A...>) {
        if (ringOnly(level)) {
          detail::TraceArg const recorded[sizeof...(A) + 1] = {detail::traceArg(args)..., {}};
          record(level, nullptr, detail::TraceStyle::Printf, format, 0, recorded, sizeof...(A));
          return;
        }
      }
      auto const store = fmt::make_format_args(args...);
      vprintf(level, format, store);
    }
  }

  /// @brief Emits an already formatted line (used by the assertion facility).
  void emit(unsigned level, char const* function, std::string_view text);

  // Internal: recomputes the level mask from the registry's rules.
  void refresh();
  uint32_t ringMask() const noexcept { return ringMask_; }
  uint32_t textMask() const noexcept { return textMask_; }

private:
  /// True when @p level goes to the ring and nowhere else (no text output, no capture).
  bool ringOnly(unsigned level) const noexcept { return (ringOnly_.load(std::memory_order_relaxed) >> level) & 1u; }
  void record(unsigned level, char const* function, detail::TraceStyle style, char const* format, size_t formatSize,
              detail::TraceArg const* args, size_t count) noexcept;
  void vline(unsigned level, char const* function, fmt::string_view format, fmt::format_args args);
  void vprintf(unsigned level, char const* format, fmt::format_args args);

  char const* unit_;
  std::atomic<uint32_t> mask_{0};
  std::atomic<uint32_t> ringOnly_{0};
  uint32_t ringMask_ = 0;
  uint32_t textMask_ = 0;
};

/// @brief Process-wide trace configuration.
namespace Trace {

/// @brief Lines the ring buffer keeps: the newest ones.
constexpr size_t ringCapacity = 1024;

/// @brief Bit mask for levels 0..max inclusive.
constexpr uint32_t upTo(unsigned maxLevel) { return maxLevel >= 31 ? ~0u : ((2u << maxLevel) - 1u); }

/// @brief Sets the text-output levels of every unit matching the glob @p pattern (now and later ones).
TARN_API void textLevelsIs(std::string const& pattern, uint32_t levelMask);
/// @brief Sets the ring-buffer levels of every unit matching @p pattern.
TARN_API void ringLevelsIs(std::string const& pattern, uint32_t levelMask);
/// @brief Redirects text output (default stderr). The stream is not closed by the facility.
TARN_API void textOutputIs(std::FILE* out);
/// @brief The ring buffer's lines, oldest first, formatted as they would be printed.
TARN_API std::vector<std::string> ringLines();
/// @brief Writes the ring buffer to @p out, oldest first.
TARN_API void ringDump(std::FILE* out);
/// @brief Empties the ring buffer.
TARN_API void ringClear();
/// @brief Names of every registered unit, for tools that list them.
TARN_API std::vector<std::string> units();

}  // namespace Trace

/// @brief Collects the lines of matching units while alive (tests use it).
///
/// Forces the given levels on for the matching units so that lines are
/// produced even when neither the ring nor text output wants them.
class TARN_API TraceCapture {
public:
  explicit TraceCapture(std::string pattern = "*", uint32_t levelMask = Trace::upTo(9));
  ~TraceCapture();
  TraceCapture(TraceCapture const&) = delete;
  TraceCapture& operator=(TraceCapture const&) = delete;

  /// @brief Every captured line so far.
  std::vector<TraceRecord> const& records() const noexcept { return records_; }
  /// @brief True when some captured line's text contains @p text (at @p level, if given).
  bool contains(std::string_view text, int level = -1) const;
  /// @brief Number of captured lines whose text contains @p text.
  size_t count(std::string_view text) const;
  void clear() { records_.clear(); }

  // Internal, called by the registry.
  bool matches(char const* unit) const;
  uint32_t levelMask() const noexcept { return levelMask_; }
  void add(TraceRecord record) { records_.push_back(std::move(record)); }

private:
  std::string pattern_;
  uint32_t levelMask_;
  std::vector<TraceRecord> records_;
};

}  // namespace Kiv
