// tav_eml_pop3_command.h - the POP3 dialogue, command by command (RFC 1939, 2449, 2595).

#ifndef TAV_EML_POP3_COMMAND_H
#define TAV_EML_POP3_COMMAND_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_pop3_settings.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"
#include "utl_object.h"
#include "utl_string.h"

namespace quorvelmida {

// The end of a reply of several lines.
extern TAVEML_API const char* const END_OF_LIST;

// Stateless: all state is in the settings, the caller's socket handle (0 for none) and TLS record.
// A reply that contains "+OK" is positive, any other negative. One connection is used by one thread
// at a time.
//
// Unless stated otherwise, a failure ends TLS, closes the connection and sets the handle to 0; a
// handle of 0 means that the connection is lost. Results are TAV_EML_OK; TAV_EML_ERR_REPLY for a
// negative or unintelligible reply and for a connection that ends within a reply;
// TAV_EML_ERR_TRANSFER for a handle of 0; TAV_EML_ERR_NO_MEMORY; the codes of
// tav_eml_mlutl_mail_net. Every failure writes a line to the debug log.
class TAVEML_API tav_eml_pop3_command : public UtlObject {
 public:
  tav_eml_pop3_command();
  ~tav_eml_pop3_command() override;

  // Connects, starts TLS as configured and logs in. On success `sock` and `tls` are the new
  // connection's; on failure `sock` is 0 and `tls` unchanged.
  // TAV_EML_ERR_PARAM, before connecting: a user id or password with a control character, or too
  // long for its command; an unknown TLS mode. TAV_EML_ERR_AUTH: the server refused the
  // credentials, or there is no user id. TAV_EML_ERR_REPLY: also for a refused USER, and for a
  // greeting without the stamp that APOP needs. The four TAV_EML_ERR_TLS_ codes: implicit TLS
  // failed. TAV_EML_ERR_TLS_CONNECT: the server does not offer STLS. TAV_EML_ERR_UNKNOWN: TLS after
  // STLS failed.
  static TAV_EML_RESULT connect_start(const tav_eml_pop3_settings* settings, int& sock,
                                      TAV_EML_TLS_INFO& tls);

  // CAPA, STLS and the handshake. `timeout` is in milliseconds.
  static TAV_EML_RESULT NegotiateStartTLS(const tav_eml_pop3_settings* settings, int& sock,
                                          TAV_EML_TLS_INFO& tls, long timeout);

  static TAV_EML_RESULT noop(const tav_eml_pop3_settings* settings, int& sock,
                             TAV_EML_TLS_INFO& tls);

  // QUIT. Closes the connection whatever the reply.
  static TAV_EML_RESULT disconnect(const tav_eml_pop3_settings* settings, int& sock,
                                   TAV_EML_TLS_INFO& tls);

  static TAV_EML_RESULT delete_mail(const tav_eml_pop3_settings* settings, int& sock,
                                    TAV_EML_TLS_INFO& tls, int number);

  // RETR; the message follows on the connection. `rest` is the data that was read after a status
  // line that ended in a lone LF, otherwise "".
  static TAV_EML_RESULT read_open(const tav_eml_pop3_settings* settings, int& sock,
                                  TAV_EML_TLS_INFO& tls, int number, UtlString& rest);

  // UIDL of one message. On failure `uid` has no text.
  static TAV_EML_RESULT get_uniq_id(const tav_eml_pop3_settings* settings, int& sock,
                                    TAV_EML_TLS_INFO& tls, int number, UtlString& uid);

  // LIST of one message: its octets, at most INT_MAX.
  static TAV_EML_RESULT get_size(const tav_eml_pop3_settings* settings, int& sock,
                                 TAV_EML_TLS_INFO& tls, int number, int& size);

  // STAT: the octets, at most INT_MAX, and the number of all messages. More than 1000000 messages
  // are TAV_EML_ERR_REPLY. A reply without its two numbers ends TLS and leaves the socket open, so
  // that a later command would go in clear: close the connection.
  static TAV_EML_RESULT get_stat(const tav_eml_pop3_settings* settings, int& sock,
                                 TAV_EML_TLS_INFO& tls, int& octets, int& count);

  // TOP with 0 lines of the body; the header follows on the connection.
  static TAV_EML_RESULT GetTop(const tav_eml_pop3_settings* settings, int& sock,
                               TAV_EML_TLS_INFO& tls, int number);

  // Reads one reply line, CR LF included, into `buffer`. `length` is the room there and becomes the
  // number of bytes stored, at most `length` - 2. Bytes that do not fit are read and dropped.
  // `timeout` is in milliseconds.
  static TAV_EML_RESULT ReadResponse(int& sock, char* buffer, long& length, long timeout,
                                     TAV_EML_TLS_INFO& tls);

  // Sends all `length` bytes, in as many calls as it takes.
  static TAV_EML_RESULT WriteUntil(int& sock, char* data, long length, long timeout,
                                   TAV_EML_TLS_INFO& tls);

  // The APOP digest: MD5 of the stamp in the greeting, angle brackets included, followed by the
  // password, as 32 hexadecimal digits and a NUL. `digest` has room for 33 bytes. Does not close
  // the connection.
  static TAV_EML_RESULT CreateAPOPHash(const UtlString& greeting, const UtlString& password,
                                       char* digest);
};

}  // namespace quorvelmida

#endif
