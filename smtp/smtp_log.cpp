#include "smtp_log.h"

#include "common/log.h"

namespace quorvelmida {

TAV_EML_RESULT command_failure(const char* operation, const char* step, TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s%s[Error]\n", operation, step);
  return result;
}

TAV_EML_RESULT boundary_failure(const char* operation, const char* step, TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s%s[Error]\n", operation, step);
  return result;
}

TAV_EML_RESULT called_failure(const char* operation, const char* called, TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: %s returns [0x%08x][Error]\n", operation, called,
                    log_code(result));
  return result;
}

}  // namespace quorvelmida
