// The conveniences for applications: texts, names and codes.

#include <gtest/gtest.h>

#include "quorvelmida/taveml_easy.h"

namespace {

using namespace quorvelmida;

TEST(Easy, a_received_text_is_read_by_its_bytes_and_then_by_its_character_set) {
  const struct {
    std::string bytes;
    TAV_EML_CHAR_SET set;
    const char* text;
  } cases[] = {
      {"\x1B$B$\"\x1B(B", TAV_EML_CS_UTF_8, "あ"},
      {"\xE3\x81\x82", TAV_EML_CS_ISO_2022_JP, "あ"},
      {"\x82\xA0", TAV_EML_CS_NONE, "あ"},
      {"\xB1", TAV_EML_CS_ISO_8859_2, "ą"},
      {"\xFF\xC0\x80", TAV_EML_CS_UNKNOWN, "ÿÀ\u0080"},
      {"\xED\xA0\x80", TAV_EML_CS_UTF_8, "í\u00A0\u0080"},  // a surrogate is not UTF-8
  };
  for (const auto& test : cases) EXPECT_EQ(easy::to_utf8(test.bytes, test.set), test.text);
}

TEST(Easy, a_file_name_is_safe) {
  std::string many;
  while (many.size() < 300) many += "あ";
  const std::string cases[][2] = {{"../../etc/passwd", "passwd"},
                                  {"C:\\a.tif", "a.tif"},
                                  {"a\r\n\x1B[b\x7F", "a[b"},
                                  {"..", "none"},
                                  {"-rf", "_-rf"},
                                  {"COM1.pdf", "_COM1.pdf"},
                                  {"a<b>:\"|?*c", "a_b______c"},
                                  {"fdp\u202Eexe.", "fdpexe"},
                                  {"\xFF.tif", "_.tif"},
                                  {many + ".pdf", many.substr(0, 195) + ".pdf"}};
  for (const auto& test : cases) EXPECT_EQ(easy::safe_file_name(test[0], "none"), test[1]);
  EXPECT_EQ(easy::quotable_file_name("a\"\\"), "a\\\"\\\\");
  EXPECT_EQ(easy::quotable_file_name("あ\"\\"), "あ'_");
  EXPECT_EQ(easy::one_line("あ\x1B[a\r\n\u009B\u202E\xFF"), "あ [a     ");
}

TEST(Easy, a_long_text_is_cut_after_a_line_or_a_character) {
  const std::string line(30000, 'x');
  std::string kana = "x";
  while (kana.size() < 50000) kana += "あ";
  for (const auto& [whole, end] : {std::pair(line + "\n" + line, 30001), std::pair(kana, 49150)}) {
    tav_eml_smtp_send_mail_part part;
    std::istringstream in(whole);
    std::string sent;
    const auto send = [&] { return sent += easy::take(part) + "|", TAV_EML_OK; };
    EXPECT_EQ(easy::detail::send_pieces(part, in, true, send), TAV_EML_OK);
    EXPECT_EQ(sent, std::string(whole).insert(static_cast<size_t>(end), "|") + "|");
  }
}

}  // namespace
