// connection.h - a connected mail session, below both protocols.

#ifndef CONNECTION_H
#define CONNECTION_H

#include <cstdint>

#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_tls_info.h"

namespace quorvelmida {

// How TLS begins, as both settings records number it. Other numbers are refused.
constexpr uint8_t kPlain = 0;
constexpr uint8_t kImplicitTls = 1;  // before the first byte
constexpr uint8_t kUpgradedTls = 2;  // after the greeting, by STARTTLS or STLS

// Seconds as milliseconds, from 0 up to INT_MAX.
long to_milliseconds(int64_t seconds);

// Ends TLS, closes the socket once and zeroes the handle. Without a connection nothing happens, so
// every path may call it. A socket that could not be created leaves a negative handle.
void close_connection(int& sock, TAV_EML_TLS_INFO& tls);

// A TLS code as it is, anything else as TAV_EML_ERR_UNKNOWN.
TAV_EML_RESULT tls_result(TAV_EML_RESULT result);

// Where a mail server is and how TLS begins there.
struct mail_server {
  const char* host;
  int32_t port;  // only the low 16 bits are used
  int addr_selector;
  uint8_t tls_mode;
  const uint8_t (&tls_options)[5];
};

// What SMTP and POP3 do differently on a connection. Each has one constant of it, in its dialogue.
struct protocol_rules {
  // What the log says of a failed step. Null: whoever asked for the step logs it.
  struct step {
    const char* operation;
    const char* text;
  };

  // The code with which a failure of the transport leaves the protocol.
  TAV_EML_RESULT (*outward)(TAV_EML_RESULT result);
  // True when the handle tells whether the connection stands: a failed transfer closes it, and
  // without one no transfer is tried.
  bool closes_on_failure;
  // Logs a failed step and returns `result`.
  TAV_EML_RESULT (*log)(const char* operation, const char* text, TAV_EML_RESULT result);
  step connect;
  step send;
  step nothing_sent;
  step receive;
  step read_line;
};

// A view of a connection: handle and TLS record belong to the caller. Time-outs are in ms.
class connection {
 public:
  connection(int& sock, TAV_EML_TLS_INFO& tls, const protocol_rules& rules, long timeout,
             long send_timeout, int flags = 0)
      : m_nSock(sock),
        m_cTls(tls),
        m_cRules(rules),
        m_lTimeout(timeout),
        m_lSendTimeout(send_timeout),
        m_nFlags(flags) {}

  // Connects, and starts TLS where it comes first. A failure leaves closing to the caller.
  TAV_EML_RESULT open(const mail_server& server);

  // One call of the transport each: `count` becomes the bytes moved.
  TAV_EML_RESULT send_some(const void* data, long& count);
  TAV_EML_RESULT receive_some(void* data, long& count);

  // Sends all of it, in as many calls as it takes. A call that moves nothing is a failure.
  TAV_EML_RESULT send_all(const void* data, long length);

  // Reads a line as tav_eml_mlutl_mail_net::recv_one_line does: `size` becomes its bytes and the
  // NUL. What does not fit is left on the connection.
  TAV_EML_RESULT read_line(char* buffer, long& size);
  // The same, but what does not fit is read and dropped, so that it is not taken for the next line.
  TAV_EML_RESULT read_whole_line(char* buffer, long& size);
  // Reads and drops the rest of a line whose last byte read is `last`. TAV_EML_ERR_REPLY when the
  // line does not end within 64 KiB. After a failure the caller closes the connection.
  TAV_EML_RESULT drop_line(char last);

  // The code of the handshake as it is.
  TAV_EML_RESULT start_tls();
  void end_tls();
  // Closes the socket, leaves TLS alone and zeroes the handle.
  void close_socket();
  void close() { close_connection(m_nSock, m_cTls); }
  // False for the handle of a closed connection.
  bool has_socket() const { return m_nSock != 0; }

 protected:
  // Ends a failed step as the protocol does. Returns `result`.
  TAV_EML_RESULT fail(TAV_EML_RESULT result, const protocol_rules::step& step);

 private:
  bool is_lost() const { return m_cRules.closes_on_failure && m_nSock <= 0; }

  int& m_nSock;
  TAV_EML_TLS_INFO& m_cTls;
  const protocol_rules& m_cRules;
  const long m_lTimeout;
  const long m_lSendTimeout;
  const int m_nFlags;
};

}  // namespace quorvelmida

#endif
