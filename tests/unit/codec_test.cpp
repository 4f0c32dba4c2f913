// base64, quoted-printable, encoded words, RFC 2231.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "base64_kernel.h"
#include "fake_memory.h"
#include "log_capture.h"
#include "quorvelmida/taveml.h"
#include "utl_os.h"

namespace {

using namespace quorvelmida;
using util = tav_eml_mlutl_mime_utility;

// The result of a codec as a text; "(failed)" when it failed, with its outputs checked.
template <typename Codec>
std::string run(Codec&& codec) {
  char* out = reinterpret_cast<char*>(1);
  long length = 77;
  if (codec(out, length) == 0) {
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(length, 0);
    return "(failed)";
  }
  const std::string text(out, static_cast<size_t>(length));
  UtlOS::MemFree(out);
  return text;
}

long size_of(const std::string& text) { return static_cast<long>(text.size()); }

std::string from_b64(const std::string& in) {
  return run([&](char*& out, long& length) {
    void* data = out;
    const int result = util::from_b64(in.data(), size_of(in), data, length);
    out = static_cast<char*>(data);
    return result;
  });
}

std::string from_qp(const std::string& in) {
  return run([&](char*& out, long& length) {
    void* data = out;
    const int result = util::from_qp(in.data(), size_of(in), data, length);
    out = static_cast<char*>(data);
    return result;
  });
}

std::string to_b64(const std::string& in, int line) {
  return run([&](char*& out, long& length) {
    return util::to_b64(in.data(), size_of(in), out, length, line);
  });
}

std::string words(const std::string& in, TAV_EML_CHAR_SET set, int max_line) {
  return run([&](char*& out, long& length) {
    return util::ToMimeEncode(set, in.data(), size_of(in), out, length, max_line);
  });
}

std::string encode(const std::string& in, TAV_EML_CHAR_SET set = TAV_EML_CS_UTF_8) {
  return run([&](char*& out, long& length) {
    return util::inline_encode(in.data(), size_of(in), out, length, set);
  });
}

std::string decode(const std::string& in, TAV_EML_CHAR_SET& set) {
  return run([&](char*& out, long& length) {
    return util::inline_decode(in.data(), size_of(in), out, length, set, 0);
  });
}

TEST(Base64, decodes_leniently) {
  const struct {
    std::string in, out;
  } cases[] = {
      {"QUJD", "ABC"},
      {"QUI=", "AB"},
      {"QUI", "AB"},
      {"QQ==", "A"},
      {"Q", ""},
      {"", ""},
      {"QU\r\nJ D", "ABC"},
      {"Q=U=J=D", "ABC"},
      {"QQ==QQ==", "A\x04\x10"},
      {"\xff\x80-_", ""},
      {std::string("QUJD\0\0\0\0", 8), std::string("ABC\0\0\0", 6)},
      {"QUJDQ", "ABC"},
  };
  for (const auto& test : cases) EXPECT_EQ(from_b64(test.in), test.out) << test.in;
  EXPECT_EQ(util::Base64Seed2Index('\0'), 64);
  EXPECT_EQ(util::Base64Seed2Index('='), 255);
  EXPECT_EQ(util::Base64Seed2Index('/'), 63);
  EXPECT_EQ(util::Base64Seed2Index('\xff'), 255);
}

TEST(Base64, breaks_lines_between_groups) {
  const struct {
    size_t bytes;
    int line;
    size_t length, first_line;
  } cases[] = {{57, 76, 76, 76}, {58, 76, 82, 76}, {58, 78, 82, 76},
               {49, 64, 70, 64}, {48, 64, 64, 64}, {0, 64, 0, 0},
               {10, 3, 16, 16},  {10, -8, 16, 16}, {10, 4, 22, 4}};
  for (const auto& test : cases) {
    const std::string text = to_b64(std::string(test.bytes, 'x'), test.line);
    EXPECT_EQ(text.size(), test.length);
    EXPECT_EQ(std::min(text.find("\r\n"), text.size()), test.first_line);
    EXPECT_EQ(from_b64(text), std::string(test.bytes, 'x'));
  }
}

TEST(Base64, every_byte_survives) {
  std::string bytes;
  for (int i = 0; i < 1000; ++i) bytes += static_cast<char>(i * 7 + i / 256);
  for (size_t length = 0; length < 200; ++length) {
    EXPECT_EQ(from_b64(to_b64(bytes.substr(0, length), 64)), bytes.substr(0, length));
  }
  EXPECT_EQ(from_b64(to_b64(bytes, 0)), bytes);
}

// The decoder's result and the byte behind it.
std::string from_b64_and_behind(const char* in, size_t length) {
  void* data = nullptr;
  long count = -1;
  if (util::from_b64(in, static_cast<long>(length), data, count) == 0) return "(failed)";
  const std::string result(static_cast<char*>(data), static_cast<size_t>(count) + 1);
  UtlOS::MemFree(data);
  return result;
}

// The same, bit by bit. Behind the data stands NUL, or the bits of a single leftover character.
std::string plain_decode(const std::string& in) {
  std::string out(in.size() + 1, '\0');
  size_t characters = 0;
  for (const char c : in) {
    const int value = util::Base64Seed2Index(c);
    if (value == 255) continue;
    for (size_t bit = 0, at = 6 * characters; bit < 6; ++bit, ++at) {
      const int one = value >> (5 - bit) & 1;
      out[at / 8] = static_cast<char>(out[at / 8] | one << (7 - at % 8));
    }
    ++characters;
  }
  const size_t bytes = 6 * characters / 8;
  if (characters % 4 != 1) out[bytes] = '\0';
  return out.substr(0, bytes + 1);
}

std::string plain_encode(const std::string& in, size_t line) {
  std::string out;
  for (size_t i = 0, column = 0; i < in.size(); i += 3, column += 4) {
    unsigned int group = 0;
    for (size_t k = 0; k < 3; ++k) {
      group = group << 8 | (i + k < in.size() ? static_cast<unsigned char>(in[i + k]) : 0U);
    }
    if (line > 0 && column > 0 && column % line == 0) out += "\r\n";
    for (size_t k = 0; k < 4; ++k) {
      out += i + k <= in.size() ? util::pszBase64Seed[group >> (18 - 6 * k) & 63] : '=';
    }
  }
  return out;
}

// Base64 as it arrives: lines of some length, and now and then something that does not belong.
std::string random_text(std::mt19937& random, size_t length) {
  const size_t lines[] = {1000, 4, 60, 64, 76, 77};
  const size_t line = lines[random() % 6];
  const unsigned int foreign_one_in[] = {1000000, 100, 8};
  const unsigned int rarity = foreign_one_in[random() % 3];
  const std::string foreign("\r\n= \0\t\x80-", 8);
  std::string text;
  while (text.size() < length) {
    text += util::pszBase64Seed[random() % 64];
    if (random() % rarity == 0) text += foreign[random() % foreign.size()];
    if (random() % rarity == 0) text += static_cast<char>(random());
    if (text.size() % (line + 2) == line) text += "\r\n";
  }
  return text.substr(0, length);
}

// Checks with each kernel of this machine in turn.
template <typename Check>
void with_every_kernel(Check&& check) {
  for (const base64_kernel* kernel : base64_kernels()) {
    if (kernel == nullptr) continue;
    SCOPED_TRACE(kernel->name);
    choose_base64_kernel(kernel);
    check();
  }
  choose_base64_kernel(nullptr);
}

TEST(Base64, every_kernel_agrees_with_the_plain_definition) {
  with_every_kernel([] {
    std::mt19937 random(1);
    for (size_t length = 0; length <= 300; ++length) {
      for (size_t offset = 0; offset < 32; ++offset) {
        const std::string text = random_text(random, length);
        // The text ends where its block ends, so that a sanitizer sees a read behind it.
        const std::unique_ptr<char[]> block(new char[offset + length]);
        char* const start = block.get() + offset;
        std::copy(text.begin(), text.end(), start);
        ASSERT_EQ(from_b64_and_behind(start, length), plain_decode(text)) << text;
        const int line = static_cast<int>(random() % 25) * 4;
        const std::string encoded = run([&](char*& out, long& count) {
          return util::to_b64(start, static_cast<long>(length), out, count, line);
        });
        ASSERT_EQ(encoded, plain_encode(text, static_cast<size_t>(line))) << length;
      }
    }
  });
}

TEST(Base64, every_kernel_knows_every_character_at_every_place) {
  with_every_kernel([] {
    for (int c = 0; c < 256; ++c) {
      for (size_t place = 0; place < 64; ++place) {
        std::string text = util::pszBase64Seed;
        text[place] = static_cast<char>(c);
        ASSERT_EQ(from_b64_and_behind(text.data(), text.size()), plain_decode(text)) << text;
      }
    }
  });
}

TEST(Base64, only_a_single_leftover_character_stands_behind_the_data) {
  EXPECT_EQ(from_b64_and_behind("QUJD", 4), std::string("ABC\0", 4));
  EXPECT_EQ(from_b64_and_behind("Q", 1), "@");
  EXPECT_EQ(from_b64_and_behind("Q\r\n", 3), "@");
  EXPECT_EQ(from_b64_and_behind("QR==", 4), std::string("A\0", 2));
  EXPECT_EQ(from_b64_and_behind("QUK", 3), std::string("AB\0", 3));
}

TEST(QuotedPrintable, decodes_and_undoes_dot_stuffing) {
  const struct {
    const char* in;
    const char* out;
  } cases[] = {{"a=\r\nb", "ab"}, {"a=\nb", "ab"},
               {"a=\n\nb", "ab"}, {"=41=4a", "AJ"},
               {"=G1x", "x"},     {"x=4", "x"},
               {"x=", "x"},       {"\r\n..x", "\r\n.x"},
               {"..x", ".x"},     {"a..x", "a..x"},
               {"...", ".."},     {".x", ".x"},
               {"=\r", ""},       {"a\n.\n..b", "a\n.\n.b"}};
  for (const auto& test : cases) EXPECT_EQ(from_qp(test.in), test.out) << test.in;
}

TEST(QuotedPrintable, encodes_within_its_allocation_and_reports_its_sum) {
  char* out = nullptr;
  long length = 0;
  ASSERT_EQ(util::to_qb("a b", 3, out, length, 76), 1);
  EXPECT_STREQ(out, "a=20b=\r\n");
  EXPECT_EQ(length, 10);
  UtlOS::MemFree(out);
  for (const int line : {-1, 0, 1, 3, 76}) {
    const std::string text(500, '\xe9');
    ASSERT_EQ(util::to_qb(text.c_str(), size_of(text), out, length, line), 1);
    EXPECT_EQ(from_qp(out), text);
    UtlOS::MemFree(out);
  }
}

// Every word by itself: at most 75 characters, whole characters, and together the whole text.
TEST(EncodedWords, every_width_and_set_gives_words_that_stand_alone) {
  const std::string text = "日本語ｶﾞ漢字①and ASCII～語" + std::string(90, 'x') + "終";
  const std::regex word("=\\?[^?]+\\?B\\?([A-Za-z0-9+/=]*)\\?=");
  for (const auto set : {TAV_EML_CS_UTF_8, TAV_EML_CS_ISO_2022_JP, TAV_EML_CS_SHIFT_JIS}) {
    for (int max_line = 34; max_line <= 75; ++max_line) {
      const std::string encoded = words(text, set, max_line);
      std::string joined;
      for (std::sregex_iterator it(encoded.begin(), encoded.end(), word), end; it != end; ++it) {
        EXPECT_LE((*it)[0].length() + 2, max_line);
        std::string piece = from_b64((*it)[1]);
        char room[600];
        TAV_EML_ENCODED_STRING in = {set, piece.data(), static_cast<int32_t>(piece.size())};
        TAV_EML_ENCODED_STRING out = {TAV_EML_CS_UTF_8, room, sizeof room};
        int consumed = 0;
        ASSERT_EQ(tav_eml_mlutl_mail_type::convert_encoded_string(in, out, consumed), 0);
        joined.append(room, static_cast<size_t>(out.length));
      }
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
  EXPECT_EQ(encoded, "=?utf-8?B?" + to_b64(std::string(38, 'a'), 0) + "?=\r\n\t=?utf-8?B?" +
                         to_b64(std::string(38, 'a'), 0) + "?=\r\n\t=?utf-8?B?" +
                         to_b64(std::string(24, 'a'), 0) + "?=");
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

TEST(ExtendedValues, set_name_and_extension) {
  const struct {
    const char* value;
    const char* name;
    const char* extension;
  } cases[] = {
      {"utf-8''report%20no2.pdf;", "report no2.pdf", "pdf"},
      {" utf-8'en'.profile", ".profile", "old"},
      {"utf-8''%e6%97%A5.tar.gz; x=y", "\xe6\x97\xa5.tar.gz", "gz"},
      {"utf-8''a.", "a.", "old"},
      {"utf-8''a%", "a", "old"},
      {"utf-8''a%4", "a", "old"},
      {"utf-8''%;41", "", "old"},
      {"plain.txt", "plain.txt", "txt"},
      {"one'only.txt", "one'only.txt", "txt"},
      {"''", "", "old"},
      {"", "", "old"},
  };
  for (const auto& test : cases) {
    tav_eml_mlutl_mail_part part;
    part.m_cFileExtension = "old";
    std::string value = test.value;
    util::decode_and_set_escape_string(part, value.data());
    EXPECT_STREQ(part.m_cFIleName.GetString(), test.name) << test.value;
    EXPECT_STREQ(part.m_cFileExtension.GetString(), test.extension) << test.value;
  }
  tav_eml_mlutl_mail_part part;
  util::decode_and_set_escape_string(part, nullptr);
  EXPECT_EQ(part.m_cFIleName.GetString(), nullptr);
}

TEST(JisCodes, convert_to_shift_jis) {
  const struct {
    unsigned short jis, sjis;
  } cases[] = {{0x2422, 0x82A0}, {0x2121, 0x8140}, {0x2221, 0x819F},
               {0x2120, 0},      {0x227F + 1, 0},  {0x7426, 0xEAA4}};
  for (const auto& test : cases) EXPECT_EQ(util::CodeConvertJis2Sjis(test.jis), test.sjis);
}

// Each allocation failed in turn: outputs null and 0, nothing left allocated.
TEST(Codecs, survive_every_failed_allocation) {
  const std::string header = "A: b\r\nSubject: 日本語の長い件名、とても長い件名、まだ続く件名\r\n";
  const std::string value = "=?utf-8?B?QUJD?= =?utf-8?Q?DEF?= tail";
  TAV_EML_CHAR_SET set = TAV_EML_CS_NONE;
  const std::vector<std::function<std::string()>> operations = {
      [&] { return from_b64("QUJD"); },
      [&] { return to_b64("ABC", 64); },
      [&] { return from_qp("a=41"); },
      [&] { return words("日本語", TAV_EML_CS_ISO_2022_JP, 40); },
      [&] { return encode(header, TAV_EML_CS_ISO_2022_JP); },
      [&] { return decode(value, set); },
  };
  for (const auto& operation : operations) {
    const std::string expected = operation();
    tav_test::fake_memory memory;
    for (size_t n = 1; n < 1000; ++n) {
      memory.fail(n);
      const std::string result = operation();
      const bool has_failed = memory.failed();
      // A word that cannot be encoded or decoded stays as it is: that is no failure.
      if (!has_failed) {
        EXPECT_EQ(result, expected);
        break;
      }
    }
    memory.never_fail();
    EXPECT_TRUE(memory.clean());
  }
}

}  // namespace
