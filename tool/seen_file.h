// seen_file.h - which mails have been received, kept between runs.

#ifndef SEEN_FILE_H
#define SEEN_FILE_H

#include <sys/types.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace tavmail {

// A mail by its unique id. Several mails may have the same one (RFC 1939 7); they are told apart by
// the order in which the server numbers them, from 1.
using mail_key = std::pair<std::string, int>;

// A text file: one line "STATE UID" for each mail, and the number of the copy as a third word for
// all but the first one of a unique id. STATE is 0 for a mail that was received, "delete" for one
// that is also to go from the server, otherwise how often it was begun and not finished, or "new"
// for one that is there and was not begun. The last line of a mail counts; a line without its end
// was cut off by a crash and does not.
//
// A run writes a new file, renames it into place and appends its lines to it: no link can lead it
// astray, and what it costs grows with the mails and not with their square. A lock keeps a second
// process away.
class seen_file {
 public:
  // Opens and reads the file, which need not exist; then the file `old` is renamed to it, if there
  // is one. Throws a problem, as everything here that writes.
  explicit seen_file(const std::string& path, const std::string& old = {});
  // Only looks at it, or at `old` where it does not exist: nothing is locked, made or written.
  static seen_file look_at(const std::string& path, const std::string& old);
  seen_file(const seen_file&) = delete;
  seen_file& operator=(const seen_file&) = delete;
  ~seen_file();

  // Forgets mails that the server has no longer, given how many it has of each unique id. Where
  // copies are gone, those that were received are taken for them: none is lost then.
  void keep(const std::map<std::string, int>& copies);

  bool is_received(const mail_key& mail) const;
  bool is_given_up(const mail_key& mail) const { return tries(mail) >= kMostTries; }
  // It was received and is to go from the server.
  bool is_to_go(const mail_key& mail) const;
  // Times that it was begun and not finished.
  int tries(const mail_key& mail) const;

  // A mail is about to be read; it was read, and is to go or not; it was not, and it is not the
  // mail's fault. What was read stays read after a crash of the machine.
  void begin(const mail_key& mail);
  void finish(const mail_key& mail, bool is_to_go);
  void cancel(const mail_key& mail);

  // The end of a run: forgets the mails that were deleted, and leaves one line for each other.
  void settle(std::vector<mail_key> deleted);

  static constexpr int kMostTries = 3;

 private:
  struct looking {};
  seen_file(const std::string& path, looking) : m_path(path) { read(); }

  void take_over(const std::string& old) const;
  void read();
  bool read_line(const std::string& line);
  void write();
  void append(const mail_key& mail);
  int state(const mail_key& mail) const;
  int& state_of(const mail_key& mail);

  const std::string m_path;
  int m_lock = -1;
  int m_file = -1;     // the file that this run has written; -1 before it is needed
  off_t m_end = 0;     // where its next line goes
  bool m_tidy = true;  // every line of the file counts, and is still right
  std::map<std::string, std::vector<int>> m_states;  // of the copies, by unique id
};

}  // namespace tavmail

#endif
