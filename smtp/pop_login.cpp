#include "pop_login.h"

#include <cstring>

#include "common/guard.h"
#include "common/secret.h"
#include "osw.h"
#include "quorvelmida/tav_eml_pop3_boundary.h"
#include "smtp_log.h"
#include "transport/connection.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_pop_auth";

// A copy of the account, wiped when it goes.
struct account_copy : _tav_eml_pop3_setting {
  explicit account_copy(const tav_eml_pop3_settings& settings) {
    MailAddress = settings.m_MailAddress;
    strServer = settings.m_strServer;
    nPort = settings.m_nPort;
    strUserID = settings.m_strUserID;
    strPassword = settings.m_strPassword;
    nAPOP = settings.m_nAPOP;
    nTimeout = settings.m_nTimeout;
    nAddressSelector = settings.m_nAddressSelector;
    ucTLSMode = settings.m_ucTLSMode;
    std::memcpy(ucTLSOption, settings.m_ucTLSOption, sizeof ucTLSOption);
  }
  account_copy(const account_copy&) = delete;
  account_copy& operator=(const account_copy&) = delete;
  ~account_copy() { wipe_text(strPassword); }
};

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
    const account_copy account(*settings->pop3_settings);
    if (account.strUserID.IsEmpty()) {
      return command_failure(kName, ": UsrID None", TAV_EML_ERR_AUTH);
    }
    const tav_eml_pop3_settings pop3_settings(account);
    return tav_eml_pop3_boundary(pop3_settings).test();
  });
}

void wait_after_pop_login(const tav_eml_smtp_settings& settings) {
  constexpr long kShortWait = 300;  // ms
  const long wait = settings.pop_wait > 0 ? to_milliseconds(settings.pop_wait) : kShortWait;
  osw_Sleep(static_cast<int32_t>(wait));
}

}  // namespace quorvelmida
