// The STLS upgrade (RFC 2595).

#include <cstring>

#include "common/log.h"
#include "pop3_dialogue.h"
#include "quorvelmida/tav_eml_pop3_command.h"
#include "transport/connection.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "NegotiateStartTLS";

// What a line needs of its buffer: a byte, the NUL, and one that the transport keeps free.
constexpr long kLeastRoom = 3;

TAV_EML_RESULT send(int& sock, TAV_EML_TLS_INFO& tls, const char* command) {
  char line[16];
  const size_t length = std::strlen(command);
  std::memcpy(line, command, length);
  const TAV_EML_RESULT result =
      tav_eml_pop3_command::WriteUntil(sock, line, static_cast<long>(length), 0, tls);
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

// Reads the reply to CAPA, line behind line, up to its end.
TAV_EML_RESULT read_capabilities(int& sock, TAV_EML_TLS_INFO& tls, long timeout, utl_buffer& text) {
  while (std::strstr(text.data(), END_OF_LIST) == nullptr) {
    const size_t length = std::strlen(text.data());
    long room = kPop3BufferSize - static_cast<long>(length);
    if (room < kLeastRoom) {
      close_connection(sock, tls);
      TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s CAPA list too long for buffer \n", kName);
      return read_failure(TAV_EML_ERR_REPLY, "(Too large) ");
    }
    const TAV_EML_RESULT result =
        tav_eml_pop3_command::ReadResponse(sock, text.data() + length, room, timeout, tls);
    if (result != TAV_EML_OK) return read_failure(result, "");
    if (std::strlen(text.data()) == length) {
      // A line that begins with NUL adds nothing: the same place would be read into for ever.
      close_connection(sock, tls);
      return read_failure(TAV_EML_ERR_REPLY, "");
    }
  }
  return TAV_EML_OK;
}

}  // namespace

TAV_EML_RESULT tav_eml_pop3_command::NegotiateStartTLS(const tav_eml_pop3_settings* /*settings*/,
                                                       int& sock, TAV_EML_TLS_INFO& tls,
                                                       long timeout) {
  TAV_EML_RESULT result = send(sock, tls, "CAPA\r\n");
  if (result != TAV_EML_OK) return result;
  utl_buffer text;
  if (!make_reply_buffer(kName, text)) {
    close_connection(sock, tls);
    return TAV_EML_ERR_NO_MEMORY;
  }
  result = read_capabilities(sock, tls, timeout, text);
  if (result != TAV_EML_OK) return result;
  if (std::strstr(text.data(), "STLS") == nullptr) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s: server does NOT support startTLS\n",
                      kName);
    close_connection(sock, tls);
    return TAV_EML_ERR_TLS_CONNECT;
  }

  result = send(sock, tls, "STLS\r\n");
  if (result != TAV_EML_OK) return result;
  long size = kPop3BufferSize;
  result = ReadResponse(sock, text.data(), size, timeout, tls);
  if (result != TAV_EML_OK) return read_failure(result, "");
  if (!is_positive(text)) {
    close_connection(sock, tls);
    TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s():[Return %08lx] response error.\n", kName,
                      log_long_code(TAV_EML_ERR_REPLY));
    return TAV_EML_ERR_REPLY;
  }
  if (tav_eml_mlutl_mail_net().start_tls(sock, static_cast<unsigned int>(timeout), tls) !=
      TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_pop3_command::%s: tav_eml_mlutl_mail_net::start_tls NG[0x%08x]\n",
                      kName, 0U);
    close_connection(sock, tls);
    return TAV_EML_ERR_UNKNOWN;
  }
  return TAV_EML_OK;
}

}  // namespace quorvelmida
