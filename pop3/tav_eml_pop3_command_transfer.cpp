// Command lines out, reply lines in.

#include <algorithm>
#include <climits>
#include <cstring>

#include "connection.h"
#include "pop3_dialogue.h"
#include "quorvelmida/tav_eml_pop3_command.h"
#include "reply_line.h"
#include "tav_eml_log.h"

namespace quorvelmida {

const char* const END_OF_LIST = "\r\n.\r\n";

tav_eml_pop3_command::tav_eml_pop3_command() = default;
tav_eml_pop3_command::~tav_eml_pop3_command() = default;

long timeout_ms(const tav_eml_pop3_settings& settings) {
  const int64_t milliseconds = static_cast<int64_t>(settings.m_nTimeout) * 1000;
  return static_cast<long>(std::clamp<int64_t>(milliseconds, 0, INT_MAX));
}

bool make_reply_buffer(const char* operation, utl_buffer& reply) {
  if (reply.allocate(kPop3BufferSize - 1)) return true;
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s(): MemAllocate returns NULL: Line%d\n",
                    operation, __LINE__);
  return false;
}

bool is_positive(const utl_buffer& reply) { return std::strstr(reply.data(), "+OK") != nullptr; }

TAV_EML_RESULT tav_eml_pop3_command::ReadResponse(int& sock, char* buffer, long& length,
                                                  long timeout, TAV_EML_TLS_INFO& tls) {
  const auto fail = [&](TAV_EML_RESULT result, const char* text) {
    close_connection(sock, tls);
    TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::ReadResponse():[Return %08lx]%s\n",
                      log_long_code(result), text);
    return result;
  };
  if (buffer == nullptr || length < 1) {
    return fail(TAV_EML_ERR_UNKNOWN, "recv_one_line error");
  }
  std::memset(buffer, 0, static_cast<size_t>(length));
  if (sock <= 0) return fail(TAV_EML_ERR_NOT_CONNECTED, "recv_one_line error");
  long size = length - 1;
  TAV_EML_RESULT result =
      tav_eml_mlutl_mail_net().recv_one_line(sock, buffer, size, 0, timeout, tls);
  if (result != TAV_EML_OK) return fail(transport_result(result), "recv_one_line error");
  const long read = size - 1;
  if (read < 1) return fail(TAV_EML_ERR_TRANSFER, "recv_one_line No data");
  // The rest of a line that was cut would answer the next command. What stands behind a lone LF
  // belongs to the data that follows.
  if (!ends_line(buffer, read) && std::memchr(buffer, '\n', static_cast<size_t>(read)) == nullptr) {
    result = drain_line(sock, buffer[read - 1], 0, timeout, tls);
    if (result != TAV_EML_OK) return fail(transport_result(result), "recv_one_line error");
  }
  length = read;
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_command::WriteUntil(int& sock, char* data, long length, long timeout,
                                                TAV_EML_TLS_INFO& tls) {
  const auto fail = [&](TAV_EML_RESULT result) {
    close_connection(sock, tls);
    TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::WriteUntil():[Return %08lx]send_data error\n",
                      log_long_code(result));
    return result;
  };
  if (length < 1) return TAV_EML_OK;
  if (sock <= 0) return fail(TAV_EML_ERR_NOT_CONNECTED);
  while (length > 0) {
    long count = length;
    const TAV_EML_RESULT result =
        tav_eml_mlutl_mail_net().send_data(sock, data, count, 0, timeout, tls);
    if (result != TAV_EML_OK) return fail(transport_result(result));
    if (count < 1) return fail(TAV_EML_ERR_TRANSFER);  // it would never get better
    data += count;
    length -= count;
  }
  return TAV_EML_OK;
}

}  // namespace quorvelmida
