// tav_eml_result.h - result codes of the library.

#ifndef TAV_EML_RESULT_H
#define TAV_EML_RESULT_H

#include <cstdint>

namespace quorvelmida {

// The library-wide result: TAV_EML_OK or a code of the form 0x5107NNNN.
enum TAV_EML_RESULT : int32_t {
  TAV_EML_OK = 0x00000000,
  // A bad or missing parameter; a host name that does not resolve or has no address; an empty
  // server name; a value that does not fit its command line or contains a control character.
  TAV_EML_ERR_PARAM = 0x51071101,
  // The server refused the login, or there is no user id.
  TAV_EML_ERR_AUTH = 0x51071102,
  // A message without any recipient.
  TAV_EML_ERR_NO_RCPT = 0x51071104,
  // The sender address is missing or empty.
  TAV_EML_ERR_NO_FROM = 0x51071106,
  // The TCP connect failed.
  TAV_EML_ERR_CONNECT = 0x51072101,
  // The TCP connect timed out.
  TAV_EML_ERR_CONNECT_TIMEOUT = 0x51072102,
  // A send or receive failed.
  TAV_EML_ERR_TRANSFER = 0x51072201,
  // A send or receive timed out.
  TAV_EML_ERR_TRANSFER_TIMEOUT = 0x51072202,
  // The data sent so far reached the configured mail size limit.
  TAV_EML_ERR_SIZE_LIMIT = 0x51072204,
  // A negative (permanent) or unintelligible server reply; a connection that ended within a reply.
  TAV_EML_ERR_REPLY = 0x51073101,
  // A server reply that begins with "4": a temporary failure; try again later.
  TAV_EML_ERR_REPLY_TEMPORARY = 0x51073102,
  // No usable authentication method, or an unknown authentication kind.
  TAV_EML_ERR_AUTH_METHOD = 0x51073201,
  // TLS could not be initialised; with _RESOURCE, memory or another resource was missing.
  TAV_EML_ERR_TLS_INIT = 0x51074801,
  TAV_EML_ERR_TLS_INIT_RESOURCE = 0x51074802,
  // The TLS handshake failed; with _REFUSED, the server's certificate was refused.
  TAV_EML_ERR_TLS_CONNECT = 0x51074803,
  TAV_EML_ERR_TLS_CONNECT_REFUSED = 0x51074804,
  // An operation that needs a connection found none.
  TAV_EML_ERR_NOT_CONNECTED = 0x51075101,
  // A memory allocation failed.
  TAV_EML_ERR_NO_MEMORY = 0x51077101,
  // Socket creation, scope setting or socket shutdown failed.
  TAV_EML_ERR_SOCKET = 0x51077102,
  // Any other failure.
  TAV_EML_ERR_UNKNOWN = 0x5107720F,
};

// Result of the receive parser.
enum TAV_EML_UTL_RETCODE : int32_t {
  TAV_EML_UTL_OK = 0,
  TAV_EML_UTL_ERROR = 1,          // wrong mail structure, decode failure, bad argument
  TAV_EML_UTL_NOT_CONNECTED = 2,  // the socket passed is 0
  TAV_EML_UTL_BAD_REPLY = 3,      // reply or line not usable
  TAV_EML_UTL_NO_MEMORY = 4,
  TAV_EML_UTL_RECV_ERROR = 5,  // receiving failed; the connection has been closed
};

}  // namespace quorvelmida

#endif
