// Mail types, mail parts and safe cuts in Japanese text.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fake_memory.h"
#include "log_capture.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using namespace tav_test;
using type = tav_eml_mlutl_mail_type;

std::string take(tav_eml_mlutl_mail_part& part, long length) {
  void* data = nullptr;
  EXPECT_EQ(part.get_buffer(data, length), 1);
  return taken(data, length);
}

TEST(MailType, the_first_row_that_begins_the_value_wins) {
  EXPECT_EQ(type::test_content_type("MULTIPART/ALTERNATIVE; boundary=x"), 2);
  EXPECT_EQ(type::test_content_type("Multipart/Mixed"), 3);
  EXPECT_EQ(type::test_content_type("application/x-pdf"), 7);
  EXPECT_EQ(type::test_content_type("text"), 18);
  EXPECT_EQ(type::test_content_type(""), 18);
  EXPECT_EQ(type::test_char_set("utf8"), 11);
  EXPECT_EQ(type::test_char_set("iso-8859-15"), 3);
  EXPECT_EQ(type::test_char_set("usascii"), 1);
  EXPECT_EQ(type::test_char_set("US-ASCII"), 0);
  EXPECT_EQ(type::test_transfer_encoding("x"), 4);
  EXPECT_EQ(type::test_content_disposition("Attachment; filename=x"), 1);
  EXPECT_EQ(type::test_contet_x_ciajwnetfax("ignored"), 0);
  EXPECT_STREQ(type::get_content_type(TAV_EML_CT_MULTIPART_REPORT),
               "multipart/report;\r\n\treport-type=disposition-notification");
  EXPECT_STREQ(type::get_content_type(TAV_EML_CT_APPLICATION_PDF), "application/pdf");
  for (int i = 17; i <= 30; ++i) {
    EXPECT_STREQ(type::get_content_type(static_cast<TAV_EML_CONTENT_TYPE>(i)), "");
  }
  EXPECT_STREQ(type::get_char_set(TAV_EML_CS_NONE), "");
  CHC_ENCODE_TYPE code = CHC_ASCII;
  EXPECT_EQ(type::convert_util_lib_encode_type(TAV_EML_CS_NONE, code), -1);
  EXPECT_EQ(type::convert_util_lib_encode_type(TAV_EML_CS_UNKNOWN, code), -1);
  EXPECT_EQ(code, CHC_ASCII);
  EXPECT_EQ(type::convert_util_lib_encode_type(TAV_EML_CS_X_SJIS, code), 0);
  EXPECT_EQ(code, CHC_SHIFT_JIS);
}

TEST(MailType, copies_within_a_set_and_cuts_between_characters) {
  const struct {
    const char* text;
    int32_t capacity, copied;
  } cases[] = {{"abc", 2, 1},          {"aé", 3, 3},  {"aé", 2, 1}, {"abé", 3, 2}, {"abc", 0, 0},
               {"\x80\x80\x80", 2, 0}, {"abc", 3, 3}, {"", 2, 0},   {"ab", -1, 0}};
  for (const auto& test : cases) {
    std::string source = test.text;
    char room[8] = "#######";
    TAV_EML_ENCODED_STRING in = {TAV_EML_CS_UTF_8, source.data(),
                                 static_cast<int32_t>(source.size())};
    TAV_EML_ENCODED_STRING out = {TAV_EML_CS_UTF_8, room, test.capacity};
    int consumed = -1;
    EXPECT_EQ(type::convert_encoded_string(in, out, consumed), 0);
    EXPECT_EQ(out.length, test.copied) << test.text;
    EXPECT_EQ(consumed, test.copied);
    EXPECT_EQ(room[test.copied], '#') << "wrote behind the copy";
  }
}

TEST(MailPart, hands_its_data_out_piece_by_piece) {
  fake_memory memory;
  {
    tav_eml_mlutl_mail_part part;
    EXPECT_EQ(take(part, 5), "");
    void* first = block_of("0123");
    long size = 4;
    ASSERT_EQ(part.set_buffer(first, size), 1);
    EXPECT_TRUE(first == nullptr && size == 0);
    give(part, "456789");
    EXPECT_EQ(take(part, 4), "0123");
    EXPECT_EQ(take(part, 100), "456789");
    EXPECT_EQ(take(part, 0), "");
    give(part, "abc");
    const tav_eml_mlutl_mail_part copy(part);
    part = copy;
    tav_eml_mlutl_mail_part& self = part;
    part = self;
    EXPECT_EQ(take(part, -1), "abc");
    EXPECT_EQ(copy.m_nDataLength, 3);

    char letter = 'x';
    void* bad = &letter;
    long length = 0;
    EXPECT_EQ(part.set_buffer(bad, length), 0);
    bad = nullptr;
    length = 5;
    EXPECT_EQ(part.set_buffer(bad, length), 0);

    // A failure leaves both sides what they had.
    give(part, "0123456789");
    void* data = nullptr;
    length = 4;
    memory.fail(1);
    EXPECT_EQ(part.get_buffer(data, length), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0);
    memory.fail_by([] { throw new tav_eml_mlutl_mail_exception("thrown"); });
    for (const size_t n : {1u, 2u}) {
      const log_capture log;
      memory.fail(n);
      length = 4;
      EXPECT_EQ(part.get_buffer(data, length), 0);
      EXPECT_TRUE(log.contains("<Error> : tav_eml_mlutl_mail_part::get_buffer() thrown"));
      EXPECT_STREQ(part.m_pData, "0123456789");
      EXPECT_EQ(part.m_nDataLength, 10);
    }
    memory.never_fail();
    void* more = UtlOS::MemAllocate(3);
    length = 2;
    memory.fail(1);
    EXPECT_EQ(part.set_buffer(more, length), 0);
    EXPECT_NE(more, nullptr);
    memory.never_fail();
    UtlOS::MemFree(more);
  }
  EXPECT_TRUE(memory.clean());
}

TEST(MailPart, composes_its_header) {
  const auto header = [](auto&& change) {
    tav_eml_mlutl_mail_part part;
    change(part);
    return result_of([&](char*& text, long& length) { return part.make_header(text, length); });
  };
  using part_ref = tav_eml_mlutl_mail_part&;
  EXPECT_EQ(header([](part_ref) {}), "(failed)");
  EXPECT_EQ(header([](part_ref p) { p.m_nContentType = TAV_EML_CT_TEXT_PLAIN; }),
            "Content-Type: text/plain\r\n\r\n");
  EXPECT_EQ(header([](part_ref p) {
              p.m_nContentType = TAV_EML_CT_TEXT_HTML;
              p.m_nCharSet = TAV_EML_CS_SHIFT_JIS;
              p.m_nTransferEncoding = TAV_EML_TE_8BIT;
              p.m_nContentDisposition = TAV_EML_CD_INLINE;
              p.m_cFIleName = "not shown";
              p.set_content_ciajwnetfax(1);
            }),
            "Content-Type: text/html; charset=\"shift_jis\"\r\nContent-Disposition: inline\r\n"
            "Content-Transfer-Encoding: 8bit\r\nContent-X-CIAJWNETFAX: IGNORE\r\n\r\n");
  EXPECT_EQ(header([](part_ref p) {
              p.m_nContentType = TAV_EML_CT_IMAGE_TIFF;
              p.m_nCharSet = TAV_EML_CS_UTF_8;
              p.m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
            }),
            "Content-Type: image/tiff\r\nContent-Disposition: attachment\r\n\r\n");
}

TEST(MailPart, folds_long_values_and_finds_extensions) {
  tav_eml_mlutl_mail_part part;
  for (const size_t length : {1u, 64u, 65u, 128u, 129u}) {
    char* folded = part.MakeMultiLine(std::string(length, 'x').c_str());
    std::string expected = std::string(length, 'x');
    for (size_t at = (length - 1) / 64 * 64; at > 0; at -= 64) expected.insert(at, "\r\n\t");
    EXPECT_STREQ(folded, expected.c_str());
    UtlOS::MemFree(folded);
  }
  EXPECT_EQ(part.MakeMultiLine(""), nullptr);
  EXPECT_EQ(part.get_file_extension(), nullptr);
  part.m_cFIleName = "scan.tif.pdf";
  EXPECT_STREQ(part.get_file_extension(), "pdf");
  part.m_cFIleName = "README";
  EXPECT_STREQ(part.get_file_extension(), "");
  char* text = nullptr;
  long length = 0;
  EXPECT_EQ(part.add_buffer(text, length, "bc", 2) + part.InsertBuffer(text, length, "a", 1), 2);
  EXPECT_STREQ(text, "abc");
  EXPECT_EQ(length, 3);
  UtlOS::MemFree(text);
}

TEST(SafeCut, every_cut_of_japanese_text_leaves_two_valid_pieces) {
  const struct {
    TAV_EML_CHAR_SET set;
    std::string text;
  } cases[] = {
      {TAV_EML_CS_SHIFT_JIS, "a\x93\xfa\x96\x7b\xb1z\x83\x5c\x83\x5c"},
      {TAV_EML_CS_ISO_2022_JP, "ab\033$BF|K\\\033(Bcd\033$B$\"$$\033(B"},
      {TAV_EML_CS_X_JIS, "\033(I12\033$BF|\033(Bx\033(J~\033(B"},
  };
  static const char* const kReopen[] = {"", "\033(J", "\033(I", "\033$@", "\033$B", "", ""};
  for (const auto& test : cases) {
    for (long proposed = -2; proposed <= static_cast<long>(test.text.size()) + 3; ++proposed) {
      tav_eml_mlutl_mail_part part;
      part.m_nCharSet = test.set;
      long cut = proposed;
      const int mode = part.AdjustMultiByteCode(test.text.c_str(), cut, 0);
      ASSERT_GE(cut, 0);
      ASSERT_LT(mode, 7);
      if (cut > static_cast<long>(test.text.size()))
        continue;  // Shift_JIS keeps a cut behind the end
      std::string front = test.text.substr(0, static_cast<size_t>(cut));
      const std::string back = kReopen[mode] + test.text.substr(static_cast<size_t>(cut));
      if (mode != 0) front += "\033(B";
      EXPECT_TRUE(to_utf8(test.set, front)) << proposed;
      EXPECT_TRUE(to_utf8(test.set, back)) << proposed;
    }
  }
}

TEST(SafeCut, holds_back_what_may_begin_an_escape_sequence) {
  const struct {
    const char* text;
    long cut;
    int complete;
    TAV_EML_CONTENT_TYPE content;
    long expected;
  } cases[] = {
      {"abcdef", 6, 0, TAV_EML_CT_TEXT_PLAIN, 3},  {"abcdef", 4, 0, TAV_EML_CT_TEXT_PLAIN, 3},
      {"abcdef", 3, 0, TAV_EML_CT_TEXT_PLAIN, 3},  {"ab", 2, 0, TAV_EML_CT_TEXT_PLAIN, 0},
      {"abcdef", 6, 1, TAV_EML_CT_TEXT_PLAIN, 6},  {"abcdef", 6, 0, TAV_EML_CT_IMAGE_TIFF, 6},
      {"a\033$B", 4, 1, TAV_EML_CT_TEXT_PLAIN, 1},
  };
  for (const auto& test : cases) {
    tav_eml_mlutl_mail_part part;
    part.m_nCharSet = TAV_EML_CS_ISO_2022_JP;
    part.m_nContentType = test.content;
    part.m_nComplete = test.complete;
    long cut = test.cut;
    part.AdjustMultiByteCode(test.text, cut, 1);
    EXPECT_EQ(cut, test.expected) << test.text;
  }
}

}  // namespace
