#include "tav_eml_guard.h"

namespace quorvelmida {

// Here and not in the template: there it would stand in every operation.
void log_exception(const char* operation) noexcept {
  try {
    throw;
  } catch (const std::bad_alloc&) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]out of memory\n", operation);
  } catch (tav_eml_mlutl_mail_exception* thrown) {
    const std::unique_ptr<tav_eml_mlutl_mail_exception> exception(thrown);
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]%s\n", operation, exception_text(*exception));
  }
}

}  // namespace quorvelmida
