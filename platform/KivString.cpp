#include "TarnRegFile/platform/KivString.h"

#include <cstdlib>
#include <new>
#include <ostream>

namespace Kiv {

String::Rep* String::allocate(size_t size) {
  void* mem = std::malloc(offsetof(Rep, chars) + size + 1);
  if (!mem) throw std::bad_alloc();
  auto* rep = new (mem) Rep{{1}, static_cast<U32>(size), 0, {0}};
  rep->chars[size] = '\0';
  return rep;
}

String::String(std::string_view s) {
  if (s.empty()) return;
  rep_ = allocate(s.size());
  std::memcpy(rep_->chars, s.data(), s.size());
  rep_->hash = stringHash(s);
}

String String::concat(std::initializer_list<std::string_view> pieces) {
  size_t total = 0;
  for (auto p : pieces) total += p.size();
  String joined;
  if (total == 0) return joined;
  joined.rep_ = allocate(total);
  char* out = joined.rep_->chars;
  for (auto p : pieces) {
    std::memcpy(out, p.data(), p.size());
    out += p.size();
  }
  joined.rep_->hash = stringHash(joined.view());
  return joined;
}

U32 String::emptyHash() noexcept {
  static U32 const h = stringHash(std::string_view());
  return h;
}

void String::unref() noexcept {
  if (!rep_) return;
#ifdef KIV_ATOMIC_REFCOUNT
  bool const last = rep_->refs.fetch_sub(1, std::memory_order_acq_rel) == 1;
#else
  U32 const left = rep_->refs.load(std::memory_order_relaxed) - 1;
  rep_->refs.store(left, std::memory_order_relaxed);
  bool const last = left == 0;
#endif
  if (last) {
    rep_->~Rep();
    std::free(rep_);
  }
  rep_ = nullptr;
}

std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

std::string strep(String const& s) {
  std::string out;
  out.reserve(s.size() + 2);
  out += '\'';
  for (char c : s.view()) {
    auto const u = static_cast<unsigned char>(c);
    if (c == '\\' || c == '\'') {
      out += '\\';
      out += c;
    } else if (u < 0x20 || u == 0x7f) {
      out += fmt::format("\\x{:02x}", u);
    } else {
      out += c;
    }
  }
  out += '\'';
  return out;
}

}  // namespace Kiv
