// tav_eml_pop3_mail_info_list.h - the memory of which messages of a server have been seen.

#ifndef TAV_EML_POP3_MAIL_INFO_LIST_H
#define TAV_EML_POP3_MAIL_INFO_LIST_H

#include <cstdint>

#include "quorvelmida/tav_eml_export.h"
#include "quorvelmida/tav_eml_pop3_mail_info.h"
#include "utl_object.h"
#include "utl_vector.h"

namespace quorvelmida {

// Belongs to the application and outlives sessions. tav_eml_pop3_boundary::list synchronises it
// with the server by unique id, so that each message is handed out once although message numbers
// change. An entry has status 1 while it waits and 2 after it was handed out. Its message number is
// 0 until the message has been found on the server. One thread uses the list at a time.
//
// To keep the list between runs of a program, write the unique id and the status of every entry to
// a file, in order, and add them again with number 0. Searches are linear, so the time to
// synchronise grows with the square of the number of messages.
//
// Results are 1 for success and 0 for failure unless stated; a failure writes a line to the debug
// log. The list owns its entries, and takes over the pointers given to it even if it fails.
class TAVEML_API tav_eml_pop3_mail_info_list : public UtlObject {
 public:
  tav_eml_pop3_mail_info_list(int capacity);
  tav_eml_pop3_mail_info_list(const tav_eml_pop3_mail_info_list&) = delete;
  tav_eml_pop3_mail_info_list& operator=(const tav_eml_pop3_mail_info_list&) = delete;
  ~tav_eml_pop3_mail_info_list() override;

  int clear_id();    // sets every message number to 0
  int clear_list();  // removes the entries whose number is 0

  // Gives the entry with the same unique id the number of `info`, which must have status 1, and
  // deletes `info`. A message that is not listed or has no unique id is also a success.
  int update_mail_info(tav_eml_pop3_mail_info* info);

  // Appends `info`. It must have status 1 unless `force` is not 0, and there must be room.
  int add_mail_info(tav_eml_pop3_mail_info* info, int force);

  // Removes the handed-out entry with the smallest message number.
  int remove_mail_info();

  // Copies the waiting entry with the smallest message number into `out`.
  int search_next_mail(tav_eml_pop3_mail_info& out);

  int is_has_room();
  int is_has_next_mail();  // 1 when an entry is waiting

  // Set the status of the first entry with the message number of `info`, or of all entries.
  int set_entry_status(tav_eml_pop3_mail_info& info, int status);
  int set_all_entry_status(int status);

  // The largest message number plus 1; 1 for an empty list; -1 for a corrupted list.
  int get_next_id();

  // The entry with the unique id of `info`, owned by the list; null if there is none. An empty
  // unique id finds the list's first entry: do not delete a message by it.
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
