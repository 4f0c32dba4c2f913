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
lines shown(const std::vector<step>& steps, size_t slice, dialogue_view** view_out = nullptr) {
  static lines result;
  result.clear();
  static std::unique_ptr<dialogue_view> view;
  view = std::make_unique<dialogue_view>([](const std::string& line) { result.push_back(line); });
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

TEST(DialogueView, masks_every_secret_in_any_slicing) {
  const struct {
    std::vector<step> steps;
    lines expected;
  } cases[] = {
      {{c("AUTH PLAIN AGFubmEAZ2VoZWlt\r\n"), s("235 ok\r\n"), c("NOOP x\r\n")},
       {"C: AUTH PLAIN ****", "S: 235 ok", "C: NOOP x"}},
      {{c("auth LOGIN\r\n"), s("334 VXNlcm5hbWU6\r\n"), c("YW5uYQ==\r\n"), s("334 UGFzcw==\r\n"),
        c("Z2VoZWlt\r\n"), s("535 no\r\n"), c("QUIT\r\n")},
       {"C: AUTH LOGIN", "S: 334 ****", "C: ****", "S: 334 ****", "C: ****", "S: 535 no",
        "C: QUIT"}},
      {{c("AUTH CRAM-MD5\r\n"), s("334 PDE+\r\n"), c("YW5uYSAw\r\n"), s("235 ok\r\n")},
       {"C: AUTH CRAM-MD5", "S: 334 ****", "C: ****", "S: 235 ok"}},
      {{c("USER anna\r\n"), s("+OK\r\n"), c("PASS geheim 1\r\n"), s("+OK\r\n"),
        c("APOP anna 0123456789abcdef\r\n")},
       {"C: USER anna", "S: +OK", "C: PASS ****", "S: +OK", "C: APOP anna ****"}},
      {{s("250 a\x1b[2Jb\x07\r\n"), c("NOOP \x01\r\n")}, {"S: 250 a [2Jb", "C: NOOP"}},
      {{s("250 日\xc2\x9b[2J\r\n"), s("250 \x9b[2J\xff\r\n")}, {"S: 250 日  [2J", "S: 250 ?[2J?"}},
  };
  for (const auto& test : cases) {
    for (const size_t slice : {size_t{1}, size_t{3}, size_t{1000}}) {
      EXPECT_EQ(shown(test.steps, slice), test.expected);
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
    EXPECT_EQ(shown(steps, slice, &view), (lines{"* connected to 192.0.2.1 port 25",
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
                                                 "C: PASS ****",
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
  EXPECT_EQ(view->tls_failure(), "no [2J answer");
  shown({failed, kConnected}, 7, &view);
  EXPECT_EQ(view->tls_failure(), "") << "of another connection";
  std::vector<step> steps = {kConnected, s("+OK\r\n"), c("RETR 1\r\n"), s("+OK\r\nx\r\n"),
                             s(std::string(5000, 'x'))};
  for (const size_t slice : {size_t{1}, size_t{999}, size_t{9999}}) {
    shown(steps, slice, &view);
    EXPECT_EQ(view->unfinished_line(), 5000u);
  }
  steps.push_back(s("\r\nx"));
  shown(steps, 999, &view);
  EXPECT_EQ(view->unfinished_line(), 1u);
  steps.push_back(kConnected);
  steps.push_back(s(std::string(9, '+')));
  shown(steps, 999, &view);
  EXPECT_EQ(view->unfinished_line(), 0u) << "no line of a message";
}

TEST(DialogueView, bounds_what_it_keeps) {
  dialogue_view* view = nullptr;
  std::vector<step> steps = {kConnected};
  for (int i = 0; i < 300; ++i) steps.push_back(c("NOOP\r\n"));
  steps.push_back(s(std::string(100000, 'x')));
  for (int i = 0; i < 3000; ++i) steps.push_back(s("250-more\r\n"));
  shown(steps, 1000, &view);
  EXPECT_LE(view->exchanges().size(), 101u);
  EXPECT_LE(reply_text(view->decisive()).size(), 2000u);
}

}  // namespace
}  // namespace tavmail
