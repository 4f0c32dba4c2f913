// A mail on the wire: envelope, data and the send interface.

#include <algorithm>
#include <thread>

#include "dialogue_fixture.h"

namespace dialogue {
namespace {

const std::string kEnvelope = "MAIL FROM:<a@b.example>\r\nRCPT TO:<c@d.example>\r\n";

class Mail : public Dialogue {
 protected:
  Mail() { fill(mail); }

  // Sends the mail with this body, in pieces of so many bytes.
  TAV_EML_RESULT send(const std::string& body, size_t piece = SIZE_MAX,
                      const std::string& data = "", size_t data_piece = SIZE_MAX) {
    TAV_EML_RESULT result = facade().connect_mail();
    if (result == TAV_EML_OK) result = facade().send_header(mail);
    for (size_t at = 0; result == TAV_EML_OK && at < body.size();
         at += std::min(piece, body.size())) {
      give(mail, body.substr(at, piece));
      result = facade().send_body(mail);
    }
    if (result == TAV_EML_OK && mail.m_pPart != nullptr) result = facade().send_part_header(mail);
    for (size_t at = 0; result == TAV_EML_OK && at < data.size();
         at += std::min(data_piece, data.size())) {
      give(*mail.m_pPart, data.substr(at, data_piece));
      result = facade().send_part_body(mail);
    }
    if (result == TAV_EML_OK) return facade().close_mail(mail);
    facade().abort_mail();
    return result;
  }

  // What was received behind the header.
  std::string body_received() const {
    const std::string& data = host.messages().back().data;
    return data.substr(data.find("\r\n\r\n") + 4);
  }

  tav_eml_smtp_send_mail mail;
};

TEST_F(Mail, a_text_mail_goes_out_byte_for_byte) {
  EXPECT_EQ(send("Hello\n.\n"), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(), "EHLO localhost\r\n" + kEnvelope + "DATA\r\n" + kHeader +
                                     "Hello\r\n..\r\n\r\n.\r\nQUIT\r\n");
}

TEST_F(Mail, a_multipart_mail_goes_out_byte_for_byte) {
  attach(mail);
  EXPECT_EQ(send("ab", 1, "PDFDATA", 3), TAV_EML_OK);
  const std::string expected =
      "Date: Sat, 21 Nov 2026 10:00:00 +0900\r\n"
      "From: a@b.example\r\nSubject: Hi\r\nTo: c@d.example\r\nMessage-Id: <1@b>\r\n"
      "Mime-Version: 1.0\r\nContent-Type: multipart/mixed;\r\n\tboundary=\"BB\"\r\n"
      "Content-Transfer-Encoding: 8bit\r\n\r\n"
      "--BB\r\nContent-Type: text/plain; charset=\"utf-8\"\r\n"
      "Content-Transfer-Encoding: base64\r\n\r\n"
      "YWI=\r\n"
      "\r\n--BB\r\nContent-Type: application/pdf;\r\n\tname=\"a.pdf\"\r\n"
      "Content-Disposition: attachment;\r\n\tfilename=\"a.pdf\"\r\n"
      "Content-Transfer-Encoding: base64\r\n\r\n"
      "UERG\r\nREFU\r\nQQ==\r\n"
      "\r\n--BB--\r\n\r\n";
  EXPECT_EQ(host.messages().at(0).data, expected);
}

TEST_F(Mail, a_body_without_a_session_is_refused_for_what_comes_first) {
  const struct {
    TAV_EML_TRANSFER_ENCODING encoding;
    const char* body;
    const char* line;
  } cases[] = {{TAV_EML_TE_7BIT, "", "send_body : get_buffer NG[Error]"},
               {TAV_EML_TE_QUOTED_PRINTABLE, "x", "send_body : Invalid tr_endode[Error]"},
               {TAV_EML_TE_8BIT, "x", "tav_eml_smtp_send_data : fp == 0[Error]"},
               {TAV_EML_TE_BASE64, "x", "send_body : tav_eml_smtp_send_data NG[Error]"}};
  for (const auto& test : cases) {
    mail.m_nTransferEncoding = test.encoding;
    if (*test.body != '\0') give(mail, test.body);
    EXPECT_EQ(facade().send_body(mail), TAV_EML_ERR_UNKNOWN);
    EXPECT_TRUE(log.contains(test.line)) << log.all();
  }
}

TEST_F(Mail, lines_are_made_fit_for_the_wire) {
  const struct {
    const char* chunk;
    const char* wire;
  } cases[] = {
      {"a\n.\n", "a\r\n..\r\n"},
      {"abc", "abc\r\n"},
      {".", "..\r\n"},
      {"\n\n", "\r\n\r\n"},
      {"\n.\n.", "\r\n..\r\n..\r\n"},
      {".\r\n..\r\n", "..\r\n...\r\n"},
      {"a\r\nb", "a\r\nb\r\n"},
      {"a\rb\n", "a\rb\r\n"},
      {"\r\n", "\r\n"},
      {"a\r", "a\r\r\n"},
      {"\r.\n", "\r.\r\n"},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(facade().connect_mail(), TAV_EML_OK);
    EXPECT_EQ(facade().send_header(mail), TAV_EML_OK);
    give(mail, test.chunk);
    EXPECT_EQ(facade().send_body(mail), TAV_EML_OK);
    const std::string sent = host.client_bytes(host.connections());
    EXPECT_EQ(sent.substr(sent.find("7bit\r\n\r\n") + 8), test.wire) << test.chunk;
    facade().abort_mail();
  }
}

TEST_F(Mail, lines_around_the_size_of_the_spool_arrive_whole) {
  for (const size_t length : {65533u, 65534u, 65535u, 65536u, 65537u, 200000u}) {
    for (const bool has_dot : {false, true}) {
      std::string line(length, 'x');
      if (has_dot) line[0] = '.';
      EXPECT_EQ(send("first\n" + line + "\nlast\n" + line), TAV_EML_OK);
      EXPECT_EQ(body_received(), "first\r\n" + line + "\r\nlast\r\n" + line + "\r\n\r\n");
    }
  }
  net.send_limit(1000);
  EXPECT_EQ(send(std::string(100, '.') + "\n" + std::string(70000, 'y')), TAV_EML_OK);
}

TEST_F(Mail, every_slicing_gives_the_same_body) {
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  const std::string body = "0123456789";
  for (size_t first = 1; first < body.size(); ++first) {
    for (size_t second = 1; first + second <= body.size(); ++second) {
      ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
      ASSERT_EQ(facade().send_header(mail), TAV_EML_OK);
      for (const std::string& piece :
           {body.substr(0, first), body.substr(first, second), body.substr(first + second)}) {
        if (piece.empty()) continue;
        give(mail, piece);
        ASSERT_EQ(facade().send_body(mail), TAV_EML_OK);
      }
      ASSERT_EQ(facade().close_mail(mail), TAV_EML_OK);
      const std::string text = body_received();
      EXPECT_EQ(from_base64(text), body);
      EXPECT_LE(std::count(text.begin(), text.end(), '='), 2) << "padding in the middle";
    }
  }
}

TEST_F(Mail, text_is_converted_whole) {
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  const struct {
    TAV_EML_CHAR_SET char_set;
    std::string text;
    std::string expected;
  } cases[] = {
      {TAV_EML_CS_ISO_2022_JP, "a", "a"},
      {TAV_EML_CS_ISO_2022_JP, "あ", "\033$B$\"\033(B"},
      {TAV_EML_CS_SHIFT_JIS, "ア", "\x83\x41"},
      {TAV_EML_CS_UTF_8, "あ", "あ"},
  };
  for (const auto& test : cases) {
    mail.m_nCharSet = test.char_set;
    EXPECT_EQ(send(test.text), TAV_EML_OK);
    EXPECT_EQ(from_base64(body_received()), test.expected);
  }
  // Text that grows more than any room made for it: a set change at every character.
  std::string text;
  std::string expected;
  for (int i = 0; i < 500; ++i) {
    text += "a§";
    expected += "a\033$B!x\033(B";
  }
  mail.m_nCharSet = TAV_EML_CS_ISO_2022_JP;
  EXPECT_EQ(send(text), TAV_EML_OK);
  EXPECT_EQ(from_base64(body_received()), expected);

  for (const char* bad : {"😀", "\xe3\x81", "\xff"}) {
    EXPECT_EQ(send(bad), TAV_EML_ERR_UNKNOWN) << bad;
    EXPECT_TRUE(log.contains("convert_encoded_string return 0x"));
  }
}

TEST_F(Mail, an_inline_part_is_text_and_an_attachment_is_not) {
  attach(mail);
  mail.m_nCharSet = TAV_EML_CS_SHIFT_JIS;
  mail.m_pPart->m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  for (const auto disposition : {TAV_EML_CD_ATTACHMENT, TAV_EML_CD_INLINE}) {
    mail.m_pPart->m_nContentDisposition = disposition;
    EXPECT_EQ(send("a", 1, "ア"), TAV_EML_OK);
    const std::string& data = host.messages().back().data;
    const std::string part = data.substr(data.rfind("base64\r\n\r\n") + 10);
    EXPECT_EQ(from_base64(part.substr(0, part.find("\r\n"))),
              disposition == TAV_EML_CD_ATTACHMENT ? "ア" : "\x83\x41");
  }
}

TEST_F(Mail, every_recipient_gets_a_command_and_one_refusal_ends_it) {
  mail.m_cTo = tav_eml_mlutl_mail_address("One <1@x.y>; \"Two; 2\" <2@x.y>, 3@x.y");
  mail.m_cCc = tav_eml_mlutl_mail_address("4@x.y");
  mail.m_cBcc = tav_eml_mlutl_mail_address("5@x.y,1@x.y");
  EXPECT_EQ(send("x"), TAV_EML_OK);
  const std::vector<std::string> all = {"1@x.y", "2@x.y", "3@x.y", "4@x.y", "5@x.y", "1@x.y"};
  EXPECT_EQ(host.messages().at(0).to, all);
  EXPECT_EQ(host.messages().at(0).data.find("5@x.y"), std::string::npos);

  host.reply_to("RCPT", 8, "550 who\r\n");
  EXPECT_EQ(send("x"), TAV_EML_ERR_REPLY);
  EXPECT_EQ(host.occurrences("RCPT"), 8u);
  host.reply_to("RCPT", 9, "451 later\r\n");
  EXPECT_EQ(send("x"), TAV_EML_ERR_REPLY_TEMPORARY);
  EXPECT_EQ(host.messages().size(), 1u);
}

TEST_F(Mail, a_mail_without_sender_or_recipient_is_not_sent) {
  mail.m_cTo = tav_eml_mlutl_mail_address();
  EXPECT_EQ(send("x"), TAV_EML_ERR_NO_RCPT);
  EXPECT_EQ(host.occurrences("MAIL"), 1u);
  mail.m_cFrom = tav_eml_mlutl_mail_address("<>");
  EXPECT_EQ(send("x"), TAV_EML_ERR_NO_FROM);
  EXPECT_TRUE(log.contains("FROM_LEN==0"));
  mail.m_cFrom = tav_eml_mlutl_mail_address();
  EXPECT_EQ(send("x"), TAV_EML_ERR_NO_FROM);
  EXPECT_TRUE(log.contains("FROM==NULL"));
  EXPECT_EQ(host.occurrences("MAIL"), 1u);
}

TEST_F(Mail, bad_values_are_refused_before_anything_is_sent) {
  const auto refused = [&](const char* what, auto&& change) {
    tav_eml_smtp_send_mail bad;
    fill(bad);
    attach(bad);
    change(bad);
    ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
    EXPECT_EQ(facade().send_header(bad), TAV_EML_ERR_PARAM) << what;
    facade().abort_mail();
  };
  using address = tav_eml_mlutl_mail_address;
  using mail_ref = tav_eml_smtp_send_mail&;
  refused("from", [](mail_ref m) { m.m_cFrom = address("a@b>\r\nRCPT TO:<x@y"); });
  refused("to", [](mail_ref m) { m.m_cTo = address("a@b\r\nX: y"); });
  refused("long from",
          [](mail_ref m) { m.m_cFrom = address((std::string(253, 'x') + "@b.c").c_str()); });
  refused("long to",
          [](mail_ref m) { m.m_cTo = address((std::string(253, 'x') + "@b.c").c_str()); });
  refused("empty to", [](mail_ref m) { m.m_cTo = address("ok@b.c, <>"); });
  refused("subject", [](mail_ref m) { m.m_cSubject = "a\nBcc: x"; });
  refused("subject CR", [](mail_ref m) { m.m_cSubject = "a\rb"; });
  refused("date", [](mail_ref m) { m.m_cDate = "x\r\nX: y"; });
  refused("reply-to", [](mail_ref m) { m.m_cReplyTo = address("a@b\r\n.\r\n"); });
  refused("boundary", [](mail_ref m) { m.m_cBoundaryString = "a\r\nb"; });
  refused("no boundary", [](mail_ref m) { m.m_cBoundaryString = ""; });
  refused("long boundary",
          [](mail_ref m) { m.m_cBoundaryString = std::string(1000, 'b').c_str(); });
  refused("long subject", [](mail_ref m) { m.m_cSubject = std::string(1013, 's').c_str(); });
  refused("long name of a recipient", [](mail_ref m) {
    m.m_cTo = address(("a@b, " + std::string(1015, 'n') + " <c@d>").c_str());
  });
  refused("file name", [](mail_ref m) { m.m_pPart->m_cFIleName = "a\r\nX: y"; });
  EXPECT_EQ(host.occurrences("MAIL"), 0u);
  // A fold is allowed, and an address of 256 bytes.
  mail.m_cSubject = "folded\r\n\ton purpose";
  mail.m_cTo = address((std::string(252, 'x') + "@b.c").c_str());
  EXPECT_EQ(send("x"), TAV_EML_OK);
  // The limit is one for the text that was given, not for what it is encoded to.
  std::string subject;
  for (int i = 0; i < 337; ++i) subject += "件";
  mail.m_cSubject = subject.c_str();
  EXPECT_EQ(send("x"), TAV_EML_OK);
}

TEST_F(Mail, after_a_refused_data_nothing_of_the_mail_goes_out) {
  attach(mail);
  host.reply_to("DATA", 1, "554 no\r\n");
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  EXPECT_EQ(facade().send_header(mail), TAV_EML_ERR_REPLY);
  give(mail, "body");
  EXPECT_EQ(facade().send_body(mail), TAV_EML_ERR_UNKNOWN);
  EXPECT_EQ(facade().send_part_header(mail), TAV_EML_ERR_UNKNOWN);
  give(*mail.m_pPart, "data");
  EXPECT_EQ(facade().send_part_body(mail), TAV_EML_ERR_UNKNOWN);
  EXPECT_EQ(facade().close_mail(mail), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(), "EHLO localhost\r\n" + kEnvelope + "DATA\r\nQUIT\r\n");
}

TEST_F(Mail, a_silent_answer_to_data_is_aborted_without_quit) {
  host.silence_at("DATA", 1);
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  EXPECT_EQ(facade().send_header(mail), TAV_EML_ERR_TRANSFER_TIMEOUT);
  EXPECT_TRUE(log.contains("tav_eml_smtp_boundary:: send_header: DATA command was timed out!"));
  EXPECT_EQ(facade().abort_mail(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes().find("QUIT"), std::string::npos);
}

TEST_F(Mail, the_end_of_the_mail_tells_what_became_of_it) {
  const struct {
    const char* reply;
    TAV_EML_RESULT expected;
  } cases[] = {{"250 ok\r\n", TAV_EML_OK},
               {"452 full\r\n", TAV_EML_ERR_REPLY_TEMPORARY},
               {"552 big\r\n", TAV_EML_ERR_REPLY}};
  size_t nth = 0;
  for (const auto& test : cases) {
    host.reply_to(smtp_host::end_of_data, ++nth, test.reply);
    EXPECT_EQ(send("x"), test.expected);
    const std::string sent = host.client_bytes(nth);
    EXPECT_EQ(sent.substr(sent.size() - 6), "QUIT\r\n");
  }
  host.close_at(smtp_host::end_of_data, ++nth);
  EXPECT_EQ(send("x"), TAV_EML_ERR_REPLY);
  EXPECT_EQ(net.leaks(), "");
}

TEST_F(Mail, the_size_limit_is_a_limit_for_everything_sent) {
  EXPECT_EQ(send("123"), TAV_EML_OK);
  const uint32_t header = static_cast<uint32_t>(sizeof kHeader - 1);
  for (const uint32_t limit : {header, header + 3, header + 4}) {
    boundary.reset();
    record.size_limit = limit;
    EXPECT_EQ(send("123"), limit == header + 4 ? TAV_EML_OK : TAV_EML_ERR_SIZE_LIMIT) << limit;
    EXPECT_EQ(facade().judge_size_of_data(0xFFFFFFFF), TAV_EML_ERR_SIZE_LIMIT);
    EXPECT_EQ(facade().judge_size_of_data(0xFFFFFFFF), TAV_EML_ERR_SIZE_LIMIT) << "wrapped around";
  }
  EXPECT_EQ(host.messages().size(), 2u);
}

TEST_F(Mail, what_the_interface_cannot_send_is_refused) {
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  ASSERT_EQ(facade().send_header(mail), TAV_EML_OK);
  EXPECT_EQ(facade().send_body(mail), TAV_EML_ERR_UNKNOWN);  // nothing to send
  mail.m_nTransferEncoding = TAV_EML_TE_QUOTED_PRINTABLE;
  give(mail, "x");
  EXPECT_EQ(facade().send_body(mail), TAV_EML_ERR_UNKNOWN);
  EXPECT_TRUE(log.contains("tav_eml_smtp_boundary::send_body : Invalid tr_endode[Error]"));
  EXPECT_EQ(facade().send_part_header(mail), TAV_EML_ERR_UNKNOWN);  // no part
  facade().abort_mail();
  EXPECT_EQ(facade().send_header(mail), TAV_EML_ERR_TRANSFER);  // not connected any more
  boundary.reset();
  EXPECT_EQ(facade().send_header(mail), TAV_EML_ERR_UNKNOWN);
}

TEST_F(Mail, one_object_sends_several_mails_one_thread_after_the_other) {
  EXPECT_EQ(send("1"), TAV_EML_OK);
  std::thread([&] { EXPECT_EQ(send("2"), TAV_EML_OK); }).join();
  EXPECT_EQ(send("3"), TAV_EML_OK);
  EXPECT_EQ(host.messages().size(), 3u);
}

}  // namespace
}  // namespace dialogue
