// smtp_dialogue.h - command lines out, reply lines in.

#ifndef SMTP_DIALOGUE_H
#define SMTP_DIALOGUE_H

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_settings.h"
#include "transport/connection.h"

namespace quorvelmida {

extern const protocol_rules kSmtpRules;

// Greatest number of lines of one reply.
constexpr int kMaxReplyLines = 1000;

// First characters of a reply.
constexpr char kReplySuccess = '2';
constexpr char kReplyContinue = '3';
constexpr char kReplyTemporary = '4';

// TAV_EML_OK when the reply begins with `wanted`, else the temporary or the permanent reply code.
TAV_EML_RESULT judge_reply(const char* reply, char wanted);

// What the log says of a failed step of an exchange.
struct exchange_texts {
  const char* operation;
  const char* send;
  const char* receive;
  const char* refused;
};

// The connection of a session, whose buffers hold the command and the reply.
class smtp_dialogue : public connection {
 public:
  smtp_dialogue(ntssmtp_fileptr& session, long timeout)
      : connection(session.sock, session.tls_info, kSmtpRules, timeout, timeout),
        m_cSession(session) {}
  smtp_dialogue(ntssmtp_fileptr& session, const tav_eml_smtp_settings& settings)
      : smtp_dialogue(session, to_milliseconds(settings.timeout)) {}

  // The buffer with the first line of the latest reply.
  char* reply() const { return m_cSession.recv_buffer; }

  // Writes `before`, `value` and `after` into the command buffer. Returns the length, or -1 when
  // the value carries a control character or the line does not fit.
  long format_line(const char* before, const char* value, const char* after);
  TAV_EML_RESULT send_line(long length) { return send_all(m_cSession.send_buffer, length); }

  // Formats a command line and sends it. TAV_EML_ERR_PARAM when it cannot be formatted.
  TAV_EML_RESULT send_command(const char* before, const char* value = "", const char* after = "");

  // Reads a whole reply.
  TAV_EML_RESULT read_reply();
  TAV_EML_RESULT read_reply(const exchange_texts& texts);

  // Reads a reply that must begin with `wanted`.
  TAV_EML_RESULT expect(char wanted, const exchange_texts& texts);

  // A command and the reply to it, which must begin with `wanted`.
  TAV_EML_RESULT ask(char wanted, const exchange_texts& texts, const char* before,
                     const char* value = "", const char* after = "");

 private:
  ntssmtp_fileptr& m_cSession;
};

// True when the line of `size` bytes (its NUL counted) ends a reply.
bool is_last_line(const char* line, long size);

// As tav_eml_smtp_command::RecvOneLineinFullRcv.
TAV_EML_RESULT read_whole_reply(connection& link, char* buffer, long& size);

// The same in two steps, for those who must have the memory before they send.
bool make_reply_area(utl_buffer& area, long size);
TAV_EML_RESULT read_whole_reply(connection& link, utl_buffer& area, char* buffer, long& size);

}  // namespace quorvelmida

#endif
