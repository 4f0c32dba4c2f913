// pop3_log.h - the log lines that most failures of this folder have in common.

#ifndef POP3_LOG_H
#define POP3_LOG_H

#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// Log "<Error> tav_eml_pop3_command::<operation>():[Return <result>]<text>", respectively
// "<Error> tav_eml_pop3_boundary::...", and return `result`.
TAV_EML_RESULT pop3_failure(const char* operation, const char* text, TAV_EML_RESULT result);
TAV_EML_RESULT pop3_boundary_failure(const char* operation, const char* text,
                                     TAV_EML_RESULT result);

// The same with "(): <called>() returns [<result>]".
TAV_EML_RESULT pop3_called_failure(const char* operation, const char* called,
                                   TAV_EML_RESULT result);
TAV_EML_RESULT pop3_boundary_called_failure(const char* operation, const char* called,
                                            TAV_EML_RESULT result);

}  // namespace quorvelmida

#endif
