#include "attachment.h"

#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "media_type.h"
#include "problem.h"
#include "quorvelmida/taveml_easy_text.h"
#include "utl_os.h"
#include "words.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// A multiple of 48 bytes, so that every base64 line of 64 characters is full.
constexpr size_t kAttachmentPiece = 48 * 4096;

constexpr char kAnyBytes[] = "application/octet-stream";

std::string base_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

attachment::attachment(const attachment_request& request)
    : m_file(request.path, "attachment"),
      m_name(request.name.empty() ? base_name(request.path) : request.name) {
  set_type(request);
}

void attachment::set_type(const attachment_request& request) {
  if (!request.type.empty()) {
    const file_type given = parsed_media_type(request.type);
    m_type = given.type;
    m_charSet = given.char_set;
  } else {
    m_type = media_type_of_name(base_name(request.path));
    if (m_type == kAnyBytes) m_type = media_type_of_name(m_name);
  }
  if (m_charSet == TAV_EML_CS_NONE && begins_with(m_type, "text/")) {
    m_charSet = char_set_of_file(request.path);
  }
  m_isEncoded = !begins_with(m_type, "message/");
}

std::unique_ptr<tav_eml_smtp_send_mail_part> attachment::new_part() const {
  auto part = std::make_unique<tav_eml_smtp_send_mail_part>();
  part->m_cMediaType = m_type.c_str();
  part->m_nCharSet = m_charSet;
  part->m_nTransferEncoding = m_isEncoded ? TAV_EML_TE_BASE64 : TAV_EML_TE_8BIT;
  part->m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
  part->m_cFIleName = easy::quotable_file_name(m_name).c_str();
  return part;
}

// Keeps what follows the last line end for the next piece.
void attachment::cut_at_line_end(char* bytes, size_t& count) {
  const size_t feed = std::string_view(bytes, count).rfind('\n');
  if (feed == std::string_view::npos) {
    throw problem(EX_DATAERR, "a line of the attachment " + m_name +
                                  " is longer than a mail's can "
                                  "be; it cannot go as " +
                                  m_type);
  }
  m_rest.assign(bytes + feed + 1, count - feed - 1);
  count = feed + 1;
}

size_t attachment::read_into(tav_eml_mlutl_mail_part& part) {
  std::unique_ptr<void, decltype(&UtlOS::MemFree)> block(UtlOS::MemAllocate(kAttachmentPiece + 1),
                                                         UtlOS::MemFree);
  if (!block) throw problem(EX_OSERR, "out of memory");
  char* bytes = static_cast<char*>(block.get());
  const std::string held = std::exchange(m_rest, {});
  held.copy(bytes, held.size());
  size_t count = held.size() + m_file.read(bytes + held.size(), kAttachmentPiece - held.size());
  if (count == 0) return 0;
  if (!m_isEncoded && count == kAttachmentPiece) cut_at_line_end(bytes, count);
  bytes[count] = '\0';
  void* data = block.release();
  long length = static_cast<long>(count);
  if (part.set_buffer(data, length) == 0) {
    UtlOS::MemFree(data);
    throw problem(EX_OSERR, "out of memory");
  }
  return count;
}

}  // namespace tavmail
