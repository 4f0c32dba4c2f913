// guard.h - turns exceptions into results.

#ifndef GUARD_H
#define GUARD_H

#include <cstddef>
#include <new>
#include <type_traits>

#include "common/log.h"
#include "quorvelmida/tav_eml_mlutl_mail_exception.h"
#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// Logs the exception that is being handled, a std::bad_alloc or a mail exception. Any other ends
// the program.
void log_exception(const char* operation) noexcept;

// Runs `body` and returns its result, or `no_memory` if it throws: strings, vectors and new report
// a lack of memory only by an exception.
template <typename Result, typename Body>
Result guarded(const char* operation, Result no_memory, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    log_exception(operation);
  }
  return no_memory;
}

// For a body that returns a TAV_EML_RESULT, or nothing.
template <typename Body>
auto guarded(const char* operation, Body&& body) noexcept -> decltype(body()) {
  if constexpr (std::is_void_v<decltype(body())>) {
    try {
      body();
    } catch (...) {
      log_exception(operation);
    }
  } else {
    return guarded(operation, TAV_EML_ERR_NO_MEMORY, body);
  }
}

// Logs a mail exception as "prefix message" and deletes it.
void log_mail_exception(const char* prefix, tav_eml_mlutl_mail_exception* thrown) noexcept;

// For operations with a line of their own for a mail exception. Other exceptions go through.
template <typename Result, typename Body>
Result reporting_mail_exceptions(const char* prefix, Result failure, Body&& body) {
  try {
    return body();
  } catch (tav_eml_mlutl_mail_exception* thrown) {
    log_mail_exception(prefix, thrown);
  }
  return failure;
}

// UtlOS memory. Null if it runs out, also if the device's allocator reports that by an exception,
// which is logged.
void* allocate_block(const char* operation, size_t size) noexcept;
void* reallocate_block(const char* operation, void* block, size_t size) noexcept;

}  // namespace quorvelmida

#endif
