// The functions of the tables.

#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <regex>

#include "chc.h"
#include "fake_platform.h"
#include "table.h"

// Makes what follows a function of the tables.
#define RULE(name)                                                  \
  std::string name(const columns& in);                              \
  const bool g_##name##Known = rules().emplace(#name, name).second; \
  std::string name(const columns& in)

namespace {

std::optional<std::time_t> clock_stands_at;

}  // namespace

extern "C" {
std::time_t __real_time(std::time_t*);
std::time_t __wrap_time(std::time_t* out) {
  return clock_stands_at ? *clock_stands_at : __real_time(out);
}

// Throws what a device's own may throw, for a text that says so.
int32_t __real_chc_convert_encode(CHC_ENCODE_TYPE, CHC_ENCODE_TYPE, CHC_CONVERT_REQUEST*);
int32_t __wrap_chc_convert_encode(CHC_ENCODE_TYPE from, CHC_ENCODE_TYPE to,
                                  CHC_CONVERT_REQUEST* request) {
  if (std::strstr(request->source, "throw") != nullptr)
    throw new quorvelmida::tav_eml_mlutl_mail_exception("no converter");
  return __real_chc_convert_encode(from, to, request);
}
}

namespace tav_test {

namespace {

using namespace quorvelmida;
using namespace std::placeholders;
using util = tav_eml_mlutl_mime_utility;
using type = tav_eml_mlutl_mail_type;
using device = tav_eml_smtp_util;

std::string str(long number) { return std::to_string(number); }

bool says(const std::string& text, const char* word) {
  return text.find(word) != std::string::npos;
}

TAV_EML_CHAR_SET set_of(const columns& in, size_t i) { return type::test_char_set(in.c_str(i)); }

// The decoded bytes, and what stands behind them.
RULE(from_b64) {
  char behind = '\0';
  const std::string bytes = result_of<void*>([&](auto& out, long& n) {
    if (util::from_b64(in.bytes(0).get(), in.length(0), out, n) == 0) return 0;
    behind = static_cast<char*>(out)[n];
    return 1;
  });
  return behind == '\0' ? bytes : joined({bytes, {behind}});
}

RULE(to_b64) {
  return result_of(std::bind(util::to_b64, in.bytes(0).get(), in.length(0), _1, _2, in.number(1)));
}

RULE(from_qp) {
  return result_of<void*>(std::bind(util::from_qp, in.bytes(0).get(), in.length(0), _1, _2));
}

// The text, and the length that is reported.
RULE(to_qb) {
  std::string reported;
  const std::string text = result_of([&](char*& out, long& length) {
    if (util::to_qb(in.c_str(0), in.length(0), out, length, in.number(1)) == 0) return 0;
    reported = "|" + str(length);
    length = static_cast<long>(std::strlen(out));
    return 1;
  });
  return text + reported;
}

RULE(ToMimeEncode) {
  return result_of(std::bind(util::ToMimeEncode, set_of(in, 0), in.bytes(2).get(), in.length(2), _1,
                             _2, in.number(1)));
}

RULE(inline_encode) {
  return result_of(
      std::bind(util::inline_encode, in.bytes(1).get(), in.length(1), _1, _2, set_of(in, 0)));
}

RULE(inline_decode) {
  TAV_EML_CHAR_SET set = TAV_EML_CS_NONE;
  const std::string text = result_of(
      std::bind(util::inline_decode, in.bytes(0).get(), in.length(0), _1, _2, std::ref(set), 0));
  return set != TAV_EML_CS_NONE ? joined({text, str(set)}) : text;
}

RULE(content_type) {
  const TAV_EML_CONTENT_TYPE value = type::test_content_type(in.c_str(0));
  const std::string name = type::get_content_type(value);
  return joined({str(value), name == in[0] ? "same" : name});
}

RULE(character_set) {
  auto code = static_cast<CHC_ENCODE_TYPE>(-2);
  const bool has_code = type::convert_util_lib_encode_type(set_of(in, 0), code) == 0;
  return joined({str(set_of(in, 0)), type::get_char_set(set_of(in, 0)),
                 has_code || code != -2 ? str(code) : "none"});
}

RULE(convert_encoded_string) {
  std::string source = in[2], room(64, '#');
  const TAV_EML_ENCODED_STRING from = {set_of(in, 0), source.data(),
                                       static_cast<int32_t>(source.size())};
  TAV_EML_ENCODED_STRING to = {set_of(in, 1), room.data(), in.number(3)};
  int consumed = -1;
  if (type::convert_encoded_string(from, to, consumed) != 0) return "(failed)";
  const std::string written = room.substr(0, room.find('#'));
  return joined({size_of(written) == to.length ? written : "(another length)", str(consumed)});
}

RULE(AdjustMultiByteCode) {
  tav_eml_mlutl_mail_part part;
  part.m_nCharSet = set_of(in, 0);
  part.m_nContentType = says(in[1], "image") ? TAV_EML_CT_IMAGE_TIFF : TAV_EML_CT_TEXT_HTML;
  part.m_nComplete = says(in[1], "complete") ? 1 : 0;
  long cut = in.number(2);
  const int mode = part.AdjustMultiByteCode(in.c_str(3), cut, says(in[1], "held") ? 1 : 0);
  return joined({str(cut), str(mode)});
}

RULE(digest) {
  char digits[33];
  tav_eml_mlutl_mail_hash hash;
  in.size() == 1 ? hash.GetMD5Hash(in.c_str(0), digits)
                 : hash.GetHMACMD5Hash(in.c_str(1), in.c_str(0), digits);
  return digits;
}

RULE(check_filter) {
  const auto mode = static_cast<unsigned char>(in.number(0));
  std::vector<const char*> list;
  for (size_t i = 2; i < in.size(); ++i) list.push_back(in.c_str(i));
  const int count = static_cast<int>(list.size());
  const int all = tav_eml_mlutl_check_filter(in.c_str(1), mode, list.data(), count);
  UtlString allowed("before");
  const int any =
      tav_eml_mlutl_domain_filter::check_filter(in.c_str(1), allowed, mode, list.data(), count);
  const std::string left = text_of(allowed);
  return joined({str(all), any == 0 && left.empty() ? "(none)" : left});
}

// Sets what the columns say, "name=value".
void fill(tav_eml_smtp_send_mail& mail, const columns& in) {
  const std::pair<std::string, UtlString*> texts[] = {{"date", &mail.m_cDate},
                                                      {"from", &mail.m_cFrom.m_cAddress},
                                                      {"subject", &mail.m_cSubject},
                                                      {"to", &mail.m_cTo.m_cAddress},
                                                      {"bcc", &mail.m_cBcc.m_cAddress},
                                                      {"sender", &mail.m_cSender.m_cAddress},
                                                      {"name", &mail.m_cFIleName},
                                                      {"fax", &mail.m_cContentCiajwnetfax},
                                                      {"boundary", &mail.m_cBoundaryString}};
  for (size_t i = 0; i < in.size(); ++i) {
    const size_t equals = in[i].find('=');
    const std::string name = in[i].substr(0, equals), text = in[i].substr(equals + 1);
    const char* const value = text != "(null)" ? text.c_str() : nullptr;
    for (const auto& [known, field] : texts)
      if (name == known) field->CopyString(value);
    if (name == "id") mail.set_message_id(value);
    if (name == "in-reply-to") mail.set_in_reply_to(value);
    if (name == "references") mail.set_references(value);
    if (name == "type") mail.m_nContentType = type::test_content_type(value);
    if (name == "media") mail.m_cMediaType = value;
    if (name == "charset") mail.m_nCharSet = type::test_char_set(value);
    if (name == "encoding") mail.m_nTransferEncoding = type::test_transfer_encoding(value);
    if (name == "as") mail.m_nContentDisposition = type::test_content_disposition(value);
  }
}

RULE(make_header) {
  tav_eml_smtp_send_mail mail;
  fill(mail, columns("type=text/plain|charset=utf-8|date=D|from=F|to=t@x|subject=|id=1@x"));
  fill(mail, in);
  return result_of([&](char*& text, long& length) { return mail.make_header(text, length); });
}

RULE(part_header) {
  tav_eml_smtp_send_mail mail;
  fill(mail, in);
  tav_eml_mlutl_mail_part& part = mail;
  return result_of([&](char*& text, long& length) { return part.make_header(text, length); });
}

RULE(MakeMultiLine) {
  char* const text = tav_eml_mlutl_mail_part().MakeMultiLine(in.c_str(0));
  return text != nullptr ? taken(text, static_cast<long>(std::strlen(text))) : "(failed)";
}

// Without the clock's part, which is the same for the address as a text and as an object.
RULE(create_message_id) {
  const tav_eml_mlutl_mail_address from(in.c_str(0));
  UtlString id("before");
  const int made = tav_eml_smtp_send_mail::create_message_id(from, id);
  std::string same;
  const auto original = device::create_original_message_id(text_of(from.m_cAddress), same);
  const std::regex shape("<[0-9]{14}[0-9a-f]{8}\\.(.*)>");
  same = std::regex_replace(same, shape, "$1");
  const std::string rest = std::regex_replace(text_of(id), shape, "$1");
  return (original == TAV_EML_OK) == (made != 0) && rest == same ? rest : "(the two ways differ)";
}

using expansion = decltype(device::make_subject);
std::string expanded(const columns& in, expansion* make) {
  fake_platform net;
  CFG_EVENT_MAIL& values = net.device_settings;
  std::strcpy(values.printer_name, "MFP1");
  std::strcpy(values.serial_number, "SN9");
  std::strcpy(values.host_name, "host");
  std::memset(values.equipment_id, 'E', sizeof values.equipment_id);  // no NUL of its own
  const uint8_t bytes[] = {0, 0x9a, 0xff, 1, 2, 3, 0x80, 4, 5, 6, 7, 8, 10, 0, 0, 5};
  std::memcpy(values.mac_address1, bytes, 6);
  std::memcpy(values.mac_address2, bytes + 6, 6);
  if (in[0] != "second") std::memcpy(values.ip_address1, bytes + 12, 4);
  if (in[0] != "first") std::memcpy(values.ip_address2, bytes + (in[0] == "both" ? 0 : 12), 4);
  net.device_result = in[0] == "fails" ? 5 : in[0] == "both" ? CFG_OK : CFG_OK_PARTIAL;
  char garbage = 0, *result = &garbage;
  int length = 77;
  const TAV_EML_RESULT code = make(in.c_str(1), &result, &length);
  if (code == TAV_EML_OK) return taken(result, length);
  if (code != (in.c_str(1) == nullptr ? TAV_EML_ERR_PARAM : TAV_EML_ERR_NO_MEMORY))
    return "(failed, and gave another code)";
  return result == nullptr && length == 0 ? "(failed)" : "(failed, and left something)";
}

RULE(make_subject) { return expanded(in, device::make_subject); }
RULE(make_signature) { return expanded(in, device::make_signature); }

RULE(to_utf8) { return easy::to_utf8(in[1], set_of(in, 0)); }
RULE(safe_file_name) { return easy::safe_file_name(in[0], "none"); }
RULE(quotable_file_name) { return easy::quotable_file_name(in[0]); }
RULE(one_line) { return easy::one_line(in[0]); }

RULE(get_date) {
  setenv("TZ", in.c_str(0), 1);
  tzset();
  clock_stands_at = in.number(1);
  std::string room = '\0' + std::string(63, 'x');  // a text has to bring its end along
  const size_t length =
      device::get_date(in.number(2), static_cast<size_t>(in.number(3)), room.data());
  clock_stands_at.reset();
  return room[length] == '\0' ? room.substr(0, length) : "no end";
}

// What a mail knows: "name=value" of each field that is not as it was made.
std::vector<std::string> fields(const tav_eml_mlutl_mail& mail) {
  std::vector<std::string> all;
  const auto number = [&](const char* name, int value, int unset) {
    if (value != unset) all.push_back(name + ("=" + str(value)));
  };
  number("type", mail.m_nContentType, TAV_EML_CT_UNKNOWN);
  number("encoding", mail.m_nTransferEncoding, TAV_EML_TE_NONE);
  number("as", mail.m_nContentDisposition, TAV_EML_CD_NONE);
  number("charset", mail.m_nCharSet, TAV_EML_CS_NONE);
  number("level", mail.m_nBoundaryLevel, 0);
  const std::pair<const char*, const UtlString*> texts[] = {
      {"type-text", &mail.m_cContentType},
      {"media", &mail.m_cMediaType},
      {"encoding-text", &mail.m_cTransferEncoding},
      {"name", &mail.m_cFIleName},
      {"extension", &mail.m_cFileExtension},
      {"fax", &mail.m_cContentCiajwnetfax},
      {"to", &mail.m_cTo.m_cAddress},
      {"from", &mail.m_cFrom.m_cAddress},
      {"cc", &mail.m_cCc.m_cAddress},
      {"mdn", &mail.m_cMdnAddress.m_cAddress},
      {"reply-to", &mail.m_cReplyTo.m_cAddress},
      {"return-path", &mail.m_cReturnPath.m_cAddress},
      {"subject", &mail.m_cSubject},
      {"date", &mail.m_cDate},
      {"id", &mail.m_cMessageId},
      {"in-reply-to", &mail.m_cInReplyTo},
      {"references", &mail.m_cReferences},
      {"boundary", mail.get_boundary_string()}};
  for (const auto& [name, value] : texts)
    if (value != nullptr && !value->IsEmpty()) all.push_back(name + ("=" + text_of(*value)));
  return all;
}

// Reads a header that is there already.
void receive(tav_eml_mlutl_mail& mail, const std::string& header) {
  tav_eml_mlutl_receive receive;
  int sock = 7;
  TAV_EML_TLS_INFO tls = {};
  receive.set_recv_buffer((header + "\r\n").c_str());
  receive.receive_header(mail, sock, 1, 0, tls);
}

RULE(received_header) {
  tav_eml_mlutl_mail mail;
  receive(mail, in[0]);
  return joined(fields(mail));
}

RULE(content_parameters) {
  tav_eml_mlutl_mail mail, disposed;
  receive(mail, "Content-Type: a/b; " + in[0] + "\r\n");
  receive(disposed, "Content-Disposition: inline; file" + in[0] + "\r\n");
  const UtlString* const boundary = mail.get_boundary_string();
  const auto name = [](const tav_eml_mlutl_mail& one) {
    return joined({text_of(one.m_cFIleName), text_of(one.m_cFileExtension)});
  };
  if (name(mail) != name(disposed)) return "(the names differ)";
  return joined({boundary != nullptr ? text_of(*boundary) : "(none)", name(mail)});
}

RULE(convert_utl_retcode) {
  const auto code = static_cast<TAV_EML_UTL_RETCODE>(in.number(0));
  return easy::result_name(tav_eml_pop3_boundary::convert_utl_retcode(code));
}

RULE(SearchBlock) {
  tav_eml_mlutl_stream stream(in.number(0));
  int full = 0;
  if (in.length(1) > 0) stream.WriteStream(block_of(in[1]), in.length(1), full);
  return str(stream.SearchBlock());
}

}  // namespace

std::map<std::string, rule>& rules() {
  static std::map<std::string, rule> all;
  return all;
}

}  // namespace tav_test
