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

#include "quorvelmida/tav_eml_mlutl_mail_exception.h"
#include "tables.h"
#include "tav_netsock.h"
#include "tlsw.h"

namespace dialogue {
namespace {

using std::string;

constexpr int64_t kTimeout = kSeconds * 1000;
constexpr int64_t kPauses = 500;       // ms of sleep, at most
constexpr int64_t kPortLimit = 30000;  // ms that a port waits to send a command of POP3
constexpr size_t kMostMemory = size_t{1} << 20;
constexpr size_t kMostTransfers = 200000;

enum class harm { memory, network, cut, lies };

// What is done to a device before it runs.
struct trouble {
  harm kind;
  string name;
  std::function<void(device&)> prepare;
  int64_t most_time = 2 * kTimeout + kPauses;
};

struct ordinary_run {
  string outcome;
  size_t said = 0, bytes = 0;                // by the server
  size_t network = 0, blocks = 0, news = 0;  // calls that can fail
};

class storm : public testing::Test {
 public:
  explicit storm(const dialogue_case& what) : m_case(what), m_row(what.rows[0]) {}

 protected:
  ordinary_run measure() {
    const auto player = device::make(m_case.speaks);
    player->set_up(m_row);
    player->attack.active = true;  // but does nothing
    player->net.fail_any(0);
    player->memory.fail(0);
    ordinary_run whole;
    {
      const failing_new counted(0);
      EXPECT_EQ(player->run(m_row), TAV_EML_OK) << player->log.all();
      whole.news = failing_new::works() ? counted.calls() : 0;
    }
    whole.outcome = player->outcome();
    whole.said = player->attack.said;
    whole.bytes = player->attack.bytes;
    whole.network = player->net.any_calls();
    whole.blocks = player->memory.calls();
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
    const auto player = device::make(m_case.speaks);
    player->set_up(m_row);
    bad.prepare(*player);
    TAV_EML_RESULT result = TAV_EML_OK;
    if (failing_new_call != 0) {
      const failing_new failing(failing_new_call,
                                all_from ? failing_new::all_from : failing_new::once);
      result = player->run(m_row);
    } else {
      const new_meter meter;
      result = player->run(m_row);
      EXPECT_LE(meter.peak_bytes(), kMostMemory);
    }
    check(*player, whole, bad, result);
    calm(*player);
    EXPECT_EQ(player->run(m_row), TAV_EML_OK) << "does not work afterwards";
    EXPECT_EQ(player->outcome(), whole.outcome) << "afterwards";
    if (HasFailure()) std::printf("%s", player->log.all().substr(0, 4000).c_str());
  }

 private:
  void check(device& player, const ordinary_run& whole, const trouble& bad, TAV_EML_RESULT result) {
    player.check_order(result);
    EXPECT_TRUE(result == TAV_EML_OK || player.has_logged_errors()) << "fails without a word";
    EXPECT_LE(player.memory.peak_bytes(), kMostMemory);
    if (bad.kind == harm::cut || bad.kind == harm::lies) {
      EXPECT_LE(player.net.clock(), bad.most_time);
      EXPECT_LE(player.net.transfers(), kMostTransfers);
    }
    if (bad.kind == harm::memory) m_starved += player.log.all();
    if (bad.kind == harm::lies) return;  // a server may say that it has taken what it has not
    const string got = player.outcome();
    if (result == TAV_EML_OK) {
      EXPECT_EQ(got, whole.outcome) << "not what it should be in spite of success";
    } else if (bad.kind == harm::memory) {
      EXPECT_FALSE(player.is_taken(got)) << "a mail that was taken is called lost";
    } else {
      EXPECT_TRUE(player.is_part(got, whole.outcome)) << got;
    }
  }

  static void calm(device& player) {
    player.attack.active = false;
    player.net.never_fail();
    player.net.drip(0);
    player.net.recv_limit(fake_platform::unlimited);
    player.memory.never_fail();
    player.memory.fail_by(nullptr);
    player.forget_outcome();
  }

  const dialogue_case& m_case;

 protected:
  const case_row& m_row;
  string m_starved;  // what was logged when memory ran out
  std::mt19937 m_random{1};
};

class every_call_failed_in_turn : public storm {
 public:
  using storm::storm;

  void TestBody() override {
    const ordinary_run whole = measure();
    for (const bool all_from : {false, true}) {
      const string extent = all_from ? " and all that follow" : "";
      for (const size_t n : chosen(whole.blocks, 40)) {
        const auto fails = [=](device& d) { all_from ? d.memory.fail_from(n) : d.memory.fail(n); };
        survive(whole, {harm::memory, "block " + std::to_string(n) + extent, fails});
        const auto throws = [=](device& d) {
          d.memory.fail_by([] { throw new tav_eml_mlutl_mail_exception("no memory"); });
          fails(d);
        };
        survive(whole, {harm::memory, "throwing block " + std::to_string(n) + extent, throws});
      }
      for (const size_t n : chosen(whole.news, 30))
        survive(whole, {harm::memory, "new " + std::to_string(n) + extent, [](device&) {}}, n,
                all_from);
      for (const size_t n : chosen(whole.network, 30)) {
        using outcome = fake_platform::outcome;
        for (const outcome how : {outcome::error, outcome::timeout}) {
          const auto fails = [=](device& d) {
            all_from ? d.net.fail_any_from(n, how) : d.net.fail_any(n, how);
          };
          survive(whole, {harm::network, "call " + std::to_string(n) + extent, fails});
        }
      }
    }
    for (const statement& one : m_row.statements)
      for (const string& piece : pieces_of(one.verb == "starved" ? one.rest : "", ", "))
        EXPECT_NE(m_starved.find(piece), string::npos) << piece;
  }
};

// Words between bars; @ stands for NUL.
std::vector<string> split(const string& text) {
  std::vector<string> words(1);
  for (const char c : text) {
    if (c == '|') words.emplace_back();
    if (c != '|') words.back() += c == '@' ? '\0' : c;
  }
  return words;
}

// One reply that is no reply, or more than one.
std::vector<string> wrong_words() {
  std::vector<string> words = split(
      "|\r|\n|\r\n|2|3|4|5|+|-|.|x| |@|\xff|\x1b[2J|@\r\n|\xff\xfe\x80 \xe6\r\n"
      "|2\r\n|25\r\n|250\r\n|250-\r\n|250 \r\n|250 @\r\n|334\r\n|421 x\r\n|535 x\r\n|999 x\r\n"
      "|334 =\r\n|334 QQ=A\r\n|334 cmVhbG09\r\n|334 bm9uY2U9Im4i\r\n"
      "|220 ok\r\n250 ok\r\n354 ok\r\n250 ok\r\n235 ok\r\n"
      "|+\r\n|+O\r\n|+OK\r\n|+OK\n|-ERR\r\n|.\r\n|\r\n.\r\n|+OK @@\r\n|+OK <>\r\n"
      "|+OK\r\n+OK\r\n+OK 1 1\r\n+OK 1 x\r\n.\r\n|+OK -1 -1\r\n|+OK 4294967296 1\r\n"
      "|+OK 1000000 1\r\n|+OK 99999999999999999999 99999999999999999999\r\n");
  for (const char* longer :
       {"334 {A*900}^", "+OK 1 {u*10000}^", "+OK 1 {u*900}^", "+OK <{<*2000}>^", "+OK {x*1019}^",
        "250 {x*1019}^", "+OK^STLS^{X^*400}.^", "{250-x^*999}250 x^",
        "+OK^Content-Type: multipart/mixed; boundary={b*3000}^^.^",
        "+OK^{Content-Type: multipart/mixed; boundary=b^^--b^*200}.^", "+OK^{--^*100}^{--^*100}.^"})
    words.push_back(expand(longer));
  return words;
}

// How a reply begins and goes on without end.
const std::pair<const char*, const char*> kEndless[] = {
    {"220 ", "{x*16}"},
    {"250-x^", "250-x^"},
    {"250-x^", "^"},
    {"+OK^", "X: y^"},
    {"+OK^", "STLS^"},
    {"+OK 1 1^", "+OK 1 1^"},
    {"+OK^", "^"},
    {"+OK^X: y^^", "x"},
    {"+OK^Content-Type: multipart/mixed; boundary=b^^", "--b^^"},
    {"+OK^Content-Type: multipart/mixed; boundary=b^^", "preamble^"},
    {"334 VXNlcm5hbWU6^", "334 VXNlcm5hbWU6^"},
};

// Talks at random, but in the words of the trade.
string drunken_speech(std::mt19937& random) {
  static const std::vector<string> words = split(
      "2|3|4|5|250|334|-| |+OK|-ERR|\r|\n|\r\n|.|--b|=|AUTH|STARTTLS|STLS|PLAIN|:|<|>|1|@|\x1b"
      "|99999999999|VXNlcm5hbWU6|QUJD|=?utf-8?B?|?=|realm=\"|\xe6\x97\xa5|\r\n.\r\n"
      "|Content-Type: multipart/mixed; boundary=b\r\n|Content-Transfer-Encoding: base64\r\n");
  string speech = random() % 2 == 0 ? "+OK\r\n" : "250";
  for (size_t count = random() % 40; count > 0; --count) speech += words[random() % words.size()];
  return speech;
}

class hostile_servers : public storm {
 public:
  using storm::storm;

  void TestBody() override {
    const ordinary_run whole = measure();
    break_off(whole);
    drip_and_choke(whole);
    for (const string& word : wrong_words())
      for (const size_t nth : chosen(whole.said, 2)) lie(whole, nth, word);
    for (const auto& [begin, then] : kEndless)
      for (const size_t nth : chosen(whole.said, 1)) lie(whole, nth, expand(begin), expand(then));
    std::mt19937 random(7);
    for (const size_t seed : chosen(100, 20)) {
      random.seed(static_cast<uint32_t>(seed));
      const string speech = drunken_speech(random);
      lie(whole, 1 + random() % whole.said, speech);
    }
  }

 private:
  // Silence, and the end of the connection, at every byte that the server says.
  void break_off(const ordinary_run& whole) {
    for (const size_t point : chosen(whole.bytes, 40)) {
      for (const bool closes : {false, true}) {
        const auto prepare = [=](device& d) {
          d.attack.active = true;
          d.attack.cut = point - 1;
          d.attack.cut_closes = closes;
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
        d.net.recv_limit(1);
        d.net.drip(pace);
      };
      survive(whole, {harm::cut, "a byte in " + std::to_string(pace) + " ms", prepare,
                      static_cast<int64_t>(whole.bytes) * pace + kPauses});
    }
    for (size_t nth = 1; nth <= 12; ++nth) {
      const auto prepare = [=](device& d) {
        d.net.fail_from(net_call::send, nth, TAV_NETSOCK_TIMEOUT);
        d.net.fail_from(net_call::tls_write, nth, TLSW_ERR_TIMEOUT);
      };
      survive(whole, {harm::cut, "takes nothing from send " + std::to_string(nth), prepare,
                      2 * kPortLimit + kPauses});
    }
  }

  // The nth reply is another one, and goes on with `then` for longer than any limit.
  void lie(const ordinary_run& whole, size_t nth, const string& text, const string& then = "") {
    const auto prepare = [&](device& d) {
      d.attack.active = true;
      d.attack.replaced = nth;
      d.attack.replacement = text;
      d.attack.endless = then;
      d.attack.endless_bytes = size_t{300} << 10;
    };
    survive(whole, {harm::lies, "reply " + std::to_string(nth) + " is " + text.substr(0, 60) + then,
                    prepare});
  }
};

template <typename Storm>
void add(const char* suite, const dialogue_case& what) {
  testing::RegisterTest(suite, test_name(what).c_str(), nullptr, nullptr, __FILE__, __LINE__,
                        [&what]() -> storm* { return new Storm(what); });
}

}  // namespace

void add_storms() {
  for (const table& one : tables())
    for (const dialogue_case& what : one.cases)
      if (what.storm) add<every_call_failed_in_turn>("Torture", what);
  for (const table& one : tables())
    for (const dialogue_case& what : one.cases)
      if (what.storm) add<hostile_servers>("Hostile", what);
}

}  // namespace dialogue
