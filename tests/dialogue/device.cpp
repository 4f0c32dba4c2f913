#include "device.h"

#include <algorithm>
#include <stdexcept>

namespace dialogue {
namespace {

using std::string;

// Passwords and tokens, and how they look in base64. A server echoes the first, so that it stands
// in memory with the reply.
constexpr const char* kSecrets[] = {"Tanstaaf", kSecret,    "dGFuc3RhYW", "toktok",
                                    "dG9rdG9r", "b2t0b2t0", "a3Rva3Rv"};

// As the tables have it: without "TAV_EML_" and "ERR_".
string name_of_result(TAV_EML_RESULT result) {
  const string name = easy::result_name(result);
  return name.substr(name.find("ERR_") == string::npos ? 8 : 12);
}

int32_t number(const string& text) { return static_cast<int32_t>(std::stoul(text, nullptr, 0)); }

// A line of the host's script: the case's own words, but for a reply that is a text.
string script_line(const string& line) {
  string rest = line;
  string when = word_of(rest) + " ";
  if (when == "pop3 " || when == "smtp ") when += word_of(rest) + " ";
  const string count = rest.substr(0, rest.find(' '));
  if (count.size() < 3 && count.find_first_not_of("0123456789+") == string::npos)
    when += word_of(rest) + " ";
  const bool is_bytes = rest.substr(0, 6) == "bytes ";
  static const std::set<string> actions = {"silence", "close", "reset", "cut", "inject", "flood"};
  if (rest[is_bytes ? 6 : 0] == '"' || actions.count(rest.substr(0, rest.find(' '))) != 0)
    return line;
  return when + device::exact(is_bytes ? rest.substr(6) : rest + "^");
}

// But for lines of this level without anything wrong: warnings, a mail without one of the lists of
// addresses, a line that has not yet arrived as a whole.
std::vector<string> errors_of(const log_capture& log) {
  std::vector<string> lines;
  for (const log_line& line : log.lines())
    if (line.level == 0 && line.text.find("<Warning>") == string::npos &&
        line.text.find("m_cAddress is null") == string::npos &&
        line.text.find("[Return 0]No line") == string::npos)
      lines.push_back(line.text);
  return lines;
}

string lines_of(const mailhost::mail_host::record& said) {
  string text = said.in_clear + (said.under_tls.empty() ? "" : "(TLS)\r\n" + said.under_tls);
  if (text.size() > 1 && text.substr(text.size() - 2) == "\r\n") text.resize(text.size() - 2);
  for (size_t at = 0; (at = text.find("\r\n", at)) != string::npos;) text.replace(at, 2, ", ");
  return text;
}

}  // namespace

device::device(bool receives) : m_receives(receives) {
  net.names[kServer] = {kAddress};
  m_hostSettings.name = kServer;
  m_hostSettings.methods.clear();
  m_hostSettings.users = {{"u", kSecret}};
  memory.watch_for({std::begin(kSecrets) + 1, std::end(kSecrets)});
  add_setups();
  add_settings();
  add_calls();
  add_values();
  receives ? add_receiving() : add_sending();
  for (const auto& [name, value] : m_values)
    if (m_setups.count(name) + m_calls.count(name) != 0) throw std::runtime_error("two of " + name);
}

device::~device() {
  drop();
  EXPECT_FALSE(memory.any_mutex_held());
  EXPECT_TRUE(net.clean());
  for (const char* secret : kSecrets) EXPECT_FALSE(log.contains(secret)) << secret;
}

mailhost::mail_host& device::host() {
  if (m_host) return *m_host;
  m_host = std::make_unique<mailhost::mail_host>(m_hostSettings);
  m_host->script.add(m_script);
  if (m_serves) net.serve(kAddress, *m_host, m_mode);
  return *m_host;
}

string device::exact(const string& text) {
  static const char digits[] = "0123456789abcdef";
  string line = "bytes \"";
  for (const char c : expand(text)) {
    const auto byte = static_cast<unsigned char>(c);
    line += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
  }
  return line + "\"";
}

void device::script(const string& line) {
  if (m_host)
    m_host->script.add(line + "\n");
  else
    m_script += line + "\n";
}

void device::add_setups() {
  m_setups["host"] = [this](const string& rest) { script(script_line(rest)); };
  m_setups["offers"] = [this](const string& rest) {
    for (const string& word : pieces_of(rest, " ")) {
      if (word == "tls")
        m_hostSettings.offers_tls = true;
      else
        m_hostSettings.methods.push_back(word);
    }
  };
  m_setups["serves"] = [this](const string& how) {
    m_serves = how != "nothing";
    m_mode = how == "implicit-tls" ? tls_mode::implicit : tls_mode::plain;
  };
  m_setups["account"] = [this](string rest) {
    const string user = expand(word_of(rest));
    m_hostSettings.users[user] = expand(rest);
  };
  m_setups["bears"] = [this](string rest) {
    const string user = expand(word_of(rest));
    m_hostSettings.tokens[user] = expand(rest);
  };
  m_setups["token"] = [this](string rest) {
    const string first = expand(word_of(rest));
    net.bear(first, expand(rest));
  };
  m_setups["message"] = [this](string rest) {
    const string uid = word_of(rest);
    m_messages.emplace_back(uid, expand(rest));
    host().memory.add(uid, m_messages.back().second);
  };
  m_setups["resolve"] = [this](const string& rest) { net.names[kServer] = pieces_of(rest, " "); };
  m_setups["refuse"] = [this](string rest) {
    host();
    const int32_t port = number(word_of(rest)), result = number(word_of(rest));
    net.refuse(rest.empty() ? kAddress : rest, static_cast<uint16_t>(port), result);
  };
  m_setups["fail"] = [this](string rest) {
    const string kind = word_of(rest), count = word_of(rest);
    const size_t nth = std::stoul(count);
    const bool all_from = count.back() == '+';
    if (kind == "memory") return memory.fail(nth, all_from);
    if (kind == "any") return net.fail_any(nth, all_from, rest == "timeout");
    net.fail(kind, nth, number(rest), all_from);
  };
  m_setups["limit"] = [this](const string& bytes) {
    net.send_limit = static_cast<size_t>(number(bytes));
    net.recv_limit = std::max<size_t>(net.send_limit, 1);
  };
  m_setups["drop"] = [this](const string&) { drop(); };
}

void device::add_settings() {
  m_to.server = m_from.strServer = kServer;
  m_to.user_id = m_from.strUserID = "u";
  m_to.password = m_from.strPassword = kSecret;
  m_to.timeout = m_from.nTimeout = kSeconds;
  m_to.port = 65536 + 25;  // the low 16 bits count
  m_from.nPort = 65536 + 110;
  m_settings = {
      {"server", into(m_to.server, m_from.strServer)},
      {"user", into(m_to.user_id, m_from.strUserID)},
      {"password", into(m_to.password, m_from.strPassword)},
      {"tls", into(m_to.tlsmode, m_from.ucTLSMode)},
      {"helo", into(m_to.helo_domain)},
      {"options", [this](const string& v) { std::copy_n(v.begin(), 5, m_to.tls_opt); }},
      {"auth", into(m_to.auth_kind)},
      {"limit", into(m_to.size_limit)},
      {"wait", into(m_to.pop_wait)},
      {"pop3-account", [this](const string&) { m_hasAccount = false; }},
      {"apop", into(m_from.nAPOP)},
      {"capacity", into(m_capacity)},
  };
  m_setups["field"] = [this](string rest) {
    const string name = word_of(rest);
    m_settings.at(name)(expand(rest));
  };
  m_setups["set"] = [this](const string& rest) {
    drop();
    m_setups["field"](rest);
  };
}

device::objects& device::made() {
  if (m_objects) return *m_objects;
  tav_eml_pop3_settings account(m_from);
  m_to.pop3_settings = m_hasAccount ? &account : nullptr;
  m_objects.reset(new objects{account, tav_eml_smtp_settings(m_to),
                              std::make_unique<tav_eml_pop3_mail_info_list>(m_capacity)});
  return *m_objects;
}

void device::drop() {
  library([this] { m_objects.reset(); });
}

void device::add_calls() {
  add_call("test", [](auto& session) { return session.test(); });
  add_call("connect", [](auto& session) { return session.connect_mail(); });
  add_call("close", [](auto& session) { return session.close_mail(); });
  m_calls["fresh-test"] = [this](const string&) {
    objects& it = made();
    return library([&] {
      return m_receives ? tav_eml_pop3_boundary(it.account).test()
                        : tav_eml_smtp_boundary(it.settings).test();
    });
  };
}

void device::add_values() {
  const auto sent = [this](size_t nth) { return lines_of(host().connection(nth)); };
  m_values["sent"] = [=] { return sent(host().connections()); };
  for (size_t nth = 1; nth <= 3; ++nth)
    m_values["sent" + std::to_string(nth)] = [=] { return sent(nth); };
  m_values["last"] = [=] {
    const string all = ", " + sent(host().connections());
    return all.substr(all.rfind(", ") + 2);
  };
  m_values["connections"] = [this] { return std::to_string(host().connections()); };
  m_values["asked"] = [this] {
    string all;
    for (const string& one : net.calls({"bearer"}))
      if (one.substr(0, 6) == "bearer") all += (all.empty() ? "" : ", ") + one.substr(7);
    return all;
  };
  m_values["lock"] = [this] { return memory.any_mutex_held() ? "held" : "free"; };
  m_values["lines"] = [this] { return log.all(); };
  m_values["live"] = [this] { return std::to_string(memory.state().live_bytes); };
  m_values["largest"] = [this] { return std::to_string(memory.state().largest_block); };
  m_values["peak"] = [this] { return std::to_string(memory.state().peak_bytes); };
}

void device::check(const string& verb, string rest) {
  if (verb == "log") return check_log(expand(rest));
  if (verb == "calls") return check_calls(rest);
  if (verb == "starved") return;  // storm_test.cpp
  const bool is_whole = verb != "has" && verb != "lacks" && verb != "most";
  const string name = is_whole ? verb : word_of(rest);
  if (m_values.count(name) == 0) throw std::runtime_error("there is no word " + name);
  const string found = m_values[name](), text = expand(rest);
  const bool holds = found.find(text) != string::npos;
  const bool is_well = is_whole         ? found == text
                       : verb == "most" ? std::stol(found) <= std::stol(text)
                                        : !text.empty() && holds == (verb == "has");
  EXPECT_TRUE(is_well) << verb << " " << name << " " << text << "\nbut is "
                       << found.substr(0, 3000);
}

void device::check_calls(const string& rest) {
  std::set<string> kinds;
  const std::vector<string> expected = pieces_of(rest, ",");
  for (const string& one : expected)
    if (one.substr(0, 5) != "sleep") kinds.insert(one.substr(0, one.find(' ')));
  EXPECT_EQ(net.calls(kinds), expected);
}

void device::check_log(const string& rest) {
  const std::vector<string> lines = errors_of(log);
  const std::vector<string> pieces = rest.empty() ? std::vector<string>() : pieces_of(rest, ", ");
  bool fits = lines.size() == pieces.size();
  for (size_t i = 0; fits && i < lines.size(); ++i) fits = lines[i].find(pieces[i]) != string::npos;
  EXPECT_TRUE(fits) << log.all().substr(0, 3000);
  m_hasFailed = false;
  log.clear();
}

bool device::has_logged_errors() const { return !errors_of(log).empty(); }

void device::check_timeouts() {
  // POP3 leaves those of sends to the port, SMTP does not.
  std::set<int64_t> set = {kSeconds * 1000}, of_sends = {m_receives ? 0 : kSeconds * 1000};
  if (m_to.auth_kind > 1) of_sends.insert(0);
  for (const auto& [kind, given] : net.timeouts) {
    const bool sends = kind == "send" || kind == "tls_write";
    const auto& allowed = sends ? of_sends : set;
    for (const int64_t one : given) EXPECT_EQ(allowed.count(one), 1u) << kind;
  }
}

void device::do_call(const statement& one) {
  host();
  m_value.clear();
  const TAV_EML_RESULT result = call(one);
  string value = one.expected;
  const string name = word_of(value);
  EXPECT_EQ(name_of_result(result), name.empty() ? "OK" : name)
      << one.verb << " " << one.rest.substr(0, 100) << "\n"
      << log.all().substr(0, 3000);
  if (!value.empty() || result != TAV_EML_OK) {
    EXPECT_EQ(m_value, expand(value)) << one.verb;
  }
  m_hasFailed = m_hasFailed || result != TAV_EML_OK;
}

void device::play(const case_row& row) {
  for (const statement& one : row.statements) {
    if (m_setups.count(one.verb) != 0)
      m_setups.at(one.verb)(one.rest);
    else if (m_calls.count(one.verb) != 0)
      do_call(one);
    else if (!one.expected.empty())
      throw std::runtime_error(one.verb + " gives no result");
    else
      check(one.verb, one.rest);
  }
  EXPECT_EQ(has_logged_errors(), m_hasFailed) << log.all().substr(0, 3000);
  check_timeouts();
}

void device::set_up(const case_row& row) {
  for (const statement& one : row.statements) {
    if (m_calls.count(one.verb) != 0) break;
    if (m_setups.count(one.verb) != 0) m_setups.at(one.verb)(one.rest);
  }
  host();
}

TAV_EML_RESULT device::call(const statement& one) { return m_calls.at(one.verb)(one.rest); }

TAV_EML_RESULT device::run(const case_row& row) {
  TAV_EML_RESULT result = TAV_EML_OK;
  for (const statement& one : row.statements) {
    if (m_calls.count(one.verb) == 0) continue;
    result = call(one);
    if (result != TAV_EML_OK) break;
  }
  if (result != TAV_EML_OK) leave();
  return result;
}

void device::leave() {
  m_received.reset();
  if (!m_objects) return;
  library([this] {
    if (!m_receives) m_objects->outbox.abort_mail();
    // After a failed connect it gives the lock back.
    m_receives ? m_objects->inbox.close_mail() : m_objects->outbox.close_mail();
  });
}

void device::forget() {
  parts_received.clear();
  m_received.reset();
  made().seen = std::make_unique<tav_eml_pop3_mail_info_list>(m_capacity);
  for (const auto& entry : host().memory.list()) host().memory.remove(entry.uid);
  for (const auto& [uid, message] : m_messages) host().memory.add(uid, message);
}

void device::check_order(TAV_EML_RESULT result) {
  const bool is_ours = (static_cast<unsigned>(result) & 0xFFFF0000U) == 0x51070000U;
  EXPECT_TRUE(result == TAV_EML_OK || is_ours) << std::hex << static_cast<unsigned>(result);
  EXPECT_EQ(net.leaks(), "");
  EXPECT_FALSE(memory.any_mutex_held());
  using mailhost::protocol;
  const bool logs_in_over_pop3 = m_to.auth_kind == 2 || m_to.auth_kind == 3;
  if (logs_in_over_pop3 && host().occurrences(protocol::smtp, "greeting") > 0) {
    EXPECT_GT(host().occurrences(protocol::pop3, "greeting"), 0u) << "without the login";
  }
  // Nothing worth stealing goes out before TLS.
  for (size_t nth = 1; m_to.tlsmode != 0 && nth <= host().connections(); ++nth) {
    const string& clear = host().connection(nth).in_clear;
    for (const char* verb : {"AUTH", "MAIL", "DATA", "USER", "PASS", "APOP", "STAT", "RETR"})
      EXPECT_EQ(clear.find(verb), string::npos) << clear;
  }
}

}  // namespace dialogue
