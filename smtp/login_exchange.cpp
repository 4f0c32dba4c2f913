#include "login_exchange.h"

#include <cstring>

#include "common/log.h"
#include "common/text.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "smtp_dialogue.h"

namespace quorvelmida {

namespace {

constexpr size_t kChallenge = 4;  // behind "334 "

int hex_digit(char ch) { return ch <= '9' ? ch - '0' : ch - 'a' + 10; }

}  // namespace

TAV_EML_RESULT judge_login(const char* reply) {
  const TAV_EML_RESULT result = judge_reply(reply, kReplySuccess);
  return result == TAV_EML_ERR_REPLY ? TAV_EML_ERR_AUTH : result;
}

bool decode_challenge(const char* line, std::string& challenge) {
  challenge.clear();
  size_t end = std::strcspn(line, "\r");
  if (line[end] == '\0') end = std::strcspn(line, "\n");
  if (line[end] == '\0' || end < kChallenge) return false;  // the line was cut off

  utl_buffer decoded;
  void* data = nullptr;
  const int result = tav_eml_mlutl_mime_utility::from_b64(
      line + kChallenge, static_cast<long>(end - kChallenge), data, decoded.length());
  decoded.data() = static_cast<char*>(data);
  if (result == 0) return false;
  challenge.assign(decoded.data(), static_cast<size_t>(decoded.length()));
  return true;
}

TAV_EML_RESULT send_answer(ntssmtp_fileptr& session, const char* before, std::string_view secret,
                           size_t room, long timeout, const answer_texts& texts) {
  secret_buffer encoded;
  if (tav_eml_mlutl_mime_utility::to_b64(secret.data(), static_cast<long>(secret.size()),
                                         encoded.data(), encoded.length(), 0) == 0) {
    TAV_EML_LOG_ERROR("%s", texts.base64);
    return TAV_EML_ERR_UNKNOWN;
  }
  const size_t before_length = std::strlen(before);
  const size_t encoded_length = static_cast<size_t>(encoded.length());
  const size_t length = before_length + encoded_length + 2;
  if (length >= room) {
    // Cut off it would be another credential.
    TAV_EML_LOG_ERROR("%s", texts.send);
    return TAV_EML_ERR_PARAM;
  }
  secret_buffer line;
  if (!line.allocate(static_cast<long>(length))) {
    TAV_EML_LOG_ERROR("%s", texts.memory != nullptr ? texts.memory : texts.send);
    return TAV_EML_ERR_NO_MEMORY;
  }
  line.length() = static_cast<long>(length);
  std::memcpy(line.data(), before, before_length);
  std::memcpy(line.data() + before_length, encoded.data(), encoded_length);
  std::memcpy(line.data() + before_length + encoded_length, "\r\n", 2);
  const TAV_EML_RESULT result = send_all(session, line.data(), line.length(), timeout);
  if (result != TAV_EML_OK) TAV_EML_LOG_ERROR("%s", texts.send);
  return result;
}

void digest_bytes(const char* digits, char* bytes) {
  for (; *digits != '\0'; digits += 2) {
    *bytes++ = static_cast<char>(hex_digit(digits[0]) * 16 + hex_digit(digits[1]));
  }
}

bool has_buffers(const ntssmtp_fileptr& session, const char* message) {
  if (session.send_buffer != nullptr && session.recv_buffer != nullptr) return true;
  TAV_EML_LOG_ERROR("%s", message);
  return false;
}

}  // namespace quorvelmida
