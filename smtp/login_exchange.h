// login_exchange.h - what the login methods share: challenges in, answers out.

#ifndef LOGIN_EXCHANGE_H
#define LOGIN_EXCHANGE_H

#include <string>
#include <string_view>

#include "quorvelmida/tav_eml_result.h"
#include "smtp_dialogue.h"

namespace quorvelmida {

// Logs the latest reply as a refusal: TAV_EML_ERR_REPLY_TEMPORARY for "4", else TAV_EML_ERR_AUTH,
// also where the reply does not look like a refusal.
TAV_EML_RESULT refuse_login(const smtp_dialogue& dialogue, const exchange_texts& texts);

// Judges the latest reply. TAV_EML_OK when it begins with "2"; the temporary code for "4";
// otherwise TAV_EML_ERR_AUTH, on which the next method is tried.
TAV_EML_RESULT judge_login(const smtp_dialogue& dialogue, const exchange_texts& texts);

// Reads the reply that ends a login and judges it.
TAV_EML_RESULT end_login(smtp_dialogue& dialogue, const exchange_texts& texts);

// Decodes the base64 challenge of a "334" line, over everything in it that is not base64. False
// when the line was cut off and for want of memory.
bool decode_challenge(const char* line, std::string& challenge);

// Sends `before`, the base64 text of `secret` and CR LF, through a work area that is wiped.
// TAV_EML_ERR_UNKNOWN when base64 fails, TAV_EML_ERR_PARAM when the line needs more than `room`
// bytes, its NUL included; otherwise the code of the transfer. `texts` are logged.
struct answer_texts {
  const char* operation;
  const char* base64;
  const char* send;
  const char* memory;  // there is no room for the line
};
TAV_EML_RESULT send_answer(smtp_dialogue& dialogue, const char* before, std::string_view secret,
                           size_t room, const answer_texts& texts);

// The 32 hexadecimal digits of a digest as its 16 bytes, pair by pair.
void digest_bytes(const char* digits, char* bytes);

}  // namespace quorvelmida

#endif
