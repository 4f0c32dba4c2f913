#include <gtest/gtest.h>

#include <string>

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
      {CHC_UTF_8, CHC_ISO_2022_JP, "〜−", "\033$B!A!]\033(B"},  // the other mapping of the same
      {CHC_UTF_8, CHC_ISO_2022_JP, "ｶﾞｱﾊﾟｳﾞﾞ", "\033$B%,%\"%Q%t!+\033(B"},  // joined sound marks
      {CHC_UTF_8, CHC_ISO_2022_JP, "髙﨑", "\033$B|byu\033(B"},  // repeated rows, not IBM's own
      {CHC_UTF_8, CHC_X_JIS, "ｱ1亜", "\033(I1\033(B1\033$B0!\033(B"},
      {CHC_UTF_8, CHC_SHIFT_JIS, "ｱ表①髙", "\xb1\x95\x5c\x87\x40\xfb\xfc"},
      {CHC_UTF_8, CHC_MS_KANJI, "ソ~\\", "\x83\x5c~\\"},
      {CHC_UTF_8, CHC_ISO_8859_1, "é", "\xe9"},
      {CHC_UTF_8, CHC_ISO_8859_2, "ő", "\xf5"},
      {CHC_UTF_8, CHC_US_ASCII, "plain", "plain"},
      {CHC_ISO_2022_JP, CHC_UTF_8, "\033(J\\\033(I1\033$@0!\033(B", "¥ｱ亜"},
      {CHC_UTF_8, CHC_UTF_8, "\xc0\x80", "", CHC_ERR_SOURCE},
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

TEST(ConverterContract, every_capacity_gives_whole_characters_that_join) {
  for (size_t room = 1; room <= 3; ++room) {  // for what comes before the run that does not fit
    const conversion cut = convert(CHC_ISO_2022_JP, CHC_UTF_8, "b\033$B0!\033(B", room);
    EXPECT_EQ(cut.text, "b") << room;
    EXPECT_EQ(cut.consumed, 1U) << room;
  }
  for (const auto to : {CHC_ISO_2022_JP, CHC_X_JIS, CHC_SHIFT_JIS, CHC_MS_KANJI, CHC_UTF_8}) {
    for (const std::string text : {"日a本bc語", "ｶﾞｱﾊﾟ①x", "abc", "あいうえお", ""}) {
      const std::string whole = convert(CHC_UTF_8, to, text).text;
      size_t last = 0;  // a larger room takes no less
      for (size_t capacity = 0; capacity <= whole.size(); ++capacity) {
        const size_t first = convert(CHC_UTF_8, to, text, capacity).consumed;
        EXPECT_GE(first, last);
        last = first;
        std::string joined;  // of pieces, each decoded by itself
        conversion piece{CHC_OK, 1, {}};
        for (size_t at = 0; at < text.size() && piece.consumed > 0; at += piece.consumed) {
          piece = convert(CHC_UTF_8, to, text.substr(at), capacity);
          EXPECT_EQ(piece.result, CHC_OK);
          joined += convert(to, CHC_UTF_8, piece.text).text;
        }
        if (piece.consumed == 0) continue;
        EXPECT_EQ(joined, convert(to, CHC_UTF_8, whole).text) << capacity;
      }
      EXPECT_EQ(last, text.size()) << "exactly the room that it needs";
    }
  }
}

}  // namespace
