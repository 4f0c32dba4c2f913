#include "quorvelmida/tav_eml_mlutl_mail_type.h"

#include <algorithm>
#include <cstring>

#include "clb.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "message/convert_text.h"

namespace quorvelmida {

const char* const ContentTypeWinthParam =
    "multipart/report;\r\n\treport-type=disposition-notification";

// A text that is the start of another one comes after it: the first match wins.
const TAV_EML_TYPE_ROW<TAV_EML_CONTENT_TYPE> tav_eml_mlutl_mail_type::ContentTypeTable[] = {
    {"text/plain", TAV_EML_CT_TEXT_PLAIN},
    {"text/html", TAV_EML_CT_TEXT_HTML},
    {"multipart/mixed", TAV_EML_CT_MULTIPART_MIXED},
    {"multipart/report", TAV_EML_CT_MULTIPART_REPORT},
    {"multipart/", TAV_EML_CT_MULTIPART},
    {"message/disposition-notification", TAV_EML_CT_MESSAGE_DISPOSITION_NOTIFICATION},
    {"message/partial", TAV_EML_CT_MESSAGE_PARTIAL},
    {"application/pdf", TAV_EML_CT_APPLICATION_PDF},
    {"application/x-pdf", TAV_EML_CT_APPLICATION_PDF},
    {"application/postscript", TAV_EML_CT_APPLICATION_POSTSCRIPT},
    {"application/applefile", TAV_EML_CT_APPLICATION_APPLEFILE},
    {"image/tiff", TAV_EML_CT_IMAGE_TIFF},
    {"image/jpeg", TAV_EML_CT_IMAGE_JPEG},
    {"application/vnd.ms-xpsdocument", TAV_EML_CT_APPLICATION_XPS},
    {"application/oxps", TAV_EML_CT_APPLICATION_OXPS},
    {"application/vnd.openxmlformats-officedocument.wordprocessingml.document",
     TAV_EML_CT_APPLICATION_DOCX},
    {"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet",
     TAV_EML_CT_APPLICATION_XLSX},
    {"application/vnd.openxmlformats-officedocument.presentationml.presentation",
     TAV_EML_CT_APPLICATION_PPTX},
    {"", TAV_EML_CT_NONE},
};

const TAV_EML_TYPE_ROW<TAV_EML_TRANSFER_ENCODING> tav_eml_mlutl_mail_type::TransferEncodingTable[] =
    {
        {"7bit", TAV_EML_TE_7BIT},     {"8bit", TAV_EML_TE_8BIT},
        {"base64", TAV_EML_TE_BASE64}, {"quoted-printable", TAV_EML_TE_QUOTED_PRINTABLE},
        {"", TAV_EML_TE_NONE},
};

const TAV_EML_TYPE_ROW<TAV_EML_CONTENT_DISPOSITION>
    tav_eml_mlutl_mail_type::ContentDispositionTable[] = {
        {"inline", TAV_EML_CD_INLINE},
        {"attachment", TAV_EML_CD_ATTACHMENT},
        {"", TAV_EML_CD_NONE},
};

const TAV_EML_TYPE_ROW<TAV_EML_CHAR_SET> tav_eml_mlutl_mail_type::CharSetTable[] = {
    {"us-ascii", TAV_EML_CS_US_ASCII},     {"us", TAV_EML_CS_US},
    {"ascii", TAV_EML_CS_ASCII},           {"iso-8859-1", TAV_EML_CS_ISO_8859_1},
    {"iso-8859-2", TAV_EML_CS_ISO_8859_2}, {"iso-2022-jp", TAV_EML_CS_ISO_2022_JP},
    {"x-jis", TAV_EML_CS_X_JIS},           {"shift_jis", TAV_EML_CS_SHIFT_JIS},
    {"x-sjis", TAV_EML_CS_X_SJIS},         {"ms-kanji", TAV_EML_CS_MS_KANJI},
    {"utf-8", TAV_EML_CS_UTF_8},           {"", TAV_EML_CS_NONE},
};

const TAV_EML_TYPE_ROW<TAV_EML_CONTET_X_CIAJWNETFAX>
    tav_eml_mlutl_mail_type::ContetXCiajwnetfaxTable[] = {
        {"IGNORE", TAV_EML_CX_IGNORE},
        {"", TAV_EML_CX_NONE},
};

const TAV_EML_ENCODE_TYPE_ROW tav_eml_mlutl_mail_type::EncodeTypeTable[] = {
    {TAV_EML_CS_US_ASCII, CHC_US_ASCII},     {TAV_EML_CS_US, CHC_US},
    {TAV_EML_CS_ASCII, CHC_ASCII},           {TAV_EML_CS_ISO_8859_1, CHC_ISO_8859_1},
    {TAV_EML_CS_ISO_8859_2, CHC_ISO_8859_2}, {TAV_EML_CS_ISO_2022_JP, CHC_ISO_2022_JP},
    {TAV_EML_CS_X_JIS, CHC_X_JIS},           {TAV_EML_CS_SHIFT_JIS, CHC_SHIFT_JIS},
    {TAV_EML_CS_X_SJIS, CHC_SHIFT_JIS},      {TAV_EML_CS_MS_KANJI, CHC_MS_KANJI},
    {TAV_EML_CS_UTF_8, CHC_UTF_8},           {TAV_EML_CS_UNKNOWN, -1},
};

namespace {

// The value of the first row whose text begins `text`; the end row is never compared.
template <typename Value>
Value test_rows(const TAV_EML_TYPE_ROW<Value>* row, const char* text, Value no_match) {
  for (; *row->text != '\0'; ++row) {
    if (clb_CompStrCaseN(row->text, text, std::strlen(row->text)) == 0) return row->value;
  }
  return no_match;
}

// The text of the first row with the value, or "".
template <typename Value>
const char* text_in_rows(const TAV_EML_TYPE_ROW<Value>* row, Value value) {
  while (*row->text != '\0' && row->value != value) ++row;
  return row->text;
}

// How many of the first `capacity` bytes of a longer UTF-8 text to copy, so that no character is
// split. The character that touches the last byte is dropped even if it is complete.
int32_t utf8_cut(const char* text, int32_t capacity) {
  if (capacity < 1) return 0;
  int32_t cut = capacity - 1;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return cut;
}

int copy_same_set(const TAV_EML_ENCODED_STRING& in, TAV_EML_ENCODED_STRING& out, int& consumed) {
  int32_t n = std::max<int32_t>(in.length, 0);
  if (n > out.length) {
    n = std::max<int32_t>(out.length, 0);
    if (in.char_set == TAV_EML_CS_UTF_8) n = utf8_cut(in.data, n);
  }
  if (n > 0) std::memmove(out.data, in.data, static_cast<size_t>(n));
  out.length = n;
  consumed = n;
  return 0;
}

bool find_encode_type(TAV_EML_CHAR_SET char_set, CHC_ENCODE_TYPE& type) {
  if (tav_eml_mlutl_mail_type::convert_util_lib_encode_type(char_set, type) == 0) return true;
  TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_type::%s(): unknown encode(%d)[Error]\n",
                    "convert_encoded_string", static_cast<int>(char_set));
  return false;
}

}  // namespace

TAV_EML_CONTENT_TYPE tav_eml_mlutl_mail_type::test_content_type(const char* text) {
  return test_rows(ContentTypeTable, text, TAV_EML_CT_UNKNOWN);
}

TAV_EML_TRANSFER_ENCODING tav_eml_mlutl_mail_type::test_transfer_encoding(const char* text) {
  return test_rows(TransferEncodingTable, text, TAV_EML_TE_UNKNOWN);
}

TAV_EML_CONTENT_DISPOSITION tav_eml_mlutl_mail_type::test_content_disposition(const char* text) {
  return test_rows(ContentDispositionTable, text, TAV_EML_CD_UNKNOWN);
}

TAV_EML_CHAR_SET tav_eml_mlutl_mail_type::test_char_set(const char* text) {
  return test_rows(CharSetTable, text, TAV_EML_CS_UNKNOWN);
}

TAV_EML_CONTET_X_CIAJWNETFAX tav_eml_mlutl_mail_type::test_contet_x_ciajwnetfax(const char* text) {
  return test_rows(ContetXCiajwnetfaxTable, text, TAV_EML_CX_UNKNOWN);
}

const char* tav_eml_mlutl_mail_type::get_content_type(TAV_EML_CONTENT_TYPE value) {
  if (value == TAV_EML_CT_MULTIPART_REPORT) return ContentTypeWinthParam;
  return text_in_rows(ContentTypeTable, value);
}

const char* tav_eml_mlutl_mail_type::get_transfer_encoding(TAV_EML_TRANSFER_ENCODING value) {
  return text_in_rows(TransferEncodingTable, value);
}

const char* tav_eml_mlutl_mail_type::get_content_disposition(TAV_EML_CONTENT_DISPOSITION value) {
  return text_in_rows(ContentDispositionTable, value);
}

const char* tav_eml_mlutl_mail_type::get_char_set(TAV_EML_CHAR_SET value) {
  return text_in_rows(CharSetTable, value);
}

const char* tav_eml_mlutl_mail_type::get_contet_x_ciajwnetfax(TAV_EML_CONTET_X_CIAJWNETFAX value) {
  return text_in_rows(ContetXCiajwnetfaxTable, value);
}

int tav_eml_mlutl_mail_type::convert_util_lib_encode_type(TAV_EML_CHAR_SET char_set,
                                                          CHC_ENCODE_TYPE& type) {
  for (const TAV_EML_ENCODE_TYPE_ROW* row = EncodeTypeTable; row->char_set != TAV_EML_CS_UNKNOWN;
       ++row) {
    if (row->char_set == char_set) {
      type = static_cast<CHC_ENCODE_TYPE>(row->encode_type);
      return 0;
    }
  }
  return -1;
}

int convert_text(const TAV_EML_ENCODED_STRING& in, TAV_EML_ENCODED_STRING& out, int& consumed) {
  if (!is_readable("convert_encoded_string", in.data, in.length) ||
      !is_readable("convert_encoded_string", out.data, out.length)) {
    return -1;
  }
  if (in.char_set == out.char_set) return copy_same_set(in, out, consumed);

  CHC_ENCODE_TYPE from;
  CHC_ENCODE_TYPE to;
  if (!find_encode_type(in.char_set, from) || !find_encode_type(out.char_set, to)) return -1;

  utl_buffer source;
  if (!source.assign(in.data, std::max<int32_t>(in.length, 0))) {
    TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_type::%s(): failed to allocate memory[Error]\n",
                      "convert_encoded_string");
    return -1;
  }
  CHC_CONVERT_REQUEST request{};
  request.source = source.data();
  request.destination = out.data;
  request.capacity = out.length;
  const int32_t result = chc_convert_encode(from, to, &request);
  if (result != CHC_OK) {
    TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_type::%s(): chc_convert_encode return 0x%x[Error]\n",
                      "convert_encoded_string", log_code(result));
    return -1;
  }
  out.length = request.produced;
  consumed = request.consumed;
  return 0;
}

int tav_eml_mlutl_mail_type::convert_encoded_string(const TAV_EML_ENCODED_STRING& in,
                                                    TAV_EML_ENCODED_STRING& out, int& consumed) {
  return guarded("convert_encoded_string", -1, [&] { return convert_text(in, out, consumed); });
}

}  // namespace quorvelmida
