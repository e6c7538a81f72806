#pragma once
/// @file KivBits.h
/// @brief Bit widths: the mask of a width and the check of a field width.

#include "TarnRegFile/platform/Types.h"

namespace Kiv {

/// @brief The low @p width bits set (0 gives 0, 64 and more give all 64 bits).
constexpr U64 widthMask(unsigned width) noexcept { return width >= 64 ? ~U64{0} : (U64{1} << width) - 1; }

/// @brief Whether @p value has no bit at or above bit @p width.
constexpr bool fitsWidth(U64 value, unsigned width) noexcept { return (value & ~widthMask(width)) == 0; }

/// @brief Whether a field width is outside 1..32. Widths are unsigned 8-bit: 0 wraps
/// to 255, so one comparison rejects 0 and 33..255 alike.
constexpr bool widthOutOfRange(U8 width) noexcept { return static_cast<U8>(width - 1) > 31; }

}  // namespace Kiv
