// POP-before-SMTP: some servers accept mail only from a client that has just logged in over POP3.

#include <algorithm>
#include <climits>
#include <cstring>

#include "common/guard.h"
#include "common/log.h"
#include "common/secret.h"
#include "common/text.h"
#include "osw.h"
#include "pop_login.h"
#include "quorvelmida/tav_eml_pop3_boundary.h"
#include "quorvelmida/tav_eml_smtp_command.h"

namespace quorvelmida {

namespace {

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

// Gives the mail server time to learn of the login.
void wait_after_login(int32_t seconds) {
  constexpr int64_t kShortWait = 300;  // ms
  const int64_t wait = seconds > 0 ? static_cast<int64_t>(seconds) * 1000 : kShortWait;
  osw_Sleep(static_cast<int32_t>(std::min<int64_t>(wait, INT_MAX)));
}

}  // namespace

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_pop_auth(const tav_eml_smtp_settings* settings,
                                                           ntssmtp_fileptr* session) {
  if (settings == nullptr || session == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_pop_auth : smtpset == 0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  if (settings->pop3_settings == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_pop_auth : Pop3Set == 0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  return guarded("tav_eml_smtp_pop_auth", [&]() -> TAV_EML_RESULT {
    const account_copy account(*settings->pop3_settings);
    if (account.strUserID.IsEmpty()) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_pop_auth: UsrID None[Error]\n");
      return TAV_EML_ERR_AUTH;
    }
    const tav_eml_pop3_settings pop3_settings(account);
    return tav_eml_pop3_boundary(pop3_settings).test();
  });
}

TAV_EML_RESULT log_in_before_smtp(tav_eml_smtp_command& command,
                                  const tav_eml_smtp_settings& settings, ntssmtp_fileptr* session) {
  const TAV_EML_RESULT result = command.tav_eml_smtp_pop_auth(&settings, session);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_connect_start : POP AUTH NG[Error]\n");
    return result;
  }
  wait_after_login(settings.pop_wait);
  return TAV_EML_OK;
}

}  // namespace quorvelmida
