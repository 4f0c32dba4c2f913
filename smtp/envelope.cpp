// The envelope: MAIL FROM and RCPT TO (RFC 5321 4.1.1.2, 4.1.1.3).

#include <cstring>
#include <initializer_list>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "message/address_text.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_dialogue.h"
#include "smtp_session.h"
#include "utl_os.h"

namespace quorvelmida {

namespace {

constexpr size_t kMaxAddress = 256;
constexpr char kSeparators[] = ";,";
constexpr char kName[] = "tav_eml_smtp_send_envelope";

// An address that can stand in its command, whole.
bool is_envelope_address(const UtlString& address) {
  return address.GetLength() <= kMaxAddress && has_no_control(text_of(address));
}

// The recipients' bare addresses, one NUL-terminated text per slot.
class recipient_list {
 public:
  recipient_list() = default;
  recipient_list(const recipient_list&) = delete;
  recipient_list& operator=(const recipient_list&) = delete;
  ~recipient_list() { UtlOS::MemFree(m_pSlots); }

  TAV_EML_RESULT add_all(const tav_eml_mlutl_mail_address& list) {
    UtlString address;
    UtlString bare;
    for (int pos = 0; cut_address(list, address, pos, kSeparators);) {
      if (!reduce_address(bare, address.GetString()) || !is_envelope_address(bare)) {
        TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s : invalid recipient address[Error]\n", kName);
        return TAV_EML_ERR_PARAM;
      }
      if (!add(bare)) {
        TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s():MemRealloc NG[Error]\n", kName);
        return TAV_EML_ERR_NO_MEMORY;
      }
    }
    return TAV_EML_OK;
  }

  size_t count() const { return m_uCount; }
  const char* operator[](size_t index) const { return m_pSlots[index]; }

 private:
  using slot = char[kMaxAddress + 1];

  bool add(const UtlString& bare) {
    if (m_uCount == m_uCapacity && !grow()) return false;
    std::memcpy(m_pSlots[m_uCount++], bare.GetString(), bare.GetLength() + 1);
    return true;
  }

  // By half, so that a long list is not copied for each of its addresses.
  bool grow() {
    const size_t capacity = m_uCapacity + m_uCapacity / 2 + 1;
    void* block = reallocate_block(kName, m_pSlots, capacity * sizeof(slot));
    if (block == nullptr) return false;
    m_pSlots = static_cast<slot*>(block);
    m_uCapacity = capacity;
    return true;
  }

  slot* m_pSlots = nullptr;
  size_t m_uCount = 0;
  size_t m_uCapacity = 0;
};

TAV_EML_RESULT find_sender(const tav_eml_smtp_send_mail& mail, UtlString& sender) {
  const char* from = mail.m_cFrom.m_cAddress.GetString();
  if (!reduce_address(sender, from)) {
    if (from == nullptr) {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_send_envelope: FROM==NULL[Error]\n");
    } else {
      TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_send_envelope: FROM_LEN==0[Error]\n");
    }
    return TAV_EML_ERR_NO_FROM;
  }
  if (!is_envelope_address(sender)) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::%s : invalid sender address[Error]\n", kName);
    return TAV_EML_ERR_PARAM;
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT find_recipients(const tav_eml_smtp_send_mail& mail, recipient_list& recipients) {
  for (const tav_eml_mlutl_mail_address* list : {&mail.m_cTo, &mail.m_cCc, &mail.m_cBcc}) {
    const TAV_EML_RESULT result = recipients.add_all(*list);
    if (result != TAV_EML_OK) return result;
  }
  return TAV_EML_OK;
}

// What the log says of a failed step.
struct step_texts {
  const char* send;
  const char* receive;
  const char* refused;
};
constexpr step_texts kMailFrom = {
    "tav_eml_smtp_command::tav_eml_smtp_send_envelope : MAIL FROM SEND NG[Error]\n",
    "tav_eml_smtp_command::tav_eml_smtp_send_envelope : recv_data1 NG[Error]\n",
    "tav_eml_smtp_command::tav_eml_smtp_send_envelope : recv_data2 NG[Error]\n"};
constexpr step_texts kRcptTo = {
    "tav_eml_smtp_command::tav_eml_smtp_send_envelope : RCPT TO SEND NG[Error]\n",
    "tav_eml_smtp_command::tav_eml_smtp_send_envelope : Recv1 NG[Error]\n",
    "tav_eml_smtp_command::tav_eml_smtp_send_envelope : Recv2 NG[Error]\n"};

TAV_EML_RESULT send_address(ntssmtp_fileptr& session, long timeout, const char* command,
                            const char* address, const step_texts& texts) {
  TAV_EML_RESULT result = send_command(session, timeout, command, address, ">\r\n");
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("%s", texts.send);
    return result;
  }
  result = read_reply(session, timeout);
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("%s", texts.receive);
    return result;
  }
  result = judge_reply(session.recv_buffer, kReplySuccess);
  if (result != TAV_EML_OK) TAV_EML_LOG_ERROR("%s", texts.refused);
  return result;
}

TAV_EML_RESULT send_envelope(const tav_eml_smtp_send_mail& mail, ntssmtp_fileptr& session,
                             long timeout) {
  UtlString sender;
  TAV_EML_RESULT result = find_sender(mail, sender);
  if (result != TAV_EML_OK) return result;
  // Collected before the first command: an address that cannot be sent is refused while nothing is.
  recipient_list recipients;
  result = find_recipients(mail, recipients);
  if (result != TAV_EML_OK) return result;

  result = send_address(session, timeout, "MAIL FROM:<", sender.GetString(), kMailFrom);
  if (result != TAV_EML_OK) return result;
  if (recipients.count() == 0) {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_command::tav_eml_smtp_send_envelope : addr_count == 0[Error]\n");
    return TAV_EML_ERR_NO_RCPT;
  }
  // The first refused recipient ends it: there is no partial delivery.
  for (size_t i = 0; i < recipients.count() && result == TAV_EML_OK; ++i) {
    result = send_address(session, timeout, "RCPT TO:<", recipients[i], kRcptTo);
  }
  return result;
}

}  // namespace

TAV_EML_RESULT tav_eml_smtp_command::tav_eml_smtp_send_envelope(
    const tav_eml_smtp_settings* settings, tav_eml_smtp_send_mail* mail, ntssmtp_fileptr* session) {
  if (mail == nullptr) session = nullptr;
  if (!is_usable(settings, session,
                 "tav_eml_smtp_command::tav_eml_smtp_send_envelope : fp == 0[Error]\n",
                 "tav_eml_smtp_command::tav_eml_smtp_send_envelope : send_buff == 0[Error]\n")) {
    return TAV_EML_ERR_UNKNOWN;
  }
  return guarded("tav_eml_smtp_send_envelope",
                 [&] { return send_envelope(*mail, *session, timeout_ms(*settings)); });
}

}  // namespace quorvelmida
