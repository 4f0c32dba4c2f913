// The receive interface: what is new on the server.

#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "entry_status.h"
#include "pop3_exchange.h"
#include "pop3_log.h"
#include "quorvelmida/tav_eml_pop3_boundary.h"
#include "quorvelmida/tav_eml_pop3_command.h"

namespace quorvelmida {

namespace {

TAV_EML_RESULT failure(const char* operation, const char* text) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_boundary::%s(): %s\n", operation, text);
  return TAV_EML_ERR_UNKNOWN;
}

}  // namespace

// How the log lines of the two operations that fill the list differ.
struct tav_eml_pop3_boundary::fill_texts {
  const char* operation;
  const char* add_operation;
  bool has_line;
};

// Asks for a message's unique id. False when nothing is known about it afterwards: the connection
// was lost, or memory ran out. Taken for a message without unique id, it would be lost.
bool tav_eml_pop3_boundary::probe_uniq_id(int number, UtlString& uid, TAV_EML_RESULT& uidl) {
  bool is_answered = false;
  uidl = ask_uniq_id({m_pPOP3Settings, m_nSock, *m_pTLSInfo}, number, uid, is_answered);
  return uidl == TAV_EML_OK || (uidl == TAV_EML_ERR_REPLY && is_answered);
}

// A new record of a message: its size, its unique id ("" when the server refuses, `uidl` tells).
TAV_EML_RESULT tav_eml_pop3_boundary::describe(int number, const fill_texts& texts,
                                               tav_eml_pop3_mail_info*& info,
                                               TAV_EML_RESULT& uidl) {
  int size = 0;
  const TAV_EML_RESULT result =
      tav_eml_pop3_command::get_size(m_pPOP3Settings, m_nSock, *m_pTLSInfo, number, size);
  if (result != TAV_EML_OK) {
    if (!texts.has_line) return pop3_boundary_called_failure(texts.operation, "get_size", result);
    TAV_EML_LOG_ERROR("<Error> tav_eml_pop3_boundary::%s(): get_size() returns [0x%08lx]: Line%d\n",
                      texts.operation, log_long_code(result), __LINE__);
    return result;
  }
  UtlString uid("");
  if (!probe_uniq_id(number, uid, uidl)) return uidl;
  info = new tav_eml_pop3_mail_info(number, text_of(uid), size, kWaiting);
  return TAV_EML_OK;
}

// Gives the messages that the list knows their new numbers and drops those that are gone.
TAV_EML_RESULT tav_eml_pop3_boundary::synchronise(tav_eml_pop3_mail_info_list& list,
                                                  TAV_EML_RESULT& uidl) {
  if (list.clear_id() == 0) return failure("list", "clear_id() returns [FALSE]");
  for (int number = 1; number <= m_nMailCount; ++number) {
    tav_eml_pop3_mail_info* info = nullptr;
    const TAV_EML_RESULT result = describe(number, {"list", "List", true}, info, uidl);
    if (result != TAV_EML_OK) return result;
    if (list.update_mail_info(info) == 0) {
      return failure("list", "update_mail_info() returns [FALSE]");
    }
  }
  return list.clear_list() != 0 ? TAV_EML_OK : failure("list", "clear_list() returns [FALSE]");
}

// Adds the messages numbered above all that the list knows, while waiting ones leave room. `uidl`
// becomes the result of the last UIDL, if there was one.
TAV_EML_RESULT tav_eml_pop3_boundary::fill(tav_eml_pop3_mail_info_list& list,
                                           const fill_texts& texts, TAV_EML_RESULT& uidl) {
  int number = list.get_next_id();
  if (number < 1) return failure(texts.operation, "get_next_id() unknown error");
  for (; number <= m_nMailCount; ++number) {
    if (list.is_has_room() == 0) {
      if (list.is_has_next_mail() != 0) break;
      if (list.remove_mail_info() == 0) {
        return failure(texts.operation, "remove_mail_info() unknown error");
      }
    }
    tav_eml_pop3_mail_info* info = nullptr;
    const TAV_EML_RESULT result = describe(number, texts, info, uidl);
    if (result != TAV_EML_OK) return result;
    if (list.add_mail_info(info, 0) == 0) {
      return failure(texts.add_operation, "add_mail_info() returns [FALSE]");
    }
  }
  return TAV_EML_OK;
}

TAV_EML_RESULT tav_eml_pop3_boundary::list(tav_eml_pop3_mail_info_list& list, int keep_on_no_uidl) {
  return guarded("list", [&]() -> TAV_EML_RESULT {
    if (!is_connected()) {
      return pop3_boundary_failure("list", " not connected", TAV_EML_ERR_NOT_CONNECTED);
    }
    int octets = 0;
    int count = 0;
    TAV_EML_RESULT result =
        tav_eml_pop3_command::get_stat(m_pPOP3Settings, m_nSock, *m_pTLSInfo, octets, count);
    if (result != TAV_EML_OK) return pop3_boundary_called_failure("list", "get_stat", result);
    m_nMailCount = count;

    UtlString uid;
    TAV_EML_RESULT uidl = TAV_EML_OK;
    if (!probe_uniq_id(1, uid, uidl)) return uidl;
    if (m_nMailCount != 0 && uidl != TAV_EML_OK && keep_on_no_uidl != 0) {
      list.set_all_entry_status(kHandedOut);
    } else {
      result = synchronise(list, uidl);
      if (result != TAV_EML_OK) return result;
    }
    result = fill(list, {"list", "List", true}, uidl);
    return result == TAV_EML_OK ? uidl : result;
  });
}

TAV_EML_RESULT tav_eml_pop3_boundary::list_next(tav_eml_pop3_mail_info_list& list,
                                                tav_eml_pop3_mail_info& done) {
  return guarded("list_next", [&]() -> TAV_EML_RESULT {
    if (!is_connected()) {
      return pop3_boundary_failure("list_next", " not connected", TAV_EML_ERR_NOT_CONNECTED);
    }
    if (list.set_entry_status(done, kHandedOut) == 0) {
      return failure("list_next", "set_entry_status() returns [FALSE]");
    }
    TAV_EML_RESULT uidl = TAV_EML_OK;
    const TAV_EML_RESULT result = fill(list, {"list_next", "list_next", false}, uidl);
    return result == TAV_EML_OK ? uidl : result;
  });
}

}  // namespace quorvelmida
