#include "mailbox_session.h"

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_pop3_boundary.h"
#include "quorvelmida/tav_eml_pop3_command.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr long kReplyRoom = 1024;
constexpr int kMostListLines = 1000000;  // of a list; the library takes no mailbox with more mails

bool is_positive(const std::string& reply) { return reply.compare(0, 3, "+OK") == 0; }

TAV_EML_RESULT result_of(TAV_EML_UTL_RETCODE code) {
  return tav_eml_pop3_boundary::convert_utl_retcode(code);
}

// Cuts the next word off the front of `line`.
std::string take_word(std::string& line) {
  const size_t first = std::min(line.find_first_not_of(" \t\r\n"), line.size());
  const size_t end = std::min(line.find_first_of(" \t\r\n", first), line.size());
  const std::string word = line.substr(first, end - first);
  line.erase(0, end);
  return word;
}

// A whole number, INT_MAX for a larger one; -1 for anything else.
int number_of(const std::string& word) {
  const bool is_number = !word.empty() && word.size() < 18 &&
                         word.find_first_not_of("0123456789") == std::string::npos;
  if (!is_number) return -1;
  return static_cast<int>(std::min<long long>(std::strtoll(word.c_str(), nullptr, 10), INT_MAX));
}

}  // namespace

mailbox_session::mailbox_session(const tav_eml_pop3_settings& settings) : m_settings(settings) {}

mailbox_session::~mailbox_session() { quit(); }

unsigned int mailbox_session::timeout() const {
  return static_cast<unsigned int>(std::max<int32_t>(m_settings.m_nTimeout, 0));
}

TAV_EML_RESULT mailbox_session::connect() {
  if (is_connected()) return TAV_EML_OK;
  return tav_eml_pop3_command::connect_start(&m_settings, m_sock, m_tls);
}

void mailbox_session::quit() {
  if (is_connected()) tav_eml_pop3_command::disconnect(&m_settings, m_sock, m_tls);
}

void mailbox_session::drop() {
  tav_eml_mlutl_mail_net net;
  net.end_tls(m_tls);
  if (is_connected()) net.close_socket(m_sock);
  m_sock = 0;
}

TAV_EML_RESULT mailbox_session::count(int& mails) {
  int octets = 0;
  return tav_eml_pop3_command::get_stat(&m_settings, m_sock, m_tls, octets, mails);
}

// Sends a command and reads its status line.
TAV_EML_RESULT mailbox_session::ask(const std::string& command, std::string& reply) {
  const long wait = static_cast<long>(timeout()) * 1000;
  std::string line = command + "\r\n";
  TAV_EML_RESULT result = tav_eml_pop3_command::WriteUntil(
      m_sock, line.data(), static_cast<long>(line.size()), wait, m_tls);
  if (result != TAV_EML_OK) return result;
  char buffer[kReplyRoom];
  long length = kReplyRoom;
  result = tav_eml_pop3_command::ReadResponse(m_sock, buffer, length, wait, m_tls);
  // The transport has one code for a reply that is missing and one that is a refusal.
  if (result == TAV_EML_ERR_REPLY) return TAV_EML_ERR_TRANSFER;
  if (result == TAV_EML_OK) reply.assign(buffer, static_cast<size_t>(length));
  return result;
}

TAV_EML_RESULT mailbox_session::require(const std::string& command) {
  std::string reply;
  const TAV_EML_RESULT result = ask(command, reply);
  return result == TAV_EML_OK && !is_positive(reply) ? TAV_EML_ERR_REPLY : result;
}

// Reads lines "NUMBER WORD" up to the line with a dot. Others count, and are passed over.
TAV_EML_RESULT mailbox_session::read_list(const take_line& take) {
  m_parser.flush_buffer();
  for (int lines = 0; lines <= kMostListLines;) {
    UtlString received;
    long length = 0;
    const TAV_EML_UTL_RETCODE code = m_parser.ReadLine(timeout(), m_sock, received, length, m_tls);
    if (code != TAV_EML_UTL_OK) {
      return code == TAV_EML_UTL_RECV_ERROR ? TAV_EML_ERR_TRANSFER : result_of(code);
    }
    std::string line = received.IsEmpty() ? "" : received.GetString();
    if (line == ".\r\n" || line == ".\n") return TAV_EML_OK;
    if (!line.empty()) ++lines;  // an empty one is the beginning of one that is still to come
    const int number = number_of(take_word(line));
    take(number, take_word(line));
  }
  tav_eml_pop3_command::disconnect(&m_settings, m_sock, m_tls);
  return TAV_EML_ERR_REPLY;
}

TAV_EML_RESULT mailbox_session::list(int count, std::vector<listed_mail>& mails, bool& has_uids,
                                     const std::function<void()>& on_line) {
  mails.assign(static_cast<size_t>(std::max(count, 0)), {});
  for (size_t i = 0; i < mails.size(); ++i) mails[i].number = static_cast<int>(i) + 1;
  const auto take_into = [&](const auto& set) {
    return [&mails, &on_line, set](int number, const std::string& word) {
      on_line();
      if (number > 0 && static_cast<size_t>(number) <= mails.size()) {
        set(mails[static_cast<size_t>(number) - 1], word);
      }
    };
  };
  std::string reply;
  TAV_EML_RESULT result = ask("UIDL", reply);
  has_uids = is_positive(reply);
  if (result == TAV_EML_OK && has_uids) {
    result =
        read_list(take_into([](listed_mail& mail, const std::string& word) { mail.uid = word; }));
  }
  if (result == TAV_EML_OK) result = ask("LIST", reply);
  if (result == TAV_EML_OK && is_positive(reply)) {
    result = read_list(take_into([](listed_mail& mail, const std::string& word) {
      mail.size = std::max(number_of(word), 0);
    }));
  }
  return result;
}

TAV_EML_RESULT mailbox_session::uid_of(int number, std::string& uid) {
  std::string reply;
  const TAV_EML_RESULT result = ask("UIDL " + std::to_string(number), reply);
  uid.clear();
  if (!is_positive(reply)) return result;
  take_word(reply);
  if (number_of(take_word(reply)) == number) uid = take_word(reply);
  return result;
}

TAV_EML_RESULT mailbox_session::remove(int number) {
  return require("DELE " + std::to_string(number));
}

TAV_EML_RESULT mailbox_session::reset() { return require("RSET"); }

TAV_EML_RESULT mailbox_session::begin_header(int number, std::string& received) {
  std::string reply;
  const TAV_EML_RESULT result = ask("TOP " + std::to_string(number) + " 0", reply);
  if (result != TAV_EML_OK) return result;
  const size_t end = std::min(reply.find('\n'), reply.size() - 1) + 1;
  received = reply.substr(end);
  // As the library and the view of the dialogue judge it. After anything else a header may come.
  const bool is_refused = reply.compare(0, 1, "-") == 0;
  if (!is_refused && reply.substr(0, end).find("+OK") != std::string::npos) return TAV_EML_OK;
  if (!is_refused) drop();
  return TAV_EML_ERR_REPLY;
}

TAV_EML_RESULT mailbox_session::begin_mail(int number, std::string& received) {
  UtlString rest;
  const TAV_EML_RESULT result =
      tav_eml_pop3_command::read_open(&m_settings, m_sock, m_tls, number, rest);
  received = rest.IsEmpty() ? "" : rest.GetString();
  return result;
}

TAV_EML_RESULT mailbox_session::read_some(char* buffer, size_t& length) {
  auto count = static_cast<long>(length);
  const TAV_EML_UTL_RETCODE code =
      m_parser.ReadMail(m_sock, buffer, count, static_cast<long>(timeout()) * 1000, m_tls);
  length = code == TAV_EML_UTL_OK ? static_cast<size_t>(count) : 0;
  return code == TAV_EML_UTL_RECV_ERROR ? TAV_EML_ERR_TRANSFER : result_of(code);
}

TAV_EML_RESULT mailbox_session::receive_header(tav_eml_pop3_receive_mail& mail) {
  m_parser.flush_buffer();
  UtlString rest;
  const TAV_EML_RESULT result =
      tav_eml_pop3_command::read_open(&m_settings, m_sock, m_tls, mail.m_MailInfo.m_nMailNo, rest);
  if (result != TAV_EML_OK) return result;
  if (!rest.IsEmpty()) m_parser.set_recv_buffer(rest.GetString());
  const auto limit = static_cast<unsigned long>(std::max<long>(mail.m_MailInfo.m_lSize, 0));
  return result_of(m_parser.receive_header(mail, m_sock, timeout(), limit, m_tls));
}

TAV_EML_RESULT mailbox_session::receive_body(tav_eml_pop3_receive_mail& mail) {
  return result_of(m_parser.receive_body(mail, m_sock, timeout(), m_tls));
}

TAV_EML_RESULT mailbox_session::receive_part_header(tav_eml_pop3_receive_mail& mail) {
  return result_of(m_parser.receive_part_header(mail, m_sock, timeout(), m_tls));
}

TAV_EML_RESULT mailbox_session::receive_part_body(tav_eml_pop3_receive_mail& mail) {
  return result_of(m_parser.receive_part_body(mail, m_sock, timeout(), m_tls));
}

TAV_EML_RESULT mailbox_session::skip_mail(tav_eml_pop3_receive_mail& mail) {
  return result_of(m_parser.skip_mail(mail, timeout(), m_sock, m_tls));
}

}  // namespace tavmail
