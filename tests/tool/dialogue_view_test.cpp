#include "dialogue_view.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tavmail {
namespace {

using lines = std::vector<std::string>;

struct step {
  TAV_WIRETAP_EVENT event;
  std::string bytes;
};

// The lines shown, whatever the slicing of the bytes.
lines shown(const std::vector<step>& steps, size_t slice, dialogue_view** view_out = nullptr,
            dialogue_kind kind = dialogue_kind::smtp) {
  static lines result;
  result.clear();
  static std::unique_ptr<dialogue_view> view;
  view = std::make_unique<dialogue_view>([](const std::string& line) { result.push_back(line); },
                                         kind);
  for (const step& s : steps) {
    const bool is_stream = s.event == TAV_WIRETAP_SENT || s.event == TAV_WIRETAP_RECEIVED;
    if (!is_stream) {
      view->take(s.event, s.bytes);
      continue;
    }
    for (size_t at = 0; at < s.bytes.size(); at += slice) {
      view->take(s.event, std::string_view(s.bytes).substr(at, slice));
    }
  }
  if (view_out != nullptr) *view_out = view.get();
  return result;
}

step c(const std::string& bytes) { return {TAV_WIRETAP_SENT, bytes}; }
step s(const std::string& bytes) { return {TAV_WIRETAP_RECEIVED, bytes}; }
const step kConnected = {TAV_WIRETAP_CONNECTED, "192.0.2.1 port 25"};

constexpr dialogue_kind kSmtp = dialogue_kind::smtp;
constexpr dialogue_kind kPop3 = dialogue_kind::pop3;

TEST(DialogueView, masks_every_secret_in_any_slicing) {
  const struct {
    dialogue_kind kind;
    std::vector<step> steps;
    lines expected;
  } cases[] = {
      {kSmtp,
       {c("AUTH PLAIN AGFubmEAZ2VoZWlt\r\n"), s("235 ok\r\n"), c("NOOP x\r\n")},
       {"C: AUTH PLAIN ****", "S: 235 ok", "C: NOOP x"}},
      {kSmtp,
       {c("auth LOGIN\r\n"), s("334 VXNlcm5hbWU6\r\n"), c("YW5uYQ==\r\n"), s("334 UGFzcw==\r\n"),
        c("Z2VoZWlt\r\n"), s("535 no\r\n"), c("QUIT\r\n")},
       {"C: auth LOGIN", "S: 334 ****", "C: ****", "S: 334 ****", "C: ****", "S: 535 no",
        "C: QUIT"}},
      // The first line of a reply counts, and it ends with a code and a space.
      {kSmtp,
       {c("AUTH LOGIN\r\n"), s("334-VXNlcm5hbWU6\r\n250 x\r\n"), c("YW5uYQ==\r\n"),
        s("334-UGFzcw==\n235 x\r\n235\r\n235 x\r\n"), c("Z2VoZWlt\r\n"), s("235-in\r\n"),
        c("Z2VoZWlt\r\n"), s("235-in\r\n550 x\r\n"), c("QUIT\r\n")},
       {"C: AUTH LOGIN", "S: 334-****", "S: 250 ****", "C: ****", "S: 334-****", "S: 235****",
        "S: 235 ****", "C: ****", "S: 235-in", "C: ****", "S: 235-in", "S: 550 x", "C: QUIT"}},
      {kSmtp,
       {c("AUTH CRAM-MD5\r\n"), s("334 PDE+\n250 x\r\n"), c("YW5uYSAw\r\n"), s("235 ok\r\n")},
       {"C: AUTH CRAM-MD5", "S: 334 ****", "C: ****", "S: 235 ok"}},
      {kSmtp, {c("Z2VoZWlt\r\n"), s("235 ok\r\n")}, {"C: ****", "S: 235 ok"}},
      {kPop3,
       {c("USER anna\r\n"), s("+OK\r\n"), c("PASS geheim 1\r\n"), s("+OK\r\n"),
        c("APOP anna 0123456789abcdef\r\n")},
       {"C: USER anna", "S: +OK", "C: PASS ****", "S: +OK", "C: APOP anna ****"}},
      // A server may repeat what it was sent.
      {kSmtp,
       {c("AUTH PLAIN AGFubmEAZ2VoZWlt\r\n"), s("502 \"AUTH PLAIN AGFubmEAZ2VoZWlt\"?\r\n"),
        c("AUTH LOGIN\r\n"), s("334 x\r\n"), c("Z2VoZWlt\r\n"), s("500-Z2VoZWltZ2VoZWlt\r\n"),
        s("500 Z2VoZWl, geheim, gehei\r\n")},
       {"C: AUTH PLAIN ****", "S: 502 \"AUTH PLAIN ****\"?", "C: AUTH LOGIN", "S: 334 ****",
        "C: ****", "S: 500-********", "S: 500 Z2VoZWl, ****, gehei"}},
      {kPop3,
       {c("PASS geheim 1\r\n"), s("-ERR no PASS geheim 1 here\r\n")},
       {"C: PASS ****", "S: -ERR no PASS **** here"}},
      {kSmtp, {s("250 a\x1b[2Jb\x07\r\n"), c("NOOP \x01\r\n")}, {"S: 250 a [2Jb", "C: NOOP"}},
      {kSmtp,
       {s("250 日\xc2\x9b[2J\r\n"), s("250 \x9b[2J\xff\r\n")},
       {"S: 250 日  [2J", "S: 250 ?[2J?"}},
  };
  for (const auto& test : cases) {
    for (const size_t slice : {size_t{1}, size_t{3}, size_t{1000}}) {
      EXPECT_EQ(shown(test.steps, slice, nullptr, test.kind), test.expected);
    }
  }
}

TEST(DialogueView, counts_mail_data_and_finds_its_end) {
  for (const size_t slice : {size_t{1}, size_t{2}, size_t{5}, size_t{1000}}) {
    dialogue_view* view = nullptr;
    const lines seen = shown({kConnected, c("DATA\r\n"), s("354 go\r\n"),
                              c("AUTH PLAIN x\r\n..\r\n\r\n..x\r\n\r\r\n.\rx\r\n"), c("\r\n.\r\n"),
                              s("250 taken\r\n"), c("QUIT\r\n")},
                             slice, &view);
    EXPECT_EQ(seen, (lines{"* connected to 192.0.2.1 port 25", "C: DATA", "S: 354 go",
                           "C: [35 bytes of mail]", "C: .", "S: 250 taken", "C: QUIT"}));
    EXPECT_TRUE(view->end_was_sent());
    EXPECT_TRUE(view->was_accepted());
  }
}

// However the server words its consent, and whatever it adds.
TEST(DialogueView, never_shows_a_mail) {
  const struct {
    dialogue_kind kind;
    std::vector<step> steps;
    lines expected;
  } cases[] = {
      {kSmtp,
       {c("DATA\r\n"), s("354-x\r\n250 x\r\n"), c("RSET secret\r\n\r\n.\r\n")},
       {"C: DATA", "S: 354-x", "S: 250 x", "C: [15 bytes of mail]", "C: ."}},
      {kPop3,
       {c("RETR 1\r\n"), s("my +OK\r\nsecret\r\n.\r\n"), c("QUIT\r\n")},
       {"C: RETR 1", "S: my +OK", "S: [11 bytes of mail]", "S: .", "C: QUIT"}},
      {kPop3,
       {c("RETR 1\r\n"), s("+OK 1\n+OK secret\r\n.\r\nsecret\r\n"), c("QUIT\r\n"), s("+OK\r\n")},
       {"C: RETR 1", "S: +OK 1", "S: [15 bytes of mail]", "S: .", "C: QUIT", "S: +OK"}},
      {kPop3,
       {c("TOP 1 0\r\n"), s("+OK\r\nsecret\r\nsec"), c("QUIT\r\n"), s("+OK\r\n")},
       {"C: TOP 1 0", "S: +OK", "S: [11 bytes of mail]", "C: QUIT", "S: +OK"}},
  };
  for (const auto& test : cases) {
    for (const size_t slice : {size_t{1}, size_t{3}, size_t{1000}}) {
      EXPECT_EQ(shown(test.steps, slice, nullptr, test.kind), test.expected);
    }
  }
}

TEST(DialogueView, judges_the_end_of_a_mail_by_its_first_line) {
  const struct {
    const char* reply;
    bool is_accepted;
    bool is_no;
  } cases[] = {{"250 taken\r\n", true, false},
               {"250-taken\r\n550 no\r\n", true, false},
               {"550-no\r\n250 fine\r\n", false, true},
               {"550-no\r\n", false, true},
               {"451 no", false, true},
               {"250-ta\r\n", false, false},
               {"250 ta", false, false},
               {"taken\r\n250 fine\r\n", false, false}};
  for (const auto& test : cases) {
    dialogue_view* view = nullptr;
    shown({kConnected,
           c("DATA\r\n"),
           s("354 go\r\n"),
           c("x\r\n\r\n.\r\n"),
           s(test.reply),
           {TAV_WIRETAP_CLOSED, ""}},
          3, &view);
    EXPECT_EQ(view->was_accepted(), test.is_accepted) << test.reply;
    EXPECT_EQ(view->decisive()->is_no(), test.is_no) << test.reply;
    EXPECT_NE(reply_text(view->decisive()), "") << test.reply;
  }
}

TEST(DialogueView, counts_messages_and_masks_the_login) {
  const std::vector<step> steps = {kConnected,
                                   s("+OK <1@x>\r\n"),
                                   c("CAPA\r\n"),
                                   s("+OK\r\nUIDL\r\n-ERR x\r\n.\r\n"),
                                   c("APOP anna c4c9334bac560ecc979e58001b3e22fb\r\n"),
                                   s("-ERR no\r\n"),
                                   c("user anna\r\n"),
                                   s("+OK\r\n"),
                                   c("pass  geheim 1\r\n"),
                                   s("+OK\r\n"),
                                   c("TOP 1 0\r\n"),
                                   s("+OK\r\nSubject: secret\r\n\r\n.\r\n"),
                                   c("RETR 1\r\n"),
                                   s("+OK 9 octets\r\n-ERR a\r\n..\r\n\r\n. \r\n.\r\n"),
                                   c("RETR 2\r\n"),
                                   s("-ERR gone\r\n"),
                                   c("QUIT\r\n"),
                                   s("+OK\r\n")};
  for (const size_t slice : {size_t{1}, size_t{2}, size_t{7}, size_t{1000}}) {
    dialogue_view* view = nullptr;
    EXPECT_EQ(shown(steps, slice, &view, kPop3), (lines{"* connected to 192.0.2.1 port 25",
                                                        "S: +OK <1@x>",
                                                        "C: CAPA",
                                                        "S: +OK",
                                                        "S: UIDL",
                                                        "S: -ERR x",
                                                        "S: .",
                                                        "C: APOP anna ****",
                                                        "S: -ERR no",
                                                        "C: user anna",
                                                        "S: +OK",
                                                        "C: pass ****",
                                                        "S: +OK",
                                                        "C: TOP 1 0",
                                                        "S: +OK",
                                                        "S: [22 bytes of mail]",
                                                        "S: .",
                                                        "C: RETR 1",
                                                        "S: +OK 9 octets",
                                                        "S: [21 bytes of mail]",
                                                        "S: .",
                                                        "C: RETR 2",
                                                        "S: -ERR gone",
                                                        "C: QUIT",
                                                        "S: +OK"}));
    EXPECT_EQ(view->message_bytes(), 43u);
    EXPECT_EQ(view->exchanges()[view->exchanges().size() - 2].reply[0], "-ERR gone");
  }
}

TEST(DialogueView, keeps_what_an_explanation_needs) {
  dialogue_view* view = nullptr;
  shown({kConnected, s("220 hi\r\n"), c("MAIL FROM:<a@b>\r\n"), s("550-no\r\n550 never\r\n")}, 7,
        &view);
  ASSERT_EQ(view->exchanges().size(), 2u);
  EXPECT_EQ(view->exchanges()[1].verb, "MAIL");
  EXPECT_EQ(reply_text(view->decisive()), "550-no never");
  EXPECT_FALSE(view->end_was_sent());
  shown({kConnected, c("DATA\r\n"), s("354 go\r\n"), c("x\r\n\r\n.\r\n"), s("552 big\r\n")}, 9,
        &view);
  EXPECT_TRUE(view->end_was_sent());
  EXPECT_FALSE(view->was_accepted());
}

TEST(DialogueView, tells_of_a_failed_handshake_and_of_a_line_without_end) {
  dialogue_view* view = nullptr;
  const step failed = {TAV_WIRETAP_TLS_FAILED, "no\x1b[2J answer"};
  EXPECT_EQ(shown({kConnected, failed}, 7, &view).back(), "* TLS failed: no [2J answer");
  EXPECT_EQ(view->latest().tls_failure, "no [2J answer");
  shown({failed, kConnected}, 7, &view);
  EXPECT_EQ(view->latest().tls_failure, "") << "of another connection";
  std::vector<step> steps = {kConnected, s("+OK\r\n"), c("RETR 1\r\n"), s("+OK\r\nx\r\n"),
                             s(std::string(5000, 'x'))};
  for (const size_t slice : {size_t{1}, size_t{999}, size_t{9999}}) {
    shown(steps, slice, &view, kPop3);
    EXPECT_EQ(view->unfinished_line(), 5000u);
  }
  steps.push_back(s("\r\nx"));
  shown(steps, 999, &view, kPop3);
  EXPECT_EQ(view->unfinished_line(), 1u);
  steps.push_back(kConnected);
  steps.push_back(s(std::string(9, '+')));
  shown(steps, 999, &view, kPop3);
  EXPECT_EQ(view->unfinished_line(), 0u) << "no line of a message";
}

TEST(DialogueView, bounds_what_it_keeps) {
  dialogue_view* view = nullptr;
  std::vector<step> steps = {kConnected};
  for (int i = 0; i < 900; ++i) steps.push_back(c("NOOP\r\n"));
  steps.push_back(s(std::string(100000, 'x')));
  for (int i = 0; i < 3000; ++i) steps.push_back(s("250-more\r\n"));
  shown(steps, 1000, &view);
  EXPECT_LE(view->exchanges().size(), 300u);
  EXPECT_LE(reply_text(view->decisive()).size(), 2000u);
}

}  // namespace
}  // namespace tavmail
