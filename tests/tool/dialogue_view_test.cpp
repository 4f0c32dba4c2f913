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
      // However it words its consent to a mail, and whatever it adds.
      {kSmtp,
       "C: DATA|S: 354-x|S: 250 x|C: <AUTH PLAIN x\r\n..\r\n\r\n..x\r\n\r\r\n.\rx\r\n>|C: .|C: "
       "QUIT"},
      {kPop3, "C: RETR 1|S: my +OK|S: <secret>|S: .|C: QUIT"},
      {kPop3, "C: RETR 1|S: +OK 9|S: <-ERR a\r\n..\r\n\r\n. >|S: .|C: RETR 2|S: -ERR gone"},
  };
  for (const auto& test : cases) {
    const std::string bytes = std::regex_replace(test.dialogue, std::regex("[{}<>]"), "");
    for (const size_t slice : {1, 2, 3, 7, 1000}) {
      EXPECT_EQ(shown(test.kind, bytes, slice), expected(test.kind, test.dialogue)) << slice;
    }
  }
}

// A client that answers as the library does, and a server that says anything and repeats what it
// was sent.
class random_dialogue {
 public:
  explicit random_dialogue(unsigned int seed) : m_cRandom(seed) {
    for (int i = 0; i < 8; ++i) seed % 2 == 0 ? say_smtp() : say_pop3();
  }

  const std::string& text() const { return m_cText; }

 private:
  size_t pick(size_t count) { return m_cRandom() % count; }

  void say_smtp() {
    const size_t what = pick(4);
    if (what == 0) say("AUTH PLAIN AG1heABvcGVuc2VzYW1l", "AG1heABvcGVuc2VzYW1l");
    if (what == 1) say("AUTH LOGIN");
    while (what == 1 && m_cReply[0] == '3') say("b3BlbnNlc2FtZQ==", "b3BlbnNlc2FtZQ==");
    if (what == 2) say("DATA");
    if (what == 2 && m_cReply[0] == '3') say("opensesame\r\nAUTH x\r\n..\r\n\r\n.");
    if (what == 3) say("NOOP");
  }

  void say_pop3() {
    const size_t what = pick(3);
    if (what == 0) say("PASS opensesame", "opensesame");
    if (what == 1) say("STAT");
    if (what == 2) {  // a lone line end after the first line; and an end that does not come
      m_cText += "C: RETR 1|S: +OK 9" + std::string(pick(2) == 0 ? "\n" : "|S: ") +
                 "opensesame\r\n-ERR\r\n..\r\n+OK opensesame|S: " + (pick(3) == 0 ? "o~|" : ".|");
    }
  }

  void say(const std::string& line, const std::string& secret = "") {
    if (!secret.empty()) m_cEchoes.insert(m_cEchoes.end(), {secret, "opensesame"});
    const std::string& echo = m_cEchoes[pick(m_cEchoes.size())];
    const std::string replies[] = {"334 b3Blbg==",
                                   "334-x|S: 334 " + echo,
                                   "354 go",
                                   "354-go|S: 250 " + echo,
                                   "250 ok",
                                   "502 " + echo + "\n" + echo,
                                   "535-no " + echo + "|S: 535 x",
                                   "+OK|S: 250 x",
                                   "?|S: 250 x",
                                   "-ERR " + echo + echo + "|S: 250 x"};
    m_cReply = replies[pick(10)];
    m_cText += "C: " + line + "|S: " + m_cReply + "|";
  }

  std::mt19937 m_cRandom;
  std::string m_cText, m_cReply;
  std::vector<std::string> m_cEchoes = {"x"};
};

TEST(DialogueView, shows_no_secret_of_any_dialogue) {
  for (unsigned int seed = 0; seed < 1000; ++seed) {
    const dialogue_kind kind = seed % 2 == 0 ? kSmtp : kPop3;
    const std::string dialogue = random_dialogue(seed).text();
    const std::string whole = shown(kind, dialogue, 1000);
    for (const char* secret : {"opensesame", "b3BlbnNlc2FtZQ", "AG1heABvcGVuc2VzYW1l"}) {
      ASSERT_EQ(whole.find(secret), std::string::npos) << seed << "\n" << dialogue << "\n" << whole;
    }
    ASSERT_EQ(shown(kind, dialogue, 1 + seed % 13), whole) << seed << "\n" << dialogue;
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
