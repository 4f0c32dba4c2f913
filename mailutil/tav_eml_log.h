// tav_eml_log.h - the library's way into the debug log.

#ifndef TAV_EML_LOG_H
#define TAV_EML_LOG_H

#include "tav_dbglog.h"

// A macro, so that the compiler holds every format against its arguments.
#define TAV_EML_LOG(level, ...) \
  tav_dbglog_common::get_instance()->tracer("TAV_EML", level, __VA_ARGS__)

#define TAV_EML_LOG_ERROR(...) TAV_EML_LOG(0, __VA_ARGS__)
#define TAV_EML_LOG_STATUS(...) TAV_EML_LOG(1, __VA_ARGS__)

namespace quorvelmida {

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
