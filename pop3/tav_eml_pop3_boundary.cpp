#include "quorvelmida/tav_eml_pop3_boundary.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "pop3_log.h"
#include "quorvelmida/tav_eml_pop3_command.h"
#include "utl_os.h"

namespace quorvelmida {

namespace {

constexpr size_t kReadBufferSize = 4096;

template <typename Type>
Type* allocate_zeroed(size_t size) {
  void* block = allocate_block("tav_eml_pop3_boundary", size);
  if (block != nullptr) std::memset(block, 0, size);
  return static_cast<Type*>(block);
}

TAV_EML_RESULT not_connected(const char* operation) {
  return pop3_boundary_failure(operation, " not connected", TAV_EML_ERR_NOT_CONNECTED);
}

}  // namespace

tav_eml_pop3_boundary::tav_eml_pop3_boundary(const tav_eml_pop3_settings& settings)
    : m_nSock(0),
      m_nReserved(0),
      m_pPOP3Settings(&settings),
      m_nMailCount(0),
      m_pTLSInfo(allocate_zeroed<TAV_EML_TLS_INFO>(sizeof(TAV_EML_TLS_INFO))),
      m_pReadBuffer(allocate_zeroed<char>(kReadBufferSize)),
      m_pReceive(new (std::nothrow) tav_eml_mlutl_receive) {
  if (m_pReceive == nullptr) {
    TAV_EML_LOG_ERROR(
        "tav_eml_pop3_boundary[constructor], creation of tav_eml_mlutl_receive object failed\n");
  }
}

tav_eml_pop3_boundary::~tav_eml_pop3_boundary() {
  if (is_connected()) close_mail();
  delete m_pReceive;
  UtlOS::MemFree(m_pTLSInfo);
  UtlOS::MemFree(m_pReadBuffer);
}

bool tav_eml_pop3_boundary::is_connected() const { return m_nSock > 0; }

// False when the constructor ran out of memory.
bool tav_eml_pop3_boundary::is_complete() const {
  return m_pTLSInfo != nullptr && m_pReadBuffer != nullptr && m_pReceive != nullptr &&
         m_pReceive->is_ready();
}

unsigned int tav_eml_pop3_boundary::timeout() const {
  return static_cast<unsigned int>(std::max<int32_t>(m_pPOP3Settings->m_nTimeout, 0));
}

TAV_EML_RESULT tav_eml_pop3_boundary::connect_mail() {
  if (is_connected()) return TAV_EML_OK;
  TAV_EML_RESULT result = TAV_EML_ERR_NO_MEMORY;
  if (is_complete()) {
    result = tav_eml_pop3_command::connect_start(m_pPOP3Settings, m_nSock, *m_pTLSInfo);
  }
  if (result != TAV_EML_OK)
    return pop3_boundary_called_failure("connect_mail", "connect_mailStart", result);
  m_pReceive->flush_buffer();
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_boundary::close_mail() {
  if (is_connected()) tav_eml_pop3_command::disconnect(m_pPOP3Settings, m_nSock, *m_pTLSInfo);
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_boundary::test() {
  TAV_EML_RESULT result = connect_mail();
  if (result != TAV_EML_OK) return pop3_boundary_called_failure("test", "connect_mail", result);
  result = close_mail();
  return result == TAV_EML_OK ? result : pop3_boundary_called_failure("test", "close_mail", result);
}

TAV_EML_RESULT tav_eml_pop3_boundary::stat(int& count) {
  int octets = 0;
  TAV_EML_RESULT result = TAV_EML_ERR_NO_MEMORY;
  if (is_complete()) {
    result = tav_eml_pop3_command::get_stat(m_pPOP3Settings, m_nSock, *m_pTLSInfo, octets, count);
  }
  return result == TAV_EML_OK ? result : pop3_boundary_called_failure("Stat", "get_stat", result);
}

TAV_EML_RESULT tav_eml_pop3_boundary::noop() {
  constexpr char kName[] = "noop";
  if (!is_connected()) {
    return pop3_boundary_failure(kName, " m_nSock is NULL", TAV_EML_ERR_NOT_CONNECTED);
  }
  const TAV_EML_RESULT result = tav_eml_pop3_command::noop(m_pPOP3Settings, m_nSock, *m_pTLSInfo);
  return result == TAV_EML_OK
             ? result
             : pop3_boundary_failure(kName, " noop error", TAV_EML_ERR_NOT_CONNECTED);
}

TAV_EML_RESULT tav_eml_pop3_boundary::delete_number(int number, const char* operation,
                                                    const char* called) {
  if (!is_connected()) return not_connected(operation);
  const TAV_EML_RESULT result =
      tav_eml_pop3_command::delete_mail(m_pPOP3Settings, m_nSock, *m_pTLSInfo, number);
  return result == TAV_EML_OK ? result : pop3_boundary_called_failure(operation, called, result);
}

TAV_EML_RESULT tav_eml_pop3_boundary::delete_mail(tav_eml_pop3_receive_mail& mail) {
  return delete_mail(mail.m_MailInfo.m_nMailNo);
}

TAV_EML_RESULT tav_eml_pop3_boundary::delete_mail(int number) {
  return delete_number(number, "delete_mail", "delete_mail");
}

TAV_EML_RESULT tav_eml_pop3_boundary::delete_mail_by_uid(tav_eml_pop3_mail_info_list& list,
                                                         tav_eml_pop3_receive_mail& mail) {
  const tav_eml_pop3_mail_info* entry = list.search_mail_info(mail.m_MailInfo);
  if (entry == nullptr) return TAV_EML_OK;
  return delete_number(entry->m_nMailNo, "delete_mail_by_uid", "Delete");
}

const tav_eml_mlutl_mail_address& tav_eml_pop3_boundary::ref_mail_address() const {
  return m_pPOP3Settings->m_MailAddress;
}

TAV_EML_RESULT tav_eml_pop3_boundary::convert_utl_retcode(TAV_EML_UTL_RETCODE code) {
  static constexpr TAV_EML_RESULT kResults[] = {
      TAV_EML_OK,        TAV_EML_ERR_UNKNOWN,   TAV_EML_ERR_NOT_CONNECTED,
      TAV_EML_ERR_REPLY, TAV_EML_ERR_NO_MEMORY, TAV_EML_ERR_UNKNOWN};
  const auto index = static_cast<unsigned int>(code);
  return index < sizeof kResults / sizeof *kResults ? kResults[index] : TAV_EML_ERR_UNKNOWN;
}

// What must hold before a message is asked for. The parser starts with nothing left from before.
TAV_EML_RESULT tav_eml_pop3_boundary::start_reading(tav_eml_pop3_receive_mail& mail,
                                                    const char* operation) {
  if (!is_connected()) return not_connected(operation);
  if (mail.m_nReceiving == 0) {
    return pop3_boundary_failure(operation, " no data.", TAV_EML_ERR_UNKNOWN);
  }
  m_pReceive->flush_buffer();
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_boundary::receive_header_only(tav_eml_pop3_receive_mail& mail, int) {
  constexpr char kName[] = "receive_header_only";
  TAV_EML_RESULT result = start_reading(mail, kName);
  if (result != TAV_EML_OK) return result;
  result = tav_eml_pop3_command::GetTop(m_pPOP3Settings, m_nSock, *m_pTLSInfo,
                                        mail.m_MailInfo.m_nMailNo);
  if (result != TAV_EML_OK) return pop3_boundary_called_failure(kName, "GetTop", result);
  return convert_utl_retcode(
      m_pReceive->receive_header_only(mail, m_nSock, timeout(), *m_pTLSInfo));
}

TAV_EML_RESULT tav_eml_pop3_boundary::receive_header(tav_eml_pop3_receive_mail& mail, int) {
  constexpr char kName[] = "receive_header";
  TAV_EML_RESULT result = start_reading(mail, kName);
  if (result != TAV_EML_OK) return result;
  UtlString rest;
  result = tav_eml_pop3_command::read_open(m_pPOP3Settings, m_nSock, *m_pTLSInfo,
                                           mail.m_MailInfo.m_nMailNo, rest);
  if (result != TAV_EML_OK) return pop3_boundary_called_failure(kName, "read_open", result);
  if (!rest.IsEmpty()) {
    // A reply line is shorter than this buffer.
    std::memcpy(m_pReadBuffer, rest.GetString(), rest.GetLength() + 1);
    m_pReceive->set_recv_buffer(m_pReadBuffer);
  }
  const auto limit = static_cast<unsigned long>(std::max<long>(mail.m_MailInfo.m_lSize, 0));
  return convert_utl_retcode(
      m_pReceive->receive_header(mail, m_nSock, timeout(), limit, *m_pTLSInfo));
}

TAV_EML_RESULT tav_eml_pop3_boundary::receive_body(tav_eml_pop3_receive_mail& mail) {
  if (!is_connected()) return not_connected("receive_body");
  return convert_utl_retcode(m_pReceive->receive_body(mail, m_nSock, timeout(), *m_pTLSInfo));
}

TAV_EML_RESULT tav_eml_pop3_boundary::receive_part_header(tav_eml_pop3_receive_mail& mail, int) {
  if (!is_connected()) return not_connected("receive_part_header");
  return convert_utl_retcode(
      m_pReceive->receive_part_header(mail, m_nSock, timeout(), *m_pTLSInfo));
}

TAV_EML_RESULT tav_eml_pop3_boundary::receive_part_body(tav_eml_pop3_receive_mail& mail) {
  if (!is_connected()) return not_connected("receive_part_body");
  return convert_utl_retcode(m_pReceive->receive_part_body(mail, m_nSock, timeout(), *m_pTLSInfo));
}

TAV_EML_RESULT tav_eml_pop3_boundary::skip_part(tav_eml_pop3_receive_mail& mail) {
  if (!is_complete()) return TAV_EML_ERR_NO_MEMORY;
  return convert_utl_retcode(m_pReceive->skip_part(mail, timeout(), m_nSock, *m_pTLSInfo));
}

TAV_EML_UTL_RETCODE tav_eml_pop3_boundary::skip_mail(tav_eml_pop3_receive_mail& mail) {
  if (!is_complete()) return TAV_EML_UTL_NO_MEMORY;
  return m_pReceive->skip_mail(mail, timeout(), m_nSock, *m_pTLSInfo);
}

}  // namespace quorvelmida
