// mail_store.h - a mail as it came, and where mails are kept until somebody fetches them.

#ifndef MAILHOST_MAIL_STORE_H
#define MAILHOST_MAIL_STORE_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace mailhost {

struct mail {
  std::string from;
  std::vector<std::string> to;
  std::string data;  // exact bytes, with the dots of the transfer undone
  std::string helo;  // as the client named itself
  std::string user;  // who logged in, or ""
  bool tls = false;
  size_t connection = 0;
};

// One mailbox, which every user opens.
class mail_store {
 public:
  struct entry {
    std::string uid;  // never used again for another mail; fits UIDL (RFC 1939, section 7)
    size_t size;      // octets as POP3 counts them: every line ends in CR LF
  };

  virtual ~mail_store() = default;

  // Where the mail is kept now, or nothing when that was not possible.
  virtual std::optional<std::string> keep(const mail& message) = 0;
  // Oldest first.
  virtual std::vector<entry> list() = 0;
  // The mail with CR LF at the end of every line, or nothing when it is gone.
  virtual std::optional<std::string> text(const std::string& uid) = 0;
  virtual void remove(const std::string& uid) = 0;
};

// Keeps mails in memory, for tests.
class memory_store : public mail_store {
 public:
  std::optional<std::string> keep(const mail& message) override;
  std::vector<entry> list() override;
  std::optional<std::string> text(const std::string& uid) override;
  void remove(const std::string& uid) override;

  void add(const std::string& uid, const std::string& data);
  // What is there now, with envelopes.
  std::vector<mail> mails() const;

 private:
  struct kept {
    std::string uid;
    mail message;
  };
  std::vector<kept>::iterator find(const std::string& uid);

  std::vector<kept> m_mails;
  size_t m_count = 0;
};

}  // namespace mailhost

#endif
