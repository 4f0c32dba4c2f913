// tav_eml_smtp_settings.h - settings and session records of the SMTP client.

#ifndef TAV_EML_SMTP_SETTINGS_H
#define TAV_EML_SMTP_SETTINGS_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_pop3_settings.h"
#include "quorvelmida/tav_eml_tls_info.h"
#include "utl_object.h"
#include "utl_string.h"

namespace quorvelmida {

// What the caller fills.
struct _tav_eml_smtp_setting {
  UtlString server;       // host name or address text
  UtlString user_id;      // account for SMTP AUTH
  UtlString password;     // password for SMTP AUTH
  UtlString helo_domain;  // name sent in EHLO and HELO; "localhost" when empty
  tav_eml_pop3_settings* pop3_settings = nullptr;  // account for POP-before-SMTP; not owned
  int32_t auth_kind = 0;      // 0 none; 1 SMTP AUTH; 2 POP-before-SMTP; 3 both, POP first
  int32_t port = 0;           // only the low 16 bits are used
  int32_t timeout = 0;        // seconds, for each wait; 0 or less: the platform's limit
  uint32_t size_limit = 0;    // a message's data stays below this many bytes; 0: no limit
  int32_t pop_wait = 0;       // seconds between the POP3 login and the SMTP connect; 0: 300 ms
  int32_t addr_selector = 0;  // handed to the transport
  uint8_t tlsmode = 0;        // 0 plain; 1 TLS from the first byte; 2 STARTTLS; others are refused
  uint8_t tls_opt[5] = {};    // TLS option bytes (TAV_EML_TLS_INFO)
};

// A deep copy of the record, POP3 settings included. Texts that were never set are "".
class TAVEML_API tav_eml_smtp_settings : public UtlObject {
 public:
  tav_eml_smtp_settings(const _tav_eml_smtp_setting& setting);
  tav_eml_smtp_settings(const tav_eml_smtp_settings& other);
  tav_eml_smtp_settings& operator=(const tav_eml_smtp_settings& other);
  ~tav_eml_smtp_settings() override;

  int32_t auth_kind;
  UtlString server;
  int32_t port;
  int32_t timeout;
  tav_eml_pop3_settings* pop3_settings;  // owned; may be null
  UtlString user_id;
  UtlString password;
  UtlString helo_domain;
  uint32_t size_limit;
  int32_t pop_wait;
  int32_t addr_selector;
  uint8_t tlsmode;
  uint8_t tls_opt[5];
};

enum TAV_EML_SMTP_STATUS : int32_t {
  SMTP_NOT_CONNECT = 0,
  SMTP_CONNECT = 1,    // ready for mail
  SMTP_DATA_SEND = 2,  // DATA was accepted
  SMTP_PART_SEND = 3,  // the attached part is being sent
};

// Bytes of the command buffer and of the reply buffer of a session.
constexpr int32_t SMTP_BUFFER_SIZE = 1024;

// One SMTP connection. Record and buffers are UtlOS blocks, allocated by the connect operation and
// freed by the session's owner.
struct ntssmtp_fileptr {
  int32_t sock;       // 0 if not connected
  int32_t status;     // TAV_EML_SMTP_STATUS
  char* send_buffer;  // SMTP_BUFFER_SIZE bytes: the command line
  char* recv_buffer;  // SMTP_BUFFER_SIZE bytes: the reply line
  TAV_EML_TLS_INFO tls_info;
};

static_assert(sizeof(void*) != 4 || sizeof(ntssmtp_fileptr) == 32, "layout on the target");

// What the server announced in its EHLO reply: 1 if announced. Login methods are tried in this
// order.
struct smtp_ehlo_option {
  int32_t cram_md5;
  int32_t digest_md5;
  int32_t plain;
  int32_t login;
  int32_t starttls;
};

}  // namespace quorvelmida

#endif
