// base64, quoted-printable, RFC 2231.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <string>

#include "codec/base64_kernel.h"
#include "plain_base64.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using namespace tav_test;
using util = tav_eml_mlutl_mime_utility;

std::string from_qp(const std::string& in) {
  return result_of<void*>(
      [&](void*& out, long& length) { return util::from_qp(in.data(), size_of(in), out, length); });
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
  for (const auto& test : cases) EXPECT_EQ(from_base64(test.in), test.out) << test.in;
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
    const std::string text = to_base64(std::string(test.bytes, 'x'), test.line);
    EXPECT_EQ(text.size(), test.length);
    EXPECT_EQ(std::min(text.find("\r\n"), text.size()), test.first_line);
    EXPECT_EQ(from_base64(text), std::string(test.bytes, 'x'));
  }
}

TEST(Base64, every_byte_survives) {
  std::string bytes;
  for (int i = 0; i < 1000; ++i) bytes += static_cast<char>(i * 7 + i / 256);
  for (size_t length = 0; length < 200; ++length) {
    EXPECT_EQ(from_base64(to_base64(bytes.substr(0, length), 64)), bytes.substr(0, length));
  }
  EXPECT_EQ(from_base64(to_base64(bytes, 0)), bytes);
}

// The decoder's result and the byte behind it.
std::string decoded_and_behind(const char* in, size_t length) {
  void* data = nullptr;
  long count = -1;
  if (util::from_b64(in, static_cast<long>(length), data, count) == 0) return "(failed)";
  const std::string result(static_cast<char*>(data), static_cast<size_t>(count) + 1);
  UtlOS::MemFree(data);
  return result;
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
        ASSERT_EQ(decoded_and_behind(start, length), plain_decode(text)) << text;
        const int line = static_cast<int>(random() % 25) * 4;
        const std::string encoded = result_of([&](char*& out, long& count) {
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
        ASSERT_EQ(decoded_and_behind(text.data(), text.size()), plain_decode(text)) << text;
      }
    }
  });
}

TEST(Base64, only_a_single_leftover_character_stands_behind_the_data) {
  EXPECT_EQ(decoded_and_behind("QUJD", 4), std::string("ABC\0", 4));
  EXPECT_EQ(decoded_and_behind("Q", 1), "@");
  EXPECT_EQ(decoded_and_behind("Q\r\n", 3), "@");
  EXPECT_EQ(decoded_and_behind("QR==", 4), std::string("A\0", 2));
  EXPECT_EQ(decoded_and_behind("QUK", 3), std::string("AB\0", 3));
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

TEST(ExtendedValues, end_with_their_text_whatever_the_length_says) {
  for (const char* text : {"a", "%4", "%41", ""}) {
    const std::unique_ptr<char[]> source(new char[std::strlen(text) + 1]);
    std::strcpy(source.get(), text);
    char out[8] = "";
    util::escape_string_decode(source.get(), 5, out);
    EXPECT_STREQ(out, *text == 'a' ? "a" : std::strcmp(text, "%41") == 0 ? "A" : "");
  }
}

TEST(JisCodes, convert_to_shift_jis) {
  const struct {
    unsigned short jis, sjis;
  } cases[] = {{0x2422, 0x82A0}, {0x2121, 0x8140}, {0x2221, 0x819F},
               {0x2120, 0},      {0x227F + 1, 0},  {0x7426, 0xEAA4}};
  for (const auto& test : cases) EXPECT_EQ(util::CodeConvertJis2Sjis(test.jis), test.sjis);
}

}  // namespace
