// receive_log.h - the log lines of the receive operations.

#ifndef RECEIVE_LOG_H
#define RECEIVE_LOG_H

#include "common/log.h"
#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// A receive operation. The log lines differ only in its name and in the width of the codes.
struct receive_operation {
  const char* name;
  bool has_wide_result = false;  // log its own results with eight digits
  bool has_wide_calls = false;   // log those of its calls with eight digits, too

  // Logs that the operation ends with `code` for the reason in `text`.
  TAV_EML_UTL_RETCODE end(TAV_EML_UTL_RETCODE code, const char* text) const {
    if (has_wide_result) {
      TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %08d]%s\n", name,
                        static_cast<int>(code), text);
    } else {
      TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %d]%s\n", name,
                        static_cast<int>(code), text);
    }
    return code;
  }

  // Logs that a call failed with `code`, which becomes the operation's result.
  TAV_EML_UTL_RETCODE passed_on(const char* called, TAV_EML_UTL_RETCODE code) const {
    if (has_wide_calls) {
      TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): %s() returns [0x%08d]\n", name,
                        called, static_cast<int>(code));
    } else {
      TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): %s() returns [0x%d]\n", name, called,
                        static_cast<int>(code));
    }
    return code;
  }

  TAV_EML_UTL_RETCODE failed(const char* text, TAV_EML_UTL_RETCODE code = TAV_EML_UTL_ERROR) const {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): %s\n", name, text);
    return code;
  }
};

}  // namespace quorvelmida

#endif
