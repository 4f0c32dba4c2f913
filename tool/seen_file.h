// seen_file.h - which mails have been received, kept between runs.

#ifndef SEEN_FILE_H
#define SEEN_FILE_H

#include <map>
#include <string>
#include <vector>

#include "quorvelmida/tav_eml_pop3_mail_info_list.h"

namespace tavmail {

// A text file: one line "TRIES UID" for each mail, in the order in which the server numbered them;
// TRIES is 0 for a mail that was received and otherwise counts how often it was begun and not
// finished. It is written anew as a whole and renamed into place, so that it is never half of it.
// A lock keeps a second process away.
class seen_file {
 public:
  // Opens and reads the file, which need not exist. Throws a problem.
  explicit seen_file(const std::string& path);
  seen_file(const seen_file&) = delete;
  seen_file& operator=(const seen_file&) = delete;
  ~seen_file();

  // The mails that were known, for a list of the library. A mail that was begun less than
  // kMostTries times waits again.
  void fill(quorvelmida::tav_eml_pop3_mail_info_list& list) const;
  size_t size() const { return m_cUids.size(); }

  // A mail is about to be read; it was read; it was not, and it is not the mail's fault.
  void begin(const std::string& uid);
  void finish(const std::string& uid);
  void cancel(const std::string& uid);

  // Keeps what the list still has, and writes the file. Throws a problem.
  void keep(const quorvelmida::tav_eml_pop3_mail_info_list& list);

  // Times that a mail was begun and not finished.
  int tries(const std::string& uid) const;

  static constexpr int kMostTries = 3;

 private:
  void read();
  void write() const;

  const std::string m_cPath;
  int m_nLock = -1;
  std::vector<std::string> m_cUids;     // in order
  std::map<std::string, int> m_cTries;  // by unique id
};

// The file of an account: $XDG_STATE_HOME/tavmail/USER@HOST.seen. Throws a problem.
std::string default_seen_path(const std::string& user, const std::string& server);

}  // namespace tavmail

#endif
