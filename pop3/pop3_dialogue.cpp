#include "pop3_dialogue.h"

#include <cstring>

#include "common/guard.h"
#include "common/log.h"
#include "pop3_log.h"

namespace quorvelmida {

namespace {

// The transport's code in the library's range.
TAV_EML_RESULT outward(TAV_EML_RESULT result) {
  return static_cast<TAV_EML_RESULT>((static_cast<unsigned int>(result) & 0xFFFFU) | 0x51070000U);
}

}  // namespace

const protocol_rules kPop3Rules = {
    &outward,
    true,  // the handle tells the caller that the connection is lost
    &pop3_failure,
    {"connect_start", "connect error"},
    {"WriteUntil", "send_data error"},
    {"WriteUntil", "send_data error"},
    {},  // only lines are read
    {"ReadResponse", "recv_one_line error"},
};

TAV_EML_RESULT pop3_connection::read_reply(char* buffer, long& length, line_rest rest) {
  if (buffer == nullptr || length < 1) return fail(TAV_EML_ERR_UNKNOWN, kPop3Rules.read_line);
  std::memset(buffer, 0, static_cast<size_t>(length));
  long size = length - 1;
  const TAV_EML_RESULT result =
      rest == line_rest::dropped ? read_whole_line(buffer, size) : read_line(buffer, size);
  if (result != TAV_EML_OK) return result;
  length = size - 1;
  constexpr protocol_rules::step kNoData = {"ReadResponse", "recv_one_line No data"};
  return length > 0 ? TAV_EML_OK : fail(TAV_EML_ERR_TRANSFER, kNoData);
}

TAV_EML_RESULT pop3_connection::read_reply(utl_buffer& reply, line_rest rest) {
  long length = kPop3BufferSize;
  const TAV_EML_RESULT result = read_reply(reply.data(), length, rest);
  reply.set_length(result == TAV_EML_OK ? length : 0);
  return result;
}

bool make_reply_buffer(const char* operation, utl_buffer& reply) {
  if (guarded(operation, false, [&] { return reply.allocate_uncleared(kPop3BufferSize - 1); })) {
    return true;
  }
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_command::%s(): MemAllocate returns NULL: Line%d\n",
                    operation, __LINE__);
  return false;
}

bool is_positive(const utl_buffer& reply) { return std::strstr(reply.data(), "+OK") != nullptr; }

}  // namespace quorvelmida
