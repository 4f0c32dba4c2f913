// pop3_host.h - a POP3 server for tests and demonstrations (RFC 1939, CAPA by RFC 2449, STLS by
// RFC 2595).
//
// It is strict, because it is there to find faults: lines end in CR LF, words are parted by one
// blank, a command needs its state, PASS follows its USER at once. There is one mailbox, which
// every account opens, and no lock on it: a session keeps the messages that it found when it logged
// in.

#ifndef TESTS_SUPPORT_POP3_HOST_H
#define TESTS_SUPPORT_POP3_HOST_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "scripted_host.h"

namespace tav_test {

struct pop3_message {
  std::string uid;
  std::string data;  // exact bytes with CR LF lines; the dots of the transfer come on top
};

// Oldest first. Sessions share the messages, so that one which QUIT removes can still be read.
using pop3_mailbox = std::vector<std::shared_ptr<const pop3_message>>;

class pop3_host : public scripted_host {
 public:
  void account(const std::string& user, const std::string& password);
  // APOP is a comparison of digests, so that the host needs no MD5: `digest` is that of the stamp
  // and the password, in lower case. Without one APOP is refused.
  void expect_apop(const std::string& user, const std::string& digest);

  // What the greeting ends with, angle brackets included; "" leaves it out.
  void stamp(const std::string& text) { m_stamp = text; }
  const std::string& stamp() const { return m_stamp; }
  // The lines of the reply to CAPA; under TLS they are the same without STLS. STLS works when it is
  // announced.
  void capabilities(const std::vector<std::string>& lines) { m_capabilities = lines; }

  void add(const std::string& uid, const std::string& data);
  // What is in the mailbox now; deleted messages leave it with QUIT.
  const pop3_mailbox& mailbox() const { return *m_mailbox; }
  void share_mailbox(std::shared_ptr<pop3_mailbox> box) { m_mailbox = std::move(box); }

  std::unique_ptr<mail_peer> accept() override;

 private:
  friend class pop3_session;

  bool announces(const std::string& capability) const;

  std::map<std::string, std::string> m_passwords, m_digests;  // by user
  std::string m_stamp = "<4711.0815@mail.example>";
  std::vector<std::string> m_capabilities = {"USER", "UIDL", "TOP"};
  std::shared_ptr<pop3_mailbox> m_mailbox = std::make_shared<pop3_mailbox>();
};

}  // namespace tav_test

#endif
