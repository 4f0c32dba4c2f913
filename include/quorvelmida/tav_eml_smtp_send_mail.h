// tav_eml_smtp_send_mail.h - the outgoing message and its attachment.

#ifndef TAV_EML_SMTP_SEND_MAIL_H
#define TAV_EML_SMTP_SEND_MAIL_H

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_address.h"
#include "quorvelmida/tav_eml_mlutl_mail_part.h"
#include "utl_string.h"

namespace quorvelmida {

// Greatest number of message ids that the references field keeps.
extern TAVEML_API const long REFERENCES_MAX;

// The one attachment, sent after the body.
class TAVEML_API tav_eml_smtp_send_mail_part : public tav_eml_mlutl_mail_part {
 public:
  tav_eml_smtp_send_mail_part();
  ~tav_eml_smtp_send_mail_part() override;
};

// The message handed to the send interface. The inherited part is the message body: its content
// type (text or multipart), transfer encoding, character set and data. The application fills the
// public members; texts are UTF-8. A header value may hold a line break only as a fold (CR LF
// followed by a blank or tab), and its formatted line must stay below 1024 bytes: label, value and
// CR LF, folds included; of a list of addresses or ids, that of each one by itself. The same holds
// for the content type with its boundary. A message with a longer value is not composed.
//
// Results are 1 for success and 0 for failure; a failure writes a line to the debug log.
class TAVEML_API tav_eml_smtp_send_mail : public tav_eml_mlutl_mail_part {
 public:
  tav_eml_smtp_send_mail();
  tav_eml_smtp_send_mail(const tav_eml_smtp_send_mail&) = delete;
  tav_eml_smtp_send_mail& operator=(const tav_eml_smtp_send_mail&) = delete;
  ~tav_eml_smtp_send_mail() override;

  // Takes `part` over and deletes the one held before; the part already held stays.
  void set_part(tav_eml_smtp_send_mail_part* part);
  void delete_part();

  // The address that a disposition notification is asked for (RFC 8098). Null text gives "".
  int set_mdn_address(const tav_eml_mlutl_mail_address& address);
  int set_mdn_address(const char* address);
  const tav_eml_mlutl_mail_address& get_mdn_address() const;

  // Threading headers (RFC 5322). Setters trim blanks at both ends; the message id gets its angle
  // brackets when they are missing; references keep their last REFERENCES_MAX ids. A setter fails
  // when memory runs out and leaves the field empty. Getters: 1 and the value when it is not empty,
  // otherwise 0 and `value` untouched.
  int set_message_id(const UtlString& value);
  int set_message_id(const char* value);
  int get_message_id(UtlString& value) const;
  int set_in_reply_to(const UtlString& value);
  int set_in_reply_to(const char* value);
  int get_in_reply_to(UtlString& value) const;
  int set_references(const UtlString& value);
  int set_references(const char* value);
  int get_references(UtlString& value) const;

  // A new message id from the time and the bare address of `from`; the account part is written in
  // upper case. On failure `id` is "".
  static int create_message_id(const tav_eml_mlutl_mail_address& from, UtlString& id);

  // Appends an address header, one address per line, to a UtlOS block that the caller frees.
  // `count` becomes the number of addresses; none writes nothing. `work` is not used.
  int MakeHeaderAddress(const tav_eml_mlutl_mail_address& list, const char* label, char*& buffer,
                        char* work, long& count, long& length);

  // Appends a header of message ids in angle brackets, one per line. An empty value writes nothing,
  // with success; a value without a bracketed id fails.
  int make_header_bracket(const UtlString& value, const char* label, char*& buffer, long& length);

  // Composes the message's header, closed by an empty line; for a multipart message the first
  // boundary line and the header of the leading text part follow. The caller frees `buffer` with
  // UtlOS::MemFree; on failure it is null and `length` 0. Non-ASCII text is written as it is and
  // becomes encoded words afterwards (inline_encode).
  int make_header(char*& buffer, long& length);

  tav_eml_smtp_send_mail_part* m_pPart;  // owned; set_part and delete_part change it
  // A display name that is not ASCII is to be encoded before (ToMimeEncode): what becomes encoded
  // words afterwards takes the address with it, except on the line of a single recipient in m_cTo.
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
