// smtp_log.h - the log lines that most failures of this folder have in common.

#ifndef SMTP_LOG_H
#define SMTP_LOG_H

#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// Log "tav_eml_smtp_command::<operation><step>[Error]", respectively "tav_eml_smtp_boundary::...",
// and return `result`. The lines are old and differ in what follows the operation: " : ", ": " or
// "():" is the beginning of the step.
TAV_EML_RESULT command_failure(const char* operation, const char* step, TAV_EML_RESULT result);
TAV_EML_RESULT boundary_failure(const char* operation, const char* step, TAV_EML_RESULT result);

// The same for a step that is a command of its own: its code is in the line.
TAV_EML_RESULT called_failure(const char* operation, const char* called, TAV_EML_RESULT result);

}  // namespace quorvelmida

#endif
