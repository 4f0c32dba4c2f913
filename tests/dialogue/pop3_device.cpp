// A device that receives mail. Settings: server, user, password, tls (0 to 2),
// apop (0 or 1), capacity (of the list of seen mail). The server's mails:
//
//   message UID TEXT    is in the mailbox
//   mail TEXT           what RETR and TOP give after the status line and before the final dot,
//                       exactly so; "wire TEXT" with whatever ends it
//   seen N UID STATUS   is in the list
//
// Calls; what they give besides their result stands after it:
//
//   test, connect, close, noop, fresh-test (of an object of its own)
//   stat                the count
//   list KEEP, next     the list as number:uid/status of each; next takes the first that waits
//   delete N, delete-mail, delete-uid
//   read                connects, reads a whole mail and says NOOP; gives its parts as
//                       type(name)[data], "-" for one that only its header or delimiter shows
//   header, header-only, body, part, part-body, skip-part, skip-mail   single steps; "again" is
//                       for the same mail or part
//   command LINE        one operation of the command layer on a session of its own, which must
//                       stay open unless it fails; the value, and "open" if it stays in spite of it
//
// Values: subject, from and to of the latest mail, "unusable" blocks and headers of it, its
// "longest" block, the "mailbox" as unique ids.

#include <algorithm>

#include "device.h"

namespace dialogue {
namespace {

using std::string;
using command = tav_eml_pop3_command;

struct received_part {
  string type, name, data;
  bool is_trace = true;  // has no header, or is complete straight after it

  string shown(bool named) const {
    if (is_trace) return "-";
    return type + (named && !name.empty() ? "(" + name + ")" : "") + "[" + data + "]";
  }
};

class pop3_device : public device {
 public:
  pop3_device();

  string outcome() override { return m_outcome; }
  // What came is what was there, part by part.
  bool is_part(const string& got, const string& whole) override {
    const string came = got.substr(0, got.find_last_not_of("-] ") + 1);
    return whole.substr(0, came.size()) == came;
  }
  bool is_taken(const string&) override { return false; }
  void forget_outcome() override {
    m_outcome.clear();
    m_mail.reset();
    m_seen = std::make_unique<tav_eml_pop3_mail_info_list>(m_capacity);
    for (const auto& entry : host().memory.list()) host().memory.remove(entry.uid);
    for (const auto& [uid, text] : m_messages) host().memory.add(uid, text);
  }
  void leave() override {
    if (m_boundary) library([&] { return m_boundary->close_mail(); });
    m_mail.reset();
  }

 private:
  void drop_objects() override {
    m_mail.reset();
    m_boundary.reset();
    m_settings_.reset();
    m_seen.reset();
  }
  uint8_t tls_mode_set() const override { return m_record.ucTLSMode; }

  tav_eml_pop3_boundary& boundary() {
    if (!m_boundary) {
      m_settings_ = std::make_unique<tav_eml_pop3_settings>(m_record);
      m_boundary = std::make_unique<tav_eml_pop3_boundary>(*m_settings_);
    }
    return *m_boundary;
  }
  tav_eml_pop3_mail_info_list& seen() {
    if (!m_seen) m_seen = std::make_unique<tav_eml_pop3_mail_info_list>(m_capacity);
    return *m_seen;
  }
  tav_eml_pop3_receive_mail& mail(bool is_new = false) {
    if (is_new || !m_mail) m_mail = std::make_unique<tav_eml_pop3_receive_mail>(m_info);
    return *m_mail;
  }

  void add_setups();
  void add_session_calls();
  void add_steps();
  void add_values();

  TAV_EML_RESULT read();
  bool goes_on(TAV_EML_RESULT result);
  bool read_part();
  void take(tav_eml_mlutl_mail_part& part, received_part& into);
  void read_parts();
  string parts_shown(bool named) const;
  TAV_EML_RESULT run_command(const string& line);

  _tav_eml_pop3_setting m_record;
  std::unique_ptr<tav_eml_pop3_settings> m_settings_;
  std::unique_ptr<tav_eml_pop3_boundary> m_boundary;
  std::vector<std::pair<string, string>> m_messages;
  int m_capacity = 5;
  std::unique_ptr<tav_eml_pop3_mail_info_list> m_seen;
  tav_eml_pop3_mail_info m_info{1, "uid", 100, 1};
  std::unique_ptr<tav_eml_pop3_receive_mail> m_mail;
  TAV_EML_RESULT m_result = TAV_EML_OK;  // of the mail that is read
  int m_unusable = 0;
  long m_longest = 0;
  std::vector<received_part> m_parts;
  string m_outcome;
};

pop3_device::pop3_device() {
  m_record.strServer = kServer;
  m_record.nPort = 65536 + 110;  // the low 16 bits count
  m_record.strUserID = "u";
  m_record.strPassword = kSecret;
  m_record.nTimeout = kSeconds;
  m_sendTimeouts = {0};
  add_setups();
  add_session_calls();
  add_steps();
  add_values();
}

void pop3_device::add_setups() {
  m_settings = {{"server", into(m_record.strServer)},     {"user", into(m_record.strUserID)},
                {"password", into(m_record.strPassword)}, {"tls", into(m_record.ucTLSMode)},
                {"apop", into(m_record.nAPOP)},           {"capacity", into(m_capacity)}};

  m_setups["message"] = [this](string rest) {
    const string uid = word_of(rest);
    m_messages.emplace_back(uid, expand(rest));
    host().memory.add(uid, m_messages.back().second);
  };
  m_setups["mail"] = [this](const string& text) { m_setups["wire"](text + ".^"); };
  m_setups["wire"] = [this](const string& text) {
    for (const char* verb : {"RETR", "TOP"}) script(verb + (" " + exact("+OK^" + text)));
  };
  m_setups["seen"] = [this](string rest) {
    const int number = stoi(word_of(rest));
    const string uid = word_of(rest);
    seen().add_mail_info(new tav_eml_pop3_mail_info(number, uid.c_str(), 3, stoi(rest)), 1);
  };
}

void pop3_device::add_session_calls() {
  const auto add = [this](const char* verb, auto what) {
    m_calls[verb] = [this, what](const string&) {
      tav_eml_pop3_boundary& object = boundary();
      tav_eml_pop3_receive_mail& now = mail();
      return library([&] { return what(object, now); });
    };
  };
  add("test", [](auto& inbox, auto&) { return inbox.test(); });
  add("connect", [](auto& inbox, auto&) { return inbox.connect_mail(); });
  add("close", [](auto& inbox, auto&) { return inbox.close_mail(); });
  add("noop", [](auto& inbox, auto&) { return inbox.noop(); });
  add("delete-mail", [](auto& inbox, auto& mail) { return inbox.delete_mail(mail); });
  add("body", [](auto& inbox, auto& mail) { return inbox.receive_body(mail); });
  add("part-body", [](auto& inbox, auto& mail) { return inbox.receive_part_body(mail); });
  add("skip-part", [](auto& inbox, auto& mail) { return inbox.skip_part(mail); });
  add("skip-mail", [](auto& inbox, auto& mail) {
    return tav_eml_pop3_boundary::convert_utl_retcode(inbox.skip_mail(mail));
  });
  m_calls["fresh-test"] = [this](const string&) {
    boundary();
    return library([&] { return tav_eml_pop3_boundary(*m_settings_).test(); });
  };
  m_calls["stat"] = [this](const string&) {
    int count = -7;
    const TAV_EML_RESULT result = library([&] { return m_boundary->stat(count); });
    EXPECT_EQ(count >= 0, result == TAV_EML_OK) << count;
    m_value = std::to_string(count);
    return result;
  };
  m_calls["list"] = [this](const string& keep) {
    boundary();
    tav_eml_pop3_mail_info_list& list = seen();
    const TAV_EML_RESULT result = library([&] { return m_boundary->list(list, keep != "0"); });
    m_value = shown(list);
    return result;
  };
  m_calls["next"] = [this](const string& uid) {
    if (seen().search_next_mail(m_info) == 0) return TAV_EML_RESULT{TAV_EML_ERR_NO_MEMORY};
    if (!uid.empty()) m_info.m_nMailNo = stoi(uid);
    const TAV_EML_RESULT result = library([&] { return m_boundary->list_next(*m_seen, m_info); });
    m_value = shown(*m_seen);
    return result;
  };
  m_calls["delete"] = [this](const string& number) {
    return library([&] { return boundary().delete_mail(stoi(number)); });
  };
  m_calls["command"] = [this](const string& line) { return run_command(expand(line)); };
}

void pop3_device::add_steps() {
  m_calls["read"] = [this](const string&) { return read(); };
  m_calls["delete-uid"] = [this](const string&) {
    tav_eml_pop3_receive_mail now(m_info);
    return library([&] { return boundary().delete_mail_by_uid(seen(), now); });
  };
  m_calls["header"] = [this](const string& again) {
    tav_eml_pop3_receive_mail& now = mail(again.empty());
    return library([&] { return boundary().receive_header(now, 0); });
  };
  m_calls["header-only"] = [this](const string& again) {
    tav_eml_pop3_receive_mail& now = mail(again.empty());
    const TAV_EML_RESULT result = library([&] { return boundary().receive_header_only(now, 0); });
    if (result == TAV_EML_OK) m_outcome += text(now.m_cTo.m_cAddress);
    return result;
  };
  m_calls["part"] = [this](const string& again) {
    if (again.empty()) mail().set_part(new tav_eml_pop3_receive_mail_part);
    tav_eml_pop3_receive_mail& now = mail();
    return library([&] { return boundary().receive_part_header(now, 0); });
  };
}

void pop3_device::add_values() {
  m_values["subject"] = [this] { return text(m_mail->m_cSubject); };
  m_values["from"] = [this] { return text(m_mail->m_cFrom.m_cAddress); };
  m_values["to"] = [this] { return text(m_mail->m_cTo.m_cAddress); };
  m_values["unusable"] = [this] { return std::to_string(m_unusable); };
  m_values["longest"] = [this] { return std::to_string(m_longest); };
  m_values["mailbox"] = [this] {
    string all;
    for (const auto& entry : host().memory.list()) all += (all.empty() ? "" : " ") + entry.uid;
    return all;
  };
}

// False when reading cannot go on. What cannot be used is counted and passed over.
bool pop3_device::goes_on(TAV_EML_RESULT result) {
  if (result == TAV_EML_ERR_UNKNOWN) ++m_unusable;
  if (m_result == TAV_EML_OK) m_result = result;
  EXPECT_LT(m_unusable, 100000) << "reads for ever";
  return m_unusable < 100000 && (result == TAV_EML_OK || result == TAV_EML_ERR_UNKNOWN);
}

void pop3_device::take(tav_eml_mlutl_mail_part& part, received_part& into) {
  void* data = nullptr;
  long length = 0;
  if (part.get_buffer(data, length) == 0 || data == nullptr) return;
  into.data += taken(data, length);
  m_longest = std::max(m_longest, length);
}

// Reads the next part; false when the connection is lost.
bool pop3_device::read_part() {
  m_parts.emplace_back();
  received_part& now = m_parts.back();
  const TAV_EML_RESULT result = m_calls["part"]("");
  if (!goes_on(result)) return false;
  if (result != TAV_EML_OK) return true;  // a further one may be better
  tav_eml_mlutl_mail_part& part = *m_mail->get_part();
  now.type = text(part.m_cMediaType);
  now.name = text(part.m_cFIleName);
  now.is_trace = part.m_nComplete != 0;
  while (part.m_nComplete == 0) {
    if (!goes_on(m_calls["part-body"](""))) return false;
    take(part, now);
  }
  return true;
}

void pop3_device::read_parts() {
  const TAV_EML_CONTENT_TYPE type = m_mail->m_nContentType;
  if (type == TAV_EML_CT_MULTIPART || type == TAV_EML_CT_MULTIPART_MIXED ||
      type == TAV_EML_CT_MULTIPART_REPORT) {
    while (m_mail->m_nReceiving != 0 && read_part()) {
    }
    return;
  }
  received_part& only = m_parts.emplace_back();
  only.is_trace = false;
  only.type = text(m_mail->m_cMediaType);
  only.name = text(m_mail->m_cFIleName);
  while (m_mail->m_nReceiving != 0 && goes_on(m_calls["body"](""))) take(*m_mail, only);
}

TAV_EML_RESULT pop3_device::read() {
  m_result = m_calls["connect"]("");
  if (m_result != TAV_EML_OK) return m_result;
  m_unusable = 0;
  m_longest = 0;
  m_parts.clear();
  if (goes_on(m_calls["header"]("")) && m_unusable == 0) {
    read_parts();
    m_outcome += text(m_mail->m_cTo.m_cAddress) + ": " + parts_shown(false);
  }
  m_value = parts_shown(true);
  if (m_mail->m_nReceiving != 0) {
    EXPECT_NE(m_result, TAV_EML_OK) << "not read to its end";
    return m_result;
  }
  const TAV_EML_RESULT after = m_calls["noop"]("");
  return m_result == TAV_EML_OK ? after : m_result;
}

string pop3_device::parts_shown(bool named) const {
  string all;
  for (const received_part& part : m_parts) all += (all.empty() ? "" : " ") + part.shown(named);
  return all;
}

TAV_EML_RESULT pop3_device::run_command(const string& line) {
  boundary();
  const string verb = line.substr(0, line.find(' '));
  int sock = 0, first = -7, second = -7, number = 5;
  TAV_EML_TLS_INFO tls = {};
  UtlString word("old");
  EXPECT_EQ(command::connect_start(m_settings_.get(), sock, tls), TAV_EML_OK);
  const auto run = [&](auto operation, auto&... more) {
    return operation(m_settings_.get(), sock, tls, more...);
  };
  TAV_EML_RESULT result = TAV_EML_OK;
  if (verb == "STAT") {
    result = run(command::get_stat, second, first);
    m_value = std::to_string(first) + " of " + std::to_string(second);
  } else if (verb == "LIST") {
    result = run(command::get_size, number, first);
    m_value = std::to_string(first);
  } else if (verb == "UIDL" || verb == "RETR") {
    result = run(verb == "UIDL" ? command::get_uniq_id : command::read_open, number, word);
    m_value = text(word);
  } else if (verb == "NOOP") {
    result = run(command::noop);
  } else {
    result = run(verb == "DELE" ? command::delete_mail : command::GetTop, number);
  }
  EXPECT_TRUE(sock != 0 || result != TAV_EML_OK);
  if (sock != 0 && result != TAV_EML_OK) m_value += " open";
  EXPECT_NE(m_value, " open") << line;
  if (sock != 0) command::disconnect(m_settings_.get(), sock, tls);
  return result;
}

}  // namespace

std::unique_ptr<device> make_pop3_device() { return std::make_unique<pop3_device>(); }

}  // namespace dialogue
