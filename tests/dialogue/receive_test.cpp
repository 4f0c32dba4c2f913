// Whole messages, from the wire to the application.

#include <algorithm>
#include <random>

#include "pop3_fixture.h"

namespace dialogue {
namespace {

constexpr char kMixed[] = "Content-Type: multipart/mixed; boundary=\"B\"\r\n\r\n";

// One message on the wire, behind the status line of RETR.
class Receive : public Pop3 {
 protected:
  // `wire` is sent as it is and ends by itself.
  received_mail read_wire(const std::string& wire, bool hangs_up = false) {
    ++m_asked;
    if (hangs_up) {
      host.close_at("RETR", m_asked, "+OK\r\n" + wire);
    } else {
      host.reply_to("RETR", m_asked, "+OK\r\n" + wire);
    }
    EXPECT_EQ(facade().connect_mail(), TAV_EML_OK);
    tav_eml_pop3_mail_info info(1, "uid", static_cast<long>(wire.size()), 1);
    mail = std::make_unique<tav_eml_pop3_receive_mail>(info);
    reader application(facade());
    application.after_step = [&] { most_bytes = std::max(most_bytes, memory.live_bytes()); };
    return application.read(*mail);
  }
  // Reads a whole message, after which the connection must be in order.
  received_mail read(const std::string& message) {
    received_mail got = read_wire(message + ".\r\n");
    EXPECT_EQ(mail->m_nReceiving, 0);
    EXPECT_EQ(facade().noop(), TAV_EML_OK) << log.all().substr(0, 2000);
    log.clear();
    return got;
  }

  std::unique_ptr<tav_eml_pop3_receive_mail> mail;
  size_t most_bytes = 0;
  size_t m_asked = 0;
  void TearDown() override {
    mail.reset();
    Pop3::TearDown();
  }
};

// One of everything, with its parts as an application shall get them.
const std::string kEverything =
    "Subject: =?utf-8?B?5pel5pys?=\r\n =?utf-8?Q?=E8=AA=9E?=\r\nMIME-Version: 1.0\r\n"
    "Content-Type: multipart/mixed;\r\n\tboundary=\"B\"\r\n\r\n"
    "preamble\r\n\r\nContent-Type: image/png\r\n--no delimiter\r\n"
    "--B\r\nContent-Type: text/plain\r\n\r\none\r\n--\r\n\r\n-- \r\n..dot\r\n"
    "--B\r\n\r\nheader was empty\r\n"
    "--B\r\nContent-Type: multipart/alternative; boundary=in\r\n\r\n"
    "inner preamble\r\nContent-Type: image/png\r\n\r\n"
    "--in\r\nContent-Type: text/plain\r\nContent-Transfer-Encoding: quoted-printable\r\n\r\n"
    "a=3Db=\r\nc\r\n"
    "--in\r\nContent-Type: text/html\r\nContent-Transfer-Encoding: base64\r\n\r\nPGI+\r\n"
    "--in--\r\ninner epilogue: x\r\n\r\n--not out\r\n\r\n"
    "--B\r\nContent-Type: application/pdf;\r\n name=\"=?utf-8?Q?x=E6=97=A5.pdf?=\"\r\n"
    "Content-Disposition: attachment\r\nContent-Transfer-Encoding: base64\r\n\r\n"
    "JVBERi0x\r\nLjQ=\r\n"
    "--B--\r\nepilogue\r\n--B\r\nContent-Type: text/plain\r\n\r\nno part\r\n";
const std::string kEverythingRead =
    "text/plain||one\r\n--\r\n\r\n-- \r\n.dot\r\n;||header was empty\r\n;text/plain||a=bc\r\n;"
    "text/html||<b>;application/pdf|x日.pdf|%PDF-1.4;";

TEST_F(Receive, any_slicing_of_the_stream_gives_the_same_parts) {
  for (const size_t slice : {size_t{1}, size_t{2}, size_t{7}, size_t{100}, net.unlimited}) {
    net.recv_limit(slice);
    const received_mail got = read(kEverything);
    EXPECT_EQ(got.result, TAV_EML_OK);
    EXPECT_EQ(got.shown(), kEverythingRead) << slice;
    EXPECT_EQ(text(mail->m_cSubject), "日本語");
  }
}

TEST_F(Receive, a_message_cut_anywhere_gives_a_definite_result) {
  for (const bool hangs_up : {true, false}) {
    for (size_t length = 0; length < kEverything.size() + 3; ++length) {
      const std::string wire = (kEverything + ".\r\n").substr(0, length);
      const received_mail got = read_wire(wire, hangs_up);
      ASSERT_NE(got.result, TAV_EML_OK) << length;
      ASSERT_NE(mail->m_nReceiving, 0) << length;
      ASSERT_EQ(facade().noop(), TAV_EML_ERR_NOT_CONNECTED);
      ASSERT_EQ(net.leaks(), "");
      if (hangs_up && length == 0) {
        EXPECT_EQ(net.sleeps(), (std::vector<int32_t>{20, 20, 20}));
      }
      // What came is what was there, part by part.
      std::string came = got.shown();
      if (!came.empty()) came.pop_back();
      ASSERT_EQ(kEverythingRead.substr(0, came.size()), came) << length;
      log.clear();
    }
  }
}

TEST_F(Receive, a_single_part_comes_in_blocks_that_end_at_line_ends) {
  const std::string line(74, 'x');
  const struct {
    const char* encoding;
    std::string wire, data;
    long longest;
  } cases[] = {
      {"base64", repeated(repeated("QUJD", 19) + "\r\n", 132), repeated("ABC", 19 * 132), 2992},
      {"quoted-printable", repeated("=E6=97=A5=\r\n" + line + "\r\n", 100),
       repeated("日" + line + "\r\n", 100), 4096},
      {"8bit", repeated("\xe6\x97\xa5" + line + "\r\n", 150),
       repeated("\xe6\x97\xa5" + line + "\r\n", 150), 4096},
      {"7bit", repeated(std::string(4093, 'a') + "\r\n", 5),
       repeated(std::string(4093, 'a') + "\r\n", 5), 4096},
      {"x-unknown", "x\r\n..\r\n...\r\n", "x\r\n.\r\n..\r\n", 10},
      {"base64", "QUJD\r\n\r\n", "ABC", 3},
      {"7bit", "", "", 0},
  };
  for (const auto& test : cases) {
    const received_mail got =
        read(std::string("Content-Transfer-Encoding: ") + test.encoding + "\r\n\r\n" + test.wire);
    EXPECT_EQ(got.result, TAV_EML_OK) << test.encoding;
    ASSERT_EQ(got.parts.size(), 1u);
    EXPECT_EQ(got.parts[0].data == test.data, true) << test.encoding << got.parts[0].data.size();
    EXPECT_LE(got.parts[0].longest, test.longest) << test.encoding;
    EXPECT_EQ(mail->m_nComplete, 1);
  }
}

// Base64 whose lines end within groups: what a block leaves of a group begins the next one, and the
// whole body is what its characters say.
TEST_F(Receive, base64_lines_of_any_length_lose_nothing) {
  std::string bytes;
  for (int i = 0; i < 39999; ++i) bytes += static_cast<char>(i * 31 % 251);
  char* encoded = nullptr;
  long length = 0;
  ASSERT_EQ(tav_eml_mlutl_mime_utility::to_b64(bytes.data(), static_cast<long>(bytes.size()),
                                               encoded, length, 0),
            1);
  const std::string characters = taken(encoded, length);
  for (const size_t line : {1, 3, 54, 73, 74, 75, 76, 77, 997, 2047, 4091, 4092, 4093}) {
    std::string wire;
    for (size_t at = 0; at < characters.size(); at += line) {
      wire += characters.substr(at, line) + "\r\n";
    }
    const std::string header = "Content-Transfer-Encoding: base64\r\n\r\n";
    const received_mail single = read(header + wire);
    EXPECT_EQ(single.result, TAV_EML_OK) << line;
    EXPECT_TRUE(single.parts[0].data == bytes) << line;
    // Two parts, the first cut within a group: its rest is not the second's.
    const received_mail multi =
        read(kMixed + ("--B\r\n" + header + wire + "Q\r\n--B\r\n" + header + wire + "--B--\r\n"));
    ASSERT_EQ(multi.parts.size(), 2u) << line;
    EXPECT_TRUE(multi.parts[0].data == bytes && multi.parts[1].data == bytes) << line;
  }
}

// Lines of all lengths that begin with, hold and end with what ends messages and parts.
TEST_F(Receive, any_lines_arrive_as_they_were_sent) {
  std::mt19937 random(3);
  for (int round = 0; round < 60; ++round) {
    const unsigned int rarity = round % 2 == 0 ? 4 : 200;
    std::string wire, data;
    while (data.size() < 20000) {
      std::string line;
      for (size_t length = random() % 100; line.size() < length;) {
        line += random() % rarity == 0 ? ".-\r\0"[random() % 4] : 'x';
      }
      line += random() % rarity == 0 ? "\n" : "\r\n";
      if (line == ".\r\n") line = "\r\n";
      wire += (line[0] == '.' ? "." : "") + line;
      data += line;
    }
    std::replace(data.begin(), data.end(), '\0', ' ');
    net.recv_limit(round % 3 == 0 ? 1 + random() % 5000 : net.unlimited);
    const received_mail single = read("Content-Transfer-Encoding: 8bit\r\n\r\n" + wire);
    ASSERT_EQ(single.result, TAV_EML_OK);
    ASSERT_TRUE(single.parts[0].data == data) << round;
    const received_mail multi =
        read(kMixed + ("--B\r\nContent-Transfer-Encoding: 8bit\r\n\r\n" + wire + "--B--\r\n"));
    ASSERT_EQ(multi.result, TAV_EML_OK);
    ASSERT_TRUE(multi.parts[0].data == data) << round;
  }
}

TEST_F(Receive, structures_out_of_the_ordinary) {
  const std::string in = "Content-Type: multipart/mixed; boundary=";
  const struct {
    const char* what;
    std::string message, shown;
    size_t traces;
  } cases[] = {
      {"nested one last",
       kMixed + ("--B\r\n" + in + "in\r\n\r\n--in\r\n\r\na\r\n--in--\r\n--B--\r\n--x\r\n"),
       "||a\r\n;", 1},
      {"the same boundary at every level",
       kMixed + ("--B\r\n" + in + "B\r\n\r\n--B\r\n\r\na\r\n--B--\r\n--B\r\n\r\nb\r\n--B--\r\n"),
       "||a\r\n;||b\r\n;", 0},
      {"inner boundary a prefix of the outer",
       "Content-Type: multipart/mixed; boundary=BB\r\n\r\n--BB\r\n" + in +
           "B\r\n\r\n--B\r\n\r\na\r\n--B--\r\n--BB\r\n\r\nb\r\n--BB--\r\n",
       "||a\r\n;||b\r\n;", 0},
      {"outer boundary a prefix of the inner",
       kMixed + ("--B\r\n" + in + "BB\r\n\r\n--BB\r\n\r\na\r\n--BB--\r\n--B\r\n\r\nb\r\n--B--\r\n"),
       "||a\r\n;||b\r\n;", 0},
      {"nested one empty",
       kMixed + ("--B\r\n" + in + "in\r\n\r\n--in--\r\n--B\r\n\r\nb\r\n--B--\r\n"), "||b\r\n;", 0},
      {"no parts at all", kMixed + std::string("--B--\r\n"), "", 1},
      {"no delimiter at all", kMixed + std::string("text\r\n\r\ntext\r\n"), "", 1},
      {"no close delimiter", kMixed + std::string("--B\r\n\r\na\r\n"), "||a\r\n;", 0},
      {"header cut by a delimiter",
       kMixed + std::string("--B\r\nContent-Type: text/html\r\n--B\r\n\r\nb\r\n--B--\r\n"),
       "||b\r\n;", 1},
      {"delimiters with blanks behind them",
       kMixed + std::string("--B \t\r\n\r\na\r\n--B-- \r\nx\r\n"), "||a\r\n;", 0},
      {"leaf with a boundary of its own",
       kMixed + std::string("--B\r\nContent-Type: text/plain; boundary=L\r\n\r\na\r\n--B--\r\n"),
       "text/plain||a\r\n--B--\r\n;", 0},
      {"bare line feeds in a part", kMixed + std::string("--B\r\n\r\na\r\nb\n--B--\r\n"),
       "||a\r\nb\n;", 0},
      {"header lines in front of the first part",
       kMixed + std::string("Content-Type: image/png\r\n--B\r\n\r\na\r\n--B--\r\n"), "||a\r\n;", 0},
      {"boundary without a character",
       "Content-Type: multipart/mixed; boundary=\r\n\r\n--\r\n\r\na\r\n----\r\n", "||a\r\n;", 0},
  };
  for (const auto& test : cases) {
    const received_mail got = read(test.message);
    EXPECT_EQ(got.result, TAV_EML_OK) << test.what;
    EXPECT_EQ(got.shown(), test.shown) << test.what;
    EXPECT_EQ(std::count_if(got.parts.begin(), got.parts.end(),
                            [](const received_part& part) { return part.is_trace; }),
              static_cast<long>(test.traces))
        << test.what;
  }
}

TEST_F(Receive, sizes_out_of_the_ordinary_take_bounded_memory) {
  std::string nested;
  for (int level = 0; level < 300; ++level) {
    const std::string name = "level" + std::to_string(level) + "x";
    nested += "Content-Type: multipart/mixed; boundary=" + name + "\r\n\r\n--" + name + "\r\n";
  }
  EXPECT_EQ(read(nested + "\r\ndeep\r\n").result, TAV_EML_OK);

  const received_mail many =
      read(kMixed + repeated("--B\r\nContent-Type: text/plain\r\n\r\nabc\r\n", 3000) + "--B--\r\n");
  EXPECT_EQ(many.result, TAV_EML_OK);
  EXPECT_EQ(many.shown(), repeated("text/plain||abc\r\n;", 3000));

  EXPECT_EQ(read("X: y\r\n\r\n" + repeated("0123456789\r\n", 100000)).result, TAV_EML_OK);
  EXPECT_LT(most_bytes, 200000u);

  // A header that is too long fails; the rest can be skipped.
  for (const char* line : {"X: y\r\n", " y\r\n", "Content-Type: =?utf-8?Q?x?= x\r\n"}) {
    const std::string header = repeated(line, 1000000 / std::strlen(line));
    const received_mail got = read_wire("Subject: x\r\n" + header + "\r\nbody\r\n.\r\n");
    EXPECT_EQ(got.result, TAV_EML_ERR_UNKNOWN);
    EXPECT_TRUE(log.contains("header too long"));
    EXPECT_EQ(facade().skip_mail(*mail), TAV_EML_UTL_OK);
    EXPECT_EQ(facade().noop(), TAV_EML_OK);
    log.clear();
  }
  EXPECT_LT(most_bytes, 1000000u);
  // One that just fits is analysed.
  EXPECT_EQ(read(repeated("X: =?utf-8?Q?y?=\r\n", 14000) + "Subject: last\r\n\r\nx\r\n").result,
            TAV_EML_OK);
  EXPECT_EQ(text(mail->m_cSubject), "last");
}

TEST_F(Receive, a_line_that_is_too_long_ends_the_connection) {
  const std::string line(5000, 'x');
  for (const std::string& message : {line + "\r\n\r\n.\r\n", "\r\na\r\n" + line + "\r\n.\r\n",
                                     kMixed + ("--B\r\nX: " + line + "\r\n.\r\n"),
                                     kMixed + ("--B\r\n\r\n" + line + "\r\n--B--\r\n.\r\n")}) {
    EXPECT_NE(read_wire(message).result, TAV_EML_OK);
    EXPECT_TRUE(log.contains("line too long"));
    EXPECT_NE(mail->m_nReceiving, 0);
    EXPECT_EQ(facade().noop(), TAV_EML_ERR_NOT_CONNECTED);
    log.clear();
  }
  EXPECT_EQ(read(line.substr(0, 4093) + "\r\n\r\nx\r\n").shown(), "||x\r\n;");
}

TEST_F(Receive, a_nul_is_a_blank_and_ends_nothing) {
  const auto with_nul = [](std::string bytes) {
    std::replace(bytes.begin(), bytes.end(), '@', '\0');
    return bytes;
  };
  for (const size_t slice : {size_t{1}, net.unlimited}) {
    net.recv_limit(slice);
    EXPECT_EQ(read(with_nul("Subject: a@b\r\n\r\n@.\r\nx@\r\n@@@\r\n.@\r\n")).shown(),
              "|| .\r\nx \r\n   \r\n \r\n;");
    EXPECT_EQ(text(mail->m_cSubject), "a b");
    EXPECT_EQ(read(kMixed + with_nul("--B\r\n@\r\n\r\n@--B\r\n--B--\r\n")).shown(), "|| --B\r\n;");
  }
}

TEST_F(Receive, data_that_cannot_be_used_is_passed_over) {
  // A multipart without a boundary has no parts; each delimiter is refused, and its end comes.
  received_mail got = read("Content-Type: multipart/mixed\r\n\r\n--B\r\n\r\na\r\n--B--\r\n");
  EXPECT_EQ(got.unusable, 2);
  EXPECT_EQ(got.shown(), "");
  // A whole block of bare line feeds is no block.
  got = read("X: y\r\n\r\n" + repeated("abc\n", 1100) + "\r\nend\r\n");
  EXPECT_EQ(got.unusable, 1);
  EXPECT_EQ(got.parts[0].data.substr(got.parts[0].data.size() - 5), "end\r\n");
  // Nothing but what base64 ignores.
  got = read("Content-Transfer-Encoding: base64\r\n\r\n" + repeated("----------\r\n", 600) +
             "QUJD\r\n");
  EXPECT_EQ(got.parts[0].data, "ABC");
}

TEST_F(Receive, skips_what_is_not_wanted) {
  host.reply_to("RETR", pop3_host::every,
                std::string("+OK\r\n") + kMixed + "--B\r\n\r\n" +
                    repeated("Content-Type: image/tiff\r\n", 500) +
                    "--B\r\nX: y\r\n\r\nsecond\r\n--B--\r\nepilogue\r\n.\r\n");
  tav_eml_pop3_mail_info info(1, "uid", 1, 1);
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  for (const int blocks : {0, 1, 2}) {  // read before the skip
    for (const bool all : {false, true}) {
      tav_eml_pop3_receive_mail partly(info);
      ASSERT_EQ(facade().receive_header(partly, 0), TAV_EML_OK);
      partly.set_part(new tav_eml_pop3_receive_mail_part);
      ASSERT_EQ(facade().receive_part_header(partly, 0), TAV_EML_OK);
      for (int i = 0; i < blocks; ++i) ASSERT_EQ(facade().receive_part_body(partly), TAV_EML_OK);
      if (all) {
        EXPECT_EQ(facade().skip_mail(partly), TAV_EML_UTL_OK);
      } else {
        EXPECT_EQ(facade().skip_part(partly), TAV_EML_OK);
        EXPECT_EQ(facade().skip_part(partly), TAV_EML_OK);  // nothing left of it
        received_mail got;
        EXPECT_TRUE(reader(facade()).read_part(partly, got));
        EXPECT_EQ(got.shown(), "||second\r\n;");
      }
      EXPECT_EQ(partly.m_nReceiving, 0);
      EXPECT_EQ(facade().skip_mail(partly), TAV_EML_UTL_OK);
      EXPECT_EQ(facade().noop(), TAV_EML_OK);
    }
  }
}

TEST_F(Receive, a_header_alone_and_then_the_mail) {
  host.add("uid", "Subject: s\r\n..x: y\r\n\r\nbody\r\n");
  tav_eml_pop3_mail_info info(1, "uid", 1, 1);
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  tav_eml_pop3_receive_mail header(info);
  ASSERT_EQ(facade().receive_header_only(header, 0), TAV_EML_OK);
  EXPECT_EQ(text(header.m_cSubject), "s");
  EXPECT_EQ(header.m_nReceiving, 0);
  EXPECT_EQ(facade().receive_header(header, 0), TAV_EML_ERR_UNKNOWN);  // it is finished
  EXPECT_EQ(facade().receive_header_only(header, 0), TAV_EML_ERR_UNKNOWN);
  tav_eml_pop3_receive_mail again(info);
  EXPECT_EQ(reader(facade()).read(again).shown(), "||body\r\n;");
  EXPECT_NE(host.client_bytes().find("\r\nTOP 1 0\r\nRETR 1\r\n"), std::string::npos);
  host.reply_to("TOP", 2, "+OK\r\n.\r\n");  // no header at all
  tav_eml_pop3_receive_mail empty(info);
  EXPECT_EQ(facade().receive_header_only(empty, 0), TAV_EML_OK);
  EXPECT_EQ(text(empty.m_cSubject), "");
  EXPECT_EQ(facade().noop(), TAV_EML_OK);
}

TEST_F(Receive, calls_in_the_wrong_order_are_refused) {
  tav_eml_pop3_mail_info info(1, "uid", 1, 1);
  tav_eml_pop3_receive_mail lost(info);
  for (const TAV_EML_RESULT result :
       {facade().receive_header(lost, 0), facade().receive_header_only(lost, 0),
        facade().receive_body(lost), facade().receive_part_header(lost, 0),
        facade().receive_part_body(lost), facade().skip_part(lost)}) {
    EXPECT_EQ(result, TAV_EML_ERR_NOT_CONNECTED);
  }
  EXPECT_EQ(facade().skip_mail(lost), TAV_EML_UTL_NOT_CONNECTED);

  host.reply_to("RETR", 1, std::string("+OK\r\n") + kMixed + "--B\r\n\r\na\r\n--B--\r\n.\r\n");
  host.reply_to("RETR", 2, "+OK\r\nSubject: x\r\n\r\na\r\n.\r\n");
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  const auto refused = [&](TAV_EML_RESULT result, const char* message) {
    EXPECT_EQ(result, TAV_EML_ERR_UNKNOWN) << message;
    EXPECT_TRUE(log.contains(message)) << log.all();
    log.clear();
  };
  tav_eml_pop3_receive_mail multi(info);
  ASSERT_EQ(facade().receive_header(multi, 0), TAV_EML_OK);
  refused(facade().receive_body(multi), "receive_body():[Return 1]multipart mail.");
  refused(facade().receive_part_header(multi, 0), "receive_part_header():[Return 1]no part.");
  refused(facade().receive_part_body(multi), "receive_part_body():[Return 1]no part.");
  refused(facade().skip_part(multi), "skip_part():[Return 00000001]no part.");
  multi.set_part(new tav_eml_pop3_receive_mail_part);
  ASSERT_EQ(facade().receive_part_header(multi, 0), TAV_EML_OK);
  ASSERT_EQ(facade().receive_part_body(multi), TAV_EML_OK);
  refused(facade().receive_part_body(multi), "receive_part_body():[Return 1] no data.");
  refused(facade().receive_part_header(multi, 0), "receive_part_header():[Return 1] no data.");
  tav_eml_pop3_receive_mail single(info);
  ASSERT_EQ(facade().receive_header(single, 0), TAV_EML_OK);
  refused(facade().receive_part_body(single), "receive_part_body():[Return 1]not multipart.");
  ASSERT_EQ(facade().receive_body(single), TAV_EML_OK);
  refused(facade().receive_body(single), "receive_body():[Return 1] no data.");
}

TEST_F(Receive, what_follows_a_status_line_without_cr_belongs_to_the_message) {
  for (const std::string& nul : {std::string(), std::string(1, '\0')}) {
    host.reply_to("RETR", ++m_asked, "+OK\nX: y" + nul + "\r\nSubject: s\r\n\r\nbody\r\n.\r\n");
    ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
    tav_eml_pop3_mail_info info(1, "uid", 1, 1);
    tav_eml_pop3_receive_mail early(info);
    EXPECT_EQ(reader(facade()).read(early).shown(), "||body\r\n;");
    EXPECT_EQ(text(early.m_cSubject), "s");
  }
}

TEST_F(Receive, what_comes_behind_the_end_belongs_to_no_other_message) {
  EXPECT_EQ(read_wire("Subject: one\r\n\r\na\r\n.\r\nContent-Type: multipart/mixed\r\nSub").shown(),
            "||a\r\n;");
  EXPECT_EQ(read_wire("Subject: two\r\n\r\nb\r\n.\r\nX").shown(), "||b\r\n;");
  EXPECT_EQ(text(mail->m_cSubject), "two");
  facade().close_mail();
  EXPECT_EQ(read("Subject: three\r\n\r\nc\r\n").shown(), "||c\r\n;");
}

TEST_F(Receive, an_encoded_word_without_end_swallows_no_header_line) {
  const received_mail got = read(
      "Subject: =?utf-8?B?5pel5pys\r\nTo: a@b\r\n"
      "Content-Type: multipart/mixed; boundary=B\r\nFrom: =?utf-8?Q?x?= <y@z>\r\n\r\n"
      "--B\r\n\r\na\r\n--B--\r\n");
  EXPECT_EQ(text(mail->m_cTo.m_cAddress), "a@b");
  EXPECT_EQ(text(mail->m_cFrom.m_cAddress), "x <y@z>");
  EXPECT_EQ(got.shown(), "||a\r\n;");
}

}  // namespace
}  // namespace dialogue
