// received_header.h - what the receive parser's files share.

#ifndef RECEIVED_HEADER_H
#define RECEIVED_HEADER_H

#include <algorithm>
#include <climits>
#include <string>
#include <string_view>
#include <vector>

#include "quorvelmida/tav_eml_mlutl_mail.h"
#include "quorvelmida/tav_eml_tls_info.h"

namespace quorvelmida {

// Where the lines of a message come from.
struct receive_source {
  int& sock;
  unsigned int timeout;  // seconds
  TAV_EML_TLS_INFO& tls;

  long timeout_ms() const {
    return static_cast<long>(std::min<int64_t>(static_cast<int64_t>(timeout) * 1000, INT_MAX));
  }
};

// The Content-Type and Content-Disposition lines of a header as received, unfolded: file names are
// taken from them, because in the decoded header their quotes can no longer be trusted.
struct received_header {
  explicit received_header(const char* name) : operation(name) {}
  void note(std::string_view line);

  const char* operation;  // that reads it, for its log lines
  bool has_body = true;   // ends at an empty line
  bool is_part = false;
  std::string content_type;
  std::string content_disposition;
  bool has_disposition = false;
  std::string* continued = nullptr;  // the text that a continuation line belongs to
  long bytes = 0;
  unsigned int lines = 0;
};

inline bool is_multipart(const tav_eml_mlutl_mail_part& part) {
  return part.m_nContentType == TAV_EML_CT_MULTIPART ||
         part.m_nContentType == TAV_EML_CT_MULTIPART_MIXED ||
         part.m_nContentType == TAV_EML_CT_MULTIPART_REPORT;
}

// Stores a header value. A lone CR in it becomes a blank: joined with a LF from the next line it
// would be a line end inside the value.
void store_value(UtlString& text, std::string_view value);

// The operations of tav_eml_mlutl_receive with the same names, which catch what these throw when
// memory runs out.
std::vector<std::string> unfold_header(const char* header);
void analyze_mail_header(tav_eml_mlutl_mail& mail, const char* header);
// The two halves of AnalyzePartHeader: opens the multipart that the header announces, without
// touching the current part; fills the current part.
bool enter_multipart(tav_eml_mlutl_mail& mail, const char* header);
void analyze_leaf_header(tav_eml_mlutl_mail& mail, const char* header);
void analyze_content_type(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                          std::string_view value);
void analyze_content_disposition(tav_eml_mlutl_mail_part& part, std::string_view value);
// The file name of a content type, and of a disposition. Apart from the above: it is decoded from
// the lines as received, which are the same for every field of a header, and a header may have
// thousands of them.
void analyze_type_name(tav_eml_mlutl_mail& mail, tav_eml_mlutl_mail_part& part,
                       std::string_view value);
void analyze_disposition_name(tav_eml_mlutl_mail_part& part, std::string_view value);
bool has_type_name(std::string_view value);
bool has_disposition_name(std::string_view value);
TAV_EML_TRANSFER_ENCODING analyze_transfer_encoding(tav_eml_mlutl_mail_part& part,
                                                    std::string_view value);
int check_boundary(std::string_view line, tav_eml_mlutl_mail& mail);

// Marks a message of which the last line has been read.
void end_mail(tav_eml_mlutl_mail& mail);

}  // namespace quorvelmida

#endif
