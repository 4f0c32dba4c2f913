// The commands of a session that is logged in: one line out, one line in.

#include "quorvelmida/tav_eml_pop3_command.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "common/guard.h"
#include "common/log.h"
#include "pop3_dialogue.h"
#include "transport/connection.h"
#include "transport/reply_line.h"

namespace quorvelmida {

namespace {

// No mailbox of a device has more; a hostile count would keep the application busy for days.
constexpr int kMaxMessages = 1000000;

// Which command is sent, and what its log lines call it.
struct pop3_command {
  const char* operation;
  const char* reply_name;  // in the line on a bad reply
  const char* verb;
  const char* tail = nullptr;  // behind the message number; null for a command without one
};

TAV_EML_RESULT response_error(const pop3_command& command) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s():[Return %08lx] response error.\n",
                    command.reply_name, log_long_code(TAV_EML_ERR_REPLY));
  return TAV_EML_ERR_REPLY;
}

TAV_EML_RESULT refuse(const pop3_command& command, pop3_connection& connection) {
  close_connection(connection.sock, connection.tls);
  return response_error(command);
}

TAV_EML_RESULT called_failure(const pop3_command& command, const char* called,
                              TAV_EML_RESULT result) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s(): %s() returns [0x%08lx]\n",
                    command.operation, called, log_long_code(result));
  return result;
}

using reply_reader = TAV_EML_RESULT (*)(int& sock, char* buffer, long& length, long timeout,
                                        TAV_EML_TLS_INFO& tls);

// Sends the command and reads the line that answers it.
TAV_EML_RESULT exchange(const pop3_command& command, int number, pop3_connection& connection,
                        utl_buffer& reply,
                        reply_reader read = &tav_eml_pop3_command::ReadResponse) {
  if (connection.settings == nullptr) {
    return called_failure(command, "settings", TAV_EML_ERR_UNKNOWN);
  }
  // Before the command is sent: a reply that nobody reads would answer the next one.
  if (!make_reply_buffer(command.operation, reply)) return TAV_EML_ERR_NO_MEMORY;
  char line[32];
  const int length =
      command.tail == nullptr
          ? std::snprintf(line, sizeof line, "%s\r\n", command.verb)
          : std::snprintf(line, sizeof line, "%s %d%s\r\n", command.verb, number, command.tail);
  TAV_EML_RESULT result =
      tav_eml_pop3_command::WriteUntil(connection.sock, line, length, 0, connection.tls);
  if (result != TAV_EML_OK) return called_failure(command, "WriteUntil", result);
  long size = kPop3BufferSize;
  result = read(connection.sock, reply.data(), size, connection.timeout(), connection.tls);
  if (result != TAV_EML_OK) return called_failure(command, "ReadResponse", result);
  reply.length() = size;
  return TAV_EML_OK;
}

// Length of the reply's first line, its line feed included; 0 when it has none.
long line_length(const utl_buffer& reply) {
  const void* end = std::memchr(reply.data(), '\n', static_cast<size_t>(reply.length()));
  return end != nullptr ? static_cast<const char*>(end) - reply.data() + 1 : 0;
}

// A command of which nothing but consent is expected.
TAV_EML_RESULT ask(const pop3_command& command, int number, pop3_connection connection) {
  utl_buffer reply;
  const TAV_EML_RESULT result = exchange(command, number, connection, reply);
  if (result != TAV_EML_OK) return result;
  return is_positive(reply) ? TAV_EML_OK : refuse(command, connection);
}

// Cuts the next word off a reply; its line end counts as a blank. Empty at the end.
std::string_view next_word(std::string_view& text) {
  constexpr const char* kBlanks = " \r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  text.remove_prefix(first);
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(word.size());
  return word;
}

// A decimal number, INT_MAX for a larger one; false for anything else.
bool parse_number(std::string_view word, int& number) {
  if (word.empty()) return false;
  int64_t value = 0;
  for (const char ch : word) {
    if (ch < '0' || ch > '9') return false;
    value = value * 10 + (ch - '0');
    if (value > INT_MAX) value = INT_MAX;
  }
  number = static_cast<int>(value);
  return true;
}

// The text of a reply that came whole: words that were cut would be taken for others. "" otherwise.
std::string_view text_of_reply(const utl_buffer& reply) {
  const std::string_view text(reply.data(), std::strlen(reply.data()));
  return !text.empty() && text.back() == '\n' ? text : std::string_view();
}

}  // namespace

TAV_EML_RESULT tav_eml_pop3_command::noop(const tav_eml_pop3_settings* settings, int& sock,
                                          TAV_EML_TLS_INFO& tls) {
  return ask({"noop", "NOOP", "NOOP"}, 0, {settings, sock, tls});
}

TAV_EML_RESULT tav_eml_pop3_command::delete_mail(const tav_eml_pop3_settings* settings, int& sock,
                                                 TAV_EML_TLS_INFO& tls, int number) {
  return ask({"delete_mail", "delete_mail", "DELE", ""}, number, {settings, sock, tls});
}

TAV_EML_RESULT tav_eml_pop3_command::GetTop(const tav_eml_pop3_settings* settings, int& sock,
                                            TAV_EML_TLS_INFO& tls, int number) {
  constexpr pop3_command kCommand = {"GetTop", "GetTop", "TOP", " 0"};
  pop3_connection connection = {settings, sock, tls};
  utl_buffer reply;
  const TAV_EML_RESULT result = exchange(kCommand, number, connection, reply, &read_status_line);
  if (result != TAV_EML_OK) return result;
  // Behind a lone LF stands the header already, and there is nobody to hand it to.
  const bool is_whole = ends_line(reply.data(), reply.length());
  return is_whole && is_positive(reply) && line_length(reply) == reply.length()
             ? TAV_EML_OK
             : refuse(kCommand, connection);
}

TAV_EML_RESULT tav_eml_pop3_command::read_open(const tav_eml_pop3_settings* settings, int& sock,
                                               TAV_EML_TLS_INFO& tls, int number, UtlString& rest) {
  constexpr pop3_command kCommand = {"read_open", "read_open", "RETR", ""};
  pop3_connection connection = {settings, sock, tls};
  bool is_answered = false;
  const TAV_EML_RESULT result = guarded(kCommand.operation, [&]() -> TAV_EML_RESULT {
    rest = UtlString();
    utl_buffer reply;
    TAV_EML_RESULT code = exchange(kCommand, number, connection, reply, &read_status_line);
    if (code != TAV_EML_OK) return code;
    is_answered = true;
    rest.CopyString("");
    // A server that ends its status line with a lone LF has sent message data already.
    const long length = line_length(reply);
    char* const data = reply.data() + length;
    std::replace(data, reply.data() + reply.length(), '\0', ' ');
    if (length == 0) {
      code = drain_line(sock, reply.data()[reply.length() - 1], 0, connection.timeout(), tls);
      if (code != TAV_EML_OK) return transport_result(code);
    } else if (length < reply.length()) {
      rest.CopyString(data);
      *data = '\0';
    }
    return is_positive(reply) ? TAV_EML_OK : refuse(kCommand, connection);
  });
  // A message that nobody reads must not answer the next command.
  if (result != TAV_EML_OK && is_answered) close_connection(sock, tls);
  return result;
}

TAV_EML_RESULT ask_uniq_id(pop3_connection connection, int number, UtlString& uid,
                           bool& is_answered) {
  constexpr pop3_command kCommand = {"get_uniq_id", "get_uniq_id", "UIDL", ""};
  is_answered = false;
  return guarded(kCommand.operation, [&]() -> TAV_EML_RESULT {
    uid = UtlString();
    utl_buffer reply;
    const TAV_EML_RESULT result = exchange(kCommand, number, connection, reply);
    if (result != TAV_EML_OK) return result;
    is_answered = true;
    std::string_view text = text_of_reply(reply);
    next_word(text);
    next_word(text);
    const std::string_view id = next_word(text);
    if (!is_positive(reply) || id.empty()) return refuse(kCommand, connection);
    uid.CopyString(id.data(), id.size());
    return TAV_EML_OK;
  });
}

TAV_EML_RESULT tav_eml_pop3_command::get_uniq_id(const tav_eml_pop3_settings* settings, int& sock,
                                                 TAV_EML_TLS_INFO& tls, int number,
                                                 UtlString& uid) {
  bool is_answered = false;
  return ask_uniq_id({settings, sock, tls}, number, uid, is_answered);
}

TAV_EML_RESULT tav_eml_pop3_command::get_size(const tav_eml_pop3_settings* settings, int& sock,
                                              TAV_EML_TLS_INFO& tls, int number, int& size) {
  constexpr pop3_command kCommand = {"get_size", "get_size", "LIST", ""};
  pop3_connection connection = {settings, sock, tls};
  utl_buffer reply;
  const TAV_EML_RESULT result = exchange(kCommand, number, connection, reply);
  if (result != TAV_EML_OK) return result;
  std::string_view text = text_of_reply(reply);
  next_word(text);
  next_word(text);
  if (!is_positive(reply) || !parse_number(next_word(text), size)) {
    return refuse(kCommand, connection);
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_command::get_stat(const tav_eml_pop3_settings* settings, int& sock,
                                              TAV_EML_TLS_INFO& tls, int& octets, int& count) {
  constexpr pop3_command kCommand = {"get_stat", "get_stat", "STAT"};
  pop3_connection connection = {settings, sock, tls};
  utl_buffer reply;
  const TAV_EML_RESULT result = exchange(kCommand, 0, connection, reply);
  if (result != TAV_EML_OK) return result;
  if (!is_positive(reply)) return refuse(kCommand, connection);
  std::string_view text = text_of_reply(reply);
  next_word(text);
  const std::string_view count_word = next_word(text);
  const std::string_view octets_word = next_word(text);
  if (octets_word.empty()) {
    // Unlike everywhere else the socket stays open.
    if (tls.tls_session != 0 || tls.tls_ctx != 0) tav_eml_mlutl_mail_net().end_tls(tls);
    return response_error(kCommand);
  }
  int total = 0;
  int messages = 0;
  if (!parse_number(count_word, messages) || messages > kMaxMessages ||
      !parse_number(octets_word, total)) {
    return refuse(kCommand, connection);
  }
  count = messages;
  octets = total;
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_command::disconnect(const tav_eml_pop3_settings* settings, int& sock,
                                                TAV_EML_TLS_INFO& tls) {
  constexpr pop3_command kCommand = {"disconnect", "disconnect", "QUIT"};
  if (settings == nullptr) return called_failure(kCommand, "settings", TAV_EML_ERR_UNKNOWN);
  char line[] = "QUIT\r\n";
  WriteUntil(sock, line, sizeof line - 1, 0, tls);
  utl_buffer reply;
  if (!make_reply_buffer(kCommand.operation, reply)) {
    close_connection(sock, tls);
    return TAV_EML_ERR_NO_MEMORY;
  }
  long size = kPop3BufferSize;
  const TAV_EML_RESULT result = ReadResponse(sock, reply.data(), size, timeout_ms(*settings), tls);
  if (result != TAV_EML_OK) return called_failure(kCommand, "ReadResponse", result);
  close_connection(sock, tls);
  return TAV_EML_OK;
}

}  // namespace quorvelmida
