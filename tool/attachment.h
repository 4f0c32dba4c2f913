// attachment.h - the file that goes with a mail.

#ifndef ATTACHMENT_H
#define ATTACHMENT_H

#include <cstdint>
#include <string>

#include "quorvelmida/tav_eml_smtp_send_mail.h"

namespace tavmail {

// An open file, read in pieces: memory does not grow with it. All throw a problem.
class attachment {
 public:
  explicit attachment(const std::string& path);
  ~attachment();
  attachment(const attachment&) = delete;
  attachment& operator=(const attachment&) = delete;

  uint64_t size() const { return m_uSize; }

  // Puts the next piece into `part`. The bytes put; 0 at the end.
  size_t read_into(quorvelmida::tav_eml_mlutl_mail_part& part);

 private:
  const std::string m_cPath;
  int m_nFd;
  uint64_t m_uSize = 0;
};

// The content type of a file by the extension of its name, or by `given` ("" for none).
quorvelmida::TAV_EML_CONTENT_TYPE content_type_of(const std::string& path,
                                                  const std::string& given);

}  // namespace tavmail

#endif
