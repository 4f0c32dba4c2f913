#include "smtp_dialogue.h"

#include <cstring>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "smtp_log.h"

namespace quorvelmida {

namespace {

constexpr char kFullReply[] = "RecvOneLineinFullRcv";

// Only codes of the library's own range leave this layer.
TAV_EML_RESULT outward(TAV_EML_RESULT result) {
  const unsigned int code = static_cast<unsigned int>(result);
  if ((code & 0x8000U) != 0) return TAV_EML_ERR_UNKNOWN;
  return static_cast<TAV_EML_RESULT>(0x51070000U | (code & 0xFFFFU));
}

}  // namespace

const protocol_rules kSmtpRules = {
    &outward,
    false,  // the owner of the session closes it
    &command_failure,
    {"tav_eml_smtp_connect_start", " : Connect NG"},
    {"SendData", " : SendData NG"},
    {"SendData", " : nothing was sent"},
    {"recv_data", " : RecvData NG"},
    {},  // whoever reads says for what
};

TAV_EML_RESULT judge_reply(const char* reply, char wanted) {
  if (reply[0] == wanted) return TAV_EML_OK;
  return reply[0] == kReplyTemporary ? TAV_EML_ERR_REPLY_TEMPORARY : TAV_EML_ERR_REPLY;
}

long smtp_dialogue::format_line(const char* before, const char* value, const char* after) {
  const size_t lengths[] = {std::strlen(before), std::strlen(value), std::strlen(after)};
  const size_t total = lengths[0] + lengths[1] + lengths[2];
  if (total >= SMTP_BUFFER_SIZE || !has_no_control(value)) return -1;
  char* out = m_cSession.send_buffer;
  std::memcpy(out, before, lengths[0]);
  std::memcpy(out + lengths[0], value, lengths[1]);
  std::memcpy(out + lengths[0] + lengths[1], after, lengths[2]);
  out[total] = '\0';
  return static_cast<long>(total);
}

TAV_EML_RESULT smtp_dialogue::send_command(const char* before, const char* value,
                                           const char* after) {
  const long length = format_line(before, value, after);
  return length < 0 ? TAV_EML_ERR_PARAM : send_line(length);
}

TAV_EML_RESULT smtp_dialogue::read_reply() {
  long size = SMTP_BUFFER_SIZE;
  return read_whole_reply(*this, reply(), size);
}

TAV_EML_RESULT smtp_dialogue::read_reply(const exchange_texts& texts) {
  const TAV_EML_RESULT result = read_reply();
  return result == TAV_EML_OK ? result : command_failure(texts.operation, texts.receive, result);
}

TAV_EML_RESULT smtp_dialogue::expect(char wanted, const exchange_texts& texts) {
  TAV_EML_RESULT result = read_reply(texts);
  if (result != TAV_EML_OK) return result;
  result = judge_reply(reply(), wanted);
  return result == TAV_EML_OK ? result : command_failure(texts.operation, texts.refused, result);
}

TAV_EML_RESULT smtp_dialogue::ask(char wanted, const exchange_texts& texts, const char* before,
                                  const char* value, const char* after) {
  const TAV_EML_RESULT result = send_command(before, value, after);
  if (result != TAV_EML_OK) return command_failure(texts.operation, texts.send, result);
  return expect(wanted, texts);
}

bool is_last_line(const char* line, long size) {
  constexpr long kCodeAndSpace = 4;
  return size - 1 >= kCodeAndSpace && line[kCodeAndSpace - 1] == ' ';
}

bool make_reply_area(utl_buffer& area, long size) {
  if (guarded(kFullReply, false, [&] { return area.allocate_uncleared(size); })) return true;
  command_failure(kFullReply, ": failed to allocate memory", TAV_EML_ERR_UNKNOWN);
  return false;
}

TAV_EML_RESULT read_whole_reply(connection& link, utl_buffer& area, char* buffer, long& size) {
  const long room = size;
  for (int line = 0; line < kMaxReplyLines; ++line) {
    long line_size = room;
    const TAV_EML_RESULT result = link.read_whole_line(area.data(), line_size);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::%s: recv_one_line returns [%d][Error]\n",
                        kFullReply, static_cast<int>(result));
      return result;
    }
    if (line == 0) {
      // NOLINTNEXTLINE(clang-analyzer-core.NonNullParamChecker): a session has its buffers.
      std::memcpy(buffer, area.data(), static_cast<size_t>(line_size));
      std::memset(buffer + line_size, 0, static_cast<size_t>(room - line_size));
      size = line_size;
    }
    if (is_last_line(area.data(), line_size)) return TAV_EML_OK;
  }
  TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s: reply of more than %d lines[Error]\n", kFullReply,
                    kMaxReplyLines);
  return TAV_EML_ERR_REPLY;
}

TAV_EML_RESULT read_whole_reply(connection& link, char* buffer, long& size) {
  utl_buffer area;
  if (!make_reply_area(area, buffer != nullptr ? size : -1)) return TAV_EML_ERR_UNKNOWN;
  return read_whole_reply(link, area, buffer, size);
}

}  // namespace quorvelmida
