// What a received message consists of: mail, stream, list of seen mails, header analysis.

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "fake_memory.h"
#include "log_capture.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using namespace tav_test;

TEST(ReceivedMail, boundaries_are_a_stack) {
  log_capture log;
  tav_eml_mlutl_mail mail;
  EXPECT_EQ(mail.up_boundary_level("A"), 1);
  mail.m_nBoundarySeen = 1;
  EXPECT_EQ(mail.up_boundary_level("B"), 1);
  EXPECT_EQ(text(*mail.get_boundary_string()), "B");
  EXPECT_EQ(mail.up_boundary_level(nullptr), 0);
  EXPECT_EQ(mail.m_nBoundarySeen, 0);
  mail.m_nBoundarySeen = 1;
  EXPECT_EQ(mail.down_boundary_level(), 1);
  EXPECT_EQ(mail.m_nBoundarySeen, 0);
  EXPECT_EQ(text(*mail.get_boundary_string()), "A");

  auto* const list = new UtlVector;
  list->Add(0, new UtlString("new"));
  mail.set_boundary_string_list(list);
  mail.set_boundary_string_list(list);  // held already
  EXPECT_EQ(text(*mail.get_boundary_string()), "new");
  mail.m_nBoundaryLevel = 2;  // more than there are
  EXPECT_EQ(mail.get_boundary_string(), nullptr);
  EXPECT_EQ(mail.down_boundary_level(), 1);
  mail.set_boundary_string_list(nullptr);  // the level stays
  EXPECT_EQ(mail.get_boundary_string(), nullptr);
  EXPECT_EQ(mail.down_boundary_level(), 0);
  EXPECT_TRUE(log.contains("down_boundary_level():m_cBoundaryString is NULL"));
  EXPECT_EQ(mail.up_boundary_level("x"), 0);  // there is no level below it
  mail.m_nBoundaryLevel = 0;
  EXPECT_EQ(mail.down_boundary_level(), 0);
  EXPECT_EQ(mail.up_boundary_level("x"), 1);
  EXPECT_EQ(log.count("[Return FALSE]NULL pointer"), 3u);
}

TEST(ReceivedMail, owns_one_part_and_a_copy_of_its_info) {
  tav_eml_pop3_mail_info info(3, "uid", 99, 1);
  EXPECT_EQ(text(tav_eml_pop3_mail_info(info).m_strUID), "");
  tav_eml_pop3_receive_mail mail(info);
  EXPECT_EQ(text(mail.m_MailInfo.m_strUID), "uid");
  EXPECT_EQ(text(mail.m_cMailInfo.m_strUID), "uid");
  auto* const part = new tav_eml_pop3_receive_mail_part;
  mail.set_part(part);
  mail.set_part(part);  // held already: a deleted one would be seen by the sanitizer
  part->m_nComplete = 1;
  EXPECT_EQ(mail.get_part(), part);
  mail.set_part(new tav_eml_smtp_receive_mail_part);
  mail.delete_part();
  EXPECT_EQ(mail.get_part(), nullptr);
  mail.set_part(new tav_eml_mlutl_mail_part);
}

TEST(ReceiveStream, finds_the_longest_block_that_ends_at_a_line_end) {
  const struct {
    std::string data;
    long block_size, expected;
    const char* message;
  } cases[] = {
      {"ab\r\ncd\r\nef", 4096, 8, ""},
      {"ab\r\ncd\r\nef", 5, 4, ""},
      {"\r\nx", 4096, 2, ""},
      {{"a\r\n\0\r\nb", 7}, 4096, 6, ""},
      {{"a\0\r\nb", 5}, 4096, -1, "SearchBlock() no block."},
      {"abc", 4096, -1, "SearchBlock() no block."},
      {"\nabc\n\r", 4096, -1, "SearchBlock() no block."},
      {"abcdef\r\n", 4, -1, "SearchBlock() not found."},
  };
  for (const auto& test : cases) {
    log_capture log;
    tav_eml_mlutl_stream stream(test.block_size);
    EXPECT_EQ(stream.SearchBlock(), 0);
    int full = -1;
    ASSERT_EQ(stream.WriteStream(block_of(test.data), static_cast<long>(test.data.size()), full),
              1);
    EXPECT_EQ(full, static_cast<long>(test.data.size()) > test.block_size ? 1 : 0);
    EXPECT_EQ(stream.SearchBlock(), test.expected) << test.data;
    EXPECT_TRUE(test.expected > 0 || log.contains(test.message)) << log.all();
  }
}

TEST(ReceiveStream, takes_any_block_size) {
  for (const long size : {LONG_MIN, -1L, 0L, LONG_MAX}) {
    fake_memory memory;
    tav_eml_mlutl_stream stream(size);
    int full = -1;
    EXPECT_EQ(stream.WriteStream(block_of(""), 0, full), 1);
    EXPECT_EQ(stream.WriteStream(block_of("a\r\nb"), 4, full), 1);
    EXPECT_EQ(full, size > 0 ? 0 : 1);
    EXPECT_EQ(stream.SearchBlock(), size > 0 ? 3 : -1);
    EXPECT_LT(memory.peak_bytes(), 200000u);
  }
}

TEST(ReceiveStream, gives_back_what_went_in) {
  fake_memory memory;
  {
    tav_eml_mlutl_stream stream(4096);
    const auto write = [&](const std::string& bytes) {
      int full = -1;
      EXPECT_EQ(stream.WriteStream(block_of(bytes), static_cast<long>(bytes.size()), full), 1);
      return full;
    };
    const auto read = [&](long length) {
      void* out = nullptr;
      EXPECT_EQ(stream.ReadStream(out, length), 1);
      return taken(out, length);
    };
    void* const adopted = block_of("0123456789");
    int full = -1;
    ASSERT_EQ(stream.WriteStream(adopted, 10, full), 1);
    EXPECT_EQ(full, 0);
    void* out = nullptr;
    long length = 0;
    ASSERT_EQ(stream.ReadStream(out, length), 1);
    EXPECT_EQ(out, adopted);  // handed on without a copy
    EXPECT_EQ(length, 10);
    UtlOS::MemFree(out);

    EXPECT_EQ(write(std::string(4096, 'x')), 0);
    EXPECT_EQ(write("y"), 1);
    EXPECT_EQ(read(4095), std::string(4095, 'x'));
    EXPECT_EQ(write("z"), 0);
    EXPECT_EQ(read(1), "x");
    EXPECT_EQ(read(100), "yz");
    EXPECT_EQ(write("left over"), 0);
    EXPECT_EQ(stream.WriteStream(nullptr, 3, full), 0);
  }
  EXPECT_TRUE(memory.clean());
}

TEST(ReceiveStream, a_failure_empties_it) {
  for (const size_t nth : {1u, 2u, 3u}) {
    fake_memory memory;
    {
      tav_eml_mlutl_stream stream(4);
      int full = 0;
      ASSERT_EQ(stream.WriteStream(block_of("abc\r\n"), 5, full), 1);
      void* const more = block_of(std::string(50, 'x'));
      memory.fail(nth);
      const int written = stream.WriteStream(more, 50, full);
      EXPECT_EQ(written, nth == 1 ? 0 : 1);
      void* out = nullptr;
      long length = 5;
      const int read = stream.ReadStream(out, length);
      EXPECT_EQ(read, nth == 1 ? 1 : 0) << "call " << nth;
      EXPECT_EQ(out, nullptr);
      EXPECT_EQ(length, 0);
      EXPECT_EQ(stream.SearchBlock(), 0);
    }
    EXPECT_TRUE(memory.failed());
    EXPECT_TRUE(memory.clean());
  }
}

// "number:uid/status" of each entry.
struct entry {
  int number;
  const char* uid;
  int status;
};

tav_eml_pop3_mail_info* made(const entry& e) {
  return new tav_eml_pop3_mail_info(e.number, e.uid, 10, e.status);
}

void fill(tav_eml_pop3_mail_info_list& list, const std::vector<entry>& entries) {
  for (const entry& e : entries) ASSERT_EQ(list.add_mail_info(made(e), 1), 1);
}

TEST(MailInfoList, takes_what_fits) {
  log_capture log;
  tav_eml_pop3_mail_info_list none(0), list(2);
  EXPECT_EQ(none.add_mail_info(made({1, "a", 1}), 0) + none.is_has_room(), 0);
  EXPECT_EQ(list.add_mail_info(nullptr, 1) + list.add_mail_info(made({1, "a", 2}), 0), 0);
  EXPECT_TRUE(log.contains("add_mail_info() info is not registered."));
  EXPECT_EQ(list.add_mail_info(made({1, "a", 2}), 1), 1);
  EXPECT_EQ(list.is_has_next_mail(), 0);
  EXPECT_EQ(list.add_mail_info(made({2, "b", 1}), 0) + list.is_has_next_mail(), 2);
  EXPECT_EQ(list.add_mail_info(made({3, "c", 1}), 1) + list.is_has_room(), 0);
  EXPECT_EQ(shown(list), "1:a/2 2:b/1");
  EXPECT_EQ(log.count("add_mail_info() no room."), 2u);
}

TEST(MailInfoList, chooses_the_smallest_number_of_the_wanted_status) {
  const struct {
    std::vector<entry> entries;
    const char *waiting, *left;  // what is found, and what remains when a handed out one goes
  } cases[] = {
      {{{3, "a", 1}, {1, "b", 1}, {2, "c", 1}}, "b", "3:a/1 1:b/1 2:c/1"},
      {{{2, "a", 1}, {2, "b", 1}, {1, "c", 2}}, "a", "2:a/1 2:b/1"},
      {{{0, "a", 1}, {5, "b", 1}, {4, "c", 1}}, "c", "0:a/1 5:b/1 4:c/1"},
      {{{5, "a", 1}, {0, "b", 1}}, "b", "5:a/1 0:b/1"},
      {{{5, "a", 1}, {0, "b", 1}, {7, "c", 1}}, "c", "5:a/1 0:b/1 7:c/1"},
      {{{3, "a", 2}, {1, "b", 1}, {2, "c", 2}}, "b", "3:a/2 1:b/1"},
      {{{1, "a", 3}}, "", "1:a/3"},
      {{}, "", ""},
  };
  for (const auto& test : cases) {
    log_capture log;
    tav_eml_pop3_mail_info_list list(10);
    fill(list, test.entries);
    tav_eml_pop3_mail_info out;
    EXPECT_EQ(list.search_next_mail(out), *test.waiting != '\0' ? 1 : 0);
    EXPECT_EQ(text(out.m_strUID), test.waiting);
    const bool removes = shown(list) != test.left;
    EXPECT_EQ(list.remove_mail_info(), removes ? 1 : 0);
    EXPECT_EQ(shown(list), test.left);
    EXPECT_EQ(log.contains("search_next_mail(): not detected."), *test.waiting == '\0');
  }
}

TEST(MailInfoList, follows_the_server_from_session_to_session) {
  log_capture log;
  tav_eml_pop3_mail_info_list list(10);
  EXPECT_EQ(list.clear_id() + list.clear_list() + list.set_all_entry_status(2), 3);
  EXPECT_EQ(list.get_next_id(), 1);
  fill(list, {{1, "a", 2}, {2, "B", 1}, {3, "c", 1}, {4, "c", 1}});
  EXPECT_EQ(list.get_next_id(), 5);
  EXPECT_EQ(list.clear_id(), 1);
  EXPECT_EQ(list.get_next_id(), 1);
  EXPECT_EQ(list.update_mail_info(made({7, "c", 1})), 1);
  EXPECT_EQ(list.update_mail_info(made({8, "b", 1})), 1);  // another id: case counts
  EXPECT_EQ(list.update_mail_info(made({9, "a", 1})), 1);
  EXPECT_EQ(list.update_mail_info(made({5, "", 1})), 1);
  EXPECT_EQ(list.update_mail_info(made({6, "a", 2})), 0);
  EXPECT_EQ(list.update_mail_info(nullptr), 0);
  EXPECT_EQ(shown(list), "9:a/2 0:B/1 7:c/1 0:c/1");
  EXPECT_EQ(list.clear_list(), 1);
  EXPECT_EQ(shown(list), "9:a/2 7:c/1");

  tav_eml_pop3_mail_info wanted(7, "c", 0, 0);
  EXPECT_EQ(list.search_mail_info(wanted)->m_nMailNo, 7);
  EXPECT_EQ(list.set_entry_status(wanted, 2), 1);
  wanted.m_nMailNo = 8;
  wanted.m_strUID = "C";
  EXPECT_EQ(list.search_mail_info(wanted), nullptr);
  EXPECT_EQ(list.set_entry_status(wanted, 1), 0);
  EXPECT_TRUE(log.contains("set_entry_status() no match."));
  EXPECT_EQ(shown(list), "9:a/2 7:c/2");
  EXPECT_EQ(list.search_mail_info({})->m_nMailNo, 9);  // without id: the first
  EXPECT_EQ(tav_eml_pop3_mail_info_list(1).search_mail_info({}), nullptr);
  fill(list, {{INT_MAX, "z", 1}});
  EXPECT_EQ(list.get_next_id(), INT_MAX);
}

TEST(MailInfoList, a_corrupted_list_is_reported) {
  log_capture log;
  tav_eml_pop3_mail_info_list list(10);
  tav_eml_pop3_mail_info info(1, "x", 0, 1);
  list.m_MailInfoVector.Add(0, nullptr);
  EXPECT_EQ(list.clear_id() + list.clear_list() + list.update_mail_info(made({1, "a", 1})), 0);
  EXPECT_EQ(list.remove_mail_info() + list.search_next_mail(info) + list.is_has_next_mail(), 0);
  EXPECT_EQ(list.set_entry_status(info, 1), 0);
  EXPECT_EQ(log.count(" strange list."), 7u);
  EXPECT_EQ(list.set_all_entry_status(1), 0);
  EXPECT_EQ(list.get_next_id(), -1);
  EXPECT_EQ(list.search_mail_info(info), nullptr);
  EXPECT_EQ(log.count("(): GetAt() error."), 3u);
}

TEST(HeaderAnalysis, unfolds) {
  const struct {
    const char *header, *lines;
  } cases[] = {
      {"Subject: a\r\n b\r\n", "Subject: ab\r\n|"},
      {"Subject: a\r\n\t  b\r\nX: y\r\n z\r\n\tw\r\n", "Subject: a  b\r\n|X: yzw\r\n|"},
      {"a\r\n \r\n b", "ab|"},
      {"a\nb\r\n", "a\nb\r\n|"},
      {"", ""},
  };
  for (const auto& test : cases) {
    UtlVector lines;
    tav_eml_mlutl_receive().RemoveWSP(test.header, 12345, &lines);
    std::string all;
    for (int i = 0; i < lines.Count(); ++i) {
      auto* const line = static_cast<UtlString*>(lines.ElementAt(i));
      all += text(*line) + "|";
      delete line;
    }
    EXPECT_EQ(all, test.lines);
  }
}

TEST(HeaderAnalysis, puts_each_value_in_its_place) {
  tav_eml_mlutl_mail mail;
  tav_eml_mlutl_receive().AnalyzeMailHeader(
      mail,
      "TO:  a@b \r\nCc:c@d\r\nDisposition-Notification-To: e\r\nFrom: f\r\nSubject: first\r\n"
      "subject: second: one\r\nMessage-ID: <g>\r\nDate: h\r\nIn-Reply-To: i\r\nReferences: j\r\n"
      "Reply-To: k\r\nReturn-Path: l\r\nX-Other: m\r\nno colon\r\n:\r\n"
      "Content-X-CIAJWNETFAX: ignore\r\nContent-Transfer-Encoding: Base64\r\n"
      "Content-Disposition: INLINE\r\nContent-Type: Text/HTML; Charset=\"UTF-8\"\r\n",
      1);
  EXPECT_EQ(text(mail.m_cTo.m_cAddress), "a@b");
  EXPECT_EQ(text(mail.m_cCc.m_cAddress), "c@d");
  EXPECT_EQ(text(mail.m_cMdnAddress.m_cAddress), "e");
  EXPECT_EQ(text(mail.m_cFrom.m_cAddress), "f");
  EXPECT_EQ(text(mail.m_cSubject), "second: one");
  EXPECT_EQ(text(mail.m_cMessageId) + text(mail.m_cDate) + text(mail.m_cInReplyTo), "<g>hi");
  EXPECT_EQ(text(mail.m_cReferences) + text(mail.m_cReplyTo.m_cAddress), "jk");
  EXPECT_EQ(text(mail.m_cReturnPath.m_cAddress), "l");
  EXPECT_EQ(mail.is_ignore_content_ciajwnetfax(), 1);
  EXPECT_EQ(mail.m_nTransferEncoding, TAV_EML_TE_BASE64);
  EXPECT_EQ(text(mail.m_cTransferEncoding), "Base64");
  EXPECT_EQ(mail.m_nContentDisposition, TAV_EML_CD_INLINE);
  EXPECT_EQ(mail.m_nContentType, TAV_EML_CT_TEXT_HTML);
  EXPECT_EQ(text(mail.m_cMediaType), "Text/HTML");
  EXPECT_EQ(mail.m_nCharSet, TAV_EML_CS_UTF_8);
  // The colon behind a name with blanks counts as part of the value.
  tav_eml_mlutl_receive().AnalyzeMailHeader(mail, "Subject : x", 0);
  EXPECT_EQ(text(mail.m_cSubject), ": x");
}

TEST(HeaderAnalysis, a_lone_cr_is_a_blank_in_every_value) {
  tav_eml_mlutl_mail mail;
  tav_eml_mlutl_receive receive;
  mail.m_cHeader1 = "Content-Type: text/plain; name=\"a\rb\"";
  receive.AnalyzeMailHeader(mail,
                            "Subject: hello\r\r\n \nBcc: victim@x.test\r\nTo: a\r@b\r\n"
                            "Content-Type: text/plain\r; name=\"a\rb\"\r\n"
                            "Content-Disposition: inline; filename*=''c\rd\r\n"
                            "Content-Transfer-Encoding: base64\rx\r\n",
                            1);
  EXPECT_EQ(text(mail.m_cSubject), "hello \nBcc: victim@x.test");
  EXPECT_EQ(text(mail.m_cTo.m_cAddress), "a @b");
  EXPECT_EQ(text(mail.m_cContentType) + "|" + text(mail.m_cMediaType),
            "text/plain ; name=\"a b\"|text/plain ");
  EXPECT_EQ(text(mail.m_cTransferEncoding) + "|" + text(mail.m_cFIleName), "base64 x|c d");
  receive.AnalyzeMailHeader(mail, "Content-Type: text/plain; name=\"a\rb\"\r\n", 1);
  EXPECT_EQ(text(mail.m_cFIleName), "a b");
}

TEST(HeaderAnalysis, reads_content_parameters) {
  const struct {
    std::string value;
    const char *boundary, *name, *extension;
  } cases[] = {
      {"multipart/mixed; boundary=\"XyZ\"", "XyZ", "", ""},
      {"multipart/mixed; boundary=XyZ", "XyZ", "", ""},
      {"multipart/mixed; BOUNDARY= \t\"X y\"; charset=utf-8", "X y", "", ""},
      {"multipart/mixed; boundary=XyZ; charset=us-ascii", "XyZ; charset=us-ascii", "", ""},
      {"multipart/mixed; boundary=\"XyZ", "XyZ", "", ""},
      {"multipart/mixed; boundary=", "", "", ""},
      {"multipart/mixed; boundary=" + std::string(1001, 'x'), "(none)", "", ""},
      {"text/plain; boundary=x", "x", "", ""},
      {"application/pdf; name=\"a b.c.pdf\"; x=\"y\"", "(none)", "a b.c.pdf", "pdf"},
      {"application/pdf; name=a.pdf ; x=y", "(none)", "a.pdf", "pdf"},
      {"application/pdf; name=\" a.pdf", "(none)", "a.pdf", "pdf"},
      {"application/pdf; name=\"", "(none)", "", ""},
      {"application/pdf; name=", "(none)", "", ""},
      {"application/pdf; name=README", "(none)", "README", ""},
      {"application/pdf; NAME=\"a.pdf\"", "(none)", "(missing)", ""},
      {"application/pdf; name=\"=?UTF-8?B?5pel5pysLnR4dA==?=\"", "(none)", "日本.txt", "txt"},
      {"application/pdf; name=\"=?utf-8?Q?a=22=3B=0D=0A=00.b?=\"; x", "(none)", "a\";   .b", "b"},
      {"application/pdf; name*=UTF-8'ja'%E6%97%A5.txt; x=y", "(none)", "日.txt", "txt"},
      {"application/pdf; name*=UTF-8''%E6%9", "(none)", "\xe6", ""},
      {"application/pdf; name*=", "(none)", "", ""},
      {"application/pdf; name=a.b; name*=UTF-8''c.d", "(none)", "a.b", "b"},
  };
  for (const auto& test : cases) {
    for (const bool disposition : {false, true}) {
      log_capture log;
      tav_eml_mlutl_receive receiver;
      tav_eml_mlutl_mail mail;
      std::string shown = test.value;
      if (disposition) {  // the same parameter as filename, in the other field
        const size_t at = shown.find("name");
        if (at == std::string::npos) continue;
        shown.insert(at, "file");
        mail.m_cHeader2 = ("Content-Disposition: " + shown).c_str();
        UtlString value(shown.c_str());
        receiver.AnalyzeContentDisposition(mail, value);
      } else {
        mail.m_cHeader1 = ("Content-Type: " + shown).c_str();
        UtlString value(shown.c_str());
        receiver.AnalyzeContentType(mail, mail, value);
        EXPECT_EQ(text(mail.m_cContentType), shown);
      }
      const UtlString* boundary = mail.get_boundary_string();
      EXPECT_EQ(boundary != nullptr ? text(*boundary) : "(none)", test.boundary) << shown;
      const bool missing = std::string(test.name) == "(missing)";
      EXPECT_EQ(text(mail.m_cFIleName), missing ? "" : test.name) << shown;
      EXPECT_EQ(text(mail.m_cFileExtension), test.extension) << shown;
      EXPECT_EQ(log.contains("name=] attribute"), missing);
    }
  }
}

TEST(HeaderAnalysis, opens_a_bounded_number_of_levels) {
  tav_eml_mlutl_receive receiver;
  tav_eml_mlutl_mail mail;
  std::string header;
  for (int i = 0; i < 300; ++i) header += "Content-Type: multipart/mixed; boundary=x\r\n";
  receiver.AnalyzeMailHeader(mail, header.c_str(), 0);
  EXPECT_EQ(mail.m_nBoundaryLevel, 100);
}

TEST(HeaderAnalysis, a_part_is_a_leaf_or_a_multipart) {
  tav_eml_mlutl_receive receiver;
  tav_eml_mlutl_mail mail;
  EXPECT_EQ(receiver.AnalyzePartHeader(mail, "Content-Type: text/plain\r\n", 0), 0);  // no part
  auto* const part = new tav_eml_mlutl_mail_part;
  mail.set_part(part);
  const char multipart[] =
      "Content-Transfer-Encoding: base64\r\nContent-Type: multipart/alternative; boundary=in\r\n";
  EXPECT_EQ(receiver.AnalyzePartHeader(mail, multipart, 0), 1);
  EXPECT_EQ(text(*mail.get_boundary_string()), "in");
  // A leaf that carries a boundary opens it once.
  part->m_cHeader1 = "Content-Type: image/tiff; name=f.tif; boundary=\"leaf\"";
  const std::string leaf = text(part->m_cHeader1) + "\r\nSubject: not a part's\r\n";
  EXPECT_EQ(receiver.AnalyzePartHeader(mail, leaf.c_str(), 0), 0);
  EXPECT_EQ(mail.m_nBoundaryLevel, 2);
  EXPECT_EQ(part->m_nContentType, TAV_EML_CT_IMAGE_TIFF);
  EXPECT_EQ(text(part->m_cFIleName), "f.tif");
  EXPECT_EQ(text(mail.m_cSubject), "");
}

TEST(HeaderAnalysis, an_encoded_word_forges_no_header_line) {
  for (const char* word :
       {"=?utf-8?Q?a=0D=0ATo:=20evil=0Ab=00c?=", "=?utf-8?B?YQ0KVG86IGV2aWwKYgBj?="}) {
    tav_eml_mlutl_receive receiver;
    tav_eml_mlutl_mail mail;
    const std::string header = std::string("To: good\r\nSubject: ") + word + "\r\nCc: d\r\n\r\n";
    ASSERT_EQ(receiver.set_recv_buffer(header.c_str()), 0);
    int sock = 0;
    TAV_EML_TLS_INFO tls = {};
    ASSERT_EQ(receiver.receive_header(mail, sock, 1, 0, tls), TAV_EML_UTL_OK);
    EXPECT_EQ(text(mail.m_cTo.m_cAddress), "good");
    EXPECT_EQ(text(mail.m_cSubject), "a  To: evil b c");
    EXPECT_EQ(text(mail.m_cCc.m_cAddress), "d");
    EXPECT_EQ(mail.m_nReceiving, 1);
  }
}

TEST(ReceivedLines, delimiters_are_held_against_the_innermost_boundary) {
  log_capture log;
  tav_eml_mlutl_receive receiver;
  tav_eml_mlutl_mail mail;
  auto* const part = new tav_eml_mlutl_mail_part;
  mail.set_part(part);
  EXPECT_EQ(receiver.ChkBoundaryString(nullptr, mail), -1);
  EXPECT_EQ(receiver.ChkBoundaryString("--x\r\n", mail), -1);
  EXPECT_TRUE(log.contains("[Return -1] no boundary string"));
  EXPECT_EQ(receiver.ChkBoundaryString("-x\r\n", mail), 0);
  mail.up_boundary_level("outer");
  mail.up_boundary_level("XyZ");
  const struct {
    const char* line;
    int expected, level, complete;
  } cases[] = {
      {"XyZ\r\n", 0, 2, 0},   {"--Other\r\n", 0, 2, 0}, {"--outer--\r\n", 0, 2, 0},
      {"--Xy", 0, 2, 0},      {"--XyZ\r\n", 1, 2, 0},   {" --XyZ\r\n", 0, 2, 0},
      {"--XyZabc", 1, 2, 1},  {"--XyZ--\r\n", 2, 1, 1}, {"--XyZ\r\n", 0, 1, 0},
      {"--outer--", 2, 0, 0}, {"--outer", -1, 0, 0},
  };
  for (const auto& test : cases) {
    part->m_nComplete = 0;
    EXPECT_EQ(receiver.ChkBoundaryString(test.line, mail), test.expected) << test.line;
    EXPECT_EQ(mail.m_nBoundaryLevel, test.level) << test.line;
    EXPECT_EQ(part->m_nComplete, test.complete) << test.line;
  }
}

TEST(ReceivedLines, dots_and_the_end_of_the_message) {
  tav_eml_mlutl_receive receiver;
  tav_eml_mlutl_mail mail;
  mail.set_part(new tav_eml_mlutl_mail_part);
  const struct {
    const char *line, *left;
    int result;
  } cases[] = {{"..x\r\n", ".x\r\n", 0},
               {".\n", "\n", 0},
               {"....\r\n", "...\r\n", -1},
               {".\r\n", ".\r\n", 1}};
  for (const auto& test : cases) {
    UtlString line(test.line);
    const auto length = static_cast<long>(line.GetLength());
    EXPECT_EQ(receiver.ChkMailEndLine(mail, line, length, 7), test.result) << test.line;
    EXPECT_EQ(text(line), test.left);
  }
  EXPECT_EQ(mail.m_nReceiving * 2 + mail.m_nComplete + mail.get_part()->m_nComplete, 2);
  UtlString none, blank("\r\n"), word("x\r\n");
  EXPECT_TRUE(receiver.IsEmptyLine(blank));
  EXPECT_FALSE(receiver.IsEmptyLine(none) || receiver.IsEmptyLine(word));
}

TEST(ReceivedLines, a_header_is_read_whatever_the_flag_says) {
  for (const int32_t is_receiving : {0, 1}) {
    tav_eml_mlutl_receive receiver;
    tav_eml_mlutl_mail mail;
    mail.m_nReceiving = is_receiving;
    ASSERT_EQ(receiver.set_recv_buffer("Subject: x\r\n\r\n.\r\n"), 0);
    int sock = 7;
    TAV_EML_TLS_INFO tls = {};
    EXPECT_EQ(receiver.receive_header(mail, sock, 1, 0, tls), TAV_EML_UTL_OK);
    EXPECT_EQ(text(mail.m_cSubject), "x");
    EXPECT_EQ(mail.m_nReceiving, is_receiving);
  }
}

TEST(ReceivedLines, a_delimiter_of_nothing_takes_no_lines_along) {
  tav_eml_mlutl_receive receiver;
  tav_eml_mlutl_mail mail;
  mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  mail.m_nReceiving = 1;
  mail.set_part(new tav_eml_mlutl_mail_part);
  ASSERT_EQ(receiver.set_recv_buffer("one\r\n--x\r\ntwo\r\n.\r\n"), 0);
  int sock = 7;
  TAV_EML_TLS_INFO tls = {};
  EXPECT_EQ(receiver.receive_part_body(mail, sock, 1, tls), TAV_EML_UTL_ERROR);
  EXPECT_EQ(receiver.receive_part_body(mail, sock, 1, tls), TAV_EML_UTL_OK);
  EXPECT_STREQ(mail.get_part()->m_pData, "one\r\ntwo\r\n");
}

TEST(ReceivedLines, the_buffer_holds_4096_characters) {
  log_capture log;
  tav_eml_mlutl_receive receiver;
  EXPECT_EQ(receiver.set_recv_buffer(std::string(4097, 'x').c_str()), 1);
  EXPECT_TRUE(log.contains("set_recv_buffer : string too large to fit in buffer"));
  EXPECT_EQ(receiver.set_recv_buffer((std::string(4095, 'x') + "\n").c_str()), 0);
  int sock = 0;
  TAV_EML_TLS_INFO tls = {};
  UtlString line;
  long length = 0;
  EXPECT_EQ(receiver.ReadLine(1, sock, line, length, tls), TAV_EML_UTL_OK);
  EXPECT_EQ(length, 4096);
  EXPECT_EQ(receiver.set_recv_buffer("a\nb\r\nc"), 0);
  EXPECT_EQ(receiver.ReadLine(1, sock, line, length, tls), TAV_EML_UTL_OK);
  EXPECT_EQ(text(line), "a\n");
  EXPECT_EQ(receiver.flush_buffer(), 0);
  EXPECT_EQ(log.lines().back().level, 4);
  EXPECT_EQ(receiver.ReadLine(1, sock, line, length, tls), TAV_EML_UTL_RECV_ERROR);
  EXPECT_EQ(text(line), "");
}

}  // namespace
