#include "pop3_log.h"

#include "common/log.h"

namespace quorvelmida {

TAV_EML_RESULT pop3_failure(const char* operation, const char* text, TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s():[Return %08lx]%s\n", operation,
                    log_long_code(result), text);
  return result;
}

TAV_EML_RESULT pop3_boundary_failure(const char* operation, const char* text,
                                     TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_boundary::%s():[Return %08lx]%s\n", operation,
                    log_long_code(result), text);
  return result;
}

TAV_EML_RESULT pop3_called_failure(const char* operation, const char* called,
                                   TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s(): %s() returns [0x%08lx]\n", operation,
                    called, log_long_code(result));
  return result;
}

TAV_EML_RESULT pop3_boundary_called_failure(const char* operation, const char* called,
                                            TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_boundary::%s(): %s() returns [0x%08lx]\n", operation,
                    called, log_long_code(result));
  return result;
}

}  // namespace quorvelmida
