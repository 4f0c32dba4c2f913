// Words for a device that receives mail. "seen N UID STATUS" is set up in the list of seen mail,
// which "set capacity N" limits. Calls; what they give besides their result stands after it:
//
//   noop
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

using std::string;
using command = tav_eml_pop3_command;

namespace {

// "number:id/status" of each entry.
string shown(const tav_eml_pop3_mail_info_list& list) {
  string all;
  for (int i = 0; i < list.m_MailInfoVector.Count(); ++i) {
    const auto& info = *static_cast<tav_eml_pop3_mail_info*>(list.m_MailInfoVector.ElementAt(i));
    all += (i > 0 ? " " : "") + std::to_string(info.m_nMailNo) + ":" + text_of(info.m_strUID) +
           "/" + std::to_string(info.m_nEntryStatus);
  }
  return all;
}

}  // namespace

tav_eml_pop3_receive_mail& device::mail(bool is_new) {
  if (is_new || !m_received) m_received = std::make_unique<tav_eml_pop3_receive_mail>(m_info);
  return *m_received;
}

void device::add_receiving() {
  add_receiving_calls();
  add_lists();
  m_values["subject"] = [this] { return text_of(m_received->m_cSubject); };
  m_values["from"] = [this] { return text_of(m_received->m_cFrom.m_cAddress); };
  m_values["to"] = [this] { return text_of(m_received->m_cTo.m_cAddress); };
  m_values["unusable"] = [this] { return std::to_string(m_unusable); };
  m_values["longest"] = [this] { return std::to_string(m_longest); };
  m_values["mailbox"] = [this] {
    string all;
    for (const auto& entry : host().memory.list()) all += (all.empty() ? "" : " ") + entry.uid;
    return all;
  };
}

void device::add_receiving_calls() {
  const auto add = [this](const char* verb, auto what) {
    m_calls[verb] = [this, what](const string& rest) {
      objects& it = made();
      tav_eml_pop3_receive_mail& now = mail();
      return library([&] { return what(it.inbox, now, rest); });
    };
  };
  // A step that begins something new, unless it is to be done again.
  const auto add_beginning = [this](const char* verb, auto begin, auto what) {
    m_calls[verb] = [=](const string& again) {
      objects& it = made();
      if (again.empty()) begin();
      tav_eml_pop3_receive_mail& now = mail();
      return library([&] { return what(it.inbox, now); });
    };
  };
  const auto begin_mail = [this] { mail(true); };
  const auto begin_part = [this] { mail().set_part(new tav_eml_pop3_receive_mail_part); };
  add("noop", [](auto& inbox, auto&, auto&) { return inbox.noop(); });
  add("delete", [](auto& inbox, auto&, auto& n) { return inbox.delete_mail(stoi(n)); });
  add("delete-mail", [](auto& inbox, auto& mail, auto&) { return inbox.delete_mail(mail); });
  add("body", [](auto& inbox, auto& mail, auto&) { return inbox.receive_body(mail); });
  add("part-body", [](auto& inbox, auto& mail, auto&) { return inbox.receive_part_body(mail); });
  add("skip-part", [](auto& inbox, auto& mail, auto&) { return inbox.skip_part(mail); });
  add("skip-mail", [](auto& inbox, auto& mail, auto&) {
    return tav_eml_pop3_boundary::convert_utl_retcode(inbox.skip_mail(mail));
  });
  add_beginning("header", begin_mail,
                [](auto& inbox, auto& mail) { return inbox.receive_header(mail, 0); });
  add_beginning("part", begin_part,
                [](auto& inbox, auto& mail) { return inbox.receive_part_header(mail, 0); });
  add_beginning("header-only", begin_mail, [this](auto& inbox, auto& mail) {
    const TAV_EML_RESULT result = inbox.receive_header_only(mail, 0);
    const new_failure_pause pause;
    if (result == TAV_EML_OK) parts_received += text_of(mail.m_cTo.m_cAddress);
    return result;
  });
  m_calls["read"] = [this](const string&) { return read(); };
  m_calls["command"] = [this](const string& line) { return run_command(expand(line)); };
}

void device::add_lists() {
  m_setups["seen"] = [this](string rest) {
    const int number = stoi(word_of(rest));
    const string uid = word_of(rest);
    made().seen->add_mail_info(new tav_eml_pop3_mail_info(number, uid.c_str(), 3, stoi(rest)), 1);
  };
  m_calls["stat"] = [this](const string&) {
    int count = -7;
    const TAV_EML_RESULT result = library([&] { return made().inbox.stat(count); });
    EXPECT_EQ(count >= 0, result == TAV_EML_OK) << count;
    m_value = std::to_string(count);
    return result;
  };
  m_calls["list"] = [this](const string& keep) {
    objects& it = made();
    const TAV_EML_RESULT result = library([&] { return it.inbox.list(*it.seen, keep != "0"); });
    m_value = shown(*it.seen);
    return result;
  };
  m_calls["next"] = [this](const string& number) {
    objects& it = made();
    if (it.seen->search_next_mail(m_info) == 0) return TAV_EML_RESULT{TAV_EML_ERR_NO_MEMORY};
    if (!number.empty()) m_info.m_nMailNo = stoi(number);
    const TAV_EML_RESULT result = library([&] { return it.inbox.list_next(*it.seen, m_info); });
    m_value = shown(*it.seen);
    return result;
  };
  m_calls["delete-uid"] = [this](const string&) {
    objects& it = made();
    tav_eml_pop3_receive_mail now(m_info);
    return library([&] { return it.inbox.delete_mail_by_uid(*it.seen, now); });
  };
}
// False when reading cannot go on. What cannot be used is counted and passed over.
bool device::goes_on(TAV_EML_RESULT result) {
  if (result == TAV_EML_ERR_UNKNOWN) ++m_unusable;
  if (m_result == TAV_EML_OK) m_result = result;
  EXPECT_LT(m_unusable, 100000) << "reads for ever";
  return m_unusable < 100000 && (result == TAV_EML_OK || result == TAV_EML_ERR_UNKNOWN);
}

void device::take(tav_eml_mlutl_mail_part& part, received_part& into) {
  void* data = nullptr;
  long length = 0;
  if (part.get_buffer(data, length) == 0 || data == nullptr) return;
  into.data += taken(data, length);
  m_longest = std::max(m_longest, length);
}

// Reads the next part; false when the connection is lost.
bool device::read_part() {
  m_parts.emplace_back();
  received_part& now = m_parts.back();
  const TAV_EML_RESULT result = m_calls["part"]("");
  if (!goes_on(result)) return false;
  if (result != TAV_EML_OK) return true;  // a further one may be better
  tav_eml_mlutl_mail_part& part = *m_received->get_part();
  now.type = text_of(part.m_cMediaType);
  now.name = text_of(part.m_cFIleName);
  now.is_trace = part.m_nComplete != 0;
  while (part.m_nComplete == 0) {
    if (!goes_on(m_calls["part-body"](""))) return false;
    take(part, now);
  }
  return true;
}

void device::read_parts() {
  const TAV_EML_CONTENT_TYPE type = m_received->m_nContentType;
  if (type == TAV_EML_CT_MULTIPART || type == TAV_EML_CT_MULTIPART_MIXED ||
      type == TAV_EML_CT_MULTIPART_REPORT) {
    while (m_received->m_nReceiving != 0 && read_part()) {
    }
    return;
  }
  received_part& only = m_parts.emplace_back();
  only.is_trace = false;
  only.type = text_of(m_received->m_cMediaType);
  only.name = text_of(m_received->m_cFIleName);
  while (m_received->m_nReceiving != 0 && goes_on(m_calls["body"](""))) take(*m_received, only);
}

TAV_EML_RESULT device::read() {
  m_result = m_calls["connect"]("");
  if (m_result != TAV_EML_OK) return m_result;
  m_unusable = 0;
  m_longest = 0;
  m_parts.clear();
  if (goes_on(m_calls["header"]("")) && m_unusable == 0) {
    read_parts();
    parts_received += text_of(m_received->m_cTo.m_cAddress) + ": " + parts_shown(false);
  }
  m_value = parts_shown(true);
  if (m_received->m_nReceiving != 0) {
    EXPECT_NE(m_result, TAV_EML_OK) << "not read to its end";
    return m_result;
  }
  const TAV_EML_RESULT after = m_calls["noop"]("");
  return m_result == TAV_EML_OK ? after : m_result;
}

string device::parts_shown(bool named) const {
  string all;
  for (const received_part& part : m_parts) {
    const string name = named && !part.name.empty() ? "(" + part.name + ")" : "";
    all +=
        (all.empty() ? "" : " ") + (part.is_trace ? "-" : part.type + name + "[" + part.data + "]");
  }
  return all;
}

TAV_EML_RESULT device::run_command(const string& line) {
  const tav_eml_pop3_settings* const account = &made().account;
  const string verb = line.substr(0, line.find(' '));
  int sock = 0, first = -7, second = -7, number = 5;
  TAV_EML_TLS_INFO tls = {};
  UtlString word("old");
  EXPECT_EQ(command::connect_start(account, sock, tls), TAV_EML_OK);
  const auto run = [&](auto operation, auto&... more) {
    return operation(account, sock, tls, more...);
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
    m_value = text_of(word);
  } else if (verb == "NOOP") {
    result = run(command::noop);
  } else {
    result = run(verb == "DELE" ? command::delete_mail : command::GetTop, number);
  }
  EXPECT_TRUE(sock != 0 || result != TAV_EML_OK);
  if (sock != 0 && result != TAV_EML_OK) m_value += " open";
  EXPECT_NE(m_value, " open") << line;
  if (sock != 0) command::disconnect(account, sock, tls);
  return result;
}

}  // namespace dialogue
