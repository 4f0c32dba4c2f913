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

// The inherited part is the message's own: its content type and, for a mail of a single part, its
// decoded data. The header values are as received, encoded words decoded, blanks at both ends
// removed, in the character set that the sender chose; a header that is missing leaves its member
// without text. The receive operations fill it; one thread uses it at a time.
class TAVEML_API tav_eml_mlutl_mail : public tav_eml_mlutl_mail_part {
 public:
  tav_eml_mlutl_mail();
  tav_eml_mlutl_mail(tav_eml_mlutl_mail_info& info);  // copies `info`, unique id included
  tav_eml_mlutl_mail(const tav_eml_mlutl_mail&) = delete;
  tav_eml_mlutl_mail& operator=(const tav_eml_mlutl_mail&) = delete;
  ~tav_eml_mlutl_mail() override;

  // Takes `part` over (null for none) and deletes the one held before, which invalidates what
  // get_part returned; the part already held stays.
  void set_part(tav_eml_pop3_receive_mail_part* part);
  void set_part(tav_eml_smtp_receive_mail_part* part);
  void set_part(tav_eml_mlutl_mail_part* part);
  // The part being read, owned by the mail; null when there is none.
  virtual tav_eml_mlutl_mail_part* get_part();
  void delete_part();

  // The boundaries of the multiparts that are open where the message is being read, the innermost
  // on top. Results are 1 for success and 0 for failure.
  int up_boundary_level(const char* boundary);   // puts a copy of `boundary` on top
  int down_boundary_level();                     // removes the innermost
  const UtlString* get_boundary_string() const;  // the innermost; null when none is open
  // Adopts `list`, whose elements are UtlString made with new (null for none), and deletes the one
  // held before with its strings. The level stays; the list already held does too.
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
  int32_t m_nReceiving;  // not 0 until the end of the message has been read; test it before asking
                         // for a further part
  int32_t m_nBoundarySeen;  // not 0 once a delimiter of the innermost multipart has been read
};

}  // namespace quorvelmida

#endif
