// hostile.h - servers that mean harm, or are broken: whatever they say, a call ends by itself, in
// bounded time and memory, with a definite code; nothing stays open, no secret gets out, and the
// same objects do the same work when the server has come to its senses.
//
// What bounds the time. A peer that says nothing costs a time-out for each wait, and after a failed
// step there is at most one more: that for a greeting tried in another way. A peer that drips costs
// up to a time-out for each byte; it ends with the bytes, which are limited everywhere: 1000 lines
// of 65 KiB for a reply of SMTP, 65 KiB for one of POP3, 1 KiB for a list of capabilities, 2 GiB
// for a message.

#ifndef HOSTILE_H
#define HOSTILE_H

#include <cstdio>
#include <random>
#include <string>

#include "scenario.h"
#include "tav_netsock.h"
#include "tlsw.h"

namespace dialogue {

constexpr int64_t kTimeout = 7000;  // ms, of every scenario
constexpr int64_t kPauses =
    500;  // ms of sleep, at most: that after POP-before-SMTP, three of reading
constexpr int64_t kMostWaits = 2;  // time-outs that one silence can cost
constexpr size_t kMostMemory = size_t{1} << 20;

struct bounds {
  int64_t clock = kMostWaits * kTimeout + kPauses;
  size_t transfers = 200000;
};

// What one hostile peer is: `prepare` sets it up.
using hostility = std::function<void(scenario&)>;

struct ordinary_run {
  size_t said = 0;   // replies
  size_t bytes = 0;  // of the server
};

inline ordinary_run measure(const scenario_maker& maker) {
  const std::unique_ptr<scenario> s = maker.make();
  s->attack.active = true;  // but does nothing
  s->get_ready(true);
  EXPECT_EQ(s->run(), TAV_EML_OK) << maker.name;
  s->check(TAV_EML_OK);
  s->finish();
  return {s->attack.said, s->attack.bytes};
}

class hostile_peers {
 public:
  ~hostile_peers() {
    std::printf(
        "%zu hostile peers survived, with at most %zu bytes of memory, %zu transfers and "
        "%lld seconds\n",
        m_peers, m_mostMemory, m_mostTransfers, static_cast<long long>(m_longest / 1000));
  }

  // The scenario against one of them; nobody is met any more behind one that was its end.
  void meet(const scenario_maker& maker, const std::string& peer, const hostility& prepare,
            const bounds& most = {}) {
    if (testing::Test::HasFailure()) return;
    ++m_peers;
    const std::unique_ptr<scenario> s = maker.make();
    s->attack.active = true;
    prepare(*s);
    s->get_ready(false);
    {
      const new_meter meter;
      const TAV_EML_RESULT result = s->run();
      note(*s, meter.peak_bytes(), most);
      s->check(result);
    }
    s->attack.active = false;
    s->net.never_fail();
    s->net.drip(0);
    s->net.recv_limit(s->net.unlimited);
    expect_recovery(*s);
    if (!testing::Test::HasFailure()) return;
    std::printf("%s", s->log.all().substr(0, 4000).c_str());
    ADD_FAILURE() << maker.name << ": " << peer;
  }

 private:
  void note(const scenario& s, size_t new_bytes, const bounds& most) {
    EXPECT_LE(s.net.clock(), most.clock);
    EXPECT_LE(s.net.transfers(), most.transfers);
    EXPECT_LE(s.memory.peak_bytes(), kMostMemory);
    EXPECT_LE(new_bytes, kMostMemory);
    m_mostMemory = std::max(m_mostMemory, s.memory.peak_bytes() + new_bytes);
    m_mostTransfers = std::max(m_mostTransfers, s.net.transfers());
    m_longest = std::max(m_longest, s.net.clock());
  }

  size_t m_peers = 0, m_mostMemory = 0, m_mostTransfers = 0;
  int64_t m_longest = 0;
};

// What meets a scenario: it is told how the scenario goes when nobody disturbs it.
using meeting = std::function<void(const std::string& peer, const hostility& prepare)>;
using crowd = std::function<void(const ordinary_run&, const meeting&)>;

// Every scenario with a dialogue of its own.
inline void meet_all(const std::vector<scenario_maker>& makers, const crowd& come) {
  hostile_peers peers;
  for (const scenario_maker& maker : makers) {
    if (!maker.is_distinct) continue;
    come(measure(maker), [&](const std::string& peer, const hostility& prepare) {
      peers.meet(maker, peer, prepare);
    });
  }
}

// Silence, and the end of the connection, at every byte that the server says.
inline void cut_everywhere(const std::vector<scenario_maker>& makers) {
  meet_all(makers, [](const ordinary_run& whole, const meeting& meet) {
    for (size_t cut = 0; cut < whole.bytes; ++cut) {
      for (const bool closes : {false, true}) {
        meet((closes ? "closes at byte " : "silent at byte ") + std::to_string(cut),
             [&](scenario& s) {
               s.attack.cut = cut;
               s.attack.cut_closes = closes;
             });
      }
    }
  });
}

// Slow ones: a byte in each call, a byte in nearly each time-out, and no byte taken any more.
inline void drip_and_choke(const std::vector<scenario_maker>& makers) {
  hostile_peers peers;
  for (const scenario_maker& maker : makers) {
    const ordinary_run whole = measure(maker);
    for (const int32_t pace : {0, 1000, static_cast<int32_t>(kTimeout) - 1}) {
      const auto prepare = [&](scenario& s) {
        s.net.recv_limit(1);
        s.net.drip(pace);
      };
      const bounds most = {static_cast<int64_t>(whole.bytes) * pace + kPauses};
      peers.meet(maker, "a byte in " + std::to_string(pace) + " ms", prepare, most);
    }
    for (size_t nth = 1; nth <= 12; ++nth) {
      const auto prepare = [&](scenario& s) {
        s.net.fail_from(net_call::send, nth, TAV_NETSOCK_TIMEOUT);
        s.net.fail_from(net_call::tls_write, nth, TLSW_ERR_TIMEOUT);
      };
      // Commands of POP3 leave the wait for a send to the port: 30 seconds.
      const bounds most = {kMostWaits * 30000 + kPauses};
      peers.meet(maker, "takes nothing from send " + std::to_string(nth), prepare, most);
    }
  }
}

// One of the replies is another one.
struct false_reply {
  std::string text;
  std::string then;  // and this without end

  void take_place(scenario& s, size_t nth) const {
    s.attack.replaced = nth;
    s.attack.replacement = text;
    s.attack.endless = then;
    s.attack.endless_bytes = size_t{300} << 10;  // more than the limit for a header
  }
};

// Each of them in the place of each reply.
inline void say_everywhere(const std::vector<scenario_maker>& makers,
                           const std::vector<false_reply>& words) {
  meet_all(makers, [&words](const ordinary_run& whole, const meeting& meet) {
    for (size_t nth = 1; nth <= whole.said; ++nth) {
      for (const false_reply& word : words) {
        // The line without end takes long, and goes the same way through every reply of a kind.
        if (word.then[0] == 'x' && word.text[0] == '2' && nth % 5 != 1) continue;
        meet("reply " + std::to_string(nth) + " is " + word.text.substr(0, 60) + word.then,
             [&](scenario& s) { word.take_place(s, nth); });
      }
    }
  });
}

// Words between bars; @ stands for NUL.
inline std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> words(1);
  for (const char c : text) {
    if (c == '|') words.emplace_back();
    if (c != '|') words.back() += c == '@' ? '\0' : c;
  }
  return words;
}

// One reply that is no reply, or more than one, in the place of each.
inline void wrong_words(const std::vector<scenario_maker>& makers) {
  std::vector<std::string> words = split(
      "|\r|\n|\r\n|2|3|4|5|+|-|.|x| |@|\xff|\x1b[2J|@\r\n|\xff\xfe\x80 \xe6\r\n"
      "|2\r\n|25\r\n|250\r\n|250-\r\n|250 \r\n|250 @\r\n|334\r\n|421 x\r\n|535 x\r\n|999 x\r\n"
      "|334 =\r\n|334 QQ=A\r\n|334 cmVhbG09\r\n|334 bm9uY2U9Im4i\r\n"
      "|220 ok\r\n250 ok\r\n354 ok\r\n250 ok\r\n235 ok\r\n"
      "|+\r\n|+O\r\n|+OK\r\n|+OK\n|-ERR\r\n|.\r\n|\r\n.\r\n|+OK @@\r\n|+OK <>\r\n"
      "|+OK\r\n+OK\r\n+OK 1 1\r\n+OK 1 x\r\n.\r\n|+OK -1 -1\r\n|+OK 4294967296 1\r\n"
      "|+OK 1000000 1\r\n|+OK 99999999999999999999 99999999999999999999\r\n");
  for (const std::string& longer :
       {"334 " + std::string(900, 'A') + "\r\n", "+OK 1 " + std::string(10000, 'u') + "\r\n",
        "+OK 1 " + std::string(900, 'u') + "\r\n", "+OK <" + std::string(2000, '<') + ">\r\n",
        "+OK " + std::string(1019, 'x') + "\r\n", "250 " + std::string(1019, 'x') + "\r\n",
        "+OK\r\nSTLS\r\n" + repeated("X\r\n", 400) + ".\r\n",
        repeated("250-x\r\n", 999) + "250 x\r\n",
        "+OK\r\nContent-Type: multipart/mixed; boundary=" + std::string(3000, 'b') +
            "\r\n\r\n.\r\n",
        "+OK\r\n" + repeated("Content-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n", 200) +
            ".\r\n",
        "+OK\r\n" + repeated("--\r\n", 100) + "\r\n" + repeated("--\r\n", 100) + ".\r\n"}) {
    words.push_back(longer);
  }
  std::vector<false_reply> replies;
  for (const std::string& word : words) replies.push_back({word, ""});
  say_everywhere(makers, replies);
}

// A reply that never ends, in the place of each: lines, continuations, parts.
inline void endless_words(const std::vector<scenario_maker>& makers) {
  say_everywhere(makers,
                 {
                     {"220 ", "xxxxxxxxxxxxxxxx"},
                     {"250-x\r\n", "250-x\r\n"},
                     {"250-x\r\n", "\r\n"},
                     {"+OK\r\n", "X: y\r\n"},
                     {"+OK\r\n", "STLS\r\n"},
                     {"+OK 1 1\r\n", "+OK 1 1\r\n"},
                     {"+OK\r\n", "\r\n"},
                     {"+OK\r\nX: y\r\n\r\n", "x"},
                     {"+OK\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n", "--b\r\n\r\n"},
                     {"+OK\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n", "preamble\r\n"},
                     {"334 VXNlcm5hbWU6\r\n", "334 VXNlcm5hbWU6\r\n"},
                 });
}

// Talks at random, but in the words of the trade. The seeds are fixed.
inline void drunken(const std::vector<scenario_maker>& makers, size_t count) {
  static const std::vector<std::string> kWords = split(
      "2|3|4|5|250|334|-| |+OK|-ERR|\r|\n|\r\n|.|--b|=|AUTH|STARTTLS|STLS|PLAIN|:|<|>|1|@|\x1b"
      "|99999999999|VXNlcm5hbWU6|QUJD|=?utf-8?B?|?=|realm=\"|\xe6\x97\xa5|\r\n.\r\n"
      "|Content-Type: multipart/mixed; boundary=b\r\n|Content-Transfer-Encoding: base64\r\n");
  meet_all(makers, [count](const ordinary_run& whole, const meeting& meet) {
    for (size_t seed = 1; seed <= count; ++seed) {
      std::mt19937 random(static_cast<uint32_t>(seed));
      std::string speech = random() % 2 == 0 ? "+OK\r\n" : "250";
      for (size_t words = random() % 40; words > 0; --words) {
        speech += kWords[random() % kWords.size()];
      }
      meet("drunken, seed " + std::to_string(seed), [&](scenario& s) {
        false_reply{speech, ""}.take_place(s, 1 + random() % whole.said);
      });
    }
  });
}

}  // namespace dialogue

#endif
