// attachment.h - the file that goes with a mail.

#ifndef ATTACHMENT_H
#define ATTACHMENT_H

#include <cstdint>
#include <string>

#include "input_file.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"

namespace tavmail {

// An open file, read in pieces: memory does not grow with it. All throw a problem.
class attachment {
 public:
  explicit attachment(const std::string& path) : m_file(path, "attachment") {}

  // 0 when that is not known.
  uint64_t size() const { return static_cast<uint64_t>(m_file.status().st_size); }

  // Puts the next piece into `part`. The bytes put; 0 at the end.
  size_t read_into(quorvelmida::tav_eml_mlutl_mail_part& part);

 private:
  input_file m_file;
};

// The content type of a file by the extension of its name, or by `given` ("" for none).
quorvelmida::TAV_EML_CONTENT_TYPE content_type_of(const std::string& path,
                                                  const std::string& given);

}  // namespace tavmail

#endif
