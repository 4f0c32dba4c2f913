#include "received_text.h"

#include <gtest/gtest.h>

#include <clocale>

#include "dialogue_view.h"
#include "header_value.h"
#include "near_word.h"
#include "raw_header.h"

namespace tavmail {
namespace {

TEST(ReceivedText, makes_names_safe) {
  std::string kanji;
  for (int i = 0; i < 100; ++i) kanji += "日";
  const struct {
    std::string name;
    std::string expected;
  } cases[] = {
      {"report.pdf", "report.pdf"},
      {"報告 1.pdf", "報告 1.pdf"},
      {"../../etc/passwd", "passwd"},
      {"C:\\users\\a.txt", "a.txt"},
      {"a/", "otherwise"},
      {"..", "otherwise"},
      {" . ", "otherwise"},
      {"", "otherwise"},
      {".profile", "profile"},
      {"a.exe. .", "a.exe"},
      {std::string("a\0b\r\n\x1b[2Jc\x7f", 11), "ab[2Jc"},
      {"a\xc2\x9b"
       "b\xc2\xa0"
       "c",
       "ab\xc2\xa0"
       "c"},
      {"cod\u202Egpj.exe", "codgpj.exe"},
      {"a\u200B\u2066\uFEFFz", "az"},
      {"<a>:\"b\"|c?*.txt", "_a___b__c__.txt"},
      {"CON", "_CON"},
      {"nul.tar.gz", "_nul.tar.gz"},
      {"Lpt1 .txt", "_Lpt1 .txt"},
      {"com10", "com10"},
      {"console.txt", "console.txt"},
      {"-rf", "_-rf"},
      {std::string(300, 'x') + ".pdf", std::string(196, 'x') + ".pdf"},
      {std::string(300, 'x'), std::string(200, 'x')},
      {kanji + ".tiff", kanji.substr(0, 195) + ".tiff"},
      {"a." + std::string(300, 'x'), "a." + std::string(198, 'x')},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(safe_file_name(test.name, "otherwise"), test.expected) << test.name;
  }
}

TEST(ReceivedText, reads_what_senders_write) {
  const struct {
    std::string bytes;
    const char* hint;
    const char* expected;
  } cases[] = {
      {"plain", "", "plain"},
      {"日本", "koi8-r", "日本"},
      {"\x1b$BF|K\\\x1b(B", "", "日本"},
      {"\x93\xfa\x96{\x87\x40", "", "日本①"},
      {"\x93\xfa\x96{", "Windows-31J", "日本"},
      {"\xc6\xfc\xcb\xdc", "EUC-JP", "日本"},
      {"\xce\xe4", "gb2312", "武"},
      {"caf\xe9", "iso-8859-1", "café"},
      {"caf\xe9", "no-such-set", "café"},
      {"\xff\xfe\x80", "utf-8", "ÿþ\xc2\x80"},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(header_text(test.bytes, test.hint), test.expected) << test.bytes;
  }
}

TEST(ReceivedText, reads_encoded_words) {
  const struct {
    const char* received;
    const char* expected;
  } cases[] = {
      {"=?utf-8?Q?Your_invoice_12?=", "Your invoice 12"},
      {"=?utf-8?q?a=5Fb=3f?=_c", "a_b?_c"},
      {"=?utf-8?B?QV9C?= =?utf-8?Q?C_D?=", "A_BC D"},
      {"=?utf-8?Q?one?=\t  =?utf-8?Q?two?= three =?utf-8?Q?four?=", "onetwo three four"},
      {"=?iso-8859-1?Q?caf=E9?= =?iso-2022-jp?B?GyRCRnxLXBsoQg==?= =?KOI8-R?B?z8s=?=",
       "café日本ок"},
      {"=?utf-8?Q?=E6=97?= =?UTF-8*ja?B?pQ==?=", "日"},
      {"=?gb2312?B?xKM=?=", "模"},
      {"=?shift_jis?B?k/qWew==?=?", "日本?"},
      {"Re: =?utf-8?Q?a b?= (=?utf-8?Q?c?=)", "Re: a b (c)"},
      {"=?utf-8?Q?=C3=A4?= =?none?Q?=C3=A4?=", "ää"},
      {"=?../../x//y?Q?=E9?=", "é"},
      {"=?utf-8?Q?50=% =4?=", "50=% =4"},
      {"=?utf-8?X?a?= =?utf-8?Q?b", "=?utf-8?X?a?= =?utf-8?Q?b"},
      {"=?a?=? =?utf-8?Q?x_y?=", "=?a?=? x y"},
      {"=?=?=?utf-8?Q?x?=", "=?=?x"},
      {"=?utf-8?Q? ?=", " "},
      {"", ""},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(header_value(test.received, ""), test.expected) << test.received;
  }
}

// As the bytes come, in any slicing: the status line, the header, and what follows it.
TEST(ReceivedText, takes_the_header_of_the_mail) {
  const std::string received =
      "+OK\r\nSubject: first\r\nSUBJECT : a\r\n\tb\r\nX: c\r\n d\r\n..dot: e \r\nTo:\r\n"
      "\r\nFrom: body\r\n.\r\n";
  for (size_t slice = 1; slice <= received.size(); ++slice) {
    raw_header header;
    header.take("From: before\r\n");
    header.begin();
    for (size_t at = 0; at < received.size(); at += slice) header.take(received.substr(at, slice));
    EXPECT_EQ(header.value("subject"), "a\tb");
    EXPECT_EQ(header.value(".dot"), "e");
    EXPECT_EQ(header.value("to"), "");
    EXPECT_FALSE(header.value("from"));
  }
}

TEST(ReceivedText, finds_the_named_character_set) {
  const struct {
    const char* line;
    const char* expected;
  } cases[] = {
      {"Subject: =?ISO-2022-JP?B?abc?= =?utf-8?Q?x?=", "ISO-2022-JP"},
      {"Subject: =?utf-8*ja?Q?x?=", "utf-8"},
      {"Content-Disposition: attachment; filename*=EUC-JP'ja'%C6%FC", "EUC-JP"},
      {"Subject: =?utf-8", ""},
      {"X: filename*=none", ""},
      {"", ""},
  };
  for (const auto& test : cases) EXPECT_EQ(named_char_set(test.line), test.expected) << test.line;
}

TEST(ReceivedText, fits_into_columns) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  EXPECT_EQ(fit("日本語", 6), "日本語");
  EXPECT_EQ(fit("日本語", 5), "日...");
  EXPECT_EQ(fit("日本語x", 6), "日...");
  EXPECT_EQ(fit("e\u0301e\u0301", 2), "e\u0301e\u0301");
  EXPECT_EQ(fit("abcdef", 5), "ab...");
  EXPECT_EQ(fit("\xe6\x97", 1), "\xe6\x97");  // cut off inside a character
  std::string text;
  for (int i = 0; i < 60; ++i) text += (i % 7 == 0 ? "日本語の文 " : "word ");
  const std::string lines = wrapped("  label ", text + std::string(100, 'x'));
  for (size_t at = 0; at < lines.size(); at = lines.find('\n', at) + 1) {
    const std::string line = lines.substr(at, lines.find('\n', at) - at);
    EXPECT_LE(display_width(line), kColumns) << line;
    EXPECT_EQ(line.compare(0, 8, at == 0 ? "  label " : "        "), 0) << line;
  }
}

// What terminals act on: controls, and what turns the direction of text.
TEST(ReceivedText, presents_nothing_that_steers_a_terminal) {
  EXPECT_EQ(presentable("a\x1b]0;x\x07"
                        "b\xc2\x9b"
                        "c"),
            "a ]0;x b  c");
  EXPECT_EQ(presentable("a\u202Eb\u2066c\u2028d"), "a   b   c   d");
  EXPECT_EQ(presentable("\u200Bé\u2027\u202F\u2065"), "\u200Bé\u2027\u202F\u2065");
  std::string kanji = "x";
  while (kanji.size() < 3000) kanji += "日";
  EXPECT_EQ(presentable(kanji), kanji.substr(0, 1999)) << "cut inside a character";
}

TEST(NearWord, suggests_only_what_is_near) {
  const std::vector<std::string> words = {"--server", "--seen", "--tls", "--timeout"};
  const struct {
    const char* word;
    const char* expected;
  } cases[] = {
      {"--sever", "; did you mean \"--server\"?"},
      {"--serverr", "; did you mean \"--server\"?"},
      {"--tsl", "; did you mean \"--tls\"?"},
      {"--time-out", "; did you mean \"--timeout\"?"},
      {"--server", "; did you mean \"--server\"?"},
      {"--password", ""},
      {"", ""},
      {"zzzzzzzzz", ""},
  };
  for (const auto& test : cases) EXPECT_EQ(did_you_mean(test.word, words), test.expected);
  EXPECT_EQ(did_you_mean("x", {}), "");
}

}  // namespace
}  // namespace tavmail
