#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "chc.h"

namespace {

struct conversion {
  int32_t result;
  int32_t consumed;
  std::string text;
};

conversion convert(CHC_ENCODE_TYPE from, CHC_ENCODE_TYPE to, const std::string& source,
                   int32_t capacity = 4000) {
  std::string room(static_cast<size_t>(capacity) + 8, '#');
  CHC_CONVERT_REQUEST request{};
  request.source = source.c_str();
  request.destination = room.data();
  request.capacity = capacity;
  const int32_t result = chc_convert_encode(from, to, &request);
  EXPECT_EQ(room.substr(static_cast<size_t>(capacity)), "########") << "wrote past the capacity";
  if (result != CHC_OK) return {result, 0, {}};
  return {result, request.consumed, room.substr(0, static_cast<size_t>(request.produced))};
}

TEST(ConverterContract, converts_what_japanese_mail_has) {
  const struct {
    CHC_ENCODE_TYPE to;
    const char* utf8;
    const char* expected;
  } cases[] = {
      {CHC_ISO_2022_JP, "a日本b", "a\033$BF|K\\\033(Bb"},
      {CHC_ISO_2022_JP, "①㈱～", "\033$B-!-j!A\033(B"},
      {CHC_ISO_2022_JP, "〜−", "\033$B!A!]\033(B"},              // the other mapping of the same
      {CHC_ISO_2022_JP, "ｶﾞｱﾊﾟｳﾞﾞ", "\033$B%,%\"%Q%t!+\033(B"},  // joined sound marks
      {CHC_ISO_2022_JP, "髙﨑", "\033$B|byu\033(B"},             // repeated rows, not IBM's own
      {CHC_X_JIS, "ｱ1亜", "\033(I1\033(B1\033$B0!\033(B"},
      {CHC_SHIFT_JIS, "ｱ表①髙", "\xb1\x95\x5c\x87\x40\xfb\xfc"},
      {CHC_MS_KANJI, "ソ~\\", "\x83\x5c~\\"},
      {CHC_ISO_8859_1, "é", "\xe9"},
      {CHC_ISO_8859_2, "ő", "\xf5"},
      {CHC_US_ASCII, "plain", "plain"},
  };
  for (const auto& test : cases) {
    const conversion forth = convert(CHC_UTF_8, test.to, test.utf8);
    EXPECT_EQ(forth.result, CHC_OK) << test.utf8;
    EXPECT_EQ(forth.text, test.expected) << test.utf8;
    EXPECT_EQ(convert(test.to, CHC_UTF_8, forth.text).result, CHC_OK) << test.utf8;
  }
  EXPECT_EQ(convert(CHC_ISO_2022_JP, CHC_UTF_8, "\033(J\\\033(I1\033$@0!\033(B").text, "¥ｱ亜");
}

TEST(ConverterContract, refuses_what_is_not_valid_or_not_there) {
  const struct {
    CHC_ENCODE_TYPE from;
    CHC_ENCODE_TYPE to;
    const char* source;
    int32_t expected;
  } cases[] = {
      {CHC_UTF_8, CHC_UTF_8, "\xc0\x80", CHC_ERR_SOURCE},
      {CHC_UTF_8, CHC_UTF_8, "\xed\xa0\x80", CHC_ERR_SOURCE},
      {CHC_UTF_8, CHC_UTF_8, "\xf4\x90\x80\x80", CHC_ERR_SOURCE},
      {CHC_UTF_8, CHC_UTF_8, "\xe6\x97", CHC_ERR_SOURCE},
      {CHC_SHIFT_JIS, CHC_UTF_8, "\x83", CHC_ERR_SOURCE},
      {CHC_SHIFT_JIS, CHC_UTF_8, "\xff", CHC_ERR_SOURCE},
      {CHC_ISO_2022_JP, CHC_UTF_8, "\033$B0", CHC_ERR_SOURCE},
      {CHC_ISO_2022_JP, CHC_UTF_8, "\033$Z00", CHC_ERR_SOURCE},
      {CHC_ISO_2022_JP, CHC_UTF_8, "\x80", CHC_ERR_SOURCE},
      {CHC_UTF_8, CHC_ISO_2022_JP, "😀", CHC_ERR_NOT_CONVERTIBLE},
      {CHC_UTF_8, CHC_ISO_2022_JP, "\033$B", CHC_ERR_NOT_CONVERTIBLE},
      {CHC_UTF_8, CHC_US_ASCII, "é", CHC_ERR_NOT_CONVERTIBLE},
      {CHC_UTF_8, static_cast<CHC_ENCODE_TYPE>(9), "a", CHC_ERR_PARAM},
      {static_cast<CHC_ENCODE_TYPE>(-1), CHC_UTF_8, "a", CHC_ERR_PARAM},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(convert(test.from, test.to, test.source).result, test.expected) << test.source;
  }
  EXPECT_EQ(chc_convert_encode(CHC_UTF_8, CHC_UTF_8, nullptr), CHC_ERR_PARAM);
}

// For every capacity: never more than it, the longest prefix of whole characters, each piece
// decodable by itself, and all pieces together the whole text.
TEST(ConverterContract, every_capacity_gives_whole_characters_that_join) {
  const std::vector<std::string> texts = {"日a本bc語", "ｶﾞｱﾊﾟ①x", "abc", "あいうえお", "", "é日ű"};
  for (const CHC_ENCODE_TYPE to :
       {CHC_ISO_2022_JP, CHC_X_JIS, CHC_SHIFT_JIS, CHC_MS_KANJI, CHC_UTF_8}) {
    for (const std::string& text : texts) {
      const conversion whole = convert(CHC_UTF_8, to, text);
      if (whole.result != CHC_OK) continue;
      const std::string expected = convert(to, CHC_UTF_8, whole.text).text;
      int32_t last_consumed = 0;
      for (int32_t capacity = 0; capacity <= static_cast<int32_t>(whole.text.size()) + 3;
           ++capacity) {
        const conversion first = convert(CHC_UTF_8, to, text, capacity);
        EXPECT_GE(first.consumed, last_consumed) << "a larger room took less";
        last_consumed = first.consumed;
        std::string joined;
        std::string rest = text;
        while (!rest.empty()) {
          const conversion piece = convert(CHC_UTF_8, to, rest, capacity);
          ASSERT_EQ(piece.result, CHC_OK);
          EXPECT_LE(static_cast<int32_t>(piece.text.size()), capacity);
          if (piece.consumed == 0) break;
          joined += convert(to, CHC_UTF_8, piece.text).text;
          rest.erase(0, static_cast<size_t>(piece.consumed));
        }
        if (rest.empty()) {
          EXPECT_EQ(joined, expected) << capacity;
        }
      }
      EXPECT_EQ(last_consumed, static_cast<int32_t>(text.size()));
      // Exactly the room that the whole text needs is enough.
      EXPECT_EQ(convert(CHC_UTF_8, to, text, static_cast<int32_t>(whole.text.size())).consumed,
                static_cast<int32_t>(text.size()));
    }
  }
}

}  // namespace
