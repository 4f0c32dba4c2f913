// The send interface: header, body, part and end of a mail.

#include <algorithm>
#include <climits>
#include <utility>

#include "body_conversion.h"
#include "boundary_resources.h"
#include "codec/base64.h"
#include "common/log.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "data_spool.h"
#include "outgoing_header.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_smtp_boundary.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_session.h"

namespace quorvelmida {

namespace {

constexpr int kBase64Line = 64;
constexpr long kBase64LineBytes = kBase64Line / 4 * 3;

// Lines of base64 that go out in one write: enough to make the system's calls few, and a bound on
// the memory that a piece of any size takes besides its own.
constexpr long kBlockLines = 2100;

TAV_EML_RESULT send_lines(const tav_eml_smtp_settings* settings, utl_buffer& data,
                          ntssmtp_fileptr* session) {
  return tav_eml_smtp_command().tav_eml_smtp_send_data(settings, data.data(),
                                                       static_cast<int>(data.length()), session);
}

// Encodes and sends `data`. Base64 has neither bare line feeds nor dots: it is in the wire's form
// as it is made.
TAV_EML_RESULT send_base64(const utl_buffer& data, char* block,
                           const tav_eml_smtp_settings& settings, ntssmtp_fileptr& session) {
  constexpr long kBlockBytes = kBlockLines * kBase64LineBytes;
  data_spool spool(session, timeout_ms(settings));
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
  for (int64_t at = 0; at < data.length(); at += kBlockBytes) {
    const auto count = static_cast<size_t>(std::min<int64_t>(data.length() - at, kBlockBytes));
    char* end = encode_base64(bytes + at, count, kBase64Line, block);
    *end++ = '\r';
    *end++ = '\n';
    const TAV_EML_RESULT result = spool.send_lines(block, static_cast<long>(end - block));
    if (result != TAV_EML_OK) return result;
  }
  return TAV_EML_OK;
}

bool to_base64(const void* data, long length, utl_buffer& encoded) {
  return tav_eml_mlutl_mime_utility::to_b64(data, length, encoded.data(), encoded.length(),
                                            kBase64Line) != 0;
}

// Data goes out only where the server expects some.
TAV_EML_RESULT wrong_order(const char* operation) {
  TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s():not at this point of a mail[Error]\n", operation);
  return TAV_EML_ERR_UNKNOWN;
}

bool is_data_open(const ntssmtp_fileptr& session) {
  return session.status == SMTP_DATA_SEND || session.status == SMTP_PART_SEND;
}

TAV_EML_RESULT encode_header(utl_buffer& header, TAV_EML_CHAR_SET char_set) {
  utl_buffer encoded;
  if (tav_eml_mlutl_mime_utility::inline_encode(header.data(), header.length(), encoded.data(),
                                                encoded.length(), char_set) == 0) {
    // One text for both kinds of header.
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_header : inline_encode NG[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  header = std::move(encoded);
  return TAV_EML_OK;
}

}  // namespace

// What the log says of a piece of the body or of the part.
struct tav_eml_smtp_boundary::piece_texts {
  const char* name;
  const char* take;
  const char* encoding;
  const char* adjust;
  const char* base64;
  const char* send;
};

TAV_EML_RESULT tav_eml_smtp_boundary::judge_size(const char* operation, int64_t bytes) {
  const TAV_EML_RESULT result = judge_size_of_data(static_cast<unsigned long>(bytes));
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s():Size Over[Error]\n", operation);
  }
  return result;
}

TAV_EML_RESULT tav_eml_smtp_boundary::send_header(tav_eml_smtp_send_mail& mail) {
  if (m_pSMTPSettings == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_header : m_pSMTPSettings==0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  // Inside a mail that is open, the commands would become part of its text.
  if (m_pSession != nullptr && is_data_open(*m_pSession)) return wrong_order("send_header");
  m_nBodyCarry = 0;
  m_nPartCarry = 0;
  if (const char* field = unsafe_header_field(mail)) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_header : invalid %s[Error]\n", field);
    return TAV_EML_ERR_PARAM;
  }
  tav_eml_smtp_command command;
  TAV_EML_RESULT result = command.tav_eml_smtp_send_envelope(m_pSMTPSettings, &mail, m_pSession);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_header : SendEnvelope NG[Error]\n");
    return result;
  }

  utl_buffer header;
  if (mail.make_header(header.data(), header.length()) == 0) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_header : make_header NG[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  result = encode_header(header, mail.m_nCharSet);
  if (result == TAV_EML_OK) result = judge_size("send_header", header.length());
  if (result != TAV_EML_OK) return result;

  result = command.tav_eml_smtp_send_data_open(m_pSMTPSettings, m_pSession);
  if (result != TAV_EML_OK) {
    if (result == TAV_EML_ERR_TRANSFER_TIMEOUT) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_boundary:: send_header: DATA command was timed out!\n");
      // Nobody knows whether the server waits for data: an abort must not send QUIT into it.
      m_pSession->status = SMTP_DATA_SEND;
    }
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_header : SendDataOpen NG[Error]\n");
    return result;
  }
  m_pSession->status = SMTP_DATA_SEND;
  result = send_lines(m_pSMTPSettings, header, m_pSession);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_header : SendData NG[Error]\n");
  }
  return result;
}

TAV_EML_RESULT tav_eml_smtp_boundary::send_body(tav_eml_smtp_send_mail& mail) {
  static constexpr piece_texts kTexts = {
      "send_body",
      "tav_eml_smtp_boundary::send_body : get_buffer NG[Error]\n",
      "tav_eml_smtp_boundary::send_body : Invalid tr_endode[Error]\n",
      "tav_eml_smtp_boundary::send_body : AdjstBufLM3 NG[Error]\n",
      "tav_eml_smtp_boundary::send_body : to_b64 NG[Error]\n",
      "tav_eml_smtp_boundary::send_body : tav_eml_smtp_send_data NG[Error]\n"};
  if (m_pSMTPSettings == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_body : m_pSMTPSettings==0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  // Behind a part header it would become part of the part, and its carry would never be sent.
  // Without a session the command refuses it.
  if (m_pSession != nullptr && m_pSession->status != SMTP_DATA_SEND) {
    return wrong_order("send_body");
  }
  return send_piece(mail, mail.m_nCharSet, m_nBodyCarry, m_aBodyCarry, kTexts);
}

TAV_EML_RESULT tav_eml_smtp_boundary::send_part_body(tav_eml_smtp_send_mail& mail) {
  static constexpr piece_texts kTexts = {
      "send_part_body",
      "tav_eml_smtp_boundary::send_part_body : get_buffer NG[Error]\n",
      "tav_eml_smtp_boundary::send_part_body : Invalid tr_endode[Error]\n",
      "tav_eml_smtp_boundary::send_part_body : AdjstBufL NG[Error]\n",
      "tav_eml_smtp_boundary::send_part_body : to_b64 NG[Error]\n",
      "tav_eml_smtp_boundary::send_part_body : SendData NG[Error]\n"};
  if (m_pSMTPSettings == nullptr || m_pSession == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_part_body : SMTPSets == 0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  tav_eml_smtp_send_mail_part* part = mail.m_pPart;
  if (part == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_part_body : get_part()==0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  if (m_pSession->status != SMTP_PART_SEND) return wrong_order("send_part_body");
  // The bytes of an attachment are nobody's text: the same set on both sides leaves them alone.
  const TAV_EML_CHAR_SET char_set =
      part->m_nContentDisposition == TAV_EML_CD_ATTACHMENT ? TAV_EML_CS_UTF_8 : mail.m_nCharSet;
  return send_piece(*part, char_set, m_nPartCarry, m_aPartCarry, kTexts);
}

// Sends what `content` holds.
TAV_EML_RESULT tav_eml_smtp_boundary::send_piece(tav_eml_mlutl_mail_part& content,
                                                 TAV_EML_CHAR_SET char_set, int32_t& carry_count,
                                                 uint8_t* carry_bytes, const piece_texts& texts) {
  utl_buffer data;
  void* taken = nullptr;
  data.length() = -1;
  const int is_taken = content.get_buffer(taken, data.length());
  data.data() = static_cast<char*>(taken);
  if (is_taken == 0 || taken == nullptr) {
    TAV_EML_LOG_ERROR("%s", texts.take);
    return TAV_EML_ERR_UNKNOWN;
  }
  TAV_EML_RESULT result;
  switch (content.m_nTransferEncoding) {
    case TAV_EML_TE_BASE64:
      if (m_pSession != nullptr) {
        return send_encoded(data, char_set, carry_count, carry_bytes, texts);
      }
      [[fallthrough]];
    case TAV_EML_TE_7BIT:
    case TAV_EML_TE_8BIT:
      result = judge_size(texts.name, data.length());
      if (result != TAV_EML_OK) return result;
      result = send_lines(m_pSMTPSettings, data, m_pSession);
      if (result != TAV_EML_OK) TAV_EML_LOG_ERROR("%s", texts.send);
      return result;
    default:
      TAV_EML_LOG_ERROR("%s", texts.encoding);
      return TAV_EML_ERR_UNKNOWN;
  }
}

// Sends `data` as base64. It is text that is converted from UTF-8 into `char_set` before; into
// UTF-8 there is nothing to convert.
TAV_EML_RESULT tav_eml_smtp_boundary::send_encoded(utl_buffer& data, TAV_EML_CHAR_SET char_set,
                                                   int32_t& carry_count, uint8_t* carry_bytes,
                                                   const piece_texts& texts) {
  TAV_EML_RESULT result = TAV_EML_OK;
  if (char_set != TAV_EML_CS_UTF_8) result = convert_body(data, char_set, texts.name);
  if (result != TAV_EML_OK) return result;
  result = adjust_buff_len_m3(data.data(), data.length(), carry_count, carry_bytes);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("%s", texts.adjust);
    return result;
  }
  if (data.length() == 0) return TAV_EML_OK;
  // Room for the longest text that send_base64 makes at a time.
  const long count = std::min(data.length(), kBlockLines * kBase64LineBytes);
  const auto room = static_cast<int32_t>(base64_text_length(count, kBase64Line) + 2);
  if (m_pResources == nullptr || !m_pResources->reserve_block(room)) {
    TAV_EML_LOG_ERROR("%s", texts.base64);
    return TAV_EML_ERR_UNKNOWN;
  }
  result = judge_size(texts.name, base64_text_length(data.length(), kBase64Line));
  if (result != TAV_EML_OK) return result;
  result = send_base64(data, m_pResources->block, *m_pSMTPSettings, *m_pSession);
  if (result != TAV_EML_OK) TAV_EML_LOG_ERROR("%s", texts.send);
  return result;
}

// Sends the bytes that wait for a base64 group: the last group of a body or a part.
TAV_EML_RESULT tav_eml_smtp_boundary::flush_carry(const char* operation, const char* what,
                                                  int32_t& carry_count,
                                                  const uint8_t* carry_bytes) {
  if (carry_count == 0) return TAV_EML_OK;
  utl_buffer group;
  if (!to_base64(carry_bytes, carry_count, group)) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s():%s NG[Error]\n", operation, what);
    return TAV_EML_ERR_UNKNOWN;
  }
  TAV_EML_RESULT result = judge_size(operation, group.length());
  if (result != TAV_EML_OK) return result;
  result = send_lines(m_pSMTPSettings, group, m_pSession);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s():SendData NG[Error]\n", operation);
    return result;
  }
  carry_count = 0;
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_smtp_boundary::flush_carries(const char* operation) {
  switch (m_pSession->status) {
    case SMTP_DATA_SEND:
      return flush_carry(operation, "BODY to_b64", m_nBodyCarry, m_aBodyCarry);
    case SMTP_PART_SEND:
      return flush_carry(operation, "to_b64", m_nPartCarry, m_aPartCarry);
    default:
      return TAV_EML_OK;
  }
}

// Sends a boundary line. `operation` is what size messages call it, `caller` what the others do.
TAV_EML_RESULT tav_eml_smtp_boundary::send_delimiter(const char* operation, const char* caller,
                                                     const UtlString& boundary, const char* end) {
  if (m_pSession->send_buffer == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s : send_buffer==0[Error]\n", caller);
    return TAV_EML_ERR_UNKNOWN;
  }
  const long length =
      boundary.IsEmpty() ? -1 : format_line(*m_pSession, "\r\n--", text_of(boundary), end);
  if (length < 0) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s : invalid boundary[Error]\n", caller);
    return TAV_EML_ERR_PARAM;
  }
  TAV_EML_RESULT result = judge_size(operation, length);
  if (result != TAV_EML_OK) return result;
  result = send_all(*m_pSession, m_pSession->send_buffer, length, timeout_ms(*m_pSMTPSettings));
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s : SendData NG[Error]\n", caller);
  }
  return result;
}

TAV_EML_RESULT tav_eml_smtp_boundary::send_part_header(tav_eml_smtp_send_mail& mail) {
  constexpr char kName[] = "send_part_header";
  if (m_pSMTPSettings == nullptr || m_pSession == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_part_header : SMTPSets==0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  if (!is_data_open(*m_pSession)) return wrong_order(kName);
  TAV_EML_RESULT result = flush_carries(kName);
  if (result != TAV_EML_OK) return result;
  m_pSession->status = SMTP_PART_SEND;

  if (mail.m_pPart == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_part_header : get_part()==0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  utl_buffer header;
  if (mail.m_pPart->make_header(header.data(), header.length()) == 0) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_part_header : make_header NG[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  result = encode_header(header, mail.m_nCharSet);
  if (result == TAV_EML_OK) result = send_delimiter(kName, kName, mail.m_cBoundaryString, "\r\n");
  if (result != TAV_EML_OK) return result;

  result = send_lines(m_pSMTPSettings, header, m_pSession);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_part_header : SendData NG[Error]\n");
    return result;
  }
  return judge_size(kName, header.length());
}

TAV_EML_RESULT tav_eml_smtp_boundary::close_mail(tav_eml_smtp_send_mail& mail) {
  constexpr char kName[] = "close_mail";
  if (m_pSMTPSettings == nullptr || m_pSession == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::close_mail(cMail) : SMTPSets == 0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  // After a refused DATA there is nothing to complete.
  if (is_data_open(*m_pSession)) {
    TAV_EML_RESULT result = flush_carries(kName);
    if (result == TAV_EML_OK && is_multipart_type(mail.m_nContentType)) {
      result = send_delimiter(kName, "close_mail(cMail)", mail.m_cBoundaryString, "--\r\n");
    }
    if (result != TAV_EML_OK) return result;
  }
  return close_mail();
}

}  // namespace quorvelmida
