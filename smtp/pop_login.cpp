#include "pop_login.h"

#include "common/guard.h"
#include "osw.h"
#include "quorvelmida/tav_eml_pop3_boundary.h"
#include "smtp_log.h"
#include "transport/connection.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_pop_auth";

}  // namespace

TAV_EML_RESULT log_in_over_pop3(const tav_eml_smtp_settings* settings,
                                const ntssmtp_fileptr* session) {
  if (settings == nullptr || session == nullptr) {
    return command_failure(kName, " : smtpset == 0", TAV_EML_ERR_UNKNOWN);
  }
  if (settings->pop3_settings == nullptr) {
    return command_failure(kName, " : Pop3Set == 0", TAV_EML_ERR_UNKNOWN);
  }
  return guarded(kName, [&]() -> TAV_EML_RESULT {
    const tav_eml_pop3_settings account(*settings->pop3_settings);
    if (account.m_strUserID.IsEmpty()) {
      return command_failure(kName, ": UsrID None", TAV_EML_ERR_AUTH);
    }
    return tav_eml_pop3_boundary(account).test();
  });
}

void wait_after_pop_login(const tav_eml_smtp_settings& settings) {
  constexpr long kShortWait = 300;  // ms
  const long wait = settings.pop_wait > 0 ? to_milliseconds(settings.pop_wait) : kShortWait;
  osw_Sleep(static_cast<int32_t>(wait));
}

}  // namespace quorvelmida
