// The storm cases of the tables, with every call that can fail failed in turn, and against servers
// that mean harm or are broken. Whatever happens, a call ends by itself, in bounded time and
// memory, with a definite code; nothing stays open, no secret gets out, what is called a success is
// one, a mail that was taken is not called lost, and the same objects do the same work afterwards.
//
// What bounds the time. A peer that says nothing costs a time-out for each wait, and after a failed
// step there is at most one more: that for a greeting tried in another way. A peer that drips costs
// up to a time-out for each byte; it ends with the bytes, which are limited everywhere: 1000 lines
// of 65 KiB for a reply of SMTP, 65 KiB for one of POP3, 1 KiB for a list of capabilities, 2 GiB
// for a message.
//
// Where there are many points, a fixed choice of them is tried; all with TAV_TEST_LONG in the
// environment.

#include <algorithm>
#include <cstdlib>
#include <random>

#include "device.h"
#include "quorvelmida/tav_eml_mlutl_mail_exception.h"
#include "tav_netsock.h"
#include "tlsw.h"

namespace dialogue {
namespace {

using std::string;

constexpr int64_t kTimeout = kSeconds * 1000;
constexpr int64_t kPauses = 500;       // ms of sleep, at most
constexpr int64_t kPortLimit = 30000;  // ms that a port waits to send a command of POP3
constexpr size_t kMostMemory = size_t{1} << 20;
constexpr size_t kMostCalls = 200000;  // of the platform

enum class harm { memory, network, cut, lies };

// What is done to a device before it runs.
struct trouble {
  harm kind;
  string name;
  std::function<void(device&)> prepare;
  int64_t most_time = 2 * kTimeout + kPauses;
};

struct ordinary_run {
  string sent, received;
  size_t said = 0, bytes = 0;                // by the server
  size_t network = 0, blocks = 0, news = 0;  // calls that can fail
};

class storm : public testing::TestWithParam<const dialogue_case*> {
 protected:
  ordinary_run measure() {
    const auto player = std::make_unique<device>(m_case.receives());
    player->set_up(m_row);
    player->net.attack.active = true;  // but does nothing
    player->net.fail_any(0);
    player->memory.fail(0);
    ordinary_run whole;
    {
      const failing_new counted(0);
      EXPECT_EQ(player->run(m_row), TAV_EML_OK) << player->log.all();
      whole.news = counted.state().calls;
    }
    whole.sent = player->mails_sent();
    whole.received = player->parts_received;
    whole.said = player->net.attack.said;
    whole.bytes = player->net.attack.bytes;
    whole.network = player->net.any_calls;
    whole.blocks = player->memory.state().calls;
    return whole;
  }

  // Those of the points from 1 to `count` that are tried, about `most` of them.
  std::vector<size_t> chosen(size_t count, size_t most) {
    static const bool tries_all = std::getenv("TAV_TEST_LONG") != nullptr;
    std::vector<size_t> points;
    for (size_t point = 1; point <= count; ++point)
      if (tries_all || count <= most || m_random() % count < most) points.push_back(point);
    return points;
  }

  // Nothing more is tried after what was the end of one.
  void survive(const ordinary_run& whole, const trouble& bad, size_t failing_new_call = 0,
               bool all_from = false) {
    if (HasFailure()) return;
    SCOPED_TRACE(m_case.name + ": " + bad.name);
    const auto player = std::make_unique<device>(m_case.receives());
    player->set_up(m_row);
    bad.prepare(*player);
    TAV_EML_RESULT result = TAV_EML_OK;
    size_t peak_bytes = 0;
    {
      const failing_new failing(failing_new_call, all_from);
      result = player->run(m_row);
      peak_bytes = failing.state().peak_bytes;
    }
    EXPECT_LE(peak_bytes, kMostMemory);
    check(*player, whole, bad, result);
    calm(*player);
    EXPECT_EQ(player->run(m_row), TAV_EML_OK) << "does not work afterwards";
    EXPECT_EQ(player->mails_sent() + player->parts_received, whole.sent + whole.received);
    if (HasFailure()) std::printf("%s", player->log.all().substr(0, 4000).c_str());
  }

  // Silence, and the end of the connection, at every byte that the server says.
  void break_off(const ordinary_run& whole) {
    for (const size_t point : chosen(whole.bytes, 40)) {
      for (const bool closes : {false, true}) {
        const auto prepare = [=](device& d) {
          d.net.attack.active = true;
          d.net.attack.cut = point - 1;
          d.net.attack.cut_closes = closes;
        };
        survive(whole, {harm::cut, (closes ? "closes at " : "silent at ") + std::to_string(point),
                        prepare});
      }
    }
  }

  // A byte in each call, a byte in nearly each time-out, and no byte taken any more.
  void drip_and_choke(const ordinary_run& whole) {
    for (const int32_t pace : {0, 1000, static_cast<int32_t>(kTimeout) - 1}) {
      const auto prepare = [=](device& d) {
        d.net.recv_limit = 1;
        d.net.drip = pace;
      };
      survive(whole, {harm::cut, "a byte in " + std::to_string(pace) + " ms", prepare,
                      static_cast<int64_t>(whole.bytes) * pace + kPauses});
    }
    for (size_t nth = 1; nth <= 12; ++nth) {
      const auto prepare = [=](device& d) {
        d.net.fail("send", nth, TAV_NETSOCK_TIMEOUT, true);
        d.net.fail("tls_write", nth, TLSW_ERR_TIMEOUT, true);
      };
      survive(whole, {harm::cut, "takes nothing from send " + std::to_string(nth), prepare,
                      2 * kPortLimit + kPauses});
    }
  }

  // The nth reply is another one, or the last.
  void lie(const ordinary_run& whole, size_t nth, const string& reply, bool ends_there) {
    const auto prepare = [&](device& d) {
      d.net.attack.active = true;
      d.net.attack.replaced = {{nth, expand(reply)}};
      d.net.attack.ends_there = ends_there;
    };
    survive(whole, {harm::lies, "reply " + std::to_string(nth) + " is " + reply, prepare});
  }

 private:
  void check(device& player, const ordinary_run& whole, const trouble& bad, TAV_EML_RESULT result) {
    player.check_order(result);
    EXPECT_TRUE(result == TAV_EML_OK || player.has_logged_errors()) << "fails without a word";
    EXPECT_LE(player.memory.state().peak_bytes, kMostMemory);
    if (bad.kind == harm::cut || bad.kind == harm::lies) {
      EXPECT_LE(player.net.clock, bad.most_time);
      EXPECT_LE(player.net.any_calls, kMostCalls);
    }
    if (bad.kind == harm::memory) {
      m_starved += player.log.all();
      EXPECT_TRUE(result == TAV_EML_OK || result == TAV_EML_ERR_NO_MEMORY ||
                  result == TAV_EML_ERR_UNKNOWN || result == TAV_EML_ERR_NOT_CONNECTED);
    }
    if (bad.kind == harm::lies) return;  // a server may say that it has taken what it has not
    const string sent = player.mails_sent(), received = player.parts_received;
    if (result == TAV_EML_OK) {
      EXPECT_EQ(sent + received, whole.sent + whole.received) << "in spite of success";
    } else if (bad.kind == harm::memory) {
      EXPECT_EQ(sent, "") << "a mail that was taken is called lost";
    } else {
      EXPECT_TRUE(sent.empty() || sent == whole.sent) << sent;
      // What came is what was there, part by part.
      const string came = received.substr(0, received.find_last_not_of("-] ") + 1);
      EXPECT_EQ(came, whole.received.substr(0, came.size()));
    }
  }

  static void calm(device& player) {
    player.net.attack.active = false;
    player.net.never_fail();
    player.net.drip = 0;
    player.net.recv_limit = fake_platform::unlimited;
    player.memory.never_fail();
    player.forget();
  }

  const dialogue_case& m_case = *GetParam();

 protected:
  const case_row& m_row = m_case.rows[0];
  string m_starved;  // what was logged when memory ran out
  std::mt19937 m_random{1};
};

TEST_P(storm, every_call_failed_in_turn) {
  const ordinary_run whole = measure();
  for (const bool all_from : {false, true}) {
    const string extent = all_from ? " and all that follow" : "";
    for (const size_t n : chosen(whole.blocks, 40)) {
      for (const bool throws : {false, true}) {
        const auto fails = [=](device& d) {
          if (throws) d.memory.fail_by([] { throw new tav_eml_mlutl_mail_exception("none"); });
          d.memory.fail(n, all_from);
        };
        survive(whole, {harm::memory, "block " + std::to_string(n) + extent, fails});
      }
    }
    for (const size_t n : chosen(whole.news, 30))
      survive(whole, {harm::memory, "new " + std::to_string(n) + extent, [](device&) {}}, n,
              all_from);
    for (const size_t n : chosen(whole.network, 30)) {
      for (const bool is_timeout : {false, true}) {
        const auto fails = [=](device& d) { d.net.fail_any(n, all_from, is_timeout); };
        survive(whole, {harm::network, "call " + std::to_string(n) + extent, fails});
      }
    }
  }
  for (const statement& one : m_row.statements)
    for (const string& piece : pieces_of(one.verb == "starved" ? one.rest : "", ", "))
      EXPECT_NE(m_starved.find(piece), string::npos) << piece;
}

// One reply that is no reply, or more than one.
const char kWrongReplies[] =
    "|\\r|\\n|^|2|3|4|5|+|-|.|x|\\s|\\0|\\xff|\\e[2J|\\0^|\\xff\\xfe\\x80 \\xe6^"
    "|2^|25^|250^|250-^|250\\s^|250 \\0^|334^|421 x^|535 x^|999 x^"
    "|+ ^|+ =^|+ e30=^|334 =^|334 QQ=A^|334 cmVhbG09^|334 bm9uY2U9Im4i^"
    "|220 ok^250 ok^354 ok^250 ok^235 ok^"
    "|+^|+O^|+OK^|+OK\\n|-ERR^|.^|^.^|+OK \\0\\0^|+OK <>^|+OK^+OK^+OK 1 1^+OK 1 x^.^"
    "|+OK -1 -1^|+OK 4294967296 1^|+OK 1000000 1^|+OK 99999999999999999999 99999999999999999999^"
    "|334 {A*900}^|+OK 1 {u*10000}^|+OK 1 {u*900}^|+OK <{<*2000}>^|+OK {x*1019}^|250 {x*1019}^"
    "|+OK^STLS^{X^*400}.^|{250-x^*999}250 x^"
    "|+OK^Content-Type: multipart/mixed; boundary={b*3000}^^.^"
    "|+OK^{Content-Type: multipart/mixed; boundary=b^^--b^*200}.^|+OK^{--^*100}^{--^*100}.^";

// Longer than any limit but that of a message.
constexpr const char* kTooLong[] = {
    "220 {x*300000}",
    "{250-x^*40000}",
    "250-x^{^*150000}",
    "+OK^{X: y^*50000}",
    "+OK^{STLS^*50000}",
    "{+OK 1 1^*30000}",
    "+OK^{^*150000}",
    "+OK^X: y^^{x*300000}",
    "+OK^Content-Type: multipart/mixed; boundary=b^^{--b^^*40000}",
    "+OK^Content-Type: multipart/mixed; boundary=b^^{preamble^*30000}",
    "{334 VXNlcm5hbWU6^*16000}",
    "{+ e30=^*30000}",
    "+ {A*300000}",
};

TEST_P(storm, hostile_servers) {
  const ordinary_run whole = measure();
  break_off(whole);
  drip_and_choke(whole);
  for (const string& word : pieces_of(kWrongReplies, "|"))
    for (const size_t nth : chosen(whole.said, 2)) lie(whole, nth, word, word.empty());
  for (const char* reply : kTooLong)
    for (const size_t nth : chosen(whole.said, 1)) lie(whole, nth, reply, true);
}

INSTANTIATE_TEST_SUITE_P(dialogue, storm, testing::ValuesIn(all_cases(true)), test_name);

}  // namespace
}  // namespace dialogue
