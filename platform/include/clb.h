// clb.h - the device's C library wrappers.
//
// Contract of a port: ASCII only, whatever the locale; nothing allocates and nothing is thrown.

#ifndef CLB_H
#define CLB_H

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "utl_export.h"

extern "C" {

// Local time of `seconds` into `out`; `out`, or null when the time cannot be represented.
UTL_API std::tm* clb_LocalTime_r(const std::time_t* seconds, std::tm* out) noexcept;

// Converts the letters a to z of a NUL-terminated text to upper case, in place.
UTL_API void clb_ConvertUpper(char* text) noexcept;

// Compares at most `length` bytes without regard to the case of ASCII letters: 0 when equal, else
// below or above 0 as strncasecmp. Never reads past the NUL of either text.
UTL_API int clb_CompStrCaseN(const char* left, const char* right, size_t length) noexcept;

// Writes the dotted form of an IPv4 address (4 bytes, network byte order) into `out`, `size` bytes
// with the NUL (16 always suffice). `out`, or null when it does not fit.
UTL_API char* inet_ntoa_r(const uint8_t address[4], char* out, size_t size) noexcept;

}  // extern "C"

#endif
