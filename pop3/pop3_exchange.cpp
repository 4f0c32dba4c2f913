#include "pop3_exchange.h"

#include <cstdio>
#include <cstring>

#include "common/guard.h"
#include "pop3_log.h"

namespace quorvelmida {

TAV_EML_RESULT response_error(const pop3_command& command) {
  return pop3_failure(command.reply_name, " response error.", TAV_EML_ERR_REPLY);
}

TAV_EML_RESULT refuse(const pop3_command& command, pop3_connection& link) {
  link.close();
  return response_error(command);
}

TAV_EML_RESULT exchange(const pop3_command& command, int number, pop3_connection& link,
                        utl_buffer& reply, line_rest rest) {
  const char* const operation = command.operation;
  if (link.settings == nullptr) {
    return pop3_called_failure(operation, "settings", TAV_EML_ERR_UNKNOWN);
  }
  // Before the command is sent: a reply that is not read would answer the next one.
  if (!make_reply_buffer(operation, reply)) return TAV_EML_ERR_NO_MEMORY;
  char line[32];
  const int length =
      command.tail == nullptr
          ? std::snprintf(line, sizeof line, "%s\r\n", command.verb)
          : std::snprintf(line, sizeof line, "%s %d%s\r\n", command.verb, number, command.tail);
  TAV_EML_RESULT result = link.send_all(line, length);
  if (result != TAV_EML_OK) return pop3_called_failure(operation, "WriteUntil", result);
  result = link.read_reply(reply, rest);
  return result == TAV_EML_OK ? result : pop3_called_failure(operation, "ReadResponse", result);
}

std::string_view next_word(std::string_view& text) {
  constexpr const char* kBlanks = " \r\n";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  text.remove_prefix(first);
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(word.size());
  return word;
}

std::string_view text_of_reply(const utl_buffer& reply) {
  const std::string_view text(reply.data(), std::strlen(reply.data()));
  return !text.empty() && text.back() == '\n' ? text : std::string_view();
}

TAV_EML_RESULT ask_uniq_id(pop3_connection link, int number, UtlString& uid, bool& is_answered) {
  constexpr pop3_command kCommand = {"get_uniq_id", "get_uniq_id", "UIDL", ""};
  is_answered = false;
  return guarded(kCommand.operation, [&]() -> TAV_EML_RESULT {
    uid = UtlString();
    utl_buffer reply;
    const TAV_EML_RESULT result = exchange(kCommand, number, link, reply);
    if (result != TAV_EML_OK) return result;
    is_answered = true;
    std::string_view text = text_of_reply(reply);
    next_word(text);
    next_word(text);
    const std::string_view id = next_word(text);
    if (!is_positive(reply) || id.empty()) return refuse(kCommand, link);
    uid.CopyString(id.data(), id.size());
    return TAV_EML_OK;
  });
}

}  // namespace quorvelmida
