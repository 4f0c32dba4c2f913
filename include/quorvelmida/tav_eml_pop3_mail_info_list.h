// tav_eml_pop3_mail_info_list.h - the memory of which messages of a server have been seen.

#ifndef TAV_EML_POP3_MAIL_INFO_LIST_H
#define TAV_EML_POP3_MAIL_INFO_LIST_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_pop3_mail_info.h"
#include "utl_object.h"
#include "utl_vector.h"

namespace quorvelmida {

// Belongs to the application and outlives sessions: tav_eml_pop3_boundary::list brings it in line
// with the server by unique id, so that a message is handed out once although message numbers
// change. An entry has status 1 while it waits and 2 once it was handed out; its message number is
// 0 while the message has not been found on the server. One thread uses the list at a time.
//
// To keep it between runs of a program, write the unique id and the status of every entry to a
// file, in order, and add them again with number 0.
//
// Results are 1 for success and 0 for failure unless stated; a failure writes a line to the debug
// log. Entries are the list's own: whatever is handed over to an operation belongs to it, also when
// it fails.
class TAVEML_API tav_eml_pop3_mail_info_list : public UtlObject {
 public:
  tav_eml_pop3_mail_info_list(int capacity);
  tav_eml_pop3_mail_info_list(const tav_eml_pop3_mail_info_list&) = delete;
  tav_eml_pop3_mail_info_list& operator=(const tav_eml_pop3_mail_info_list&) = delete;
  ~tav_eml_pop3_mail_info_list() override;

  // Sets every message number to 0; then removes the entries whose number still is 0.
  int clear_id();
  int clear_list();

  // Gives the entry with the same unique id the number of `info`, which must have status 1, and
  // deletes `info`. A message that is not listed, or without unique id, is a success too.
  int update_mail_info(tav_eml_pop3_mail_info* info);

  // Appends `info`. It must have status 1 unless `force` is not 0, and there must be room.
  int add_mail_info(tav_eml_pop3_mail_info* info, int force);

  // Removes the entry with the smallest message number among those handed out.
  int remove_mail_info();

  // Copies the waiting entry with the smallest message number into `out`.
  int search_next_mail(tav_eml_pop3_mail_info& out);

  int is_has_room();
  int is_has_next_mail();  // 1 when an entry is waiting

  // Sets the status of the first entry with the message number of `info`, of all entries.
  int set_entry_status(tav_eml_pop3_mail_info& info, int status);
  int set_all_entry_status(int status);

  // The largest message number plus 1; 1 for an empty list; -1 for a corrupted one.
  int get_next_id();

  // The entry with the unique id of `info`, which stays the list's; null when there is none. An
  // empty unique id finds the first entry, whichever it is: do not delete a message by it.
  tav_eml_pop3_mail_info* search_mail_info(const tav_eml_pop3_mail_info& info);

  int show_list();  // reserved: does nothing and returns 1

  UtlVector m_MailInfoVector;  // of tav_eml_pop3_mail_info, owned; in the order they were added
  int32_t m_nMaxInfo;          // capacity

 private:
  TAVEML_LOCAL tav_eml_pop3_mail_info* entry(int index) const;
  TAVEML_LOCAL int select(int status, const char* operation) const;
};

}  // namespace quorvelmida

#endif
