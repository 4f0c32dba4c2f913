// smtp_host.h - an SMTP server for tests and demonstrations (RFC 5321, STARTTLS by RFC 3207).
//
// It is strict, because it is there to find faults: lines end in CR LF, commands keep their order,
// a message ends with CR LF dot CR LF and nothing else.

#ifndef TESTS_SUPPORT_SMTP_HOST_H
#define TESTS_SUPPORT_SMTP_HOST_H

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "scripted_host.h"

namespace tav_test {

struct smtp_message {
  size_t connection = 0;
  std::string helo;  // as the client named itself
  bool tls = false;
  bool authenticated = false;
  std::string from;
  std::vector<std::string> to;
  std::string data;  // exact bytes with the dots of the transfer undone
};

class smtp_host : public scripted_host {
 public:
  // Points of the script besides the commands: the reply to a message, and the replies to the
  // lines with which a client answers the challenges (3xx) of AUTH.
  static constexpr const char* end_of_data = "(end of data)";
  static constexpr const char* auth_answer = "(auth answer)";

  struct request {
    size_t connection;
    bool tls;
    std::string argument;  // what follows the verb, or the whole answer; without its line end
  };
  using handler = std::function<std::string(const request&)>;

  // The lines of the reply to EHLO behind the host's name. Under TLS they are the same without
  // STARTTLS unless they are set apart. STARTTLS works when it is announced.
  void capabilities(const std::vector<std::string>& lines);
  void capabilities_under_tls(const std::vector<std::string>& lines);
  void name(const std::string& host_name) { m_name = host_name; }
  // Larger messages are refused with 552. Announce "SIZE n" apart from it.
  void size_limit(size_t bytes) { m_sizeLimit = bytes; }

  // Gives the reply to a command that the host does not know itself, or to `auth_answer`. A reply
  // 3xx to AUTH makes the next line an answer, a 2xx authenticates the session. Without a handler
  // AUTH is refused, unless the script has replies to it.
  void handle(const std::string& verb, handler answer);

  // Accepted messages.
  const std::vector<smtp_message>& messages() const { return m_messages; }
  // For a host that runs long: messages go to `store` instead. It is asked before the reply, so
  // that a message it cannot keep (false) is refused with 451 and not lost.
  void on_message(std::function<bool(const smtp_message&)> store) { m_store = std::move(store); }

  std::unique_ptr<mail_peer> accept() override;

 private:
  friend class smtp_session;

  const std::vector<std::string>& announced(bool tls) const;

  std::string m_name = "mail.example";
  std::vector<std::string> m_capabilities;
  std::vector<std::string> m_capabilitiesUnderTls;
  bool m_tlsSetApart = false;
  size_t m_sizeLimit = size_t{64} << 20;
  std::map<std::string, handler> m_handlers;
  std::vector<smtp_message> m_messages;
  std::function<bool(const smtp_message&)> m_store;
};

}  // namespace tav_test

#endif
