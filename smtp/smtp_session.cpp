#include "smtp_session.h"

#include <cstring>
#include <new>

#include "common/guard.h"
#include "smtp_log.h"
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

TAV_EML_RESULT no_memory(const char* step) {
  return command_failure(kName, step, TAV_EML_ERR_NO_MEMORY);
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
  if (block == nullptr) return no_memory(" : MemAlloc1 NG");
  session.reset(new (block) ntssmtp_fileptr());
  session->send_buffer = allocate_buffer();
  if (session->send_buffer == nullptr) return no_memory(" : MemAlloc2 NG");
  session->recv_buffer = allocate_buffer();
  return session->recv_buffer != nullptr ? TAV_EML_OK : no_memory(" : MemAlloc3 NG");
}

bool has_buffers(const ntssmtp_fileptr& session) {
  return session.send_buffer != nullptr && session.recv_buffer != nullptr;
}

bool is_usable(const tav_eml_smtp_settings* settings, const ntssmtp_fileptr* session,
               const char* operation, const char* no_session, const char* no_buffer) {
  const bool is_given = settings != nullptr && session != nullptr;
  if (is_given && has_buffers(*session)) return true;
  command_failure(operation, is_given ? no_buffer : no_session, TAV_EML_ERR_UNKNOWN);
  return false;
}

}  // namespace quorvelmida
