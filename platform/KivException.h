#pragma once
/// @file KivException.h
/// @brief Exceptions of the entity runtime.

#include "TarnRegFile/platform/Export.h"

#include <stdexcept>
#include <string>

namespace Kiv {

/// @brief A value outside the bounds of its type ("TarnRegFile::PhysicalField::start < 0 or > 31 not allowed").
class TARN_API RangeException : public std::out_of_range {
public:
  explicit RangeException(std::string const& what) : std::out_of_range(what) {}
};

/// @brief Text that does not match a value's text form.
class TARN_API ParseException : public std::runtime_error {
public:
  explicit ParseException(std::string const& what) : std::runtime_error(what) {}
};

}  // namespace Kiv
