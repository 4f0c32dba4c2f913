// Command lines out, reply lines in.

#include <algorithm>
#include <climits>
#include <cstring>

#include "common/guard.h"
#include "common/log.h"
#include "pop3_dialogue.h"
#include "quorvelmida/tav_eml_pop3_command.h"
#include "transport/connection.h"
#include "transport/reply_line.h"

namespace quorvelmida {

const char* const END_OF_LIST = "\r\n.\r\n";

tav_eml_pop3_command::tav_eml_pop3_command() = default;
tav_eml_pop3_command::~tav_eml_pop3_command() = default;

long timeout_ms(const tav_eml_pop3_settings& settings) {
  const int64_t milliseconds = static_cast<int64_t>(settings.m_nTimeout) * 1000;
  return static_cast<long>(std::clamp<int64_t>(milliseconds, 0, INT_MAX));
}

bool make_reply_buffer(const char* operation, utl_buffer& reply) {
  if (guarded(operation, false, [&] { return reply.allocate(kPop3BufferSize - 1); })) return true;
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s(): MemAllocate returns NULL: Line%d\n",
                    operation, __LINE__);
  return false;
}

bool is_positive(const utl_buffer& reply) { return std::strstr(reply.data(), "+OK") != nullptr; }

namespace {

constexpr char kNoLine[] = "recv_one_line error";

TAV_EML_RESULT read_failure(int& sock, TAV_EML_TLS_INFO& tls, TAV_EML_RESULT result,
                            const char* text) {
  close_connection(sock, tls);
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::ReadResponse():[Return %08lx]%s\n",
                    log_long_code(result), text);
  return result;
}

}  // namespace

TAV_EML_RESULT read_status_line(int& sock, char* buffer, long& length, long timeout,
                                TAV_EML_TLS_INFO& tls) {
  if (buffer == nullptr || length < 1) {
    return read_failure(sock, tls, TAV_EML_ERR_UNKNOWN, kNoLine);
  }
  std::memset(buffer, 0, static_cast<size_t>(length));
  if (sock <= 0) return read_failure(sock, tls, TAV_EML_ERR_TRANSFER, kNoLine);
  long size = length - 1;
  const TAV_EML_RESULT result =
      tav_eml_mlutl_mail_net().recv_one_line(sock, buffer, size, 0, timeout, tls);
  if (result != TAV_EML_OK) return read_failure(sock, tls, transport_result(result), kNoLine);
  const long read = size - 1;
  if (read < 1) return read_failure(sock, tls, TAV_EML_ERR_TRANSFER, "recv_one_line No data");
  length = read;
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_command::ReadResponse(int& sock, char* buffer, long& length,
                                                  long timeout, TAV_EML_TLS_INFO& tls) {
  TAV_EML_RESULT result = read_status_line(sock, buffer, length, timeout, tls);
  if (result != TAV_EML_OK || ends_line(buffer, length)) return result;
  // The rest of a line that was cut would answer the next command.
  result = drain_line(sock, buffer[length - 1], 0, timeout, tls);
  return result == TAV_EML_OK ? result : read_failure(sock, tls, transport_result(result), kNoLine);
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
  if (sock <= 0) return fail(TAV_EML_ERR_TRANSFER);
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
