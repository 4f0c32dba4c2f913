// Encoded words (RFC 2047): by themselves, in a whole header, and with a converter that throws.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "chc.h"
#include "fake_memory.h"
#include "log_capture.h"
#include "values.h"

namespace {

bool converter_throws = false;

}  // namespace

extern "C" {
int32_t __real_chc_convert_encode(CHC_ENCODE_TYPE, CHC_ENCODE_TYPE, CHC_CONVERT_REQUEST*);

int32_t __wrap_chc_convert_encode(CHC_ENCODE_TYPE from, CHC_ENCODE_TYPE to,
                                  CHC_CONVERT_REQUEST* request) {
  if (converter_throws) throw new quorvelmida::tav_eml_mlutl_mail_exception("no converter");
  return __real_chc_convert_encode(from, to, request);
}
}

namespace {

using namespace quorvelmida;
using namespace tav_test;
using util = tav_eml_mlutl_mime_utility;

std::string words(const std::string& in, TAV_EML_CHAR_SET set, int max_line) {
  return result_of([&](char*& out, long& length) {
    return util::ToMimeEncode(set, in.data(), size_of(in), out, length, max_line);
  });
}

std::string encode(const std::string& in, TAV_EML_CHAR_SET set = TAV_EML_CS_UTF_8) {
  return result_of([&](char*& out, long& length) {
    return util::inline_encode(in.data(), size_of(in), out, length, set);
  });
}

std::string decode(const std::string& in, TAV_EML_CHAR_SET& set) {
  return result_of([&](char*& out, long& length) {
    return util::inline_decode(in.data(), size_of(in), out, length, set, 0);
  });
}

// What the base64 words of a header say in UTF-8. Each must be valid by itself.
std::string words_text(const std::string& header, TAV_EML_CHAR_SET set, int max_line) {
  const std::regex word("=\\?[^?]+\\?B\\?([A-Za-z0-9+/=]*)\\?=");
  std::string joined;
  for (std::sregex_iterator it(header.begin(), header.end(), word), end; it != end; ++it) {
    EXPECT_LE((*it)[0].length() + 2, max_line) << header;
    joined += to_utf8(set, from_base64((*it)[1])).value_or("(invalid)");
  }
  return joined;
}

// Every word by itself, and together the whole text.
TEST(EncodedWords, every_width_and_set_gives_words_that_stand_alone) {
  const std::string text = "日本語ｶﾞ漢字①and ASCII～語" + std::string(90, 'x') + "終";
  for (const auto set : {TAV_EML_CS_UTF_8, TAV_EML_CS_ISO_2022_JP, TAV_EML_CS_SHIFT_JIS}) {
    for (int max_line = 34; max_line <= 75; ++max_line) {
      const std::string joined = words_text(words(text, set, max_line), set, max_line);
      const std::string expected =
          set == TAV_EML_CS_ISO_2022_JP ? std::regex_replace(text, std::regex("ｶﾞ"), "ガ") : text;
      // A word may end between a kana and its sound mark: both stay readable.
      EXPECT_EQ(std::regex_replace(joined, std::regex("カ゛"), "ガ"), expected) << max_line;
    }
  }
}

TEST(EncodedWords, keeps_to_its_rules_at_the_edges) {
  // The character that touches the last byte of a word goes into the next one.
  const std::string encoded = words(std::string(100, 'a'), TAV_EML_CS_UTF_8, 66);
  EXPECT_EQ(encoded, "=?utf-8?B?" + to_base64(std::string(38, 'a'), 0) + "?=\r\n\t=?utf-8?B?" +
                         to_base64(std::string(38, 'a'), 0) + "?=\r\n\t=?utf-8?B?" +
                         to_base64(std::string(24, 'a'), 0) + "?=");
  EXPECT_EQ(words("", TAV_EML_CS_UTF_8, 66), "=?utf-8?B?\?=");
  EXPECT_EQ(words("a", TAV_EML_CS_UNKNOWN, 66), "(failed)");
  // No room to fold: one word, and what does not fit it is dropped.
  EXPECT_EQ(words("あ", TAV_EML_CS_UTF_8, 10), "=?utf-8?B?44GC?=");
  EXPECT_EQ(words("あ", TAV_EML_CS_ISO_2022_JP, 10), "(failed)");
  // Room for no character: a failure and not an endless loop.
  EXPECT_EQ(words("あ", TAV_EML_CS_ISO_2022_JP, 24), "(failed)");
  EXPECT_EQ(words(std::string(20, '\x80'), TAV_EML_CS_UTF_8, 18), "(failed)");
  EXPECT_EQ(words("😀", TAV_EML_CS_SHIFT_JIS, 66), "(failed)");
}

TEST(EncodedWords, encodes_what_needs_it_in_a_header) {
  const struct {
    const char* in;
    const char* out;
  } cases[] = {
      {"From: a\r\nSubject: x\r\n", "From: a\r\nSubject: x\r\n"},
      {"A: b\r\nSubject: あ い\r\nB: c\r\n",
       "A: b\r\nSubject: =?utf-8?B?44GCIOOBhA==?=\r\nB: c\r\n"},
      {"A: b\r\nTo: あ <a@b>\r\n", "A: b\r\nTo: =?utf-8?B?44GCIA==?=<a@b>\r\n"},
      {"A: b\r\n\tname=\"あ\"\r\n", "A: b\r\n\tname=\"=?utf-8?B?44GC?=\"\r\n"},
      {"A: b\r\n\tname=\"あ\";\r\n", "A: b\r\n\tname=\"=?utf-8?B?44GCIjs=?=\r\n"},
      {"A: b\r\nX: あ", "A: b\r\nX: =?utf-8?B?44GC?="},
      {"Subject: あ\r\n", "(failed)"},            // no line before it
      {"A: b\r\nあ: c\r\n", "(failed)"},          // no blank before it
      {"A: b\r\nTo: あ\r\n", "(failed)"},         // no address
      {"A: b\r\nTo: あ <あ@b>\r\n", "(failed)"},  // not only the name
      {"A: b\r\nX: \"\r\nY: あ\r\n", "A: b\r\nX: \"\r\nY: =?utf-8?B?44GC?=\r\n"},
      {"", ""},
  };
  for (const auto& test : cases) EXPECT_EQ(encode(test.in), test.out) << test.in;
  // What the set lacks stays as it is.
  EXPECT_EQ(encode("A: b\r\nX: 😀\r\n", TAV_EML_CS_SHIFT_JIS), "A: b\r\nX: 😀\r\n");
}

TEST(EncodedWords, decodes_every_word_of_a_value) {
  const struct {
    std::string in, out;
    TAV_EML_CHAR_SET set;
  } cases[] = {
      {"=?utf-8?B?QUJD?= =?utf-8?Q?DEF?=", "ABC DEF", TAV_EML_CS_UTF_8},
      {"Hello", "Hello", TAV_EML_CS_NONE},
      {"Hello world", "Hello world", TAV_EML_CS_NONE},
      {"=?utf-8?X?abc?=", "=?utf-8?X?abc?=", TAV_EML_CS_NONE},
      {"a =?SHIFT_JIS?b?QQ==?= b", "a A b", TAV_EML_CS_SHIFT_JIS},
      {"=?x?q?=41?=", "A", TAV_EML_CS_UNKNOWN},
      {"=?utf-8?B?\?=", "", TAV_EML_CS_UTF_8},
      {"=?utf-8?Q?=?=", "", TAV_EML_CS_UTF_8},
      {"=?utf-8?B?QQ==", "=?utf-8?B?QQ==", TAV_EML_CS_NONE},
      {"=?a?=?B?QQ?= x ?Q?", "=?a?=?B?QQ?= x ?Q?", TAV_EML_CS_NONE},
      {"=?", "=?", TAV_EML_CS_NONE},
      {"?\?=?=?=?", "?\?=?=?=?", TAV_EML_CS_NONE},
      {"=?a?b =?utf-8?B?QQ==?=", "=?a?b =?utf-8?B?QQ==?=", TAV_EML_CS_NONE},
  };
  for (const auto& test : cases) {
    TAV_EML_CHAR_SET set = TAV_EML_CS_NONE;
    const std::string decoded = decode(test.in, set);
    if (test.in.find("=?a?") == 0) continue;  // any definite result will do
    EXPECT_EQ(decoded, test.out) << test.in;
    EXPECT_EQ(set, test.set) << test.in;
  }
}

// Each allocation failed in turn, by a null pointer and by an exception: outputs null and 0,
// nothing left allocated, and the exception logged under the operation's own name.
TEST(Codecs, survive_every_failed_allocation) {
  const std::string header = "A: b\r\nSubject: 日本語の長い件名、とても長い件名、まだ続く件名\r\n";
  const std::string value = "=?utf-8?B?QUJD?= =?utf-8?Q?DEF?= tail";
  TAV_EML_CHAR_SET set = TAV_EML_CS_NONE;
  tav_eml_mlutl_mail_part part;
  part.m_nContentType = TAV_EML_CT_APPLICATION_PDF;
  const struct {
    const char* message;
    std::function<std::string()> operation;
  } cases[] = {
      {"mime_utility::from_b64() thrown", [&] { return from_base64("QUJD"); }},
      {"mime_utility::to_b64() thrown", [&] { return to_base64("ABC", 64); }},
      {"mime_utility::from_qp() thrown",
       [&] {
         return result_of<void*>(
             [](void*& out, long& length) { return util::from_qp("a=41", 4, out, length); });
       }},
      {"thrown", [&] { return words("日本語", TAV_EML_CS_ISO_2022_JP, 40); }},
      {"mime_utility::inline_encode() thrown",
       [&] { return encode(header, TAV_EML_CS_ISO_2022_JP); }},
      {"mime_utility::inline_decode() thrown", [&] { return decode(value, set); }},
      {"mail_part::make_header() thrown",
       [&] {
         return result_of([&](char*& out, long& length) { return part.make_header(out, length); });
       }},
      {"mail_part::MakeMultiLine() thrown",
       [&] {
         const std::unique_ptr<char, decltype(&UtlOS::MemFree)> made(
             part.MakeMultiLine(repeated("x", 70).c_str()), &UtlOS::MemFree);
         return std::string(made != nullptr ? made.get() : "(failed)");
       }},
  };
  for (const auto& [message, operation] : cases) {
    const std::string expected = operation();
    for (const bool throws : {false, true}) {
      fake_memory memory;
      if (throws) memory.fail_by([] { throw new tav_eml_mlutl_mail_exception("thrown"); });
      bool has_failed = true;
      for (size_t n = 1; has_failed; ++n) {
        ASSERT_LT(n, 1000u);
        const log_capture log;
        memory.fail(n);
        const std::string result = operation();
        has_failed = memory.failed();
        // A word that cannot be encoded or decoded stays as it is: that is not a failure.
        EXPECT_EQ(result.find("left something"), std::string::npos);
        EXPECT_TRUE(!throws || n > 1 || log.contains(message)) << message << log.all();
        EXPECT_TRUE(has_failed || result == expected) << result;
      }
      memory.never_fail();
      EXPECT_TRUE(memory.clean());
    }
  }
}

TEST(EncodedHeader, a_thrown_mail_exception_ends_the_header_it_was_thrown_in) {
  const std::string header = "From: a@b\r\nSubject: 件名\r\n";
  const log_capture log;
  converter_throws = true;
  EXPECT_EQ(encode(header, TAV_EML_CS_SHIFT_JIS), "(failed)");
  EXPECT_EQ(words("件", TAV_EML_CS_SHIFT_JIS, 75), "(failed)");
  converter_throws = false;
  EXPECT_EQ(log.count("<Error> : tav_eml_mlutl_mime_utility::inline_encode() no converter"), 1u);
  EXPECT_EQ(log.count("no converter"), 2u);
}

TEST(EncodedHeader, an_exception_of_the_converter_stays_inside) {
  char text[] = "件", room[8] = "before";
  const TAV_EML_ENCODED_STRING in = {TAV_EML_CS_UTF_8, text, 3};
  TAV_EML_ENCODED_STRING out = {TAV_EML_CS_SHIFT_JIS, room, 8};
  int consumed = 7;
  const log_capture log;
  converter_throws = true;
  EXPECT_EQ(tav_eml_mlutl_mail_type::convert_encoded_string(in, out, consumed), -1);
  converter_throws = false;
  EXPECT_TRUE(log.contains("no converter"));
  EXPECT_EQ(out.length * 10 + consumed, 87);
}

TEST(EncodedWords, extremes_of_length_take_no_more_memory_than_the_text) {
  fake_memory memory;
  EXPECT_EQ(words("abc", TAV_EML_CS_UTF_8, INT_MAX), "=?utf-8?B?YWJj?=");
  EXPECT_LT(memory.peak_bytes(), 1000u);
  EXPECT_EQ(words("abc", TAV_EML_CS_UTF_8, INT_MIN), "=?utf-8?B?YWJj?=");
  EXPECT_EQ(result_of([](char*& out, long& length) {
              return util::ToMimeEncode(TAV_EML_CS_UTF_8, "abc", LONG_MAX, out, length, 75);
            }),
            "(failed)");
}

TEST(EncodedHeader, has_no_raw_text_however_far_to_the_right_it_begins) {
  for (const auto set : {TAV_EML_CS_UTF_8, TAV_EML_CS_ISO_2022_JP, TAV_EML_CS_SHIFT_JIS}) {
    for (const std::string text : {"件", "件名", "日本語の件名です"}) {
      for (size_t column = 40; column <= 80; ++column) {
        // A subject whose second line begins with ASCII text without a blank.
        const std::string front =
            "From: a@b\r\nSubject: x\r\n\t" + std::string(column - 2, 'a') + " ";
        const std::string encoded = encode(front + text + "\r\nTo: c@d\r\n", set);
        EXPECT_EQ(encoded.compare(0, front.size(), front), 0);
        EXPECT_EQ(encoded.substr(encoded.size() - 11), "\r\nTo: c@d\r\n");
        ASSERT_TRUE(std::all_of(encoded.begin(), encoded.end(),
                                [](char ch) { return static_cast<unsigned char>(ch) < 0x80; }))
            << column << encoded;
        ASSERT_EQ(words_text(encoded, set, 77), text) << column;
      }
    }
  }
}

}  // namespace
