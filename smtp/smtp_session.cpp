#include "smtp_session.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "common/guard.h"
#include "common/log.h"
#include "transport/connection.h"
#include "utl_os.h"

namespace quorvelmida {

namespace {

constexpr char kName[] = "tav_eml_smtp_connect_start";

char* allocate_buffer() {
  void* block = allocate_block(kName, SMTP_BUFFER_SIZE);
  if (block != nullptr) std::memset(block, 0, SMTP_BUFFER_SIZE);
  return static_cast<char*>(block);
}

}  // namespace

void close_connection(ntssmtp_fileptr& session) {
  close_connection(session.sock, session.tls_info);
}

void session_deleter::operator()(ntssmtp_fileptr* session) const {
  close_connection(*session);
  UtlOS::MemFree(session->send_buffer);
  UtlOS::MemFree(session->recv_buffer);
  UtlOS::MemFree(session);
}

TAV_EML_RESULT make_session(session_owner& session) {
  void* block = allocate_block(kName, sizeof(ntssmtp_fileptr));
  if (block == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_connect_start : MemAlloc1 NG[Error]\n");
    return TAV_EML_ERR_NO_MEMORY;
  }
  session.reset(new (block) ntssmtp_fileptr());
  session->send_buffer = allocate_buffer();
  if (session->send_buffer == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_connect_start : MemAlloc2 NG[Error]\n");
    return TAV_EML_ERR_NO_MEMORY;
  }
  session->recv_buffer = allocate_buffer();
  if (session->recv_buffer == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_command::tav_eml_smtp_connect_start : MemAlloc3 NG[Error]\n");
    return TAV_EML_ERR_NO_MEMORY;
  }
  return TAV_EML_OK;
}

long timeout_ms(const tav_eml_smtp_settings& settings) {
  const int64_t milliseconds = static_cast<int64_t>(settings.timeout) * 1000;
  return static_cast<long>(std::clamp<int64_t>(milliseconds, 0, INT_MAX));
}

bool is_usable(const tav_eml_smtp_settings* settings, const ntssmtp_fileptr* session,
               const char* null_message, const char* buffer_message) {
  if (settings == nullptr || session == nullptr) {
    TAV_EML_LOG_ERROR("%s", null_message);
    return false;
  }
  if (session->send_buffer == nullptr || session->recv_buffer == nullptr) {
    TAV_EML_LOG_ERROR("%s", buffer_message);
    return false;
  }
  return true;
}

}  // namespace quorvelmida
