// attachment.h - a file that goes with a mail.

#ifndef ATTACHMENT_H
#define ATTACHMENT_H

#include <cstdint>
#include <memory>
#include <string>

#include "input_file.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"

namespace tavmail {

// As it was asked for; "" for what was left open.
struct attachment_request {
  std::string path;
  std::string name;
  std::string type;  // "image/png", "text/plain; charset=utf-8"
};

// An open file, read in pieces: memory does not grow with it. All throw a problem.
class attachment {
 public:
  explicit attachment(const attachment_request& request);

  const std::string& name() const { return m_name; }
  const std::string& media_type() const { return m_type; }
  quorvelmida::TAV_EML_CHAR_SET char_set() const { return m_charSet; }
  // False for a mail in a mail, which may not be encoded (RFC 2046 5.2.1): it goes as lines.
  bool is_encoded() const { return m_isEncoded; }
  // 0 when that is not known.
  uint64_t size() const { return static_cast<uint64_t>(m_file.status().st_size); }

  // As the facade wants it.
  std::unique_ptr<quorvelmida::tav_eml_smtp_send_mail_part> new_part() const;
  // Puts the next piece into `part`. The bytes put; 0 at the end.
  size_t read_into(quorvelmida::tav_eml_mlutl_mail_part& part);
  // The next bytes; 0 at the end.
  size_t read(char* bytes, size_t size) { return m_file.read(bytes, size); }

 private:
  void set_type(const attachment_request& request);
  void cut_at_line_end(char* bytes, size_t& count);

  input_file m_file;
  std::string m_name;
  std::string m_type;
  quorvelmida::TAV_EML_CHAR_SET m_charSet = quorvelmida::TAV_EML_CS_NONE;
  bool m_isEncoded = true;
  std::string m_rest;  // the beginning of a line
};

}  // namespace tavmail

#endif
