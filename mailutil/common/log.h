// log.h - the library's way into the debug log.

#ifndef LOG_H
#define LOG_H

#include "tav_dbglog.h"

// A macro, so that the compiler checks every format against its arguments.
#define TAV_EML_LOG(level, ...)                        \
  do {                                                 \
    if (false) quorvelmida::check_format(__VA_ARGS__); \
    quorvelmida::log_line<level>(__VA_ARGS__);         \
  } while (false)

#define TAV_EML_LOG_ERROR(...) TAV_EML_LOG(0, __VA_ARGS__)
#define TAV_EML_LOG_STATUS(...) TAV_EML_LOG(1, __VA_ARGS__)

namespace quorvelmida {

__attribute__((format(printf, 1, 2))) inline void check_format(const char*, ...) {}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // check_format() sees the literal
#pragma GCC diagnostic ignored "-Wformat-security"

// One function for each level and list of argument types. Sharing it among hundreds of calls makes
// the library some KiB smaller.
template <int level, typename... Arguments>
__attribute__((noinline, cold)) void log_line(const char* format, Arguments... arguments) noexcept {
  tav_dbglog_common::get_instance()->tracer("TAV_EML", level, format, arguments...);
}

#pragma GCC diagnostic pop

// Codes are printed as hexadecimal words.
template <typename Code>
constexpr unsigned int log_code(Code code) {
  return static_cast<unsigned int>(code);
}
template <typename Code>
constexpr unsigned long log_long_code(Code code) {
  return static_cast<unsigned int>(code);
}

}  // namespace quorvelmida

#endif
