// Encoded words in a header: lines with little room left, and a converter that throws.

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>

#include "chc.h"
#include "log_capture.h"
#include "quorvelmida/taveml.h"
#include "utl_os.h"

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
using util = tav_eml_mlutl_mime_utility;

std::string taken(char* block, long length) {
  const std::string text(block, static_cast<size_t>(length));
  UtlOS::MemFree(block);
  return text;
}

std::string inline_encoded(const std::string& header, TAV_EML_CHAR_SET set) {
  char* out = nullptr;
  long length = 0;
  EXPECT_EQ(util::inline_encode(header.data(), static_cast<long>(header.size()), out, length, set),
            1);
  return taken(out, length);
}

// The text of a base64 word in UTF-8.
std::string word_text(const std::string& base64, TAV_EML_CHAR_SET set) {
  void* data = nullptr;
  long length = 0;
  EXPECT_EQ(util::from_b64(base64.data(), static_cast<long>(base64.size()), data, length), 1);
  std::string bytes = taken(static_cast<char*>(data), length);
  char room[400];
  TAV_EML_ENCODED_STRING in = {set, bytes.data(), static_cast<int32_t>(bytes.size())};
  TAV_EML_ENCODED_STRING out = {TAV_EML_CS_UTF_8, room, sizeof room};
  int consumed = 0;
  EXPECT_EQ(tav_eml_mlutl_mail_type::convert_encoded_string(in, out, consumed), 0) << base64;
  EXPECT_EQ(consumed, in.length) << base64;
  return {room, static_cast<size_t>(out.length)};
}

TEST(EncodedHeader, a_thrown_mail_exception_ends_the_header_it_was_thrown_in) {
  const std::string header = "From: a@b\r\nSubject: 件名\r\n";
  const tav_test::log_capture log;
  char* out = nullptr;
  long length = 0;
  converter_throws = true;
  EXPECT_EQ(util::inline_encode(header.data(), static_cast<long>(header.size()), out, length,
                                TAV_EML_CS_SHIFT_JIS),
            0);
  EXPECT_EQ(util::ToMimeEncode(TAV_EML_CS_SHIFT_JIS, "件", 3, out, length, 75), 0);
  converter_throws = false;
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(log.count("<Error> : tav_eml_mlutl_mime_utility::inline_encode() no converter"), 1u);
  EXPECT_EQ(log.count("no converter"), 2u);
}

TEST(EncodedHeader, has_no_raw_text_however_far_to_the_right_it_begins) {
  const std::regex word("=\\?[^?]+\\?B\\?([A-Za-z0-9+/=]+)\\?=");
  for (const auto set : {TAV_EML_CS_UTF_8, TAV_EML_CS_ISO_2022_JP, TAV_EML_CS_SHIFT_JIS}) {
    for (const std::string text : {"件", "件名", "日本語の件名です"}) {
      for (size_t column = 40; column <= 80; ++column) {
        // A subject whose second line begins with ASCII text without a blank.
        const std::string front =
            "From: a@b\r\nSubject: x\r\n\t" + std::string(column - 2, 'a') + " ";
        const std::string encoded = inline_encoded(front + text + "\r\nTo: c@d\r\n", set);
        EXPECT_EQ(encoded.compare(0, front.size(), front), 0);
        EXPECT_EQ(encoded.substr(encoded.size() - 11), "\r\nTo: c@d\r\n");
        ASSERT_TRUE(std::all_of(encoded.begin(), encoded.end(),
                                [](char ch) { return static_cast<unsigned char>(ch) < 0x80; }))
            << column << encoded;
        std::string joined;
        for (std::sregex_iterator it(encoded.begin(), encoded.end(), word), end; it != end; ++it) {
          joined += word_text((*it)[1], set);
        }
        ASSERT_EQ(joined, text) << column;
      }
    }
  }
}

}  // namespace
