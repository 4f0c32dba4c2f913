#include "device.h"

#include <algorithm>
#include <stdexcept>

#include "fake_net.h"

namespace dialogue {
namespace {

using std::string;

const std::map<string, TAV_EML_RESULT> kResults = {
    {"OK", TAV_EML_OK},
    {"PARAM", TAV_EML_ERR_PARAM},
    {"AUTH", TAV_EML_ERR_AUTH},
    {"NO_RCPT", TAV_EML_ERR_NO_RCPT},
    {"NO_FROM", TAV_EML_ERR_NO_FROM},
    {"CONNECT", TAV_EML_ERR_CONNECT},
    {"CONNECT_TIMEOUT", TAV_EML_ERR_CONNECT_TIMEOUT},
    {"TRANSFER", TAV_EML_ERR_TRANSFER},
    {"TRANSFER_TIMEOUT", TAV_EML_ERR_TRANSFER_TIMEOUT},
    {"SIZE_LIMIT", TAV_EML_ERR_SIZE_LIMIT},
    {"REPLY", TAV_EML_ERR_REPLY},
    {"REPLY_TEMPORARY", TAV_EML_ERR_REPLY_TEMPORARY},
    {"AUTH_METHOD", TAV_EML_ERR_AUTH_METHOD},
    {"TLS_INIT", TAV_EML_ERR_TLS_INIT},
    {"TLS_INIT_RESOURCE", TAV_EML_ERR_TLS_INIT_RESOURCE},
    {"TLS_CONNECT", TAV_EML_ERR_TLS_CONNECT},
    {"TLS_CONNECT_REFUSED", TAV_EML_ERR_TLS_CONNECT_REFUSED},
    {"NOT_CONNECTED", TAV_EML_ERR_NOT_CONNECTED},
    {"NO_MEMORY", TAV_EML_ERR_NO_MEMORY},
    {"SOCKET", TAV_EML_ERR_SOCKET},
    {"UNKNOWN", TAV_EML_ERR_UNKNOWN},
};

// Passwords and tokens, and how they look in base64.
constexpr const char* kSecrets[] = {kSecret,    "dGFuc3RhYW", "toktok",
                                    "dG9rdG9r", "b2t0b2t0",   "a3Rva3Rv"};

string name_of_result(TAV_EML_RESULT result) {
  for (const auto& [name, code] : kResults)
    if (code == result) return name;
  return "no result of the library: " + std::to_string(result);
}

int32_t number(const string& text) { return static_cast<int32_t>(std::stoul(text, nullptr, 0)); }

net_call kind_named(const string& name) {
  for (int kind = 0; kind <= static_cast<int>(net_call::bearer); ++kind)
    if (name == name_of(static_cast<net_call>(kind))) return static_cast<net_call>(kind);
  throw std::runtime_error("there is no call " + name);
}

// A line of the host's script: the case's own words, but for a reply that is a text.
string script_line(string rest) {
  const string whole = rest;
  string when = word_of(rest) + " ";
  if (when == "pop3 " || when == "smtp ") when += word_of(rest) + " ";
  const string count = rest.substr(0, rest.find(' '));
  if (count.size() < 3 && count.find_first_not_of("0123456789+") == string::npos)
    when += word_of(rest) + " ";
  static const std::set<string> actions = {"silence", "close", "reset", "cut", "inject", "flood"};
  const bool is_bytes = rest.substr(0, 6) == "bytes ";
  if (rest[is_bytes ? 6 : 0] == '"' || actions.count(rest.substr(0, rest.find(' '))) != 0)
    return whole;
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

std::unique_ptr<device> device::make(const dialogue_case& what) {
  const bool is_pop3 = what.file == "pop3" || what.file == "received";
  return is_pop3 ? make_pop3_device() : make_smtp_device();
}

device::device() {
  net.resolve(kServer, {kAddress});
  m_hostSettings.name = kServer;
  m_hostSettings.methods.clear();
  m_hostSettings.users = {{"u", kSecret}};
  fake_memory::watch_for({std::begin(kSecrets) + 2, std::end(kSecrets)});
  add_setups();
  add_values();
}

// What the device of the case owned is gone by now.
device::~device() {
  EXPECT_FALSE(memory.any_mutex_held());
  EXPECT_TRUE(net.clean());
  EXPECT_TRUE(memory.clean());
  for (const char* secret : kSecrets) EXPECT_FALSE(log.contains(secret)) << secret;
}

mailhost::mail_host& device::host() {
  if (m_host) return *m_host;
  using mailhost::protocol;
  m_host = std::make_unique<mailhost::mail_host>(m_hostSettings);
  m_host->script.add(m_script);
  m_smtp = std::make_unique<host_door>(*m_host, protocol::smtp, &attack);
  m_pop3 = std::make_unique<host_door>(*m_host, protocol::pop3, &attack);
  if (m_serves) {
    net.serve(kAddress, 25, *m_smtp, m_mode);
    net.serve(kAddress, 110, *m_pop3, m_mode);
  }
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
  m_setups["set"] = [this](string rest) {
    drop_objects();
    const string name = word_of(rest);
    m_settings.at(name)(expand(rest));
  };
  m_setups["resolve"] = [this](const string& rest) { net.resolve(kServer, pieces_of(rest, " ")); };
  m_setups["refuse"] = [this](string rest) {
    host();
    const int32_t port = number(word_of(rest)), result = number(word_of(rest));
    net.refuse(rest.empty() ? kAddress : rest, static_cast<uint16_t>(port), result);
  };
  m_setups["fail"] = [this](string rest) {
    const net_call kind = kind_named(word_of(rest));
    const string count = word_of(rest);
    net.fail(kind, std::stoul(count), number(rest), count.back() == '+');
  };
  m_setups["limit"] = [this](const string& bytes) {
    net.send_limit(static_cast<size_t>(number(bytes)));
    net.recv_limit(static_cast<size_t>(std::max(number(bytes), 1)));
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
    for (const string& one : net.calls({net_call::bearer}))
      if (one.substr(0, 6) == "bearer") all += (all.empty() ? "" : ", ") + one.substr(7);
    return all;
  };
  m_values["lock"] = [this] { return memory.any_mutex_held() ? "held" : "free"; };
  m_values["lines"] = [this] { return log.all(); };
  m_values["live"] = [this] { return std::to_string(memory.live_bytes()); };
  m_values["peak"] = [this] { return std::to_string(memory.peak_bytes()); };
}

void device::check(const string& verb, string rest) {
  if (verb == "log") return check_log(rest);
  if (verb == "calls") return check_calls(rest);
  if (verb == "starved") return;  // storm_test.cpp
  const bool is_whole = verb != "has" && verb != "lacks" && verb != "most";
  const string name = is_whole ? verb : word_of(rest);
  if (m_values.count(name) == 0) throw std::runtime_error("there is no word " + name);
  const string found = m_values[name](), text = expand(rest);
  m_isLogChecked = m_isLogChecked || name == "lines";
  const bool holds = found.find(text) != string::npos;
  const bool is_well = is_whole         ? found == text
                       : verb == "most" ? std::stol(found) <= std::stol(text)
                                        : holds == (verb == "has");
  EXPECT_TRUE(is_well) << verb << " " << name << " " << text << "\nbut is "
                       << found.substr(0, 3000);
}

void device::check_calls(const string& rest) {
  std::set<net_call> kinds;
  const std::vector<string> expected = pieces_of(rest, ",");
  for (const string& one : expected)
    if (one.substr(0, 5) != "sleep") kinds.insert(kind_named(one.substr(0, one.find(' '))));
  EXPECT_EQ(net.calls(kinds), expected);
}

void device::check_log(const string& rest) {
  const std::vector<string> lines = errors_of(log);
  const std::vector<string> pieces = rest.empty() ? std::vector<string>() : pieces_of(rest, ", ");
  bool fits = lines.size() == pieces.size();
  for (size_t i = 0; fits && i < lines.size(); ++i) fits = lines[i].find(pieces[i]) != string::npos;
  EXPECT_TRUE(fits) << log.all().substr(0, 3000);
  m_isLogChecked = true;
  log.clear();
}

bool device::has_logged_errors() const { return !errors_of(log).empty(); }

void device::check_timeouts() {
  const std::set<int64_t> set = {kSeconds * 1000};
  for (const net_call kind :
       {net_call::connect, net_call::recv, net_call::tls_connect, net_call::tls_read,
        net_call::bearer})
    EXPECT_TRUE(net.timeouts(kind).empty() || net.timeouts(kind) == set) << name_of(kind);
  for (const net_call kind : {net_call::send, net_call::tls_write})
    for (const int64_t given : net.timeouts(kind)) EXPECT_EQ(m_sendTimeouts.count(given), 1u);
}

void device::do_call(const statement& one) {
  host();
  m_value.clear();
  const TAV_EML_RESULT result = m_calls.at(one.verb)(one.rest);
  const string name = one.expected.substr(0, one.expected.find(' '));
  EXPECT_EQ(name_of_result(result), name.empty() ? "OK" : name)
      << one.verb << " " << one.rest.substr(0, 100) << "\n"
      << log.all().substr(0, 3000);
  if (name.size() < one.expected.size()) {
    EXPECT_EQ(m_value, expand(one.expected.substr(name.size() + 1))) << one.verb;
  }
  m_hasFailed = m_hasFailed || result != TAV_EML_OK;
}

void device::play(const case_row& row) {
  const new_failure_pause pause;
  for (const statement& one : row.statements) {
    if (m_setups.count(one.verb) != 0)
      m_setups.at(one.verb)(one.rest);
    else if (m_calls.count(one.verb) != 0)
      do_call(one);
    else
      check(one.verb, one.rest);
  }
  EXPECT_TRUE(m_isLogChecked || has_logged_errors() == m_hasFailed) << log.all().substr(0, 3000);
  check_timeouts();
}

void device::set_up(const case_row& row) {
  const new_failure_pause pause;
  for (const statement& one : row.statements) {
    if (m_calls.count(one.verb) != 0) break;
    if (m_setups.count(one.verb) != 0) m_setups.at(one.verb)(one.rest);
  }
  host();
}

TAV_EML_RESULT device::run(const case_row& row) {
  const new_failure_pause pause;
  TAV_EML_RESULT result = TAV_EML_OK;
  for (const statement& one : row.statements) {
    if (m_calls.count(one.verb) == 0) continue;
    result = m_calls.at(one.verb)(one.rest);
    if (result != TAV_EML_OK) break;
  }
  if (result != TAV_EML_OK) leave();
  return result;
}

void device::check_order(TAV_EML_RESULT result) {
  const bool is_ours = (static_cast<unsigned>(result) & 0xFFFF0000U) == 0x51070000U;
  EXPECT_TRUE(result == TAV_EML_OK || is_ours) << std::hex << static_cast<unsigned>(result);
  EXPECT_EQ(net.leaks(), "");
  EXPECT_FALSE(memory.any_mutex_held());
  if (tls_mode_set() == 0) return;
  // Nothing worth stealing goes out before TLS.
  for (size_t nth = 1; nth <= host().connections(); ++nth) {
    const string& clear = host().connection(nth).in_clear;
    for (const char* verb : {"AUTH", "MAIL", "DATA", "USER", "PASS", "APOP", "STAT", "RETR"})
      EXPECT_EQ(clear.find(verb), string::npos) << clear;
  }
}

}  // namespace dialogue
