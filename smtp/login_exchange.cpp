#include "login_exchange.h"

#include <cstring>

#include "codec/base64.h"
#include "common/secret.h"
#include "smtp_log.h"

namespace quorvelmida {

namespace {

constexpr size_t kChallenge = 4;  // after "334 "

int hex_digit(char ch) { return ch <= '9' ? ch - '0' : ch - 'a' + 10; }

}  // namespace

TAV_EML_RESULT judge_login(const smtp_dialogue& dialogue, const exchange_texts& texts) {
  const TAV_EML_RESULT result = judge_reply(dialogue.reply(), kReplySuccess);
  if (result == TAV_EML_OK) return result;
  return command_failure(texts.operation, texts.refused,
                         result == TAV_EML_ERR_REPLY ? TAV_EML_ERR_AUTH : result);
}

TAV_EML_RESULT end_login(smtp_dialogue& dialogue, const exchange_texts& texts) {
  const TAV_EML_RESULT result = dialogue.read_reply(texts);
  return result == TAV_EML_OK ? judge_login(dialogue, texts) : result;
}

bool decode_challenge(const char* line, std::string& challenge) {
  challenge.clear();
  size_t end = std::strcspn(line, "\r");
  if (line[end] == '\0') end = std::strcspn(line, "\n");
  if (line[end] == '\0' || end < kChallenge) return false;  // the line was cut off

  utl_buffer decoded;
  if (!decode_base64(line + kChallenge, static_cast<long>(end - kChallenge), decoded)) return false;
  challenge.assign(decoded.data(), static_cast<size_t>(decoded.length()));
  return true;
}

TAV_EML_RESULT send_answer(smtp_dialogue& dialogue, const char* before, std::string_view secret,
                           size_t room, const answer_texts& texts) {
  secret_buffer encoded;
  if (!to_base64(secret.data(), static_cast<long>(secret.size()), 0, encoded)) {
    return command_failure(texts.operation, texts.base64, TAV_EML_ERR_UNKNOWN);
  }
  const size_t before_length = std::strlen(before);
  const size_t encoded_length = static_cast<size_t>(encoded.length());
  const size_t length = before_length + encoded_length + 2;
  if (length >= room) {
    // Cut off it would be another credential.
    return command_failure(texts.operation, texts.send, TAV_EML_ERR_PARAM);
  }
  secret_buffer line;
  if (!line.allocate_uncleared(static_cast<int64_t>(length))) {
    return command_failure(texts.operation, texts.memory, TAV_EML_ERR_NO_MEMORY);
  }
  line.set_length(static_cast<long>(length));
  std::memcpy(line.data(), before, before_length);
  std::memcpy(line.data() + before_length, encoded.data(), encoded_length);
  std::memcpy(line.data() + before_length + encoded_length, "\r\n", 2);
  const TAV_EML_RESULT result = dialogue.send_all(line.data(), line.length());
  return result == TAV_EML_OK ? result : command_failure(texts.operation, texts.send, result);
}

void digest_bytes(const char* digits, char* bytes) {
  for (; *digits != '\0'; digits += 2) {
    *bytes++ = static_cast<char>(hex_digit(digits[0]) * 16 + hex_digit(digits[1]));
  }
}

}  // namespace quorvelmida
