#pragma once
/// @file Export.h
/// @brief Symbol visibility. The library is built with hidden visibility; only
/// declarations marked TARN_API are part of the shared library's interface.

#define TARN_API __attribute__((visibility("default")))
