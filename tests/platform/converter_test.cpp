#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

#include "chc.h"

namespace {

struct conversion {
  int32_t result;
  size_t consumed;
  std::string text;
};

conversion convert(CHC_ENCODE_TYPE from, CHC_ENCODE_TYPE to, const std::string& source,
                   size_t capacity = 4000) {
  std::string room(capacity + 8, '#');
  CHC_CONVERT_REQUEST request{source.c_str(), room.data(), 0, static_cast<int32_t>(capacity), 0, 0};
  const int32_t result = chc_convert_encode(from, to, &request);
  EXPECT_EQ(room.substr(capacity), "########") << "wrote past the capacity";
  if (result != CHC_OK) return {result, 0, {}};
  room.resize(static_cast<size_t>(request.produced));
  return {result, static_cast<size_t>(request.consumed), room};
}

TEST(ConverterContract,
     converts_what_japanese_mail_has_and_refuses_what_is_not_valid_or_not_there) {
  const struct {
    CHC_ENCODE_TYPE from, to;
    const char* source;
    const char* expected;
    int32_t result = CHC_OK;
  } cases[] = {
      {CHC_UTF_8, CHC_ISO_2022_JP, "a日本b", "a\033$BF|K\\\033(Bb"},
      {CHC_UTF_8, CHC_ISO_2022_JP, "①㈱～", "\033$B-!-j!A\033(B"},
      // Written for both of their characters.
      {CHC_UTF_8, CHC_ISO_2022_JP, "〜−‖¢£¬—¦¥‾", "\033$B!A!]!B!q!r\"L!=||!o!1\033(B"},
      {CHC_UTF_8, CHC_ISO_2022_JP, "～－∥￠￡￢―￤￥￣", "\033$B!A!]!B!q!r\"L!=||!o!1\033(B"},
      {CHC_UTF_8, CHC_ISO_2022_JP, "ｶﾞｱﾊﾟｳﾞﾞ", "\033$B%,%\"%Q%t!+\033(B"},  // joined sound marks
      // Of several codes one is written; IBM's own rows have no place in JIS.
      {CHC_UTF_8, CHC_ISO_2022_JP, "∵ⅰ¬髙﨑", "\033$B\"h|q\"L|byu\033(B"},
      {CHC_UTF_8, CHC_SHIFT_JIS, "∵㈱ⅰ¬髙", "\x81\xe6\x87\x8a\xfa\x40\x81\xca\xfb\xfc"},
      {CHC_MS_KANJI, CHC_UTF_8, "\xfa\x58\xee\xef\x81\x60", "㈱ⅰ～"},
      {CHC_UTF_8, CHC_MS_KANJI, "\ue000\ue757", "\xf0\x40\xf9\xfc"},
      {CHC_UTF_8, CHC_ISO_2022_JP, "\ue000", "", CHC_ERR_NOT_CONVERTIBLE},
      {CHC_UTF_8, CHC_X_JIS, "ｱ1亜", "\033(I1\033(B1\033$B0!\033(B"},
      {CHC_UTF_8, CHC_SHIFT_JIS, "ｱ表①髙", "\xb1\x95\x5c\x87\x40\xfb\xfc"},
      {CHC_UTF_8, CHC_MS_KANJI, "ソ~\\", "\x83\x5c~\\"},
      {CHC_UTF_8, CHC_ISO_8859_1, "é", "\xe9"},
      {CHC_UTF_8, CHC_ISO_8859_2, "ő", "\xf5"},
      {CHC_UTF_8, CHC_US_ASCII, "plain", "plain"},
      {CHC_ISO_2022_JP, CHC_UTF_8, "\033(J\\\033(I1\033$@0!\033$(D0!\033(B", "¥ｱ亜丂"},
      {CHC_X_JIS, CHC_UTF_8, "\033(J\\\033(I1\033$B0!\n0!", "¥ｱ亜\n0!"},
      {CHC_UTF_8, CHC_UTF_8, "\xc0\xaf", "", CHC_ERR_SOURCE},
      {CHC_UTF_8, CHC_UTF_8, "\xe0\x80\xaf", "", CHC_ERR_SOURCE},
      {CHC_UTF_8, CHC_UTF_8, "\xed\xa0\x80", "", CHC_ERR_SOURCE},
      {CHC_UTF_8, CHC_UTF_8, "\xf4\x90\x80\x80", "", CHC_ERR_SOURCE},
      {CHC_UTF_8, CHC_UTF_8, "\xe6\x97", "", CHC_ERR_SOURCE},
      {CHC_SHIFT_JIS, CHC_UTF_8, "\x83", "", CHC_ERR_SOURCE},
      {CHC_SHIFT_JIS, CHC_UTF_8, "\xff", "", CHC_ERR_SOURCE},
      {CHC_ISO_2022_JP, CHC_UTF_8, "\033$B0", "", CHC_ERR_SOURCE},
      {CHC_ISO_2022_JP, CHC_UTF_8, "\033$Z00", "", CHC_ERR_SOURCE},
      {CHC_ISO_2022_JP, CHC_UTF_8, "\x80", "", CHC_ERR_SOURCE},
      {CHC_UTF_8, CHC_ISO_2022_JP, "😀", "", CHC_ERR_NOT_CONVERTIBLE},
      {CHC_UTF_8, CHC_ISO_2022_JP, "\033$B", "", CHC_ERR_NOT_CONVERTIBLE},
      {CHC_UTF_8, CHC_US_ASCII, "é", "", CHC_ERR_NOT_CONVERTIBLE},
      {CHC_UTF_8, static_cast<CHC_ENCODE_TYPE>(9), "a", "", CHC_ERR_PARAM},
      {static_cast<CHC_ENCODE_TYPE>(-1), CHC_UTF_8, "a", "", CHC_ERR_PARAM},
  };
  for (const auto& test : cases) {
    const conversion made = convert(test.from, test.to, test.source);
    EXPECT_EQ(made.result, test.result) << test.source;
    EXPECT_EQ(made.text, test.expected) << test.source;
    if (test.result != CHC_OK || test.from != CHC_UTF_8) continue;
    EXPECT_EQ(convert(test.to, CHC_UTF_8, made.text).result, CHC_OK) << test.source;
  }
  EXPECT_EQ(chc_convert_encode(CHC_UTF_8, CHC_UTF_8, nullptr), CHC_ERR_PARAM);
}

// With each capacity that prefix whose conversion fits: the pieces are what must not be cut.
TEST(ConverterContract, every_capacity_gives_the_longest_prefix_of_whole_characters) {
  const struct {
    CHC_ENCODE_TYPE from;
    std::vector<std::string> pieces;
  } texts[] = {
      {CHC_UTF_8, {"日", "a", "本", "b", "c", "語"}},
      {CHC_UTF_8, {"ｶ", "ﾞ", "ｱ", "ﾊ", "ﾟ", "①", "x"}},
      {CHC_UTF_8, {}},
      {CHC_SHIFT_JIS, {"\x88\x9f", "b", "\xb1", "\x87\x40"}},
      {CHC_ISO_2022_JP, {"b", "\033$B0!\033(B", "c", "\033$B0!0!\033(B", "d"}},
      {CHC_X_JIS, {"\033(J\\\033(I1\033(B", "a", "\033$@0!\n", "b"}},
  };
  for (const auto& [from, pieces] : texts) {
    for (const auto to : {CHC_ISO_2022_JP, CHC_X_JIS, CHC_SHIFT_JIS, CHC_MS_KANJI, CHC_UTF_8}) {
      const std::string text = std::accumulate(pieces.begin(), pieces.end(), std::string());
      for (size_t capacity = 0; capacity <= 60; ++capacity) {
        std::string best, prefix;
        for (const std::string& piece : pieces) {
          prefix += piece;
          if (convert(from, to, prefix).text.size() <= capacity) best = prefix;
        }
        const conversion made = convert(from, to, text, capacity);
        EXPECT_EQ(made.result, CHC_OK);
        EXPECT_EQ(made.consumed, best.size()) << text << " into " << to << " of " << capacity;
        EXPECT_EQ(made.text, convert(from, to, best).text);
      }
    }
  }
}

}  // namespace
