#include "quorvelmida/tav_eml_pop3_command.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string_view>

#include "common/guard.h"
#include "common/text.h"
#include "pop3_exchange.h"
#include "pop3_log.h"
#include "pop3_login.h"
#include "stls.h"

namespace quorvelmida {

const char* const END_OF_LIST = "\r\n.\r\n";

namespace {

// No mailbox of a device has more; a hostile count would keep the application busy for days.
constexpr int kMaxMessages = 1000000;

// Length of the reply's first line, its line feed included; 0 when it has none.
long line_length(const utl_buffer& reply) {
  const void* end = std::memchr(reply.data(), '\n', static_cast<size_t>(reply.length()));
  return end != nullptr ? static_cast<const char*>(end) - reply.data() + 1 : 0;
}

// A command of which nothing but consent is expected.
TAV_EML_RESULT ask(const pop3_command& command, int number, pop3_connection link) {
  utl_buffer reply;
  const TAV_EML_RESULT result = exchange(command, number, link, reply);
  if (result != TAV_EML_OK) return result;
  return is_positive(reply) ? TAV_EML_OK : refuse(command, link);
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

}  // namespace

tav_eml_pop3_command::tav_eml_pop3_command() = default;
tav_eml_pop3_command::~tav_eml_pop3_command() = default;

TAV_EML_RESULT tav_eml_pop3_command::connect_start(const tav_eml_pop3_settings* settings, int& sock,
                                                   TAV_EML_TLS_INFO& tls) {
  return log_in_to_pop3(settings, sock, tls);
}

TAV_EML_RESULT tav_eml_pop3_command::NegotiateStartTLS(const tav_eml_pop3_settings* /*settings*/,
                                                       int& sock, TAV_EML_TLS_INFO& tls,
                                                       long timeout) {
  pop3_connection link(sock, tls, timeout);
  return negotiate_stls(link);
}

TAV_EML_RESULT tav_eml_pop3_command::CreateAPOPHash(const UtlString& greeting,
                                                    const UtlString& password, char* digest) {
  return make_apop_digest(greeting, password, digest);
}

TAV_EML_RESULT tav_eml_pop3_command::ReadResponse(int& sock, char* buffer, long& length,
                                                  long timeout, TAV_EML_TLS_INFO& tls) {
  return pop3_connection(sock, tls, timeout).read_reply(buffer, length, line_rest::dropped);
}

TAV_EML_RESULT tav_eml_pop3_command::WriteUntil(int& sock, char* data, long length, long timeout,
                                                TAV_EML_TLS_INFO& tls) {
  return connection(sock, tls, kPop3Rules, timeout, timeout).send_all(data, length);
}

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
  pop3_connection link(settings, sock, tls);
  utl_buffer reply;
  const TAV_EML_RESULT result = exchange(kCommand, number, link, reply, line_rest::kept);
  if (result != TAV_EML_OK) return result;
  // After a lone LF comes the header already, and it cannot be handed out.
  const bool is_whole = ends_line(reply.view());
  return is_whole && is_positive(reply) && line_length(reply) == reply.length()
             ? TAV_EML_OK
             : refuse(kCommand, link);
}

TAV_EML_RESULT tav_eml_pop3_command::read_open(const tav_eml_pop3_settings* settings, int& sock,
                                               TAV_EML_TLS_INFO& tls, int number, UtlString& rest) {
  constexpr pop3_command kCommand = {"read_open", "read_open", "RETR", ""};
  pop3_connection link(settings, sock, tls);
  bool is_answered = false;
  const TAV_EML_RESULT result = guarded(kCommand.operation, [&]() -> TAV_EML_RESULT {
    rest = UtlString();
    utl_buffer reply;
    TAV_EML_RESULT code = exchange(kCommand, number, link, reply, line_rest::kept);
    if (code != TAV_EML_OK) return code;
    is_answered = true;
    rest.CopyString("");
    // A server that ends its status line with a lone LF has sent message data already.
    const long length = line_length(reply);
    char* const data = reply.data() + length;
    std::replace(data, reply.data() + reply.length(), '\0', ' ');
    if (length == 0) {
      code = link.drop_line(reply.data()[reply.length() - 1]);
      if (code != TAV_EML_OK) return code;
    } else if (length < reply.length()) {
      rest.CopyString(data);
      *data = '\0';
    }
    return is_positive(reply) ? TAV_EML_OK : refuse(kCommand, link);
  });
  // A message that is not read must not answer the next command.
  if (result != TAV_EML_OK && is_answered) link.close();
  return result;
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
  pop3_connection link(settings, sock, tls);
  utl_buffer reply;
  const TAV_EML_RESULT result = exchange(kCommand, number, link, reply);
  if (result != TAV_EML_OK) return result;
  std::string_view text = text_of_reply(reply);
  next_word(text);
  next_word(text);
  if (!is_positive(reply) || !parse_number(next_word(text), size)) {
    return refuse(kCommand, link);
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_command::get_stat(const tav_eml_pop3_settings* settings, int& sock,
                                              TAV_EML_TLS_INFO& tls, int& octets, int& count) {
  constexpr pop3_command kCommand = {"get_stat", "get_stat", "STAT"};
  pop3_connection link(settings, sock, tls);
  utl_buffer reply;
  const TAV_EML_RESULT result = exchange(kCommand, 0, link, reply);
  if (result != TAV_EML_OK) return result;
  if (!is_positive(reply)) return refuse(kCommand, link);
  std::string_view text = text_of_reply(reply);
  next_word(text);
  const std::string_view count_word = next_word(text);
  const std::string_view octets_word = next_word(text);
  if (octets_word.empty()) {
    // Unlike everywhere else the socket stays open.
    link.end_tls();
    return response_error(kCommand);
  }
  int total = 0;
  int messages = 0;
  if (!parse_number(count_word, messages) || messages > kMaxMessages ||
      !parse_number(octets_word, total)) {
    return refuse(kCommand, link);
  }
  count = messages;
  octets = total;
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_command::disconnect(const tav_eml_pop3_settings* settings, int& sock,
                                                TAV_EML_TLS_INFO& tls) {
  constexpr char kName[] = "disconnect";
  if (settings == nullptr) return pop3_called_failure(kName, "settings", TAV_EML_ERR_UNKNOWN);
  pop3_connection link(settings, sock, tls);
  constexpr char kQuit[] = "QUIT\r\n";
  link.send_all(kQuit, sizeof kQuit - 1);
  utl_buffer reply;
  TAV_EML_RESULT result = TAV_EML_ERR_NO_MEMORY;
  if (make_reply_buffer(kName, reply)) {
    result = link.read_reply(reply);
    if (result != TAV_EML_OK) return pop3_called_failure(kName, "ReadResponse", result);
  }
  link.close();
  return result;
}

}  // namespace quorvelmida
