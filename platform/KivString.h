#pragma once
/// @file KivString.h
/// @brief `Kiv::String`: immutable, reference-counted, cheap to copy, hashable.
///
/// The characters and a cached hash live in one heap block shared by every
/// copy; the empty string owns no block. Copies cost one count increment, and
/// comparing two copies of the same string compares pointers first.

#include "TarnRegFile/platform/Export.h"
#include "TarnRegFile/platform/KivHash.h"
#include "TarnRegFile/platform/Types.h"

#include <fmt/format.h>

#include <atomic>
#include <compare>
#include <cstring>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Kiv {

class TARN_API String {
public:
  using IteratorConst = char const*;

  String() noexcept = default;
  String(char const* s) : String(s ? std::string_view(s) : std::string_view()) {}
  String(std::string const& s) : String(std::string_view(s)) {}
  String(std::string_view s);
  String(String const& o) noexcept : rep_(o.rep_) { ref(); }
  String(String&& o) noexcept : rep_(o.rep_) { o.rep_ = nullptr; }
  ~String() { unref(); }
  String& operator=(String const& o) noexcept {
    String(o).swap(*this);
    return *this;
  }
  String& operator=(String&& o) noexcept {
    String(std::move(o)).swap(*this);
    return *this;
  }

  /// @brief Joins the pieces into one new string (one allocation).
  static String concat(std::initializer_list<std::string_view> pieces);

  /// @brief Zero-terminated characters ("" for the empty string).
  char const* c_str() const noexcept { return rep_ ? rep_->chars : ""; }
  char const* data() const noexcept { return c_str(); }
  U32 size() const noexcept { return rep_ ? rep_->size : 0; }
  bool empty() const noexcept { return rep_ == nullptr; }
  std::string_view view() const noexcept { return {c_str(), size()}; }
  operator std::string_view() const noexcept { return view(); }
  std::string str() const { return std::string(view()); }
  IteratorConst begin() const noexcept { return c_str(); }
  IteratorConst end() const noexcept { return c_str() + size(); }

  /// @brief The runtime's string hash of the characters (cached).
  U32 hash() const noexcept { return rep_ ? rep_->hash : emptyHash(); }

  bool operator==(String const& o) const noexcept {
    return rep_ == o.rep_ || (hash() == o.hash() && view() == o.view());
  }
  bool operator==(std::string_view o) const noexcept { return view() == o; }
  bool operator==(std::string const& o) const noexcept { return view() == std::string_view(o); }
  bool operator==(char const* o) const noexcept { return view() == std::string_view(o ? o : ""); }
  std::strong_ordering operator<=>(String const& o) const noexcept { return view() <=> o.view(); }

  void swap(String& o) noexcept { std::swap(rep_, o.rep_); }

private:
  struct Rep {
    std::atomic<U32> refs;
    U32 size;
    U32 hash;
    char chars[1];  // size + 1 bytes, zero-terminated
  };
  static U32 emptyHash() noexcept;
  static Rep* allocate(size_t size);
  void ref() const noexcept {
    if (!rep_) return;
#ifdef KIV_ATOMIC_REFCOUNT
    rep_->refs.fetch_add(1, std::memory_order_relaxed);
#else
    rep_->refs.store(rep_->refs.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
#endif
  }
  void unref() noexcept;

  Rep* rep_ = nullptr;
};

/// @brief A string's text form in traces is its characters: the trace ring copies them
/// rather than formatting the line at once.
inline std::string_view traceText(String const& s) noexcept { return s.view(); }

/// @brief Writes the characters as they are.
TARN_API std::ostream& operator<<(std::ostream& os, String const& s);

/// @brief The runtime's text form of a string: single-quoted, with \\ and \' escaped
/// and control characters as \\xHH.
TARN_API std::string strep(String const& s);

}  // namespace Kiv

template <>
struct std::hash<Kiv::String> {
  size_t operator()(Kiv::String const& s) const noexcept { return s.hash(); }
};

template <>
struct fmt::formatter<Kiv::String> : fmt::formatter<fmt::string_view> {
  template <class Ctx>
  auto format(Kiv::String const& s, Ctx& ctx) const {
    return fmt::formatter<fmt::string_view>::format(fmt::string_view(s.data(), s.size()), ctx);
  }
};
