#include "quorvelmida/tav_eml_mlutl_mail_net.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "common/guard.h"
#include "common/log.h"
#include "tav_netsock.h"
#include "tlsw.h"

namespace quorvelmida {

namespace {

using address_info = tav_eml_mlutl_mail_net::TAV_EML_ADDR_INFO;

struct addrinfo_deleter {
  void operator()(tav_netsock_addrinfo* list) const { tav_netsock_freeaddrinfo(list); }
};
using addrinfo_list = std::unique_ptr<tav_netsock_addrinfo, addrinfo_deleter>;

// The layers below count in 32 bits whatever the size of long.
int32_t to_int32(long value) {
  return static_cast<int32_t>(std::clamp<long>(value, INT32_MIN, INT32_MAX));
}

bool is_link_local(const address_info& address) {
  return address.family == TAV_NETSOCK_INET6 && address.addr[0] == 0xFE &&
         (address.addr[1] & 0xC0) == 0x80;
}

bool to_address_info(const tav_netsock_addrinfo& entry, address_info& address) {
  address = {};
  address.family = entry.family;
  if (entry.family == TAV_NETSOCK_INET &&
      entry.addr_len >= static_cast<int32_t>(sizeof(tav_netsock_sockaddr_in))) {
    const auto* in = static_cast<const tav_netsock_sockaddr_in*>(entry.addr);
    std::memcpy(address.addr, in->addr, sizeof in->addr);
    return true;
  }
  if (entry.family == TAV_NETSOCK_INET6 &&
      entry.addr_len >= static_cast<int32_t>(sizeof(tav_netsock_sockaddr_in6))) {
    const auto* in6 = static_cast<const tav_netsock_sockaddr_in6*>(entry.addr);
    std::memcpy(address.addr, in6->addr, sizeof in6->addr);
    return true;
  }
  return false;
}

// A socket address of either family, as the socket layer wants it.
class socket_address {
 public:
  socket_address(const address_info& address, uint16_t port) {
    const uint8_t octets[2] = {static_cast<uint8_t>(port >> 8), static_cast<uint8_t>(port & 0xFF)};
    uint16_t network_port;
    std::memcpy(&network_port, octets, sizeof network_port);
    if (address.family == TAV_NETSOCK_INET) {
      m_in.family = TAV_NETSOCK_INET;
      m_in.port = network_port;
      std::memcpy(m_in.addr, address.addr, sizeof m_in.addr);
      m_pData = &m_in;
      m_nLength = sizeof m_in;
    } else {
      m_in6.family = TAV_NETSOCK_INET6;
      m_in6.port = network_port;
      std::memcpy(m_in6.addr, address.addr, sizeof m_in6.addr);
      m_pData = &m_in6;
      m_nLength = sizeof m_in6;
    }
  }
  socket_address(const socket_address&) = delete;
  socket_address& operator=(const socket_address&) = delete;

  void* data() { return m_pData; }
  int32_t length() const { return m_nLength; }

 private:
  tav_netsock_sockaddr_in m_in{};
  tav_netsock_sockaddr_in6 m_in6{};
  void* m_pData;
  int32_t m_nLength;
};

struct connect_outcome {
  const char* name;
  TAV_EML_RESULT result;
};

connect_outcome outcome_of(int32_t code) {
  if (code == TAV_NETSOCK_ERROR) return {"ERROR", TAV_EML_ERR_CONNECT};
  if (code == TAV_NETSOCK_TIMEOUT) return {"TIMEOUT", TAV_EML_ERR_CONNECT_TIMEOUT};
  return {"UNKNOWN", TAV_EML_ERR_UNKNOWN};
}

enum class attempt { connected, next_address, give_up };

// Tries one address. Any socket opened here is closed again unless it connected.
attempt connect_address(int* sock, const address_info& address, uint16_t port, long timeout,
                        tav_eml_mlutl_mail_net& net, TAV_EML_RESULT& result) {
  *sock = tav_netsock_socket(address.family, TAV_NETSOCK_STREAM, 0);
  if (*sock < 0) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]tav_netsock_socket returns %d\n", "connect_mail", *sock);
    result = TAV_EML_ERR_SOCKET;
    return attempt::give_up;
  }

  socket_address target(address, port);
  if (is_link_local(address)) {
    const int32_t scope = tav_netsock_set_scope(target.data(), target.length());
    if (scope != 0) {
      TAV_EML_LOG_ERROR("<Error>:%s:[Result]tav_netsock_set_scope returns %d\n", "connect_mail",
                        scope);
      net.close_socket(*sock);
      *sock = 0;
      result = TAV_EML_ERR_SOCKET;
      return attempt::give_up;
    }
  }

  const int32_t code =
      tav_netsock_connect_timeo(*sock, target.data(), target.length(), to_int32(timeout));
  if (code == 0) {
    result = TAV_EML_OK;
    return attempt::connected;
  }
  const connect_outcome outcome = outcome_of(code);
  result = outcome.result;
  TAV_EML_LOG_ERROR("<Error>:%s:[Result]tav_netsock_connect_timeo [%s]\n", "connect_mail",
                    outcome.name);
  net.close_socket(*sock);
  *sock = 0;
  return attempt::next_address;
}

// A direction of transfer: the calls of the platform, and what the log calls them.
template <typename Buffer>
struct direction {
  const char* operation;
  const char* tls_name;
  const char* socket_name;
  int32_t (*over_tls)(uint32_t session, Buffer* data, int32_t length, int32_t timeout,
                      int32_t* count);
  int32_t (*over_socket)(int32_t sock, Buffer* data, int32_t length, int32_t flags,
                         int32_t timeout);
};
constexpr direction<const void> kSend = {"send_data", "tlsw_write_timeo", "tav_netsock_send_timeo",
                                         &tlsw_write_timeo, &tav_netsock_send_timeo};
constexpr direction<void> kReceive = {"recv_data", "tlsw_read_timeo", "tav_netsock_recv_timeo",
                                      &tlsw_read_timeo, &tav_netsock_recv_timeo};

// A negative count is a failure. Only a socket's count says by its value what happened: the TLS
// calls have their own codes for that.
TAV_EML_RESULT count_failure(const char* operation, const char* function, bool is_socket,
                             int32_t count) {
  const char* cause = "UNKNOWN";
  TAV_EML_RESULT result = TAV_EML_ERR_UNKNOWN;
  if (is_socket && count == TAV_NETSOCK_TIMEOUT) {
    cause = "TIMEOUT";
    result = TAV_EML_ERR_TRANSFER_TIMEOUT;
  } else if (is_socket && count == TAV_NETSOCK_ERROR) {
    cause = "TRANSFER";
    result = TAV_EML_ERR_TRANSFER;
  }
  TAV_EML_LOG_ERROR("<Error>:%s:[Result]%s [%s]\n", operation, function, cause);
  return result;
}

// One call of the platform. `length` becomes the bytes moved.
template <typename Buffer>
TAV_EML_RESULT transfer(const direction<Buffer>& way, int sock, Buffer* data, long& length,
                        int flags, long timeout, const TAV_EML_TLS_INFO& tls) {
  const int32_t wanted = to_int32(length);
  const int32_t limit = to_int32(timeout);
  const bool is_socket = tls.tls_session == 0;
  int32_t count = 0;
  if (is_socket) {
    count = way.over_socket(sock, data, wanted, flags, limit);
  } else {
    const int32_t code = way.over_tls(tls.tls_session, data, wanted, limit, &count);
    if (code != TLSW_OK) {
      TAV_EML_LOG_ERROR("<Error>:%s: [Result]%s[0x%08lx]\n", way.operation, way.tls_name,
                        log_long_code(code));
      return code == TLSW_ERR_TIMEOUT ? TAV_EML_ERR_TRANSFER_TIMEOUT : TAV_EML_ERR_TRANSFER;
    }
  }
  if (count < 0) return count_failure(way.operation, way.socket_name, is_socket, count);
  length = count;
  return TAV_EML_OK;
}

}  // namespace

TAV_EML_RESULT tav_eml_mlutl_mail_net::get_ip_address(const char* host, int /*addr_selector*/,
                                                      std::vector<TAV_EML_ADDR_INFO>& addresses) {
  return guarded("get_ip_address", [&]() -> TAV_EML_RESULT {
    tav_netsock_addrinfo hints{};
    hints.family = TAV_NETSOCK_UNSPEC;
    hints.socket_type = TAV_NETSOCK_STREAM;
    hints.protocol = TAV_NETSOCK_TCP;
    tav_netsock_addrinfo* resolved = nullptr;
    if (host == nullptr || tav_netsock_getaddrinfo(host, nullptr, &hints, &resolved) != 0) {
      TAV_EML_LOG_ERROR("<Error>:%s:[Result]: tav_netsock_getaddrinfo()\n", "get_ip_address");
      return TAV_EML_ERR_PARAM;
    }
    const addrinfo_list list(resolved);

    bool has_link_local = false;
    TAV_EML_ADDR_INFO link_local{};
    for (const tav_netsock_addrinfo* entry = list.get(); entry != nullptr; entry = entry->next) {
      TAV_EML_ADDR_INFO address;
      if (!to_address_info(*entry, address)) continue;
      if (is_link_local(address)) {
        link_local = address;
        has_link_local = true;
      } else {
        addresses.push_back(address);
      }
    }
    // A link-local address works only on this link: it comes last.
    if (has_link_local) addresses.push_back(link_local);

    if (addresses.empty()) {
      TAV_EML_LOG_ERROR("<Error>:%s:[Result]no address about host name\n", "get_ip_address");
      return TAV_EML_ERR_PARAM;
    }
    return TAV_EML_OK;
  });
}

TAV_EML_RESULT tav_eml_mlutl_mail_net::connect_mail(int* sock, const char* host, uint16_t port,
                                                    long timeout, int addr_selector) {
  if (sock == nullptr) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]pSock is null\n", "connect_mail");
    return TAV_EML_ERR_PARAM;
  }
  return guarded("connect_mail", [&]() -> TAV_EML_RESULT {
    std::vector<TAV_EML_ADDR_INFO> addresses;
    const TAV_EML_RESULT resolved = get_ip_address(host, addr_selector, addresses);
    if (resolved != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("<Error>:%s:[Result]GetIpAddress [NG]\n", "connect_mail");
      return resolved == TAV_EML_ERR_NO_MEMORY ? resolved : TAV_EML_ERR_PARAM;
    }
    TAV_EML_RESULT result = TAV_EML_ERR_PARAM;
    for (const TAV_EML_ADDR_INFO& address : addresses) {
      if (connect_address(sock, address, port, timeout, *this, result) != attempt::next_address) {
        break;
      }
    }
    return result;
  });
}

TAV_EML_RESULT tav_eml_mlutl_mail_net::send_data(int sock, const void* buffer, long& length,
                                                 int flags, long timeout, TAV_EML_TLS_INFO& tls) {
  return transfer(kSend, sock, buffer, length, flags, timeout, tls);
}

TAV_EML_RESULT tav_eml_mlutl_mail_net::recv_data(int sock, void* buffer, long& length, int flags,
                                                 long timeout, TAV_EML_TLS_INFO& tls) {
  return transfer(kReceive, sock, buffer, length, flags, timeout, tls);
}

TAV_EML_RESULT tav_eml_mlutl_mail_net::recv_one_line(int sock, char* buffer, long& size, int flags,
                                                     long timeout, TAV_EML_TLS_INFO& tls) {
  if (buffer == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::RecvOneLine : pBuffer == 0[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }
  if (size <= 1) {
    // No room for a byte and its NUL: the end of the room would never be met.
    TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::RecvOneLine : size <= 1[Error]\n");
    return TAV_EML_ERR_UNKNOWN;
  }

  long stored = 0;
  do {
    long count = 1;
    const TAV_EML_RESULT result = recv_data(sock, buffer + stored, count, flags, timeout, tls);
    if (result != TAV_EML_OK) {
      TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::RecvOneLine : RecvData returns [0x%08lx][Error]\n",
                        log_long_code(result));
      return result;
    }
    if (count < 1) {
      TAV_EML_LOG_ERROR("tav_eml_mlutl_mail_net::%s no data...(buf_size)[Error]\n",
                        "recv_one_line");
      return TAV_EML_ERR_REPLY;
    }
    ++stored;
  } while (stored < size - 1 &&
           !(stored >= 2 && buffer[stored - 1] == '\n' && buffer[stored - 2] == '\r'));

  buffer[stored] = '\0';
  size = stored + 1;
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_mlutl_mail_net::start_tls(int sock, unsigned int timeout,
                                                 TAV_EML_TLS_INFO& tls) {
  uint32_t context = 0;
  const int32_t init = tlsw_init(&context);
  if (init == TLSW_ERR_NO_MEMORY || init == TLSW_ERR_NO_RESOURCE) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]: tlsw_init[%lx]\n", "start_tls", log_long_code(init));
    return TAV_EML_ERR_TLS_INIT_RESOURCE;
  }
  if (init != TLSW_OK) {
    TAV_EML_LOG_ERROR("<Error_2>:%s:[Result]: tlsw_init[%lx]\n", "start_tls", log_long_code(init));
    return TAV_EML_ERR_TLS_INIT;
  }

  TLSW_CONNECT_PARAM param{};
  param.sock = sock;
  param.timeout_ms = timeout;
  param.option[0] = tls.tls_opt0 == 1 ? 1 : 0;
  // The wrapper wants the option bytes in this crossed order.
  param.option[1] = tls.tls_opt2;
  param.option[2] = tls.tls_opt3;
  param.option[3] = tls.tls_opt1;
  param.option[4] = tls.tls_opt4;

  uint32_t session = 0;
  const int32_t code = tlsw_connect_timeo(context, &param, &session);
  if (code != TLSW_OK) {
    TAV_EML_LOG_ERROR("<Error>:%s:[Result]: tlsw_connect_timeo[%lx]\n", "start_tls",
                      log_long_code(code));
    tlsw_term(context);
    return code == TLSW_ERR_CERTIFICATE ? TAV_EML_ERR_TLS_CONNECT_REFUSED : TAV_EML_ERR_TLS_CONNECT;
  }
  tls.tls_ctx = context;
  tls.tls_session = session;
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_mlutl_mail_net::end_tls(TAV_EML_TLS_INFO& tls) {
  if (tls.tls_session != 0) {
    const int32_t code = tlsw_shutdown(tls.tls_session);
    if (code != TLSW_OK) {
      TAV_EML_LOG_ERROR("<Error>:%s:[Result]: tlsw_shutdown[%lx]\n", "end_tls",
                        log_long_code(code));
    }
    tls.tls_session = 0;
  }
  if (tls.tls_ctx != 0) {
    const int32_t code = tlsw_term(tls.tls_ctx);
    if (code != TLSW_OK) {
      TAV_EML_LOG_ERROR("<Error>:%s:[Result]: tlsw_term[%lx]\n", "end_tls", log_long_code(code));
    }
    tls.tls_ctx = 0;
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_mlutl_mail_net::close_socket(int sock) {
  switch (tav_netsock_shutdown(sock)) {
    case 0:
      tav_netsock_close(sock);
      return TAV_EML_OK;
    case -1:
      TAV_EML_LOG_ERROR("<Error>:%s:[Result]tav_netsock_shutdown [SOCKET]\n", "close_socket");
      tav_netsock_close(sock);
      return TAV_EML_ERR_SOCKET;
    default:
      TAV_EML_LOG_ERROR("<Error>:%s:[Result]tav_netsock_shutdown [UNKNOWN]\n", "close_socket");
      return TAV_EML_ERR_UNKNOWN;
  }
}

}  // namespace quorvelmida
