#include "reception/delimiter.h"

#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"

namespace quorvelmida {

namespace {

constexpr std::string_view kDashes = "--";

delimiter find_delimiter(std::string_view line, const tav_eml_mlutl_mail& mail) {
  if (!begins_with(line, kDashes)) return delimiter::none;
  const UtlString* boundary = mail.get_boundary_string();
  if (boundary == nullptr) {
    TAV_EML_LOG_ERROR(
        "<Error> tav_eml_mlutl_receive::ChkBoundaryString():[Return -1] no boundary string\n");
    return delimiter::misplaced;
  }
  line.remove_prefix(kDashes.size());
  if (!begins_with(line, text_of(*boundary))) {
    TAV_EML_LOG_ERROR(
        "<Warning> tav_eml_mlutl_receive::ChkBoundaryString() [Return 0]:unmatched\n");
    return delimiter::none;
  }
  line.remove_prefix(boundary->GetLength());
  return begins_with(line, kDashes) ? delimiter::close : delimiter::part;
}

}  // namespace

delimiter pass_delimiter(std::string_view line, tav_eml_mlutl_mail& mail) {
  const delimiter kind = find_delimiter(line, mail);
  if (kind != delimiter::part && kind != delimiter::close) return kind;
  if (mail.m_nBoundarySeen == 0) {
    mail.m_nBoundarySeen = 1;
  } else if (tav_eml_mlutl_mail_part* part = mail.get_part()) {
    part->m_nComplete = 1;
  }
  if (kind == delimiter::close) mail.down_boundary_level();
  return kind;
}

int tav_eml_mlutl_receive::ChkBoundaryString(const char* line, tav_eml_mlutl_mail& mail) {
  if (line == nullptr) {
    TAV_EML_LOG_ERROR(
        "<Error> tav_eml_mlutl_receive::ChkBoundaryString():[Return -1] pBuf is NULL.\n");
    return -1;
  }
  switch (pass_delimiter(line, mail)) {
    case delimiter::part:
      return 1;
    case delimiter::close:
      return 2;
    case delimiter::misplaced:
      return -1;
    default:
      return 0;
  }
}

}  // namespace quorvelmida
