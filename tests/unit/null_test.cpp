// Null pointers where the interface takes bytes or texts: refused with a line in the log, or
// nothing at all, and never read.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "fake_memory.h"
#include "log_capture.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using namespace tav_test;
using util = tav_eml_mlutl_mime_utility;
using device = tav_eml_smtp_util;

struct refused_call {
  const char* name;
  std::function<int()> call;
  int failure;
};

TEST(NullPointers, are_refused_with_a_line_in_the_log) {
  char* text = nullptr;
  void* bytes = nullptr;
  long length = 0;
  char room[64] = "";
  tav_eml_smtp_send_mail mail;
  TAV_EML_CHAR_SET set = TAV_EML_CS_NONE;
  TAV_EML_ENCODED_STRING none = {TAV_EML_CS_UTF_8, nullptr, 3}, some = {set, room, 8};
  int consumed = 0;
  const refused_call calls[] = {
      {"from_b64", [&] { return util::from_b64(nullptr, 4, bytes, length); }, 0},
      {"to_b64", [&] { return util::to_b64(nullptr, 3, text, length, 0); }, 0},
      {"from_qp", [&] { return util::from_qp(nullptr, 4, bytes, length); }, 0},
      {"to_qb", [&] { return util::to_qb(nullptr, 4, text, length, 76); }, 0},
      {"ReallocationBuffer", [&] { return util::ReallocationBuffer(text, length, nullptr, 5); }, 0},
      {"ToMimeEncode",
       [&] { return util::ToMimeEncode(TAV_EML_CS_UTF_8, nullptr, 3, text, length, 75); }, 0},
      {"inline_encode",
       [&] { return util::inline_encode(nullptr, 3, text, length, TAV_EML_CS_UTF_8); }, 0},
      {"inline_decode", [&] { return util::inline_decode(nullptr, 8, text, length, set, 0); }, 0},
      {"escape_string_decode",
       [&] {
         util::escape_string_decode(nullptr, 3, room);
         return 0;
       },
       0},
      {"convert_encoded_string",
       [&] { return tav_eml_mlutl_mail_type::convert_encoded_string(none, some, consumed); }, -1},
      {"convert_encoded_string",
       [&] { return tav_eml_mlutl_mail_type::convert_encoded_string(some, none, consumed); }, -1},
      {"add_buffer", [&] { return mail.add_buffer(text, length, nullptr, 3); }, 0},
      {"InsertBuffer", [&] { return mail.InsertBuffer(text, length, nullptr, 3); }, 0},
      {"MakeHeaderAddress",
       [&] { return mail.MakeHeaderAddress(mail.m_cTo, nullptr, text, room, length, length); }, 0},
      {"make_header_bracket",
       [&] { return mail.make_header_bracket(mail.m_cSubject, nullptr, text, length); }, 0},
      {"ReplaceMacroStrings", [&] { return device::ReplaceMacroStrings(nullptr, &text); },
       TAV_EML_ERR_PARAM},
      {"ReplaceMacroStrings", [&] { return device::make_subject("x", nullptr, nullptr); },
       TAV_EML_ERR_PARAM},
      {"ReplaceMacroStrings", [&] { return device::make_signature(nullptr, &text, nullptr); },
       TAV_EML_ERR_PARAM},
      {"make_signature", [&] { return device::make_signature("x", nullptr, nullptr); },
       TAV_EML_ERR_PARAM},
      {"Automatic64Linefeed", [&] { return device::Automatic64Linefeed(nullptr, &text); },
       TAV_EML_ERR_PARAM},
      {"Automatic64Linefeed", [&] { return device::Automatic64Linefeed(room, nullptr); },
       TAV_EML_ERR_PARAM},
      {"get_date", [&] { return static_cast<int>(device::get_date(1, 64, nullptr)); }, 0},
      {"ConvertMacroStr",
       [&] {
         device::ConvertMacroStr(0, text, 0);
         return 0;
       },
       0},
  };
  fake_memory memory;
  for (const refused_call& test : calls) {
    const log_capture log;
    EXPECT_EQ(test.call(), test.failure) << test.name;
    EXPECT_TRUE(log.contains(std::string("<Error>:") + test.name + ":[Result]null pointer"))
        << test.name << "\n"
        << log.all();
    EXPECT_TRUE(text == nullptr && bytes == nullptr && length == 0) << test.name;
  }
  EXPECT_TRUE(memory.clean());
}

TEST(NullPointers, count_as_nothing_where_nothing_is_a_value) {
  char expected[33], digits[33];
  tav_eml_mlutl_mail_hash hash;
  hash.GetMD5Hash("", expected);
  hash.GetMD5Hash(nullptr, digits);
  EXPECT_STREQ(digits, expected);
  hash.GetHMACMD5Hash("", "", expected);
  hash.GetHMACMD5Hash(nullptr, nullptr, digits);
  EXPECT_STREQ(digits, expected);

  char* none = nullptr;
  long length = 0;
  ASSERT_EQ(util::to_b64(nullptr, 0, none, length, 0), 1);
  EXPECT_EQ(taken(none, length), "");
  tav_eml_mlutl_mail_part part;
  for (const TAV_EML_CHAR_SET set : {TAV_EML_CS_ISO_2022_JP, TAV_EML_CS_SHIFT_JIS}) {
    part.m_nCharSet = set;
    long cut = 5;
    EXPECT_EQ(part.AdjustMultiByteCode(nullptr, cut, 0), 0);
    EXPECT_EQ(cut, 0);
  }
}

}  // namespace
