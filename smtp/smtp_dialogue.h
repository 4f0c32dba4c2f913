// smtp_dialogue.h - command lines out, reply lines in.

#ifndef SMTP_DIALOGUE_H
#define SMTP_DIALOGUE_H

#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_settings.h"
#include "quorvelmida/tav_eml_tls_info.h"

namespace quorvelmida {

// Greatest number of lines of one reply.
constexpr int kMaxReplyLines = 1000;

// First characters of a reply.
constexpr char kReplySuccess = '2';
constexpr char kReplyContinue = '3';
constexpr char kReplyTemporary = '4';

// TAV_EML_OK when the reply begins with `wanted`, else the temporary or the permanent reply code.
TAV_EML_RESULT judge_reply(const char* reply, char wanted);

// Writes `before`, `value` and `after` into the session's command buffer. Returns the length, or -1
// when the value carries a control character or the line does not fit.
long format_line(ntssmtp_fileptr& session, const char* before, const char* value,
                 const char* after);

// Sends all of it, in as many calls as the connection wants. A call that moves nothing is a
// failure.
TAV_EML_RESULT send_all(int sock, const void* data, long length, long timeout,
                        TAV_EML_TLS_INFO& tls);
TAV_EML_RESULT send_all(ntssmtp_fileptr& session, const void* data, long length, long timeout);

// Formats a command line and sends it. TAV_EML_ERR_PARAM when it cannot be formatted.
TAV_EML_RESULT send_command(ntssmtp_fileptr& session, long timeout, const char* before,
                            const char* value = "", const char* after = "");

// Reads one reply line like recv_one_line; what does not fit `size` is read and dropped, so that
// it cannot be taken for the next line.
TAV_EML_RESULT read_reply_line(int sock, char* buffer, long& size, int flags, long timeout,
                               TAV_EML_TLS_INFO& tls);

// True when the line of `size` bytes (its NUL counted) ends a reply.
bool is_last_line(const char* line, long size);

// The work area for a reply of lines of up to `size` bytes. False, after a log line, when memory
// runs out or `size` is negative.
bool make_reply_area(utl_buffer& area, long size);

// As tav_eml_smtp_command::RecvOneLineinFullRcv, with a work area that is there already.
TAV_EML_RESULT read_whole_reply(int sock, utl_buffer& area, char* buffer, long& size, int flags,
                                long timeout, TAV_EML_TLS_INFO& tls);

// Reads a whole reply into the session's reply buffer, which keeps its first line.
TAV_EML_RESULT read_reply(ntssmtp_fileptr& session, long timeout);

// The first four characters of a reply, for a log line.
struct reply_start {
  explicit reply_start(const char* reply);
  char character[4];
};

}  // namespace quorvelmida

#endif
