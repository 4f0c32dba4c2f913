#include "message_text.h"

#include <gtest/gtest.h>

#include "problem.h"

namespace tavmail {
namespace {

using namespace quorvelmida;

TEST(MessageText, encodes_display_names_and_leaves_addresses_alone) {
  const struct {
    const char* list;
    const char* expected;
  } cases[] = {
      {"a@b.c", "a@b.c"},
      {"Anna <a@b.c>; bob@d.e", "Anna <a@b.c>, bob@d.e"},
      {"\"Doe, Jane\" <j@d.e>", "\"Doe, Jane\" <j@d.e>"},
      {"日本 <a@b.c>", "=?utf-8?B?5pel5pys?= <a@b.c>"},
      {"\"日\\\"本\" <a@b.c>, x@y.z", "=?utf-8?B?5pelIuacrA==?= <a@b.c>, x@y.z"},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(encoded_addresses("--to", test.list, TAV_EML_CS_UTF_8), test.expected) << test.list;
  }
}

TEST(MessageText, refuses_what_is_no_address) {
  for (const char* bad :
       {"a", "@b", "a@", "<>", "a b@c", "日本@b.c", "a@b\r\nBcc: x@y", "a@b\x01"}) {
    EXPECT_THROW(encoded_addresses("--to", bad, TAV_EML_CS_UTF_8), problem) << bad;
  }
  for (const std::string& name : {std::string(1000, 'x'), "日" + std::string(1000, 'x')}) {
    EXPECT_THROW(encoded_addresses("--to", name + " <a@b.c>", TAV_EML_CS_UTF_8), problem) << name;
  }
  EXPECT_THROW(encoded_addresses("--to", "\xff <a@b>", TAV_EML_CS_UTF_8), problem);
  EXPECT_THROW(encoded_addresses("--to", "😀 <a@b>", TAV_EML_CS_SHIFT_JIS), problem);
}

TEST(MessageText, makes_file_names_quotable) {
  EXPECT_EQ(quotable_file_name("a \"b\" \\c.pdf"), "a \\\"b\\\" \\\\c.pdf");
  EXPECT_EQ(quotable_file_name("報告\"1\"\\.pdf"), "報告'1'_.pdf");
}

TEST(MessageText, makes_every_line_end_canonical) {
  EXPECT_EQ(canonical_lines("a\nb\r\nc\rd\n\n"), "a\r\nb\r\nc\r\nd\r\n\r\n");
}

TEST(MessageText, knows_what_a_character_set_has) {
  EXPECT_TRUE(can_express("①～㈱ｶﾞ", TAV_EML_CS_SHIFT_JIS));
  EXPECT_TRUE(can_express("①～㈱ｶﾞ", TAV_EML_CS_ISO_2022_JP));
  EXPECT_FALSE(can_express("😀", TAV_EML_CS_ISO_2022_JP));
  EXPECT_FALSE(is_utf8("\xc0\x80"));
  EXPECT_FALSE(is_utf8(std::string("a\0b", 3)));
  EXPECT_NE(new_boundary(), new_boundary());
}

}  // namespace
}  // namespace tavmail
