#include "envelope.h"

#include <cstring>
#include <initializer_list>

#include "common/guard.h"
#include "common/text.h"
#include "message/address_text.h"
#include "smtp_log.h"
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
        return command_failure(kName, " : invalid recipient address", TAV_EML_ERR_PARAM);
      }
      if (!add(bare)) return command_failure(kName, "():MemRealloc NG", TAV_EML_ERR_NO_MEMORY);
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
    return command_failure(kName, from == nullptr ? ": FROM==NULL" : ": FROM_LEN==0",
                           TAV_EML_ERR_NO_FROM);
  }
  return is_envelope_address(sender)
             ? TAV_EML_OK
             : command_failure(kName, " : invalid sender address", TAV_EML_ERR_PARAM);
}

TAV_EML_RESULT find_recipients(const tav_eml_smtp_send_mail& mail, recipient_list& recipients) {
  for (const tav_eml_mlutl_mail_address* list : {&mail.m_cTo, &mail.m_cCc, &mail.m_cBcc}) {
    const TAV_EML_RESULT result = recipients.add_all(*list);
    if (result != TAV_EML_OK) return result;
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT send(const tav_eml_smtp_send_mail& mail, smtp_dialogue& dialogue) {
  static constexpr exchange_texts kMailFrom = {kName, " : MAIL FROM SEND NG", " : recv_data1 NG",
                                               " : recv_data2 NG"};
  static constexpr exchange_texts kRcptTo = {kName, " : RCPT TO SEND NG", " : Recv1 NG",
                                             " : Recv2 NG"};
  UtlString sender;
  TAV_EML_RESULT result = find_sender(mail, sender);
  if (result != TAV_EML_OK) return result;
  // Collected before the first command: an address that cannot be sent is refused while nothing is.
  recipient_list recipients;
  result = find_recipients(mail, recipients);
  if (result != TAV_EML_OK) return result;

  result = dialogue.ask(kReplySuccess, kMailFrom, "MAIL FROM:<", sender.GetString(), ">\r\n");
  if (result != TAV_EML_OK) return result;
  if (recipients.count() == 0) {
    return command_failure(kName, " : addr_count == 0", TAV_EML_ERR_NO_RCPT);
  }
  // The first refused recipient ends it: there is no partial delivery.
  for (size_t i = 0; i < recipients.count() && result == TAV_EML_OK; ++i) {
    result = dialogue.ask(kReplySuccess, kRcptTo, "RCPT TO:<", recipients[i], ">\r\n");
  }
  return result;
}

}  // namespace

TAV_EML_RESULT send_envelope(const tav_eml_smtp_send_mail& mail, smtp_dialogue& dialogue) {
  return guarded(kName, [&] { return send(mail, dialogue); });
}

}  // namespace quorvelmida
