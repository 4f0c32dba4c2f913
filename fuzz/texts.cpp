// Addresses, the header of a mail that is composed, and the texts of device-generated mails.
//
// Control bytes: failing allocation (2), operation, kind. Then lines, as the operation wants them.

#include <algorithm>

#include "fake_platform.h"
#include "fuzz_input.h"
#include "values.h"

namespace {

using namespace quorvelmida;

void read_addresses(fuzz::input& in) {
  const std::string delimiters = in.value();
  const std::string text = in.value();
  const tav_eml_mlutl_mail_address list(text.c_str());
  int pos = 0;
  for (size_t count = 0;; ++count) {
    REQUIRE(count <= text.size());
    const int before = pos;
    UtlString address, real, account, domain;
    const int found = list.get_address(address, pos, delimiters.c_str());
    REQUIRE(pos >= before && static_cast<size_t>(pos) <= text.size());
    if (found == 0) break;
    REQUIRE(pos > before);  // a stray line end is an address, too, and empty
    const std::string whole = fuzz::text_of(address);
    if (tav_eml_mlutl_mail_address::get_real_address(real, whole.c_str()) == 0) continue;
    REQUIRE(!real.IsEmpty() && real.GetLength() <= whole.size());
    if (tav_eml_mlutl_mail_address::split_address(account, domain, real.GetString()) == 0) continue;
    REQUIRE(!account.IsEmpty() && !domain.IsEmpty());
    REQUIRE(account.GetLength() + 1 + domain.GetLength() <= real.GetLength());
  }
  for (pos = 0; static_cast<size_t>(pos) < text.size(); ++pos) {
    int behind = pos;
    const int skipped = tav_eml_mlutl_mail_address::SkipUserName(text.c_str(), behind);
    REQUIRE(static_cast<size_t>(behind) <= text.size());
    REQUIRE(skipped != 0 ? behind > pos + 1
                         : behind == pos || text[static_cast<size_t>(pos)] == '"');
  }
}

void set_threading(tav_eml_smtp_send_mail& mail, fuzz::input& in) {
  mail.set_message_id(in.value().c_str());
  mail.set_in_reply_to(in.value().c_str());
  mail.set_references(in.value().c_str());
  UtlString value;
  for (const auto get :
       {&tav_eml_smtp_send_mail::get_message_id, &tav_eml_smtp_send_mail::get_in_reply_to,
        &tav_eml_smtp_send_mail::get_references})
    if ((mail.*get)(value) != 0) REQUIRE(!value.IsEmpty());
}

void compose_header(fuzz::input& in, unsigned kind) {
  tav_eml_smtp_send_mail mail;
  mail.m_nContentType = static_cast<TAV_EML_CONTENT_TYPE>(kind % (TAV_EML_CT_UNKNOWN + 1));
  mail.m_nTransferEncoding = static_cast<TAV_EML_TRANSFER_ENCODING>(kind % 6);
  mail.m_nContentDisposition = static_cast<TAV_EML_CONTENT_DISPOSITION>(kind % 4);
  mail.m_nCharSet = static_cast<TAV_EML_CHAR_SET>(kind % (TAV_EML_CS_NONE + 1));
  set_threading(mail, in);
  const std::string from = in.value();
  mail.m_cFrom = tav_eml_mlutl_mail_address(from.c_str());
  mail.m_cTo = tav_eml_mlutl_mail_address(in.value().c_str());
  mail.m_cCc = tav_eml_mlutl_mail_address(in.value().c_str());
  mail.m_cReplyTo = tav_eml_mlutl_mail_address(in.value().c_str());
  mail.m_cSender = tav_eml_mlutl_mail_address(in.value().c_str());
  mail.set_mdn_address(in.value().c_str());
  mail.m_cSubject = in.value().c_str();
  mail.m_cDate = in.value().c_str();
  mail.m_cFIleName = in.value().c_str();
  mail.m_cBoundaryString = in.value().c_str();
  mail.set_content_ciajwnetfax(in.value().c_str());
  const tav_eml_mlutl_mail_part& part = mail;
  tav_eml_mlutl_mail_part copy(part);
  for (const bool whole : {true, false}) {
    fuzz::output<char*> header;
    const int made = whole ? mail.make_header(header.data, header.length)
                           : copy.make_header(header.data, header.length);
    if (!header.check(made != 0)) continue;
    fuzz::output<char*> encoded;
    encoded.check(tav_eml_mlutl_mime_utility::inline_encode(header.data, header.length,
                                                            encoded.data, encoded.length,
                                                            mail.m_nCharSet) != 0);
  }
  UtlString id;
  const int made =
      tav_eml_smtp_send_mail::create_message_id(tav_eml_mlutl_mail_address(from.c_str()), id);
  REQUIRE(made != 0 ? !id.IsEmpty() : id.IsEmpty());
}

void fold_value(fuzz::input& in) {
  const std::string text = in.value();
  tav_eml_mlutl_mail_part part;
  const std::unique_ptr<char, void (*)(void*)> folded(part.MakeMultiLine(text.c_str()),
                                                      UtlOS::MemFree);
  if (folded) REQUIRE(std::strlen(folded.get()) >= text.size());
  part.m_cFIleName = text.c_str();
  const char* const extension = part.get_file_extension();
  REQUIRE(extension != nullptr && std::strchr(extension, '.') == nullptr);
}

CFG_EVENT_MAIL device_of(const std::string& bytes) {
  CFG_EVENT_MAIL device = {};
  std::memcpy(&device, bytes.data(), std::min(bytes.size(), sizeof device));
  return device;
}

// Lines of at most 64 characters, which all end in CR LF.
void check_lines(const std::string& text) {
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find("\r\n", start), text.size());
    const std::string line = text.substr(start, end - start);
    REQUIRE(line.find_first_of("\r\n") == std::string::npos);
    const auto characters = std::count_if(line.begin(), line.end(), [](char ch) {
      return (static_cast<unsigned char>(ch) & 0xC0) != 0x80;
    });
    REQUIRE(characters <= 64);
    start = end + 2;
  }
}

void expand_macros(fuzz::input& in, unsigned kind) {
  tav_test::fake_platform net;
  const std::string text = in.value();
  net.device_settings(device_of(in.rest()), kind % 4 == 3 ? -1 : CFG_OK);
  for (const auto make : {tav_eml_smtp_util::make_subject, tav_eml_smtp_util::make_signature}) {
    char* made = nullptr;
    int length = -1;
    const bool is_made = make(text.c_str(), &made, &length) == TAV_EML_OK;
    REQUIRE(is_made == (made != nullptr));
    REQUIRE(!is_made || std::strlen(made) == static_cast<size_t>(length));
    tav_eml_smtp_util::free_buffer(made);
  }
  char value[65];
  char* cursor = value;
  tav_eml_smtp_util::ConvertMacroStr(static_cast<int>(kind) - 1, cursor, 1);
  const auto measured = cursor - value;
  cursor = value;
  tav_eml_smtp_util::ConvertMacroStr(static_cast<int>(kind) - 1, cursor, 0);
  REQUIRE(cursor - value == measured && measured <= 64);
}

void break_lines(fuzz::input& in, const tav_test::fake_memory& memory) {
  const std::string text = in.rest().c_str();
  char* const block = static_cast<char*>(tav_test::block_of(text));
  if (block == nullptr) return;
  char* result = nullptr;
  REQUIRE(tav_eml_smtp_util::Automatic64Linefeed(block, &result) == TAV_EML_OK);
  if (!memory.failed()) check_lines(result);
  tav_eml_smtp_util::free_buffer(result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::try_input(data, size, [](fuzz::input& in, const tav_test::fake_memory& memory) {
    const unsigned operation = in.number() % 5;
    const unsigned kind = in.number();
    if (operation == 0) read_addresses(in);
    if (operation == 1) compose_header(in, kind);
    if (operation == 2) fold_value(in);
    if (operation == 3) expand_macros(in, kind);
    if (operation == 4) break_lines(in, memory);
  });
}
