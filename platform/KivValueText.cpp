#include "TarnRegFile/platform/KivValueText.h"

#include <fmt/format.h>

#include <algorithm>

namespace Kiv {

ValueWriter::ValueWriter(std::string& out, std::string_view typeName) : out_(out) {
  out_ += "Value('";
  out_ += typeName;
  out_ += "', ** {";
}

ValueWriter& ValueWriter::raw(std::string_view name, std::string_view text) {
  if (!first_) out_ += ", ";
  first_ = false;
  out_ += '\'';
  out_ += name;
  out_ += "': ";
  out_ += text;
  return *this;
}

void ValueWriter::end() { out_ += "})"; }

void ValueReader::fail(std::string_view what) const {
  std::string_view const rest(pos_, static_cast<size_t>(std::min<std::ptrdiff_t>(end_ - pos_, 24)));
  throw ParseException(fmt::format("{} at \"{}\"", what, rest));
}

void ValueReader::expect(std::string_view literal) {
  if (static_cast<size_t>(end_ - pos_) < literal.size() || std::string_view(pos_, literal.size()) != literal)
    fail(fmt::format("expected \"{}\"", literal));
  pos_ += literal.size();
}

void ValueReader::skipSpace() {
  while (pos_ != end_ && *pos_ == ' ') ++pos_;
}

U64 ValueReader::readUnsigned(U64 max) {
  auto p = pos_;
  if (p == end_ || *p < '0' || *p > '9') fail("expected a decimal number");
  U64 v = 0;
  while (p != end_ && *p >= '0' && *p <= '9') {
    U64 const digit = static_cast<U64>(*p - '0');
    if (v > (max - digit) / 10) fail(fmt::format("number above {}", max));
    v = v * 10 + digit;
    ++p;
  }
  pos_ = p;
  return v;
}

void ValueReader::read(bool& v) {
  if (static_cast<size_t>(end_ - pos_) >= 4 && std::string_view(pos_, 4) == "True") {
    v = true;
    pos_ += 4;
  } else if (static_cast<size_t>(end_ - pos_) >= 5 && std::string_view(pos_, 5) == "False") {
    v = false;
    pos_ += 5;
  } else {
    fail("expected True or False");
  }
}

void ValueReader::read(String& v) {
  if (pos_ == end_ || *pos_ != '\'') fail("expected a quoted string");
  auto p = pos_ + 1;
  std::string out;
  for (;;) {
    if (p == end_) fail("unterminated string");
    char c = *p++;
    if (c == '\'') break;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (p == end_) fail("unterminated escape");
    char e = *p++;
    if (e == '\\' || e == '\'') {
      out += e;
    } else if (e == 'x') {
      auto hex = [&](char h) -> int {
        if (h >= '0' && h <= '9') return h - '0';
        if (h >= 'a' && h <= 'f') return h - 'a' + 10;
        if (h >= 'A' && h <= 'F') return h - 'A' + 10;
        return -1;
      };
      if (end_ - p < 2 || hex(p[0]) < 0 || hex(p[1]) < 0) fail("bad \\x escape");
      out += static_cast<char>(hex(p[0]) * 16 + hex(p[1]));
      p += 2;
    } else {
      fail("unknown escape");
    }
  }
  pos_ = p;
  v = String(out);
}

}  // namespace Kiv
