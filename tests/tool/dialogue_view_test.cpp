// What of a dialogue is shown: no secret and no mail, however the bytes come.

#include "dialogue_view.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

namespace tavmail {
namespace {

constexpr dialogue_kind kSmtp = dialogue_kind::smtp;
constexpr dialogue_kind kPop3 = dialogue_kind::pop3;

// The lines shown of a dialogue, which has "C: " or "S: " and a line between each "|". CR LF comes
// after each but one that ends in "~". The bytes come in slices of a size.
std::string shown(dialogue_kind kind, const std::string& dialogue, size_t slice) {
  std::string seen;
  dialogue_view view([&](const std::string& line) { seen += line + "|"; }, kind);
  for (size_t at = 0, end = 0; at < dialogue.size(); at = end + 1) {
    end = std::min(dialogue.find('|', at), dialogue.size());
    std::string bytes = dialogue.substr(at + 3, end - at - 3);
    bytes = bytes.back() == '~' ? bytes.substr(0, bytes.size() - 1) : bytes + "\r\n";
    for (size_t from = 0; from < bytes.size(); from += slice) {
      view.take(dialogue[at] == 'C' ? TAV_WIRETAP_SENT : TAV_WIRETAP_RECEIVED,
                std::string_view(bytes).substr(from, slice));
    }
  }
  return seen;
}

// The same as it is to be shown: {secret} as ****, <mail> as the count of its bytes, which with
// POP3 are also those of its end.
std::string expected(dialogue_kind kind, std::string text) {
  text = std::regex_replace(text, std::regex("\\{[^}]*\\}"), "****") + "|";
  for (size_t at = 0; (at = text.find('<')) != std::string::npos;) {
    const size_t end = text.find('>', at);
    const size_t count = end - at - 1 + (kind == kPop3 ? 5 : 2);
    text.replace(at, end - at + 1, "[" + std::to_string(count) + " bytes of mail]");
  }
  return text;
}

TEST(DialogueView, masks_every_secret_and_counts_mails_in_any_slicing) {
  const struct {
    dialogue_kind kind;
    const char* dialogue;
  } cases[] = {
      {kSmtp, "C: AUTH PLAIN {AGFubmEAZ2VoZWlt}|S: 235 ok|C: NOOP x"},
      {kSmtp, "C: auth LOGIN|S: 334 {VXNlcm5hbWU6}|C: {YW5uYQ==}|S: 535 no|C: QUIT"},
      // The first line of a reply counts, and it ends with a code and a space.
      {kSmtp,
       "C: AUTH LOGIN|S: 334-{VXNlcm5hbWU6}|S: 250 {x}|C: {YW5uYQ==}|S: 334-{Uz==\n235 x}"
       "|S: 235{}|S: 235 {x}|C: {Z2VoZWlt}|S: 235-in|C: {Z2VoZWlt}|S: 235-in|S: 550 x|C: QUIT"},
      {kSmtp, "C: AUTH CRAM-MD5|S: 334 {PDE+\n250 x}|C: {YW5uYSAw}|S: 235 ok"},
      {kSmtp, "C: {Z2VoZWlt}|S: 235 ok"},
      {kPop3, "C: USER anna|S: +OK|C: pass {geheim 1}|S: +OK|C: APOP anna {0123456789abcdef}"},
      // A server may repeat what it was sent, or what that means.
      {kSmtp,
       "C: AUTH LOGIN|S: 334 {x}|C: {Z2VoZWlt}|S: 500-{Z2VoZWlt}{Z2VoZWlt}"
       "|S: 500 Z2VoZWl, {geheim}, gehei|C: QUIT|S: 502 {geheim}"},
      {kPop3, "C: PASS {geheim 1}|S: -ERR no PASS {geheim 1} here"},
      // A token, and what is wrong with it.
      {kSmtp,
       "C: AUTH XOAUTH2 {dXNlcj1hbm5hAWF1dGg9QmVhcmVyIGtleS0xAQE=}|S: 334 "
       "{eyJzdGF0dXMiOiI0MDAifQ==}"
       "|C: {}|S: 535-key- {key-1}|S: 535 x auth=Bearer {key-1}|C: AUTH XOAUTH2|S: 235 {key-1}"},
      {kPop3,
       "C: AUTH OAUTHBEARER|S: + {}|C: {bixhPWFubmEsAWhvc3Q9eAFhdXRoPUJlYXJlciBrZXktMQEB}"
       "|S: -ERR {key-1} of anna|C: STAT|S: +OK {key-1}"},
      // However it words its consent to a mail, and whatever it adds.
      {kSmtp,
       "C: DATA|S: 354-x|S: 250 x|C: <AUTH PLAIN x\r\n..\r\n\r\n..x\r\n\r\r\n.\rx\r\n>|C: .|C: "
       "QUIT"},
      {kPop3, "C: RETR 1|S: my +OK|S: <secret>|S: .|C: QUIT"},
      {kPop3, "C: RETR 1|S: +OK 9|S: <-ERR a\r\n..\r\n\r\n. >|S: .|C: RETR 2|S: -ERR gone"},
  };
  for (const auto& test : cases) {
    const std::string bytes = std::regex_replace(test.dialogue, std::regex("[{}<>]"), "");
    for (const size_t slice : {1U, 2U, 3U, 7U, 1000U}) {
      EXPECT_EQ(shown(test.kind, bytes, slice), expected(test.kind, test.dialogue)) << slice;
    }
  }
}

// A client logs in and says what the library may say; the server says anything, and repeats ($)
// what it was sent.
const struct {
  dialogue_kind kind;
  std::string login;
  std::vector<std::string> secrets, exchanges;
} kClients[] = {
    {kSmtp,
     "C: AUTH PLAIN AG1heABvcGVuc2VzYW1l|S: 535 no|C: AUTH LOGIN|S: 334 x|C: b3BlbnNlc2FtZQ==|",
     {"AG1heABvcGVuc2VzYW1l", "b3BlbnNlc2FtZQ==", "opensesame"},
     {"NOOP", "AUTH PLAIN AG1heABvcGVuc2VzYW1l", "AUTH LOGIN|S: 502-$|S: 334 $",
      "AUTH LOGIN|S: 334-x|S: 250 $|C: b3BlbnNlc2FtZQ==|S: 334 x|C: b3BlbnNlc2FtZQ==",
      "DATA|S: 354-go|S: 250 $|C: opensesame\r\nAUTH x\r\n..\r\n\r\n.", "DATA|S: 502 $"}},
    {kPop3,
     "C: PASS opensesame|S: -ERR|",
     {"opensesame"},
     {"STAT", "PASS opensesame",
      "RETR 1|S: +OK 9|S: opensesame\r\n-ERR\r\n..\r\n+OK opensesame|S: .",
      "RETR 1|S: +OK 9\nopensesame|S: .", "RETR 1|S: +OK|S: opensesame|S: o~"}}};
const std::vector<std::string> kReplies = {
    "334 b3Blbg==", "334-x|S: 334 $",    "354 go",       "354-go|S: 250 $", "250 ok",
    "502 $\n$",     "535-no $|S: 535 x", "+OK|S: 250 x", "?|S: 250 x",      "-ERR $$|S: 250 x"};

TEST(DialogueView, shows_no_secret_of_any_dialogue) {
  std::mt19937 random(1);
  const auto one_of = [&random](const auto& list) { return list[random() % list.size()]; };
  for (int round = 0; round < 200; ++round) {
    for (const auto& client : kClients) {
      std::string dialogue = client.login;
      for (int i = 0; i < 8; ++i)
        dialogue += "C: " + one_of(client.exchanges) + "|S: " + one_of(kReplies) + "|";
      for (size_t at; (at = dialogue.find('$')) != std::string::npos;)
        dialogue.replace(at, 1, one_of(client.secrets));
      const std::string whole = shown(client.kind, dialogue, 1000);
      for (const std::string& secret : client.secrets)
        ASSERT_EQ(whole.find(secret), std::string::npos) << dialogue << "\n" << whole;
      ASSERT_EQ(shown(client.kind, dialogue, 1 + random() % 13), whole) << dialogue;
    }
  }
}

TEST(DialogueView, bounds_what_it_keeps) {
  dialogue_view view({});
  for (int i = 0; i < 900; ++i) view.take(TAV_WIRETAP_SENT, "NOOP\r\n");
  view.take(TAV_WIRETAP_RECEIVED, std::string(100000, 'x'));
  for (int i = 0; i < 3000; ++i) view.take(TAV_WIRETAP_RECEIVED, "250-more\r\n");
  EXPECT_LE(view.exchanges().size(), 300u);
  EXPECT_LE(reply_text(view.decisive()).size(), 2000u);
}

}  // namespace
}  // namespace tavmail
