// The send interface: header, body, part and end of a mail.

#include "base64_piece.h"
#include "body_conversion.h"
#include "boundary_resources.h"
#include "codec/base64.h"
#include "common/log.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "message/content_type.h"
#include "outgoing_header.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_smtp_boundary.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_log.h"
#include "smtp_session.h"

namespace quorvelmida {

namespace {

// Sends lines of text: dots are doubled, line ends become CR LF.
TAV_EML_RESULT send_text(const tav_eml_smtp_settings* settings, utl_buffer& text,
                         ntssmtp_fileptr* session) {
  return tav_eml_smtp_command().tav_eml_smtp_send_data(settings, text.data(),
                                                       static_cast<int>(text.length()), session);
}

// Takes out what `content` holds.
bool take_data(tav_eml_mlutl_mail_part& content, utl_buffer& data) {
  void* taken = nullptr;
  long length = -1;
  const int is_taken = content.get_buffer(taken, length);
  data.adopt(taken, length);
  return is_taken != 0 && taken != nullptr;
}

template <typename Content>
bool make_header(Content& content, utl_buffer& header) {
  char* text = nullptr;
  long length = 0;
  const int is_made = content.make_header(text, length);
  header.adopt(text, length);
  return is_made != 0;
}

// Data goes out only where the server expects some.
TAV_EML_RESULT wrong_order(const char* operation) {
  return boundary_failure(operation, "():not at this point of a mail", TAV_EML_ERR_UNKNOWN);
}

TAV_EML_RESULT encode_header(utl_buffer& header, TAV_EML_CHAR_SET char_set) {
  char* text = nullptr;
  long length = 0;
  if (tav_eml_mlutl_mime_utility::inline_encode(header.data(), header.length(), text, length,
                                                char_set) == 0) {
    // One text for both kinds of header.
    return boundary_failure("send_header", " : inline_encode NG", TAV_EML_ERR_UNKNOWN);
  }
  header.adopt(text, length);
  return TAV_EML_OK;
}

}  // namespace

// What the log says of a piece of the body or of the part.
struct tav_eml_smtp_boundary::piece_texts {
  const char* name;
  const char* adjust;
  const char* send;
};

TAV_EML_RESULT tav_eml_smtp_boundary::judge_size(const char* operation, int64_t bytes) {
  const TAV_EML_RESULT result = judge_size_of_data(static_cast<unsigned long>(bytes));
  return result == TAV_EML_OK ? result : boundary_failure(operation, "():Size Over", result);
}

TAV_EML_RESULT tav_eml_smtp_boundary::send_header(tav_eml_smtp_send_mail& mail) {
  constexpr char kName[] = "send_header";
  if (m_pSMTPSettings == nullptr) {
    return boundary_failure(kName, " : m_pSMTPSettings==0", TAV_EML_ERR_UNKNOWN);
  }
  // Inside a mail that is open, the commands would become part of its text.
  if (m_pSession != nullptr && is_data_open(*m_pSession)) return wrong_order(kName);
  m_nBodyCarry = 0;
  m_nPartCarry = 0;
  if (const char* field = unsafe_header_field(mail)) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::send_header : invalid %s[Error]\n", field);
    return TAV_EML_ERR_PARAM;
  }
  tav_eml_smtp_command command;
  TAV_EML_RESULT result = command.tav_eml_smtp_send_envelope(m_pSMTPSettings, &mail, m_pSession);
  if (result != TAV_EML_OK) return boundary_failure(kName, " : SendEnvelope NG", result);

  utl_buffer header;
  if (!make_header(mail, header)) {
    return boundary_failure(kName, " : make_header NG", TAV_EML_ERR_UNKNOWN);
  }
  result = encode_header(header, mail.m_nCharSet);
  if (result == TAV_EML_OK) result = judge_size(kName, header.length());
  if (result != TAV_EML_OK) return result;

  result = command.tav_eml_smtp_send_data_open(m_pSMTPSettings, m_pSession);
  if (result == TAV_EML_ERR_TRANSFER_TIMEOUT) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary:: send_header: DATA command was timed out!\n");
    // The server may be waiting for data: an abort must not send QUIT into it.
    m_pSession->status = SMTP_DATA_SEND;
  }
  if (result != TAV_EML_OK) return boundary_failure(kName, " : SendDataOpen NG", result);
  m_pSession->status = SMTP_DATA_SEND;
  result = send_text(m_pSMTPSettings, header, m_pSession);
  return result == TAV_EML_OK ? result : boundary_failure(kName, " : SendData NG", result);
}

TAV_EML_RESULT tav_eml_smtp_boundary::send_body(tav_eml_smtp_send_mail& mail) {
  static constexpr piece_texts kTexts = {"send_body", " : AdjstBufLM3 NG",
                                         " : tav_eml_smtp_send_data NG"};
  if (m_pSMTPSettings == nullptr) {
    return boundary_failure(kTexts.name, " : m_pSMTPSettings==0", TAV_EML_ERR_UNKNOWN);
  }
  // After a part header it would become part of the part, and its carry would never be sent.
  // Without a session the command refuses it.
  if (m_pSession != nullptr && m_pSession->status != SMTP_DATA_SEND) {
    return wrong_order(kTexts.name);
  }
  return send_piece(mail, true, mail.m_nCharSet, m_nBodyCarry, m_aBodyCarry, kTexts);
}

TAV_EML_RESULT tav_eml_smtp_boundary::send_part_body(tav_eml_smtp_send_mail& mail) {
  static constexpr piece_texts kTexts = {"send_part_body", " : AdjstBufL NG", " : SendData NG"};
  if (m_pSMTPSettings == nullptr || m_pSession == nullptr) {
    return boundary_failure(kTexts.name, " : SMTPSets == 0", TAV_EML_ERR_UNKNOWN);
  }
  tav_eml_smtp_send_mail_part* part = mail.m_pPart;
  if (part == nullptr) {
    return boundary_failure(kTexts.name, " : get_part()==0", TAV_EML_ERR_UNKNOWN);
  }
  if (m_pSession->status != SMTP_PART_SEND) return wrong_order(kTexts.name);
  const bool is_text = part->m_nContentDisposition != TAV_EML_CD_ATTACHMENT;
  return send_piece(*part, is_text, mail.m_nCharSet, m_nPartCarry, m_aPartCarry, kTexts);
}

// Sends what `content` holds. As base64, text goes out in the mail's set and other bytes as they
// are. Without a session send_text refuses it.
TAV_EML_RESULT tav_eml_smtp_boundary::send_piece(tav_eml_mlutl_mail_part& content, bool is_text,
                                                 TAV_EML_CHAR_SET char_set, int32_t& carry_count,
                                                 uint8_t* carry_bytes, const piece_texts& texts) {
  utl_buffer data;
  if (!take_data(content, data)) {
    return boundary_failure(texts.name, " : get_buffer NG", TAV_EML_ERR_UNKNOWN);
  }
  const TAV_EML_TRANSFER_ENCODING encoding = content.m_nTransferEncoding;
  const bool is_base64 = encoding == TAV_EML_TE_BASE64;
  if (!is_base64 && encoding != TAV_EML_TE_7BIT && encoding != TAV_EML_TE_8BIT) {
    return boundary_failure(texts.name, " : Invalid tr_endode", TAV_EML_ERR_UNKNOWN);
  }
  TAV_EML_RESULT result = TAV_EML_OK;
  if (is_base64 && m_pSession != nullptr) {
    if (is_text) result = convert_body(data, char_set, texts.name);
    return result == TAV_EML_OK ? send_base64(data, carry_count, carry_bytes, texts) : result;
  }
  result = judge_size(texts.name, data.length());
  if (result != TAV_EML_OK) return result;
  result = send_text(m_pSMTPSettings, data, m_pSession);
  return result == TAV_EML_OK ? result : boundary_failure(texts.name, texts.send, result);
}

TAV_EML_RESULT tav_eml_smtp_boundary::send_base64(const utl_buffer& data, int32_t& carry_count,
                                                  uint8_t* carry_bytes, const piece_texts& texts) {
  base64_piece piece;
  if (!piece.take(data, carry_count, carry_bytes)) {
    return boundary_failure(texts.name, texts.adjust, TAV_EML_ERR_UNKNOWN);
  }
  if (piece.is_empty()) return TAV_EML_OK;
  if (m_pResources == nullptr || !m_pResources->reserve_block(piece.block_size())) {
    return boundary_failure(texts.name, " : to_b64 NG", TAV_EML_ERR_UNKNOWN);
  }
  TAV_EML_RESULT result = judge_size(texts.name, piece.text_length());
  if (result != TAV_EML_OK) return result;
  smtp_dialogue dialogue(*m_pSession, *m_pSMTPSettings);
  data_spool spool(dialogue);
  result = piece.send(spool, m_pResources->block);
  return result == TAV_EML_OK ? result : boundary_failure(texts.name, texts.send, result);
}

// Sends the bytes that wait for a base64 group: the last group of a body or a part.
TAV_EML_RESULT tav_eml_smtp_boundary::flush_carry(const char* operation, const char* encode_step,
                                                  int32_t& carry_count,
                                                  const uint8_t* carry_bytes) {
  constexpr int kLine = 64;
  if (carry_count == 0) return TAV_EML_OK;
  utl_buffer group;
  if (!to_base64(carry_bytes, carry_count, kLine, group)) {
    return boundary_failure(operation, encode_step, TAV_EML_ERR_UNKNOWN);
  }
  TAV_EML_RESULT result = judge_size(operation, group.length());
  if (result != TAV_EML_OK) return result;
  result = send_text(m_pSMTPSettings, group, m_pSession);
  if (result != TAV_EML_OK) return boundary_failure(operation, "():SendData NG", result);
  carry_count = 0;
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_smtp_boundary::flush_carries(const char* operation) {
  switch (m_pSession->status) {
    case SMTP_DATA_SEND:
      return flush_carry(operation, "():BODY to_b64 NG", m_nBodyCarry, m_aBodyCarry);
    case SMTP_PART_SEND:
      return flush_carry(operation, "():to_b64 NG", m_nPartCarry, m_aPartCarry);
    default:
      return TAV_EML_OK;
  }
}

// Sends a boundary line. `operation` is what size messages call it, `caller` what the others do.
TAV_EML_RESULT tav_eml_smtp_boundary::send_delimiter(const char* operation, const char* caller,
                                                     const UtlString& boundary, const char* end) {
  if (m_pSession->send_buffer == nullptr) {
    return boundary_failure(caller, " : send_buffer==0", TAV_EML_ERR_UNKNOWN);
  }
  smtp_dialogue dialogue(*m_pSession, *m_pSMTPSettings);
  const long length =
      boundary.IsEmpty() ? -1 : dialogue.format_line("\r\n--", text_of(boundary), end);
  if (length < 0) return boundary_failure(caller, " : invalid boundary", TAV_EML_ERR_PARAM);
  TAV_EML_RESULT result = judge_size(operation, length);
  if (result != TAV_EML_OK) return result;
  result = dialogue.send_line(length);
  return result == TAV_EML_OK ? result : boundary_failure(caller, " : SendData NG", result);
}

TAV_EML_RESULT tav_eml_smtp_boundary::send_part_header(tav_eml_smtp_send_mail& mail) {
  constexpr char kName[] = "send_part_header";
  if (m_pSMTPSettings == nullptr || m_pSession == nullptr) {
    return boundary_failure(kName, " : SMTPSets==0", TAV_EML_ERR_UNKNOWN);
  }
  if (!is_data_open(*m_pSession)) return wrong_order(kName);
  TAV_EML_RESULT result = flush_carries(kName);
  if (result != TAV_EML_OK) return result;
  m_pSession->status = SMTP_PART_SEND;

  if (mail.m_pPart == nullptr) {
    return boundary_failure(kName, " : get_part()==0", TAV_EML_ERR_UNKNOWN);
  }
  utl_buffer header;
  if (!make_header(*mail.m_pPart, header)) {
    return boundary_failure(kName, " : make_header NG", TAV_EML_ERR_UNKNOWN);
  }
  result = encode_header(header, mail.m_nCharSet);
  if (result == TAV_EML_OK) result = send_delimiter(kName, kName, mail.m_cBoundaryString, "\r\n");
  if (result != TAV_EML_OK) return result;

  result = send_text(m_pSMTPSettings, header, m_pSession);
  return result == TAV_EML_OK ? judge_size(kName, header.length())
                              : boundary_failure(kName, " : SendData NG", result);
}

TAV_EML_RESULT tav_eml_smtp_boundary::close_mail(tav_eml_smtp_send_mail& mail) {
  constexpr char kName[] = "close_mail";
  constexpr char kNameWithMail[] = "close_mail(cMail)";
  if (m_pSMTPSettings == nullptr || m_pSession == nullptr) {
    return boundary_failure(kNameWithMail, " : SMTPSets == 0", TAV_EML_ERR_UNKNOWN);
  }
  // After a refused DATA there is nothing to complete.
  if (is_data_open(*m_pSession)) {
    TAV_EML_RESULT result = flush_carries(kName);
    if (result == TAV_EML_OK && is_multipart(mail.m_nContentType)) {
      result = send_delimiter(kName, kNameWithMail, mail.m_cBoundaryString, "--\r\n");
    }
    if (result != TAV_EML_OK) return result;
  }
  return close_mail();
}

}  // namespace quorvelmida
