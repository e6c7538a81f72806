#pragma once
// Reading value texts back, and the errors of constructors and parsers, for the value-type and utility tests.

#include "TarnRegFile/platform/KivException.h"
#include "TarnRegFile/platform/KivString.h"

#include <gtest/gtest.h>

#include <string>

namespace TestSupport {

/// Parses the whole of @p text as a T.
template <class T>
T parse(std::string const& text) {
  Kiv::String::IteratorConst pos = text.data();
  T v(pos, text.data() + text.size());
  EXPECT_EQ(pos, text.data() + text.size()) << "parser left text unread: " << text;
  return v;
}

/// The message of the E raised by @p make, or "" when it is accepted.
template <class E = Kiv::RangeException, class F>
std::string errorOf(F const& make) try {
  make();
  return "";
} catch (E const& e) {
  return e.what();
}

}  // namespace TestSupport
