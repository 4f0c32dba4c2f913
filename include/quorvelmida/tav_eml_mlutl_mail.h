// tav_eml_mlutl_mail.h - one received message while it is being read.

#ifndef TAV_EML_MLUTL_MAIL_H
#define TAV_EML_MLUTL_MAIL_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_mlutl_mail_address.h"
#include "quorvelmida/tav_eml_mlutl_mail_info.h"
#include "quorvelmida/tav_eml_mlutl_mail_part.h"
#include "utl_string.h"
#include "utl_vector.h"

namespace quorvelmida {

class tav_eml_pop3_receive_mail_part;
class tav_eml_smtp_receive_mail_part;

// The inherited part is the message's own: its content type and, for a message of a single part,
// its decoded data. Header values are as received, with encoded words decoded and blanks at both
// ends removed, in the sender's character set. A lone CR in a value becomes a blank; a lone LF
// stays. A missing header leaves its member without text. The receive operations fill the object;
// one thread uses it at a time.
class TAVEML_API tav_eml_mlutl_mail : public tav_eml_mlutl_mail_part {
 public:
  tav_eml_mlutl_mail();
  tav_eml_mlutl_mail(tav_eml_mlutl_mail_info& info);  // copies `info`, unique id included
  tav_eml_mlutl_mail(const tav_eml_mlutl_mail&) = delete;
  tav_eml_mlutl_mail& operator=(const tav_eml_mlutl_mail&) = delete;
  ~tav_eml_mlutl_mail() override;

  // Takes over `part` (null for none) and deletes the previous one, which invalidates what get_part
  // returned. Setting the part already held changes nothing.
  void set_part(tav_eml_pop3_receive_mail_part* part);
  void set_part(tav_eml_smtp_receive_mail_part* part);
  void set_part(tav_eml_mlutl_mail_part* part);
  // The part being read, owned by the mail; null when there is none.
  virtual tav_eml_mlutl_mail_part* get_part();
  void delete_part();

  // The stack of boundaries of the multiparts that are open at the read position, the innermost on
  // top. Results are 1 for success and 0 for failure.
  int up_boundary_level(const char* boundary);   // pushes a copy of `boundary`
  int down_boundary_level();                     // pops the innermost
  const UtlString* get_boundary_string() const;  // the innermost; null if none is open
  // Takes over `list` (null for none), whose elements are UtlString made with new, and deletes the
  // previous list and its strings. Setting the list already held changes nothing. The level does
  // not change.
  void set_boundary_string_list(UtlVector* list);

  tav_eml_mlutl_mail_address m_cTo;
  tav_eml_mlutl_mail_address m_cFrom;
  tav_eml_mlutl_mail_address m_cCc;
  tav_eml_mlutl_mail_address m_cMdnAddress;  // Disposition-Notification-To (RFC 8098)
  tav_eml_mlutl_mail_address m_cReplyTo;
  UtlString m_cSubject;
  UtlString m_cDate;
  UtlString m_cMessageId;
  UtlVector* m_cBoundaryString;  // owned, with its UtlString elements; innermost last
  UtlString m_cInReplyTo;
  UtlString m_cReferences;
  tav_eml_mlutl_mail_address m_cReturnPath;
  tav_eml_mlutl_mail_part* m_pPart;     // owned; set_part and delete_part change it
  tav_eml_mlutl_mail_info m_cMailInfo;  // which message of the server it is
  int32_t m_nBoundaryLevel;             // open boundaries
  int32_t m_nReceiving;  // not 0 until the end of the message has been read; test it before reading
                         // another part
  int32_t m_nBoundarySeen;  // not 0 once a delimiter of the innermost multipart has been read
};

}  // namespace quorvelmida

#endif
