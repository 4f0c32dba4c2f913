// tav_eml_smtp_send_mail.h - the outgoing message and its attachment.

#ifndef TAV_EML_SMTP_SEND_MAIL_H
#define TAV_EML_SMTP_SEND_MAIL_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_address.h"
#include "quorvelmida/tav_eml_mlutl_mail_part.h"
#include "utl_string.h"

namespace quorvelmida {

// The greatest number of message ids in the references field.
extern TAVEML_API const long REFERENCES_MAX;

// An attachment. A mail holds one at a time, and it is sent after the body; the next of several
// comes with set_part when all of this one has been sent.
class TAVEML_API tav_eml_smtp_send_mail_part : public tav_eml_mlutl_mail_part {
 public:
  tav_eml_smtp_send_mail_part();
  ~tav_eml_smtp_send_mail_part() override;
};

// The message for the send interface. The inherited part is the message body: its content type
// (text or multipart), transfer encoding, character set and data. The application fills the public
// members; texts are UTF-8. A header value may contain a line break only as a fold (CR LF followed
// by a blank or tab). Its line must stay below 1024 bytes: label, value and CR LF, folds included.
// In a list of addresses or ids this holds for each one separately. The content type with its
// boundary has the same limit. A message with a longer value is not composed.
//
// Results are 1 for success and 0 for failure; a failure writes a line to the debug log.
class TAVEML_API tav_eml_smtp_send_mail : public tav_eml_mlutl_mail_part {
 public:
  tav_eml_smtp_send_mail();
  tav_eml_smtp_send_mail(const tav_eml_smtp_send_mail&) = delete;
  tav_eml_smtp_send_mail& operator=(const tav_eml_smtp_send_mail&) = delete;
  ~tav_eml_smtp_send_mail() override;

  // Takes over `part` and deletes the previous one. Setting the part already held changes nothing.
  void set_part(tav_eml_smtp_send_mail_part* part);
  void delete_part();

  // Where to send a disposition notification (RFC 8098). A null text becomes "".
  int set_mdn_address(const tav_eml_mlutl_mail_address& address);
  int set_mdn_address(const char* address);
  const tav_eml_mlutl_mail_address& get_mdn_address() const;

  // Threading headers (RFC 5322). Setters trim blanks at both ends, add missing angle brackets to
  // the message id and keep the last REFERENCES_MAX ids of the references. If memory runs out, a
  // setter fails and leaves the field empty. Getters return 1 and the value if it is not empty,
  // otherwise 0, with `value` unchanged.
  int set_message_id(const UtlString& value);
  int set_message_id(const char* value);
  int get_message_id(UtlString& value) const;
  int set_in_reply_to(const UtlString& value);
  int set_in_reply_to(const char* value);
  int get_in_reply_to(UtlString& value) const;
  int set_references(const UtlString& value);
  int set_references(const char* value);
  int get_references(UtlString& value) const;

  // Creates a message id from the time and the bare address of `from`; the account part is in upper
  // case. On failure `id` is "".
  static int create_message_id(const tav_eml_mlutl_mail_address& from, UtlString& id);

  // Appends an address header, one address per line, to a UtlOS block that the caller frees.
  // `count` becomes the number of addresses. An empty list writes nothing. `work` is not used.
  int MakeHeaderAddress(const tav_eml_mlutl_mail_address& list, const char* label, char*& buffer,
                        char* work, long& count, long& length);

  // Appends a header of message ids in angle brackets, one per line. An empty value writes nothing
  // and succeeds; a value without a bracketed id fails.
  int make_header_bracket(const UtlString& value, const char* label, char*& buffer, long& length);

  // Composes the message's header with its empty line at the end. For a multipart message the first
  // boundary line and the header of the text part follow. The caller frees `buffer` with
  // UtlOS::MemFree; on failure it is null and `length` 0. Non-ASCII text stays as it is; the send
  // interface encodes it afterwards (inline_encode).
  int make_header(char*& buffer, long& length);

  tav_eml_smtp_send_mail_part* m_pPart;  // owned; set_part and delete_part change it
  // Encode display names that are not ASCII with ToMimeEncode. The encoding of the whole header
  // would encode the address too, except for a single recipient in m_cTo.
  tav_eml_mlutl_mail_address m_cFrom;  // author; required
  tav_eml_mlutl_mail_address m_cTo;    // lists are separated by ";" or ","
  tav_eml_mlutl_mail_address m_cCc;
  tav_eml_mlutl_mail_address m_cBcc;  // envelope only, never in the header
  tav_eml_mlutl_mail_address m_cReplyTo;
  tav_eml_mlutl_mail_address m_cSender;  // at most one address
  UtlString m_cSubject;                  // required, may be ""
  UtlString m_cBoundaryString;           // required for a multipart message
  UtlString m_cDate;                     // required (RFC 5322 date-time)
  tav_eml_mlutl_mail_address m_cMdnAddress;
  UtlString m_cMessageId;  // empty: make_header creates one
  UtlString m_cInReplyTo;
  UtlString m_cReferences;
};

}  // namespace quorvelmida

#endif
