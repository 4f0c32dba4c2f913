// record_heads.h - looks at the TLS records of a server on their way in.
//
// For TLS libraries that decline a renegotiation and go on, or that take a request for one during a
// handshake for an error: it is to be ignored there (RFC 5246, 7.4.1.1), but not for ever.

#ifndef RECORD_HEADS_H
#define RECORD_HEADS_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

class record_heads {
 public:
  enum class fault { none, not_tls, renegotiation };

  fault found() const { return m_nFault; }

  // From now on a record of a handshake is a renegotiation.
  void end_handshake() { m_isEstablished = true; }

  // Bytes for the TLS library, from `fetch(room, length)`: above 0 so many came, any other result
  // is handed on. -1 once there is a fault.
  template <typename Fetch>
  int receive(Fetch&& fetch, unsigned char* data, size_t length) {
    if (m_nBody == 0 && m_nHanded == m_nCame) m_nCame = m_nHanded = 0;
    if (m_nHanded == 0) {
      const int result = fetch_head(fetch);
      if (result <= 0) return result;
    }
    if (m_nHanded < m_nCame) {
      const size_t count = std::min(length, m_nCame - m_nHanded);
      std::memcpy(data, &m_aHead[m_nHanded], count);
      m_nHanded += count;
      return static_cast<int>(count);
    }
    const int count = fetch(data, std::min(length, m_nBody));
    if (count > 0) m_nBody -= static_cast<size_t>(count);
    return count;
  }

 private:
  static constexpr size_t kHead = 5;  // type, version, length
  static constexpr unsigned char kHandshake = 22;

  // How much of a record is looked at: four bytes of a handshake may be a HelloRequest.
  size_t wanted() const {
    if (m_nCame < kHead) return kHead;
    const bool is_short = m_aHead[3] == 0 && m_aHead[4] == 4;
    return m_aHead[0] == kHandshake && is_short ? m_aHead.size() : kHead;
  }

  bool is_hello_request() const {
    return m_nCame == m_aHead.size() && std::count(&m_aHead[kHead], m_aHead.end(), 0) == 4;
  }

  // Of a head that is there.
  fault judge() {
    const bool is_known = m_aHead[0] >= 20 && m_aHead[0] <= 23 && m_aHead[1] == 3;
    if (!is_known) return fault::not_tls;
    if (m_aHead[0] == kHandshake && m_isEstablished) return fault::renegotiation;
    return is_hello_request() && ++m_nRequests > 1 ? fault::renegotiation : fault::none;
  }

  template <typename Fetch>
  int fetch_head(Fetch&& fetch) {
    while (m_nCame < wanted()) {
      const int count = fetch(&m_aHead[m_nCame], wanted() - m_nCame);
      if (count <= 0) return count;
      m_nCame += static_cast<size_t>(count);
      if (m_nCame < kHead) continue;
      m_nFault = judge();
      if (m_nFault != fault::none) return -1;
      if (is_hello_request()) m_nCame = 0;
    }
    m_nBody = (static_cast<size_t>(m_aHead[3]) << 8 | m_aHead[4]) + kHead - m_nCame;
    return static_cast<int>(m_nCame);
  }

  std::array<unsigned char, kHead + 4> m_aHead = {};  // of the next record
  size_t m_nCame = 0;                                 // bytes of it that are there
  size_t m_nHanded = 0;                               // and that have been handed out
  size_t m_nBody = 0;                                 // bytes of the record that follow
  int m_nRequests = 0;
  bool m_isEstablished = false;
  fault m_nFault = fault::none;
};

#endif
