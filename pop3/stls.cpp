#include "stls.h"

#include <cstring>

#include "common/log.h"
#include "pop3_log.h"
#include "quorvelmida/tav_eml_pop3_command.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "NegotiateStartTLS";

// What a line needs of its buffer: a byte, the NUL, and one that the transport keeps free.
constexpr long kLeastRoom = 3;

TAV_EML_RESULT send(pop3_connection& link, const char* command) {
  const TAV_EML_RESULT result = link.send_all(command, static_cast<long>(std::strlen(command)));
  if (result != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s: WriteUntil() returns [0x%08lx]\n", kName,
                      log_long_code(result));
  }
  return result;
}

TAV_EML_RESULT read_failure(TAV_EML_RESULT result, const char* remark) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s: ReadResponse() %sreturns [0x%08lx]\n", kName,
                    remark, log_long_code(result));
  return result;
}

// Reads the reply to CAPA, line after line, up to its end.
TAV_EML_RESULT read_capabilities(pop3_connection& link, utl_buffer& text) {
  *text.data() = '\0';
  while (std::strstr(text.data(), END_OF_LIST) == nullptr) {
    char* const end = text.data() + std::strlen(text.data());
    long room = kPop3BufferSize - static_cast<long>(end - text.data());
    if (room < kLeastRoom) {
      link.close();
      TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s CAPA list too long for buffer \n", kName);
      return read_failure(TAV_EML_ERR_REPLY, "(Too large) ");
    }
    const TAV_EML_RESULT result = link.read_reply(end, room, line_rest::dropped);
    if (result != TAV_EML_OK) return read_failure(result, "");
    if (*end == '\0') {
      // A line that begins with NUL adds nothing: reading would never end.
      link.close();
      return read_failure(TAV_EML_ERR_REPLY, "");
    }
  }
  return TAV_EML_OK;
}

}  // namespace

TAV_EML_RESULT negotiate_stls(pop3_connection& link) {
  TAV_EML_RESULT result = send(link, "CAPA\r\n");
  if (result != TAV_EML_OK) return result;
  utl_buffer text;
  if (!make_reply_buffer(kName, text)) {
    link.close();
    return TAV_EML_ERR_NO_MEMORY;
  }
  result = read_capabilities(link, text);
  if (result != TAV_EML_OK) return result;
  if (std::strstr(text.data(), "STLS") == nullptr) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s: server does NOT support startTLS\n",
                      kName);
    link.close();
    return TAV_EML_ERR_TLS_CONNECT;
  }

  result = send(link, "STLS\r\n");
  if (result != TAV_EML_OK) return result;
  result = link.read_reply(text);
  if (result != TAV_EML_OK) return read_failure(result, "");
  if (!is_positive(text)) {
    link.close();
    return pop3_failure(kName, " response error.", TAV_EML_ERR_REPLY);
  }
  if (link.start_tls() == TAV_EML_OK) return TAV_EML_OK;
  TAV_EML_LOG_ERROR("tav_eml_pop3_command::%s: tav_eml_mlutl_mail_net::start_tls NG[0x%08x]\n",
                    kName, 0U);
  link.close();
  return TAV_EML_ERR_UNKNOWN;
}

}  // namespace quorvelmida
