#include "transport/connection.h"

#include <algorithm>
#include <climits>

#include "common/log.h"
#include "common/text.h"

namespace quorvelmida {

long to_milliseconds(int64_t seconds) {
  return static_cast<long>(std::clamp<int64_t>(seconds * 1000, 0, INT_MAX));
}

void close_connection(int& sock, TAV_EML_TLS_INFO& tls) {
  tav_eml_mlutl_mail_net net;
  net.end_tls(tls);
  if (sock > 0) net.close_socket(sock);
  sock = 0;
}

TAV_EML_RESULT tls_result(TAV_EML_RESULT result) {
  switch (result) {
    case TAV_EML_ERR_TLS_INIT:
    case TAV_EML_ERR_TLS_INIT_RESOURCE:
    case TAV_EML_ERR_TLS_CONNECT:
    case TAV_EML_ERR_TLS_CONNECT_REFUSED:
      return result;
    default:
      return TAV_EML_ERR_UNKNOWN;
  }
}

TAV_EML_RESULT connection::fail(TAV_EML_RESULT result, const protocol_rules::step& step) {
  if (m_cRules.closes_on_failure) close();
  return step.text != nullptr ? m_cRules.log(step.operation, step.text, result) : result;
}

TAV_EML_RESULT connection::open(const mail_server& server) {
  if (server.tls_mode != kPlain) {
    m_cTls.tls_opt0 = server.tls_options[0];
    m_cTls.tls_opt1 = server.tls_options[1];
    m_cTls.tls_opt2 = server.tls_options[2];
    m_cTls.tls_opt3 = server.tls_options[3];
    m_cTls.tls_opt4 = server.tls_options[4];
  }
  TAV_EML_RESULT result = tav_eml_mlutl_mail_net().connect_mail(
      &m_nSock, server.host, static_cast<uint16_t>(server.port), m_lTimeout, server.addr_selector);
  if (result != TAV_EML_OK) return fail(m_cRules.outward(result), m_cRules.connect);
  if (server.tls_mode != kImplicitTls) return TAV_EML_OK;

  result = start_tls();
  if (result == TAV_EML_OK) return TAV_EML_OK;
  TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::start_tls NG[%d]\n", static_cast<int>(result));
  return tls_result(result);
}

TAV_EML_RESULT connection::send_some(const void* data, long& count) {
  if (is_lost()) return fail(TAV_EML_ERR_TRANSFER, m_cRules.send);
  const TAV_EML_RESULT result =
      tav_eml_mlutl_mail_net().send_data(m_nSock, data, count, m_nFlags, m_lSendTimeout, m_cTls);
  return result == TAV_EML_OK ? result : fail(m_cRules.outward(result), m_cRules.send);
}

TAV_EML_RESULT connection::receive_some(void* data, long& count) {
  const TAV_EML_RESULT result =
      tav_eml_mlutl_mail_net().recv_data(m_nSock, data, count, m_nFlags, m_lTimeout, m_cTls);
  return result == TAV_EML_OK ? result : fail(m_cRules.outward(result), m_cRules.receive);
}

TAV_EML_RESULT connection::send_all(const void* data, long length) {
  const char* bytes = static_cast<const char*>(data);
  while (length > 0) {
    long count = length;
    const TAV_EML_RESULT result = send_some(bytes, count);
    if (result != TAV_EML_OK) return result;
    if (count < 1) return fail(TAV_EML_ERR_TRANSFER, m_cRules.nothing_sent);
    bytes += count;
    length -= count;
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT connection::read_line(char* buffer, long& size) {
  if (is_lost()) return fail(TAV_EML_ERR_TRANSFER, m_cRules.read_line);
  const TAV_EML_RESULT result =
      tav_eml_mlutl_mail_net().recv_one_line(m_nSock, buffer, size, m_nFlags, m_lTimeout, m_cTls);
  return result == TAV_EML_OK ? result : fail(m_cRules.outward(result), m_cRules.read_line);
}

TAV_EML_RESULT connection::read_whole_line(char* buffer, long& size) {
  TAV_EML_RESULT result = read_line(buffer, size);
  if (result != TAV_EML_OK || ends_line({buffer, static_cast<size_t>(size - 1)})) return result;
  result = drop_line(buffer[size - 2]);
  return result == TAV_EML_OK ? result : fail(result, m_cRules.read_line);
}

TAV_EML_RESULT connection::drop_line(char last) {
  constexpr long kMostDropped = 65536;
  for (long dropped = 0; dropped < kMostDropped; ++dropped) {
    char byte = 0;
    long count = 1;
    const TAV_EML_RESULT result =
        tav_eml_mlutl_mail_net().recv_data(m_nSock, &byte, count, m_nFlags, m_lTimeout, m_cTls);
    if (result != TAV_EML_OK) return m_cRules.outward(result);
    if (count < 1) break;
    if (last == '\r' && byte == '\n') return TAV_EML_OK;
    last = byte;
  }
  TAV_EML_LOG_ERROR("<Error>:%s:[Result]reply line without end\n", "drain_line");
  return TAV_EML_ERR_REPLY;
}

TAV_EML_RESULT connection::start_tls() {
  return tav_eml_mlutl_mail_net().start_tls(m_nSock, static_cast<unsigned int>(m_lTimeout), m_cTls);
}

void connection::end_tls() { tav_eml_mlutl_mail_net().end_tls(m_cTls); }

void connection::close_socket() {
  tav_eml_mlutl_mail_net().close_socket(m_nSock);
  m_nSock = 0;
}

}  // namespace quorvelmida
