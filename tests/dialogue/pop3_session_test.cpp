// POP3 sessions: login, commands, lists of seen mail, POP-before-SMTP.

#include <algorithm>
#include <climits>

#include "pop3_fixture.h"

namespace dialogue {
namespace {

const std::string kLogin = "USER u\r\nPASS pw\r\n";
const std::string kApopLogin = std::string("APOP u ") + kDigest + "\r\n";
constexpr char kQuit[] = "QUIT\r\n";
using command = tav_eml_pop3_command;

TEST_F(Pop3, logs_in_and_out) {
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(), kLogin + kQuit);
  EXPECT_TRUE(host.closed_by_client());
  EXPECT_EQ(net.timeouts(net_call::recv), std::set<int64_t>{7000});
  record.nAPOP = 1;
  EXPECT_EQ(renewed().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(2), kApopLogin + kQuit);
  net.send_limit(1);
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(3), kApopLogin + kQuit);
  net.send_limit(0);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_TRANSFER);
}

TEST_F(Pop3, stls_protects_the_login) {
  host.capabilities({"USER", "STLS", "UIDL"});
  record.ucTLSMode = 2;
  const uint8_t options[] = {1, 2, 3, 4, 5};
  std::memcpy(record.ucTLSOption, options, sizeof options);
  for (const int apop : {0, 1}) {
    record.nAPOP = apop;
    const size_t nth = host.connections() + 1;
    EXPECT_EQ(renewed().test(), TAV_EML_OK);
    EXPECT_EQ(host.client_bytes_in_clear(nth), "CAPA\r\nSTLS\r\n");
    EXPECT_EQ(host.client_bytes_under_tls(nth), (apop != 0 ? kApopLogin : kLogin) + kQuit);
  }
  for (const auto& bytes : net.tls_records()) {
    for (const uint8_t option : options) {
      EXPECT_NE(std::find(bytes.begin(), bytes.end(), option), bytes.end()) << int{option};
    }
  }
}

TEST_F(Pop3, implicit_tls_begins_with_the_first_byte) {
  set_up(net, host, record, tls_mode::implicit);
  record.ucTLSMode = 1;
  EXPECT_EQ(facade().test(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes_in_clear(), "");
  EXPECT_EQ(host.client_bytes_under_tls(), kLogin + kQuit);
  net.fail(net_call::tls_connect, 2, 0x7201001D);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_TLS_CONNECT_REFUSED);
}

TEST_F(Pop3, a_failed_login_leaves_nothing_and_the_next_one_is_a_real_one) {
  const auto script = [this](const char* verb, const std::string& reply) {
    return [this, verb, reply] { host.reply_to(verb, host.occurrences(verb) + 1, reply); };
  };
  const auto close = [this](const char* verb) {
    return [this, verb] { host.close_at(verb, host.occurrences(verb) + 1); };
  };
  const auto silence = [this](const char* verb) {
    return [this, verb] { host.silence_at(verb, host.occurrences(verb) + 1); };
  };
  const struct {
    uint8_t tls;
    int32_t apop;
    std::function<void()> fault;
    TAV_EML_RESULT expected;
    std::string sent;
  } cases[] = {
      {0, 0, script(pop3_host::greeting, "-ERR busy\r\n"), TAV_EML_ERR_REPLY, ""},
      {0, 0, close(pop3_host::greeting), TAV_EML_ERR_REPLY, ""},
      {0, 0, silence(pop3_host::greeting), TAV_EML_ERR_TRANSFER_TIMEOUT, ""},
      {0, 0, script("USER", "-ERR who\r\n"), TAV_EML_ERR_REPLY, "USER u\r\n"},
      {0, 0, script("PASS", "-ERR no\r\n"), TAV_EML_ERR_AUTH, kLogin},
      {0, 0, close("PASS"), TAV_EML_ERR_REPLY, kLogin},
      {0, 0, silence("PASS"), TAV_EML_ERR_TRANSFER_TIMEOUT, kLogin},
      {0, 1, script("APOP", "-ERR no\r\n"), TAV_EML_ERR_AUTH, kApopLogin},
      {0, 1, script(pop3_host::greeting, "+OK no stamp\r\n"), TAV_EML_ERR_REPLY, ""},
      {0, 1, script(pop3_host::greeting, "+OK > and < open\r\n"), TAV_EML_ERR_REPLY, ""},
      {2, 0, script("CAPA", "-ERR\r\n.\r\n"), TAV_EML_ERR_TLS_CONNECT, "CAPA\r\n"},
      {2, 0, script("CAPA", "+OK\r\nUIDL\r\n.\r\n"), TAV_EML_ERR_TLS_CONNECT, "CAPA\r\n"},
      {2, 0, script("CAPA", {"+OK\r\n\0\r\nSTLS\r\n.\r\n", 17}), TAV_EML_ERR_REPLY, "CAPA\r\n"},
      {2, 0, close("CAPA"), TAV_EML_ERR_REPLY, "CAPA\r\n"},
      {2, 0, script("STLS", "-ERR no\r\n"), TAV_EML_ERR_REPLY, "CAPA\r\nSTLS\r\n"},
      {2, 0, script("STLS", "+OK\r\n+OK injected\r\n"), TAV_EML_ERR_UNKNOWN, "CAPA\r\nSTLS\r\n"},
      {2, 0, [&] { net.fail_from(net_call::tls_connect, 1, 0x7201001D); }, TAV_EML_ERR_UNKNOWN,
       "CAPA\r\nSTLS\r\n"},
      {2, 1, [&] { net.fail_from(net_call::tls_init, 1, -1); }, TAV_EML_ERR_UNKNOWN,
       "CAPA\r\nSTLS\r\n"},
      {0, 0, [&] { net.connect_result(kAddress, 110, -1); }, TAV_EML_ERR_CONNECT, ""},
      {0, 0, [&] { net.connect_result(kAddress, 110, -2); }, TAV_EML_ERR_CONNECT_TIMEOUT, ""},
      {0, 0, [&] { net.fail_from(net_call::socket, 1, -1); }, TAV_EML_ERR_SOCKET, ""},
  };
  host.capabilities({"STLS"});
  int number = 0;
  for (const auto& test : cases) {
    SCOPED_TRACE("case " + std::to_string(number++));
    record.ucTLSMode = test.tls;
    record.nAPOP = test.apop;
    renewed();
    test.fault();
    const size_t before = host.connections();
    EXPECT_EQ(facade().connect_mail(), test.expected) << log.all();
    EXPECT_EQ(host.client_bytes(before + 1), test.sent);
    EXPECT_EQ(net.leaks(), "");
    EXPECT_EQ(facade().noop(), TAV_EML_ERR_NOT_CONNECTED);
    int count = 0;
    EXPECT_EQ(facade().stat(count), TAV_EML_ERR_TRANSFER);
    net.never_fail();
    set_up(net, host, record);
    const size_t failed = host.connections();
    EXPECT_EQ(facade().connect_mail(), TAV_EML_OK);
    EXPECT_EQ(host.connections(), failed + 1);
    EXPECT_NE(host.client_bytes(failed + 1).find(test.apop != 0 ? kApopLogin : kLogin),
              std::string::npos);
  }
}

TEST_F(Pop3, what_cannot_be_sent_is_refused_before_anything_is) {
  const auto result = [&](const std::string& user, const std::string& password, int apop) {
    record.strUserID = user.c_str();
    record.strPassword = password.c_str();
    record.nAPOP = apop;
    const TAV_EML_RESULT tested = renewed().test();
    log.clear();
    return tested;
  };
  for (const char* bad : {"u\r\nDELE 1", "u\n", "u\r", "\r"}) {
    EXPECT_EQ(result(bad, "x", 0), TAV_EML_ERR_PARAM);
    EXPECT_EQ(result("u", bad, 0), TAV_EML_ERR_PARAM);
    EXPECT_EQ(result("u", bad, 1), TAV_EML_ERR_PARAM);
  }
  EXPECT_EQ(result(std::string(5000, 'u'), "x", 0), TAV_EML_ERR_PARAM);
  EXPECT_EQ(result("u", std::string(5000, 'x'), 0), TAV_EML_ERR_PARAM);
  record.ucTLSMode = 3;
  EXPECT_EQ(result("u", "pw", 0), TAV_EML_ERR_PARAM);
  record.ucTLSMode = 0;
  record.strServer = "";
  EXPECT_EQ(result("u", "pw", 0), TAV_EML_ERR_PARAM);
  record.strServer = kServer;
  EXPECT_EQ(host.connections(), 0u);
  // Longer than the longest line of RFC 1939 is for the server to judge.
  const std::string user(300, 'u'), password(300, 'p');
  host.account(user, password);
  EXPECT_EQ(result(user, password, 0), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(), "USER " + user + "\r\nPASS " + password + "\r\nQUIT\r\n");
  EXPECT_EQ(result("", "pw", 0), TAV_EML_ERR_AUTH);
  EXPECT_EQ(host.client_bytes(2), "");
}

// A session without the facade, for the results of single commands.
struct session {
  explicit session(const _tav_eml_pop3_setting& record) : settings(record) {
    EXPECT_EQ(command::connect_start(&settings, sock, tls), TAV_EML_OK);
  }
  ~session() {
    if (sock != 0) command::disconnect(&settings, sock, tls);
  }
  session(const session&) = delete;
  session& operator=(const session&) = delete;

  tav_eml_pop3_settings settings;
  int sock = 0;
  TAV_EML_TLS_INFO tls = {};
};

TEST_F(Pop3, reads_the_replies_to_its_commands) {
  const std::string ten_kilobytes(10000, 'i');
  const struct {
    const char* verb;
    std::string reply;
    TAV_EML_RESULT expected;
    std::string value;
    bool stays_open = false;  // in spite of the failure
  } cases[] = {
      {"UIDL 5", "+OK 5 abc\r\n", TAV_EML_OK, "abc"},
      {"UIDL 5", "+OK  5   a:b  more\r\n", TAV_EML_OK, "a:b"},
      {"UIDL 5", "-ERR not +OK now\r\n", TAV_EML_OK, "+OK"},
      {"UIDL 5", "+OK 5\r\n", TAV_EML_ERR_REPLY, ""},
      {"UIDL 5", "-ERR no 5 abc\r\n", TAV_EML_ERR_REPLY, ""},
      {"UIDL 5", "+OK 5 " + ten_kilobytes + "\r\n", TAV_EML_ERR_REPLY, ""},
      {"UIDL 5", "+OK 5 " + ten_kilobytes.substr(0, 900) + "\r\n", TAV_EML_OK,
       ten_kilobytes.substr(0, 900)},
      {"UIDL 5", "+OK 5 " + std::string(70000, 'x'), TAV_EML_ERR_REPLY, ""},
      {"LIST 5", "+OK 5 120\r\n", TAV_EML_OK, "120"},
      {"LIST 5", "+OK 5 2147483648\r\n", TAV_EML_OK, std::to_string(INT_MAX)},
      {"LIST 5", "+OK 5 99999999999999999999999\r\n", TAV_EML_OK, std::to_string(INT_MAX)},
      {"LIST 5", "+OK 5 -1\r\n", TAV_EML_ERR_REPLY, "-7"},
      {"LIST 5", "+OK 5\r\n", TAV_EML_ERR_REPLY, "-7"},
      {"STAT", "+OK 2 320\r\n", TAV_EML_OK, "2 of 320"},
      {"STAT", "+OK 1 9999999999\r\n", TAV_EML_OK, "1 of " + std::to_string(INT_MAX)},
      {"STAT", "+OK 2000000000 1\r\n", TAV_EML_ERR_REPLY, "-7 of -7"},
      {"STAT", "+OK -2 1\r\n", TAV_EML_ERR_REPLY, "-7 of -7"},
      {"STAT", "+OK\r\n", TAV_EML_ERR_REPLY, "-7 of -7", true},
      {"STAT", "-ERR\r\n", TAV_EML_ERR_REPLY, "-7 of -7"},
      {"NOOP", "-ERR\r\n", TAV_EML_ERR_REPLY, ""},
      {"NOOP", "\r\n", TAV_EML_ERR_REPLY, ""},
      {"DELE 5", "-ERR\r\n", TAV_EML_ERR_REPLY, ""},
      {"TOP 5 0", "-ERR\r\n", TAV_EML_ERR_REPLY, ""},
      {"RETR 5", "+OK\na: b\r\n", TAV_EML_OK, "a: b\r\n"},
      {"RETR 5", "-ERR\r\n", TAV_EML_ERR_REPLY, ""},
  };
  for (const auto& test : cases) {
    const std::string verb = std::string(test.verb).substr(0, std::string(test.verb).find(' '));
    SCOPED_TRACE(verb + ": " + test.reply.substr(0, 40));
    host.reply_to(verb, host.occurrences(verb) + 1, test.reply);
    session s(record);
    UtlString word("old");
    int first = -7, second = -7;
    const auto run = [&](auto operation, auto&... more) {
      return operation(&s.settings, s.sock, s.tls, more...);
    };
    int number = 5;
    TAV_EML_RESULT result = TAV_EML_OK;
    std::string value;
    if (verb == "STAT") {
      result = run(command::get_stat, second, first);
      value = std::to_string(first) + " of " + std::to_string(second);
    } else if (verb == "LIST") {
      result = run(command::get_size, number, first);
      value = std::to_string(first);
    } else if (verb == "UIDL" || verb == "RETR") {
      result = run(verb == "UIDL" ? command::get_uniq_id : command::read_open, number, word);
      value = text(word);
    } else if (verb == "NOOP") {
      result = run(command::noop);
    } else {
      result = run(verb == "DELE" ? command::delete_mail : command::GetTop, number);
    }
    EXPECT_EQ(result, test.expected);
    EXPECT_EQ(value, test.value);
    EXPECT_EQ(s.sock != 0, result == TAV_EML_OK || test.stays_open);
    EXPECT_EQ(host.client_bytes(host.connections()), kLogin + test.verb + "\r\n");
  }
}

TEST_F(Pop3, the_tail_of_a_long_reply_answers_nothing) {
  host.add("a", "x\r\n");
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  for (size_t length = 1000; length < 1040; ++length) {
    const std::string line = "+OK " + std::string(length, 'x') + "-ERR";
    host.reply_to("NOOP", host.occurrences("NOOP") + 1, line + "\r\n");
    ASSERT_EQ(facade().noop(), TAV_EML_OK) << length;
    int count = 0;
    ASSERT_EQ(facade().stat(count), TAV_EML_OK) << length;
    ASSERT_EQ(count, 1);
  }
}

TEST_F(Pop3, capabilities_that_do_not_fit_end_the_negotiation) {
  record.ucTLSMode = 2;
  host.capabilities({"STLS"});
  int accepted = 0;
  for (size_t length = 990; length < 1040; ++length) {
    const std::string list =
        "+OK\r\nSTLS\r\n" + std::string(length - 16, 'x') + "\r\n.\r\n";  // `length` bytes
    host.reply_to("CAPA", host.occurrences("CAPA") + 1, list);
    const TAV_EML_RESULT result = facade().test();
    accepted += result == TAV_EML_OK ? 1 : 0;
    ASSERT_TRUE(result == TAV_EML_OK || result == TAV_EML_ERR_REPLY) << length;
    ASSERT_EQ(net.leaks(), "");
  }
  EXPECT_GT(accepted, 10);
  EXPECT_LT(accepted, 40);
  std::string endless = "+OK\r\n";
  for (int i = 0; i < 1000; ++i) endless += "X\r\n";
  host.reply_to("CAPA", host.occurrences("CAPA") + 1, endless);
  EXPECT_EQ(facade().test(), TAV_EML_ERR_REPLY);
  EXPECT_TRUE(log.contains("CAPA list too long for buffer"));
}

TEST_F(Pop3, a_connection_is_used_until_it_is_lost) {
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(), kLogin);
  host.close_at("NOOP", 2);
  EXPECT_EQ(facade().noop(), TAV_EML_OK);
  EXPECT_EQ(facade().noop(), TAV_EML_ERR_NOT_CONNECTED);
  EXPECT_EQ(facade().noop(), TAV_EML_ERR_NOT_CONNECTED);
  EXPECT_EQ(facade().close_mail(), TAV_EML_OK);
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  EXPECT_EQ(host.connections(), 2u);
  host.silence_at("QUIT", 1);
  EXPECT_EQ(facade().close_mail(), TAV_EML_OK);
  EXPECT_TRUE(host.closed_by_client(2));
  EXPECT_EQ(facade().delete_mail(1), TAV_EML_ERR_NOT_CONNECTED);
  tav_eml_pop3_mail_info info(1, "a", 1, 1);
  tav_eml_pop3_receive_mail mail(info);
  EXPECT_EQ(facade().delete_mail(mail), TAV_EML_ERR_NOT_CONNECTED);
  const TAV_EML_RESULT codes[] = {
      TAV_EML_OK,         TAV_EML_ERR_UNKNOWN,   TAV_EML_ERR_NOT_CONNECTED,
      TAV_EML_ERR_REPLY,  TAV_EML_ERR_NO_MEMORY, TAV_EML_ERR_UNKNOWN,
      TAV_EML_ERR_UNKNOWN};
  for (int32_t i = 0; i < 7; ++i) {
    EXPECT_EQ(facade().convert_utl_retcode(static_cast<TAV_EML_UTL_RETCODE>(i)), codes[i]);
  }
}

TEST_F(Pop3, hands_each_message_out_once_over_sessions) {
  for (const char* uid : {"a", "b", "c"}) host.add(uid, "Subject: x\r\n\r\ny\r\n");
  tav_eml_pop3_mail_info_list seen(2);
  tav_eml_pop3_mail_info next;
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  EXPECT_EQ(facade().list(seen, 0), TAV_EML_OK);
  EXPECT_EQ(host.client_bytes(),
            kLogin +
                "STAT\r\nUIDL 1\r\nLIST 1\r\nUIDL 1\r\nLIST 2\r\nUIDL 2\r\nLIST 3\r\n"
                "UIDL 3\r\nLIST 1\r\nUIDL 1\r\nLIST 2\r\nUIDL 2\r\n");
  EXPECT_EQ(shown(seen), "1:a/1 2:b/1");
  EXPECT_EQ(facade().list(seen, 0), TAV_EML_OK);  // no room: nothing changes
  EXPECT_EQ(shown(seen), "1:a/1 2:b/1");
  ASSERT_EQ(seen.search_next_mail(next), 1);
  EXPECT_EQ(text(next.m_strUID) + std::to_string(next.m_lSize), "a17");
  EXPECT_EQ(facade().list_next(seen, next), TAV_EML_OK);  // one is waiting still
  EXPECT_EQ(shown(seen), "1:a/2 2:b/1");
  tav_eml_pop3_receive_mail mail(next);
  EXPECT_EQ(facade().delete_mail_by_uid(seen, mail), TAV_EML_OK);
  ASSERT_EQ(seen.search_next_mail(next), 1);
  EXPECT_EQ(facade().list_next(seen, next), TAV_EML_OK);
  EXPECT_EQ(shown(seen), "2:b/2 3:c/1");
  const size_t sent = host.client_bytes().size();
  EXPECT_EQ(facade().delete_mail_by_uid(seen, mail), TAV_EML_OK);  // not in the list any more
  EXPECT_EQ(host.client_bytes().size(), sent);
  EXPECT_EQ(host.occurrences("DELE"), 1u);
  EXPECT_EQ(facade().close_mail(), TAV_EML_OK);
  ASSERT_EQ(host.mailbox().size(), 2u);

  // The numbers have moved; what was handed out stays so.
  host.add("d", "x\r\n");
  ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
  EXPECT_EQ(facade().list(seen, 0), TAV_EML_OK);
  EXPECT_EQ(shown(seen), "1:b/2 2:c/1");
  ASSERT_EQ(seen.search_next_mail(next), 1);
  tav_eml_pop3_mail_info stranger(9, "z", 1, 1);
  EXPECT_EQ(facade().list_next(seen, stranger), TAV_EML_ERR_UNKNOWN);
  EXPECT_EQ(facade().list_next(seen, next), TAV_EML_OK);
  EXPECT_EQ(shown(seen), "2:c/2 3:d/1");
  tav_eml_pop3_receive_mail third(next);
  EXPECT_EQ(facade().close_mail(), TAV_EML_OK);
  EXPECT_EQ(facade().delete_mail_by_uid(seen, third), TAV_EML_ERR_NOT_CONNECTED);
  EXPECT_EQ(facade().list(seen, 0), TAV_EML_ERR_NOT_CONNECTED);
  EXPECT_EQ(facade().list_next(seen, next), TAV_EML_ERR_NOT_CONNECTED);
}

TEST_F(Pop3, a_refused_probe_loses_the_connection_and_no_list_it_was_to_keep) {
  host.add("a", "x\r\n");
  const struct {
    const char* uidl;
    const char* stat;
    int keep;
    TAV_EML_RESULT expected;
    const char* list;
  } cases[] = {
      {"-ERR no\r\n", "+OK 1 3\r\n", 1, TAV_EML_ERR_REPLY, "1:a/2"},
      {"+OK\r\n", "+OK 1 3\r\n", 1, TAV_EML_ERR_REPLY, "1:a/2"},
      {"-ERR no\r\n", "+OK 1 3\r\n", 0, TAV_EML_ERR_TRANSFER, "0:a/1"},
      {"-ERR no\r\n", "+OK 0 0\r\n", 0, TAV_EML_ERR_REPLY, ""},
      {"-ERR no\r\n", "+OK 0 0\r\n", 1, TAV_EML_ERR_REPLY, ""},
      {"+OK 1 a\r\n", "+OK 2000000000 1\r\n", 0, TAV_EML_ERR_REPLY, "1:a/1"},
      {"+OK 1 a\r\n", "+OK 9 1\r\n", 0, TAV_EML_ERR_REPLY, "1:a/1"},  // LIST 2 is refused
      // The connection ends in the place of a reply: nothing is known of any message.
      {nullptr, "+OK 1 3\r\n", 1, TAV_EML_ERR_REPLY, "1:a/1"},
      {nullptr, "+OK 1 3\r\n", 0, TAV_EML_ERR_REPLY, "1:a/1"},
      {nullptr, "+OK 0 0\r\n", 0, TAV_EML_ERR_REPLY, "1:a/1"},
  };
  for (const auto& test : cases) {
    tav_eml_pop3_mail_info_list seen(5);
    seen.add_mail_info(new tav_eml_pop3_mail_info(1, "a", 3, 1), 0);
    const char* uidl = test.uidl != nullptr ? test.uidl : "(closed)";
    if (test.uidl != nullptr)
      host.reply_to("UIDL", pop3_host::every, uidl);
    else
      host.close_at("UIDL", pop3_host::every, "+OK");
    host.reply_to("STAT", pop3_host::every, test.stat);
    ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
    EXPECT_EQ(facade().list(seen, test.keep), test.expected) << uidl << test.stat;
    EXPECT_EQ(shown(seen), test.list) << uidl << test.stat;
    EXPECT_EQ(facade().noop(), TAV_EML_ERR_NOT_CONNECTED);
  }
}

// Both servers at one address.
class PopBeforeSmtp : public Dialogue {
 protected:
  PopBeforeSmtp() {
    set_up(net, pop3, account);
    record.auth_kind = 2;
  }
  TAV_EML_RESULT result(bool has_account = true) {
    boundary.reset();
    const auto pop3_settings = std::make_unique<tav_eml_pop3_settings>(account);
    record.pop3_settings = has_account ? pop3_settings.get() : nullptr;
    settings = std::make_unique<tav_eml_smtp_settings>(record);
    boundary = std::make_unique<tav_eml_smtp_boundary>(*settings);
    return boundary->test();
  }

  pop3_host pop3;
  _tav_eml_pop3_setting account;
};

TEST_F(PopBeforeSmtp, logs_in_there_waits_and_connects_here) {
  for (const int kind : {2, 3}) {
    for (const int wait : {0, 2, -1}) {
      record.auth_kind = kind;
      record.pop_wait = wait;
      if (kind == 3) {
        record.user_id = "s";
        record.password = "t";
        host.capabilities({"AUTH PLAIN"});
        host.handle("AUTH", [](const smtp_host::request&) { return "235 ok\r\n"; });
      }
      const size_t before = net.calls({net_call::connect, net_call::close}).size();
      EXPECT_EQ(result(), TAV_EML_OK);
      std::vector<std::string> order = net.calls({net_call::connect, net_call::close});
      order.erase(order.begin(), order.begin() + static_cast<long>(before));
      EXPECT_EQ(order, (std::vector<std::string>{"connect 192.0.2.1:110", "close",
                                                 wait == 2 ? "sleep 2000" : "sleep 300",
                                                 "connect 192.0.2.1:25", "close"}));
      EXPECT_EQ(pop3.client_bytes(pop3.connections()), kLogin + kQuit);
      EXPECT_EQ(host.client_bytes(host.connections()).find("AUTH") != std::string::npos, kind == 3);
    }
  }
}

TEST_F(PopBeforeSmtp, without_the_login_there_is_no_connection) {
  EXPECT_EQ(result(false), TAV_EML_ERR_UNKNOWN);
  EXPECT_TRUE(log.contains("tav_eml_smtp_pop_auth : Pop3Set == 0[Error]"));
  account.strUserID = "";
  EXPECT_EQ(result(), TAV_EML_ERR_AUTH);
  EXPECT_TRUE(log.contains("tav_eml_smtp_pop_auth: UsrID None[Error]"));
  EXPECT_EQ(net.calls({net_call::resolve, net_call::socket}).size(), 0u);
  account.strUserID = "u";
  account.strPassword = "wrong";
  EXPECT_EQ(result(), TAV_EML_ERR_AUTH);
  pop3.silence_at(pop3_host::greeting, 2);
  EXPECT_EQ(result(), TAV_EML_ERR_TRANSFER_TIMEOUT);
  net.connect_result(kAddress, 110, -1);
  EXPECT_EQ(result(), TAV_EML_ERR_CONNECT);
  EXPECT_EQ(log.count("tav_eml_smtp_connect_start : POP AUTH NG[Error]"), 5u);
  EXPECT_EQ(host.connections(), 0u);
  EXPECT_TRUE(net.sleeps().empty());
}

}  // namespace
}  // namespace dialogue
