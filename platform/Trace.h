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

#include "Export.h"

#include <fmt/format.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Kiv {

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

  /// @brief A "{}"-style line.
  template <class... A>
  void line(unsigned level, fmt::format_string<A...> format, A&&... args) {
    if (enabled(level)) [[unlikely]]
      vline(level, nullptr, format, fmt::make_format_args(args...));
  }

  /// @brief A "{}"-style line attributed to @p function (a short name such as "handleExceptionGeneric").
  template <class... A>
  void lineIn(unsigned level, char const* function, fmt::format_string<A...> format, A&&... args) {
    if (enabled(level)) [[unlikely]]
      vline(level, function, format, fmt::make_format_args(args...));
  }

  /// @brief A printf-like line: %s prints any argument in its text form, %u %d %x %X %llu %c %% as usual.
  template <class... A>
  void printf(unsigned level, char const* format, A const&... args) {
    if (enabled(level)) [[unlikely]] {
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
  void vline(unsigned level, char const* function, fmt::string_view format, fmt::format_args args);
  void vprintf(unsigned level, char const* format, fmt::format_args args);

  char const* unit_;
  std::atomic<uint32_t> mask_{0};
  uint32_t ringMask_ = 0;
  uint32_t textMask_ = 0;
};

/// @brief Process-wide trace configuration.
namespace Trace {

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
