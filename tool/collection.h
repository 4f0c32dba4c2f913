// collection.h - one run over a mailbox.

#ifndef COLLECTION_H
#define COLLECTION_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mail_folder.h"
#include "mail_store.h"
#include "mailbox_options.h"
#include "mailbox_visit.h"
#include "picking.h"
#include "problem.h"
#include "received_mail.h"
#include "seen_file.h"

namespace tavmail {

// What is wanted of a run.
struct collection_options {
  mailbox_options mailbox;
  picking picks;
  std::string folder;  // "": only the headers
  mail_format format = mail_format::parts;
  std::string pipe;      // a command that each mail is handed to; "" for none
  uint64_t largest = 0;  // bytes; 0: any size
  bool keeps_char_set = false;
  std::string seen;  // "": that of the mailbox
  int most = 0;      // mails; 0: all of them
  bool all = false;  // those that were seen before too
  bool is_deleting = false;
  bool verbose = false;
  bool quiet = false;
  bool is_output_data = false;  // the standard output is for a document

  // Mails are read as a whole.
  bool saves_whole() const { return !pipe.empty() || format != mail_format::parts; }
  bool saves() const { return !folder.empty() || !pipe.empty(); }
};

// Lists a mailbox, reads what is wanted, and deletes it when it is to go, with what an earlier run
// has saved and not deleted. The connection may break at a mail and is opened again for the others.
class collection {
 public:
  // `options` must outlive it. Throws a problem.
  explicit collection(const collection_options& options);

  // Throws the problem that ended the run; what was received before is there.
  void run();

  // Those of this run, and after them those that are not tried any more.
  std::vector<received_mail> mails() const;
  size_t received() const { return m_mails.size(); }
  // Mails that an earlier run has saved.
  const std::vector<listed_mail>& deleted_before() const { return m_deletedBefore; }
  // The first thing that went wrong with a mail, while the others were received.
  const std::optional<problem>& trouble() const { return m_trouble; }
  // Those that are larger than what is wanted.
  const std::vector<listed_mail>& too_large() const { return m_tooLarge; }
  int on_server() const { return m_visit.on_server(); }

 private:
  // A mail of the server, and what this run has done with it.
  struct entry : listed_mail {
    int copy = 1;        // which of those with its unique id
    int connection = 0;  // over which it was read; 0: it was not
    size_t mail = 0;     // where it is in m_mails, when it was read
    bool is_to_go = false;
    bool is_picked = false;

    mail_key key() const { return {uid, copy}; }
  };

  void check_end() const;
  void note_trouble(const problem& cause);
  bool is_done() const;
  void list();
  void take_listed(std::vector<listed_mail> listed);
  void compare_with_seen();
  void note_given_up(const entry& mail);
  void pick();
  void leave_large_ones();
  bool is_wanted(const entry& mail) const;
  bool is_too_large(const entry& mail) const;
  void take_mails();
  bool has_its_number(const entry& mail);
  void take(entry& listed);
  void note_failure(const entry& listed, quorvelmida::TAV_EML_RESULT result, received_mail& mail);
  void note_doubt(const entry& listed, received_mail& mail);
  bool is_noted(const entry& mail) const;
  quorvelmida::TAV_EML_RESULT read(const entry& listed, received_mail& mail);
  quorvelmida::TAV_EML_RESULT read_header(const entry& listed, received_mail& mail,
                                          const std::function<void()>& progress);
  quorvelmida::TAV_EML_RESULT read_whole(const entry& listed, received_mail& mail,
                                         const std::function<void()>& progress);
  void discard_left(const entry& mail) const;
  std::string mark_of(const entry& mail) const;
  bool is_line_too_long() const;
  problem explain_mail(quorvelmida::TAV_EML_RESULT result, int number, bool is_lost) const;
  void delete_mails();
  std::vector<const entry*> mark_as_deleted();
  std::map<std::string, int> copies_that_stay() const;
  void note_deleted(const std::vector<const entry*>& deleted);

  const collection_options& m_options;
  const std::string m_key;  // of the mailbox
  mailbox_visit m_visit;
  std::optional<mail_folder> m_folder;  // of mails in parts
  std::unique_ptr<mail_store> m_store;  // of whole ones
  std::optional<seen_file> m_seen;      // not with `all`
  std::vector<entry> m_entries;         // what the server has
  std::map<std::string, int> m_copies;  // of each unique id
  std::vector<received_mail> m_mails;   // what was read
  std::vector<received_mail> m_givenUp;
  std::vector<listed_mail> m_deletedBefore;
  std::vector<listed_mail> m_tooLarge;
  std::optional<problem> m_trouble;
  int m_listed = 0;  // the connection that the numbers of the entries are from
  int m_lists = 0;
  bool m_hasUids = true;
};

}  // namespace tavmail

#endif
