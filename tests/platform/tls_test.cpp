#include <gtest/gtest.h>

#include <set>

#include "tav_wiretap.h"
#include "tls_fixture.h"

// A port may lack it.
extern "C" __attribute__((weak)) void tav_wiretap_set(tav_wiretap_fn observer,
                                                      void* context) noexcept;

namespace {

using namespace contract;
using namespace std::string_literals;

// The ends of handshakes that an observer is told of, and the names in the latest certificate.
struct observer {
  observer() {
    if (tav_wiretap_set != nullptr) tav_wiretap_set(note, this);
  }
  ~observer() {
    if (tav_wiretap_set != nullptr) tav_wiretap_set(nullptr, nullptr);
  }
  void expect(int32_t result, const std::string& name) const {
    if (tav_wiretap_set == nullptr) return;
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].first, result == TLSW_OK                ? TAV_WIRETAP_TLS_STARTED
                             : result == TLSW_ERR_CERTIFICATE ? TAV_WIRETAP_TLS_REFUSED
                                                              : TAV_WIRETAP_TLS_FAILED);
    EXPECT_TRUE(name.empty() || ends[0].second == name) << ends[0].second;
  }
  static void note(void* self, TAV_WIRETAP_EVENT event, const char* bytes, size_t length) {
    const std::string text(bytes, length), line = text.substr(0, text.find('\n'));
    auto& told = *static_cast<observer*>(self);
    if (event == TAV_WIRETAP_TLS_CERTIFICATE) told.names = line;
    if (event == TAV_WIRETAP_TLS_STARTED || event == TAV_WIRETAP_TLS_REFUSED ||
        event == TAV_WIRETAP_TLS_FAILED)
      told.ends.emplace_back(event, line);
  }
  std::vector<std::pair<int, std::string>> ends;
  std::string names;
};

TEST(TlsContract, only_the_right_certificate_and_known_options_are_accepted) {
  using fault = certificate_fault;
  constexpr int32_t kRefused = TLSW_ERR_CERTIFICATE, kNone = TLSW_ERR_NO_RESOURCE;
  const std::string v4 = "127.0.0.1", elsewhere = "192.0.2.1", name = "localhost";
  const struct {
    std::vector<uint8_t> options;
    int32_t result;
    std::string told = "";
    far_end far = {};
    int version = 0;
  } cases[] = {
      {{1}, TLSW_OK},
      {{1}, TLSW_OK, "", {fault::none, v4, v4}},
      {{1}, kRefused, TAV_TLS_REFUSED_EXPIRED, {fault::expired}},
      {{1}, kRefused, TAV_TLS_REFUSED_NOT_YET, {fault::not_yet_valid}},
      {{1}, kRefused, TAV_TLS_REFUSED_SELF_SIGNED, {fault::self_signed}},
      {{1}, kRefused, TAV_TLS_REFUSED_NAME, {fault::wrong_name}},
      {{1}, kRefused, TAV_TLS_REFUSED_NAME, {fault::none, v4}},
      {{1}, kRefused, TAV_TLS_REFUSED_NAME, {fault::none, name, v4}},
      {{1}, kRefused, TAV_TLS_REFUSED_NAME, {fault::none, name, "l*calhost"}},
      {{1}, kRefused, TAV_TLS_REFUSED_NAME, {fault::address_as_name, v4, v4}},
      {{1}, kRefused, TAV_TLS_REFUSED_NO_NAME, {fault::none, elsewhere}},
      {{1}, kRefused, TAV_TLS_REFUSED_ISSUER, {fault::none, name, name, "other"}},
      {{1}, kNone, TAV_TLS_FAILED_NO_STORE, {fault::none, name, name, "missing"}},
      {{1}, kNone, TAV_TLS_FAILED_NO_STORE, {fault::none, name, name, "useless"}},
      {{0}, TLSW_OK, "", {fault::expired}},
      {{0}, TLSW_OK, "", {fault::self_signed}},
      {{0}, TLSW_OK, "", {fault::wrong_name}},
      {{0}, TLSW_OK, "", {fault::none, v4}},
      {{0}, TLSW_OK, "", {fault::none, elsewhere}},
      {{1, 3, 0, 3}, TLSW_OK, "", {}, TLS1_2_VERSION},
      {{0, 3}, TLSW_OK, "", {}, TLS1_2_VERSION},
      {{0, 4, 0, 4}, TLSW_OK, "", {}, TLS1_3_VERSION},
      {{0, 4, 0, 1}, TLSW_OK},
      {{2}, TLSW_ERR_PARAM, TAV_TLS_FAILED_OPTIONS},
      {{0, 1}, TLSW_ERR_PARAM, TAV_TLS_FAILED_OPTIONS},
      {{0, 5}, TLSW_ERR_PARAM, TAV_TLS_FAILED_OPTIONS},
      {{0, 0, 1}, TLSW_ERR_PARAM, TAV_TLS_FAILED_OPTIONS},
      {{0, 0, 0, 5}, TLSW_ERR_PARAM, TAV_TLS_FAILED_OPTIONS},
      {{0, 0, 0, 0, 1}, TLSW_ERR_PARAM, TAV_TLS_FAILED_OPTIONS},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(&test - cases);
    const observer told;
    const tls_line line(test.options, 0, test.far);
    if (test.version == TLS1_3_VERSION && line.result == TLSW_ERR_PARAM) continue;  // not there
    EXPECT_EQ(line.result, test.result);
    told.expect(test.result, test.told);
    if (test.result != TLSW_OK) continue;
    // An address is not sent as a name.
    const char* const asked = SSL_get_servername(line.peer.get(), TLSEXT_NAMETYPE_host_name);
    EXPECT_EQ(asked != nullptr ? asked : "", test.far.host == name ? name : "");
    EXPECT_TRUE(test.version == 0 || SSL_version(line.peer.get()) == test.version);
    if (tav_wiretap_set == nullptr) continue;
    EXPECT_EQ(told.names, test.far.fault == fault::wrong_name ? "wrong.example" : test.far.name);
  }
}

// What a server may do. Each step that lasts ends when the client has closed.
void accept(const tls_line& line) { SSL_accept(line.peer.get()); }
void await(const tls_line& line) {
  char hello;
  recv(line.ends.theirs, &hello, 1, MSG_PEEK);
}
void hear(const tls_line& line) {
  char hello[2000];
  recv(line.ends.theirs, hello, sizeof hello, 0);
}
step say(const std::string& text) {
  return [=](tls_line& line) { send(line.ends.theirs, text.data(), text.size(), MSG_NOSIGNAL); };
}
step drip(const std::string& text) {
  return [=](tls_line& line) {
    for (const char c : text) pause(40), send(line.ends.theirs, &c, 1, MSG_NOSIGNAL);
  };
}
void cut(tls_line& line) { line.ends.close_theirs(); }
void reset(tls_line& line) { line.ends.close_theirs(true); }
void leave(const tls_line& line) { SSL_shutdown(line.peer.get()); }
// Again and again, until it does not work.
template <typename Act>
step repeat(Act act) {
  return [=](tls_line& line) {
    for (const stopwatch watch; watch.elapsed() < 3000 && act(line.peer.get(), line) > 0;) {
    }
  };
}

TEST(TlsContract, a_handshake_or_read_ends_in_time_and_tells_an_end_from_a_cut) {
  constexpr int32_t kFails = TLSW_ERR_CONNECT, kLate = TLSW_ERR_TIMEOUT;
  const std::string request = "\x16\3\3\0\4\0\0\0\0"s;  // HelloRequest
  // A TLS 1.0 server that answers all the same.
  const std::string old = "\x16\3\1\0\x2A\2\0\0\x26\3\1"s + std::string(32, 'r') + "\0\0\x2F\0"s;
  const auto flood = [](const std::string& text) {
    return repeat([=](SSL*, tls_line& line) {
      return send(line.ends.theirs, text.data(), text.size(), MSG_NOSIGNAL);
    });
  };
  const step renegotiate = repeat(
      [](SSL* ssl, tls_line&) { return SSL_renegotiate(ssl) > 0 ? SSL_do_handshake(ssl) : 0; });
  const step new_keys = repeat([](SSL* ssl, tls_line&) {
    return SSL_key_update(ssl, SSL_KEY_UPDATE_NOT_REQUESTED) > 0 ? SSL_do_handshake(ssl) : 0;
  });
  const step settle = [](tls_line&) { pause(30); };
  const step lose = [](tls_line& line) { pause(20), fill(line.ends.ours, 100), pause(20); };
  const step read_one = [](tls_line& line) { receive_byte(line.ends.ours, 1000), pause(20); };
  const struct {
    std::vector<step> steps;
    int32_t result;              // of the handshake; of a read when `told` is null
    const char* told = nullptr;  // of the handshake
    uint8_t only = 0;            // with this version
    step prepare = nullptr;
  } cases[] = {
      // A client ignores the request, and the server goes on: only a look at what came in clear
      // refuses it, be it held by the socket layer or by the system.
      {{say(request), accept}, kFails, TAV_TLS_FAILED_CLEAR, 0, settle},
      {{say("|" + request), accept}, kFails, TAV_TLS_FAILED_CLEAR, 0, read_one},
      {{hold}, kLate, TAV_TLS_FAILED_TIMEOUT},
      {{hear, say("\x16\3\3"), hold}, kLate, TAV_TLS_FAILED_TIMEOUT},
      {{hear, drip("\x16\3\3\x40\0"s + std::string(40, 2))}, kLate, TAV_TLS_FAILED_TIMEOUT},
      {{hear, flood(request)}, kFails, ""},
      {{hear, cut}, kFails, TAV_TLS_FAILED_CUT},
      {{hear, say("\x16\3\3"), cut}, kFails, TAV_TLS_FAILED_CUT},
      {{cut}, kFails, TAV_TLS_FAILED_CUT, 0, lose},
      {{hear, say("500 what?\r\n"), hold}, kFails, TAV_TLS_FAILED_NOT_TLS},
      {{hear, say("HTTP/1.1 400 Bad Request\r\n"), cut}, kFails, TAV_TLS_FAILED_NOT_TLS},
      {{hear, say(old), hold}, kFails, TAV_TLS_FAILED_VERSION},
      {{await, say(request), accept, leave, hold}, TLSW_OK},
      {{accept, leave, cut}, TLSW_OK},
      {{accept, cut}, TLSW_ERR_READ},
      {{accept, reset}, TLSW_ERR_READ},
      {{accept, say("\x17\3\3\0\x40."s), cut}, TLSW_ERR_READ},  // within a record
      {{accept, drip("\x17\3\3\x40\0"s + std::string(40, '.'))}, kLate},
      {{accept, renegotiate}, TLSW_ERR_READ, nullptr, 3},
      {{accept, new_keys}, kLate, nullptr, 4},
  };
  for (const auto& test : cases) {
    for (const uint8_t newest : {uint8_t{3}, uint8_t{4}}) {
      SCOPED_TRACE(testing::Message() << &test - cases << " TLS 1." << newest - 1);
      if (test.only != 0 && test.only != newest) continue;
      const observer told;
      far_end far;
      far.steps = test.steps;
      far.prepare = test.prepare;
      tls_line line({0, newest}, 400, far);
      const int32_t result = test.told != nullptr ? test.result : TLSW_OK;
      EXPECT_EQ(line.result, result);
      EXPECT_TRUE(result != kLate || line.took >= 400);
      EXPECT_LT(line.took, 1500);
      told.expect(result, test.told != nullptr ? test.told : "");
      if (test.told != nullptr || SSL_version(line.peer.get()) != TLS1_VERSION + newest - 1)
        continue;
      std::string text;
      for (int i = 0; i < (test.result != kLate ? 2 : 1); ++i) {  // and it stays so
        const stopwatch watch;
        const int32_t read = line.read(text, 400);
        // A library may take the many new keys for an attack.
        const bool is_attack = test.only == 4 && read == TLSW_ERR_READ;
        EXPECT_TRUE(read == test.result || is_attack) << read;
        EXPECT_EQ(text, "");
        EXPECT_LT(watch.elapsed(), 1500);
      }
      EXPECT_TRUE(test.result != TLSW_ERR_READ || line.write("x") == TLSW_ERR_WRITE);
    }
  }
  // Warnings without end: a library may fail, or wait for their end, but not beyond its time.
  far_end far;
  far.steps = {hear, flood("\x15\3\3\0\2\1\x5A"s)};
  const tls_line line({0, 3}, 400, far);
  EXPECT_TRUE(line.result == kFails || line.result == kLate) << line.result;
  EXPECT_LT(line.took, 1500);
}

TEST(TlsContract, a_wait_ends_at_its_time_and_no_signal_shortens_it) { expect_timely(kTlsWaits); }

TEST(TlsContract, no_limit_is_the_ports_own_of_30_s) { expect_own_limit(kTlsWaits); }

TEST(TlsContract, a_lost_peer_is_an_error_and_raises_no_signal) {
  for (const bool is_shutdown : {false, true}) {
    tls_line line;
    cut(line);
    EXPECT_EQ(line.write("x"), TLSW_OK);
    pause(20);
    if (is_shutdown) tlsw_shutdown(line.session);
    EXPECT_EQ(line.write_on(1000), TLSW_ERR_WRITE);
  }
}

// A record in two pieces, and letter by letter.
TEST(TlsContract, after_a_read_that_took_too_long_the_session_goes_on) {
  tls_line line;
  BIO* const memory = BIO_new(BIO_s_mem());
  SSL_set0_wbio(line.peer.get(), memory);
  SSL_write(line.peer.get(), "hello", 5);
  std::string record(BIO_ctrl_pending(memory), '\0'), text;
  BIO_read(memory, record.data(), static_cast<int>(record.size()));
  say(record.substr(0, 9))(line);
  EXPECT_EQ(line.read(text, 100), TLSW_ERR_TIMEOUT);
  EXPECT_EQ(line.write("x"), TLSW_OK);
  say(record.substr(9))(line);
  for (const char letter : "hello"s) {  // nothing comes any more: the rest is there already
    EXPECT_EQ(line.read(text, 100, 1), TLSW_OK);
    EXPECT_EQ(text, std::string(1, letter));
  }
}

TEST(TlsContract, bytes_go_both_ways_and_a_write_to_a_slow_peer_has_one_deadline) {
  std::string sent(500000, ' '), text, heard, back;
  for (size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 7 + i / 251);
  far_end far;
  far.buffer = 8192;
  far.steps = {accept, [&](tls_line& line) {
                 char block[4096];
                 for (int count = 1; heard.size() < sent.size() && count > 0;) {
                   count = SSL_read(line.peer.get(), block, sizeof block);
                   heard.append(block, static_cast<size_t>(std::max(count, 0)));
                 }
                 SSL_write(line.peer.get(), heard.data(), static_cast<int>(heard.size()));
                 // It reads more slowly than there is to read.
                 while (recv(line.ends.theirs, block, 2048, 0) > 0) pause(30);
               }};
  tls_line line({0}, 0, far);
  for (size_t at = 0; at < sent.size() && line.result == TLSW_OK;) {
    line.result = line.write(sent.substr(at), -1);
    at += static_cast<size_t>(line.count);
  }
  while (back.size() < sent.size() && line.read(text) == TLSW_OK) back += text;
  EXPECT_TRUE(back == sent) << back.size();
  // One deadline, however little of it is taken again and again.
  stopwatch watch;
  while (line.result == TLSW_OK) {
    watch = stopwatch();
    line.result = line.write(sent.substr(0, 65536), 400);
  }
  EXPECT_EQ(line.result, TLSW_ERR_TIMEOUT);
  EXPECT_LT(watch.elapsed(), 1000);
  watch = stopwatch();  // half a record may be out
  EXPECT_EQ(line.write("x"), TLSW_ERR_WRITE);
  EXPECT_EQ(line.read(text), TLSW_ERR_READ);
  EXPECT_EQ(tlsw_shutdown(line.session), TLSW_OK);
  EXPECT_LT(watch.elapsed(), 300);
  shutdown(line.ends.theirs, SHUT_RDWR);
}

TEST(TlsContract, a_shutdown_says_goodbye_and_waits_for_nothing) {
  for (const bool is_full : {false, true}) {
    tls_line line;
    if (is_full) fill(line.ends.ours, 400);
    const stopwatch watch;
    const int32_t result = tlsw_shutdown(line.session);
    EXPECT_LT(watch.elapsed(), 300);
    std::string text;
    EXPECT_EQ(line.read(text), TLSW_ERR_READ);
    EXPECT_EQ(line.write("x"), TLSW_ERR_WRITE);
    if (is_full) continue;
    EXPECT_EQ(result, TLSW_OK);
    EXPECT_EQ(tlsw_shutdown(line.session), TLSW_OK);
    line.ends.close_ours();
    const int count = SSL_read(line.peer.get(), text.data(), 0);
    EXPECT_EQ(SSL_get_error(line.peer.get(), count), SSL_ERROR_ZERO_RETURN);
  }
}

TEST(TlsContract, a_handle_is_no_other_ones_and_is_not_used_again) {
  std::set<uint32_t> handles = {0};
  tls_line other;
  for (int i = 0; i < 3; ++i) {
    tls_line line;
    EXPECT_TRUE(handles.insert(line.context).second && handles.insert(line.session).second);
    EXPECT_EQ(tlsw_term(line.session), TLSW_ERR_PARAM);
    EXPECT_EQ(tlsw_shutdown(line.context), TLSW_ERR_PARAM);
    EXPECT_EQ(tlsw_term(line.context), TLSW_OK);
    EXPECT_EQ(tlsw_term(line.context), TLSW_ERR_PARAM) << "freed twice";
    EXPECT_EQ(tlsw_shutdown(line.session), TLSW_ERR_PARAM);
    EXPECT_EQ(line.write("x"), TLSW_ERR_PARAM);
    // The socket stays open, and other sessions go on.
    EXPECT_EQ(tav_netsock_send_timeo(line.ends.ours, "x", 1, 0, 1000), 1);
    EXPECT_EQ(other.write("x"), TLSW_OK);
  }
}

}  // namespace
