// tav_eml_smtp_command.h - the SMTP dialogue, command by command (RFC 5321, RFC 3207).

#ifndef TAV_EML_SMTP_COMMAND_H
#define TAV_EML_SMTP_COMMAND_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"
#include "quorvelmida/tav_eml_smtp_settings.h"
#include "quorvelmida/tav_eml_tls_info.h"
#include "utl_object.h"

namespace quorvelmida {

// Stateless: all state is in the settings and the session. One session is used by one thread at a
// time. A reply is judged by its first character: "2" is success, "3" continue, "4" gives
// TAV_EML_ERR_REPLY_TEMPORARY, anything else TAV_EML_ERR_REPLY. Transport failures give the codes
// of tav_eml_mlutl_mail_net. A value that does not fit its command line or contains a control
// character is refused with TAV_EML_ERR_PARAM, and the command is not sent. Every failure writes a
// line to the debug log.
class TAVEML_API tav_eml_smtp_command : public UtlObject {
 public:
  tav_eml_smtp_command();
  ~tav_eml_smtp_command() override;

  // Opens a session that is ready for mail: connect, TLS as configured, greeting, then the
  // configured login or EHLO (HELO if EHLO is refused). After a refused login the next method is
  // tried on a new connection. On success `*session` is a new session with status SMTP_CONNECT;
  // after closing it the caller frees both buffers and the record with UtlOS::MemFree. On failure
  // `*session` is null.
  TAV_EML_RESULT tav_eml_smtp_connect_start(const tav_eml_smtp_settings* settings,
                                            ntssmtp_fileptr** session);

  // Connect, TLS and greeting only.
  TAV_EML_RESULT tav_eml_smtp_connect_only(const tav_eml_smtp_settings* settings,
                                           ntssmtp_fileptr** session);

  TAV_EML_RESULT SendHeloCommand(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session);

  // Sets the flags of `option` that the server announces; the others do not change.
  TAV_EML_RESULT SendEhloCommand(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session,
                                 smtp_ehlo_option& option);

  // EHLO, then the STARTTLS upgrade. TAV_EML_ERR_REPLY if the server does not offer it. Send EHLO
  // again afterwards: what was announced in clear no longer counts.
  TAV_EML_RESULT tav_eml_smtp_start_tls(const tav_eml_smtp_settings* settings,
                                        ntssmtp_fileptr* session);

  // The STARTTLS command and the handshake. A failure after the command was sent closes `sock`.
  TAV_EML_RESULT NegotiateStartTLS(int sock, long timeout, TAV_EML_TLS_INFO& tls);

  // EHLO, then HELO if EHLO fails. If both fail, closes the connection and sets the session's
  // handle to 0.
  TAV_EML_RESULT tav_eml_smtp_pnon_auth_ehlo(const tav_eml_smtp_settings* settings,
                                             ntssmtp_fileptr* session);

  // Logs in with SMTP AUTH (RFC 4954): sends EHLO and tries one method, the first one set in
  // `untried`, in the order CRAM-MD5, DIGEST-MD5, PLAIN, LOGIN. If `untried` has no method, it is
  // set to the announced ones. A method that fails is cleared in it. The caller keeps the record,
  // and after TAV_EML_ERR_AUTH opens a new connection for the next method.
  //
  // TAV_EML_ERR_AUTH: the credentials were refused, or there is no user id.
  // TAV_EML_ERR_AUTH_METHOD: no method in common. TAV_EML_ERR_REPLY_TEMPORARY: try again later.
  // TAV_EML_ERR_REPLY: the server refused CRAM-MD5 or DIGEST-MD5 itself. TAV_EML_ERR_PARAM: a
  // credential does not fit its command.
  TAV_EML_RESULT tav_eml_smtp_auth(const tav_eml_smtp_settings* settings, ntssmtp_fileptr* session,
                                   smtp_ehlo_option& untried);

  // One method each. `timeout` is in milliseconds. Credentials are wiped from the session's buffers
  // when the method ends, and never logged.
  TAV_EML_RESULT tav_eml_smtp_auth_plain(const UtlString& user, const UtlString& password,
                                         ntssmtp_fileptr& session, long timeout);  // RFC 4616

  // Answers at most 100 prompts. User id and password have at most 93 bytes.
  TAV_EML_RESULT tav_eml_smtp_auth_login(const UtlString& user, const UtlString& password,
                                         ntssmtp_fileptr& session, long timeout);

  // RFC 2195. A password of more than 64 bytes is replaced by its MD5 digest up to the first zero
  // byte, so some of them fail: a real server refused 93 of 1600 such logins. Shorter passwords do
  // not have this problem.
  TAV_EML_RESULT tav_eml_smtp_auth_cram_md5(const UtlString& user, const UtlString& password,
                                            ntssmtp_fileptr& session, long timeout);

  // RFC 2831, without integrity or privacy layer; the server's own proof (rspauth) is not checked.
  // The digest of user, realm and password is used only up to its first zero byte, so some accounts
  // fail: a real server refused 35 of 600.
  TAV_EML_RESULT tav_eml_smtp_auth_digest_md5(const tav_eml_smtp_settings* settings,
                                              ntssmtp_fileptr* session);

  // POP-before-SMTP: logs in over POP3 with the settings' POP3 account, on a separate connection,
  // and out again. `session` is not used. TAV_EML_ERR_UNKNOWN without POP3 settings,
  // TAV_EML_ERR_AUTH without a user id, otherwise the codes of tav_eml_pop3_boundary::test.
  TAV_EML_RESULT tav_eml_smtp_pop_auth(const tav_eml_smtp_settings* settings,
                                       ntssmtp_fileptr* session);

  // QUIT, then ends TLS and closes the connection, whatever the reply. If QUIT cannot be sent,
  // returns its code and closes nothing: that is left to the session's owner.
  TAV_EML_RESULT tav_eml_smtp_disconnect(const tav_eml_smtp_settings* settings,
                                         ntssmtp_fileptr* session);

  // MAIL FROM, and RCPT TO for every address of To, Cc and Bcc. The first refused recipient ends
  // the envelope: there is no partial delivery. TAV_EML_ERR_NO_FROM, TAV_EML_ERR_NO_RCPT;
  // TAV_EML_ERR_PARAM for an address that is empty, longer than 256 bytes or has a control
  // character.
  TAV_EML_RESULT tav_eml_smtp_send_envelope(const tav_eml_smtp_settings* settings,
                                            tav_eml_smtp_send_mail* mail, ntssmtp_fileptr* session);

  // DATA. On success the caller sets the session's status to SMTP_DATA_SEND.
  TAV_EML_RESULT tav_eml_smtp_send_data_open(const tav_eml_smtp_settings* settings,
                                             ntssmtp_fileptr* session);

  // Sends a chunk of message bytes. A lone LF becomes CR LF, and a dot at a line start is doubled.
  // Every chunk begins a line, and a chunk that ends inside a line gets a CR LF: pass whole lines.
  TAV_EML_RESULT tav_eml_smtp_send_data(const tav_eml_smtp_settings* settings, void* data,
                                        int length, ntssmtp_fileptr* session);

  // Sends the end-of-data line and reads its reply. Success sets the status back to SMTP_CONNECT.
  // Without open data it sends nothing and succeeds. TAV_EML_ERR_UNKNOWN with nothing sent if there
  // is no memory for the reply.
  TAV_EML_RESULT tav_eml_smtp_send_data_close(const tav_eml_smtp_settings* settings,
                                              ntssmtp_fileptr* session);

  // Reads a whole reply and keeps its first line, CR LF included, in `buffer`. `size` is the room
  // there and becomes the number of the line's bytes plus one for the NUL. Bytes that do not fit
  // are read and dropped. A reply of more than 1000 lines is TAV_EML_ERR_REPLY.
  TAV_EML_RESULT RecvOneLineinFullRcv(int sock, char* buffer, long& size, int flags, long timeout,
                                      TAV_EML_TLS_INFO& tls);

  // tav_eml_mlutl_mail_net::send_data and recv_data: one call each, which may move less than asked.
  TAV_EML_RESULT SendData(int sock, const void* buffer, long& length, int flags, long timeout,
                          TAV_EML_TLS_INFO& tls);
  TAV_EML_RESULT RecvData(int sock, void* buffer, long& length, int flags, long timeout,
                          TAV_EML_TLS_INFO& tls);
};

}  // namespace quorvelmida

#endif
