// receive_log.h - what the receive operations write into the log.

#ifndef RECEIVE_LOG_H
#define RECEIVE_LOG_H

#include "common/log.h"
#include "quorvelmida/tav_eml_result.h"

namespace quorvelmida {

// A receive operation by its name. Their lines have one shape, but for the digits of a code.
struct receive_operation {
  const char* name;
  bool has_wide_result = false;  // its own results with eight digits
  bool has_wide_calls = false;   // those of what it calls, too

  // The operation ends with `code`, for the reason in `text`.
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

  // What it called ended with `code`, and so does the operation.
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
