// The analysis of received headers: fields, content type with its boundary, disposition, transfer
// encoding; body lines against boundaries; the byte store behind the parser.
//
// Control bytes: failing allocation (2), operation, block size. Then the text.

#include <algorithm>

#include "fuzz_input.h"
#include "values.h"

namespace {

using namespace quorvelmida;

constexpr int kMaxBoundaries = 100;

// Fields are unfolded, without blanks at their ends. A lone CR or LF ends no line.
void check_field(const UtlString& field) {
  const std::string text = fuzz::text_of(field);
  REQUIRE(text.find("\r\n") == std::string::npos);
  if (text.empty()) return;
  REQUIRE(text.front() != ' ' && text.front() != '\t');
  REQUIRE(text.back() != ' ' && text.back() != '\t');
}

void check_part(const tav_eml_mlutl_mail_part& part) {
  for (const UtlString* text :
       {&part.m_cContentType, &part.m_cMediaType, &part.m_cTransferEncoding})
    fuzz::text_of(*text);
  fuzz::text_of(part.m_cFIleName);
  fuzz::text_of(part.m_cFileExtension);
  REQUIRE(part.m_nContentType >= 0 && part.m_nContentType <= TAV_EML_CT_UNKNOWN);
  REQUIRE(part.m_nTransferEncoding >= 0 && part.m_nTransferEncoding <= TAV_EML_TE_NONE);
  REQUIRE(part.m_nContentDisposition >= 0 && part.m_nContentDisposition <= TAV_EML_CD_NONE);
  REQUIRE(part.m_nCharSet >= 0 && part.m_nCharSet <= TAV_EML_CS_NONE);
}

void check_mail(const tav_eml_mlutl_mail& mail) {
  check_part(mail);
  for (const tav_eml_mlutl_mail_address* address :
       {&mail.m_cTo, &mail.m_cFrom, &mail.m_cCc, &mail.m_cMdnAddress, &mail.m_cReplyTo,
        &mail.m_cReturnPath})
    check_field(address->m_cAddress);
  for (const UtlString* text : {&mail.m_cSubject, &mail.m_cDate, &mail.m_cMessageId,
                                &mail.m_cInReplyTo, &mail.m_cReferences})
    check_field(*text);
  REQUIRE(mail.m_nBoundaryLevel >= 0 && mail.m_nBoundaryLevel <= kMaxBoundaries);
  const UtlString* const boundary = mail.get_boundary_string();
  if (boundary != nullptr) REQUIRE(fuzz::text_of(*boundary).size() <= 1000);
}

void unfold(tav_eml_mlutl_receive& receive, const std::string& text) {
  UtlVector lines;
  receive.RemoveWSP(text.c_str(), static_cast<unsigned>(text.size()), &lines);
  size_t length = 0;
  for (int i = 0; i < lines.Count(); ++i) {
    const std::unique_ptr<UtlString> line(static_cast<UtlString*>(lines.ElementAt(i)));
    length += fuzz::text_of(*line).size();
  }
  REQUIRE(length <= text.size() + 2);
}

// A header, then a part's header behind an empty line, then body lines.
void analyse(const std::string& text) {
  tav_eml_mlutl_receive receive;
  tav_eml_mlutl_mail mail;
  mail.set_part(new tav_eml_mlutl_mail_part);
  const size_t split = text.find("\r\n\r\n");
  const std::string header = text.substr(0, split);
  unfold(receive, header);
  receive.AnalyzeMailHeader(mail, header.c_str(), static_cast<unsigned>(header.size()));
  check_mail(mail);
  const std::string rest = split != std::string::npos ? text.substr(split + 4) : "";
  // Any content type may bring a boundary, and a multipart may be without.
  receive.AnalyzePartHeader(mail, rest.c_str(), static_cast<unsigned>(rest.size()));
  check_mail(mail);
  check_part(*mail.get_part());
  for (size_t start = 0; start < rest.size();) {
    const size_t end = std::min(rest.find('\n', start), rest.size() - 1) + 1;
    const int before = mail.m_nBoundaryLevel;
    const int delimiter = receive.ChkBoundaryString(rest.substr(start, end - start).c_str(), mail);
    REQUIRE(delimiter >= -1 && delimiter <= 2);
    REQUIRE(mail.m_nBoundaryLevel == (delimiter == 2 ? before - 1 : before));
    start = end;
  }
}

void analyse_values(fuzz::input& in) {
  tav_eml_mlutl_receive receive;
  tav_eml_mlutl_mail mail;
  tav_eml_mlutl_mail_part part;
  UtlString type(in.value().c_str()), encoding(in.value().c_str()), place(in.value().c_str());
  UtlString line(in.value().c_str());
  receive.AnalyzeContentType(mail, part, type);
  const TAV_EML_TRANSFER_ENCODING found = receive.AnalyzeTransferEncoding(part, encoding);
  REQUIRE(found == part.m_nTransferEncoding || found == TAV_EML_TE_UNKNOWN);
  receive.AnalyzeContentDisposition(part, place);
  check_part(part);
  check_mail(mail);
  const std::string before = fuzz::text_of(line);
  receive.ChkMailEndLine(mail, line, static_cast<long>(before.size()), 100);
  REQUIRE(fuzz::text_of(line).size() + 1 >= before.size());
}

// Lines go in, blocks come out; together they are the same.
void store(const std::string& text, long block_size) {
  tav_eml_mlutl_stream stream(block_size);
  std::string expected;
  std::string taken;
  const auto take = [&](long length) {
    fuzz::output<void*> block;
    block.length = length;
    if (stream.ReadStream(block.data, block.length) == 0) return false;
    if (block.data != nullptr) taken += block.bytes();
    return true;
  };
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find('\n', start), text.size() - 1) + 1;
    void* const line = tav_test::block_of(text.substr(start, end - start));
    if (line == nullptr) return;
    int full = -1;
    if (stream.WriteStream(line, static_cast<long>(end - start), full) == 0) return;
    expected += text.substr(start, end - start);
    start = end;
    if (full == 0) continue;
    const long length = stream.SearchBlock();
    REQUIRE(length >= -1 && length <= std::max(block_size, 0L));
    if (length > 0 && !take(length)) return;
  }
  if (take(0)) REQUIRE(taken == expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::try_input(data, size, [](fuzz::input& in, const auto&) {
    const unsigned operation = in.number() % 3;
    const long block_size = static_cast<long>(in.number());
    if (operation == 0) analyse(in.rest());
    if (operation == 1) analyse_values(in);
    if (operation == 2) store(in.rest(), block_size);
  });
}
