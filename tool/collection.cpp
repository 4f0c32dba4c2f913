#include "collection.h"

#include <algorithm>
#include <utility>

#include "interrupt.h"
#include "outcome.h"
#include "progress_bar.h"
#include "seen_path.h"
#include "state_file.h"
#include "whole_mail.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr int kMostRefused = 100;  // mails in a row
constexpr int kMostLists = 20;     // of one run

// The bytes of a received line for which the library has room, its end counted.
constexpr size_t kLongestReadLine = 4095;

}  // namespace

collection::collection(const collection_options& options)
    : m_options(options),
      m_key(mailbox_key(options.mailbox)),
      m_visit(options.mailbox, options.verbose, [this] { check_end(); }) {
  if (!options.pipe.empty()) {
    m_store = make_mail_pipe(options.pipe, options.is_output_data);
  } else if (options.saves_whole()) {
    m_store = make_mail_store(options.format, options.folder);
  } else if (options.saves()) {
    m_folder.emplace(options.folder);
  }
  if (options.all) return;
  const seen_path place = place_of_list(options.mailbox, options.seen);
  if (options.seen.empty()) make_folder_of(place.path);
  m_seen.emplace(place.path, place.old);
}

void collection::run() {
  m_visit.open();
  list();
  pick();
  if (m_seen) compare_with_seen();
  leave_large_ones();
  take_mails();
  delete_mails();
  m_visit.session().quit();
  if (m_seen) m_seen->settle({});
}

std::vector<received_mail> collection::mails() const {
  std::vector<received_mail> all = m_mails;
  all.insert(all.end(), m_givenUp.begin(), m_givenUp.end());
  return all;
}

// Throws when the run is to end.
void collection::check_end() const {
  if (!interrupt_guard::was_pressed()) return;
  const auto is_whole = [](const received_mail& mail) { return mail.problem.empty(); };
  const auto count = std::count_if(m_mails.begin(), m_mails.end(), is_whole);
  interrupt_guard::check(count == 0   ? "no mail was received"
                         : count == 1 ? "1 mail was received before"
                                      : std::to_string(count) + " mails were received before");
}

void collection::note_trouble(const problem& cause) {
  if (!m_trouble) m_trouble = cause;
}

bool collection::is_done() const {
  check_end();
  return m_options.most > 0 && m_mails.size() >= static_cast<size_t>(m_options.most);
}

void collection::list() {
  if (++m_lists > kMostLists) {
    throw problem(EX_PROTOCOL, m_options.mailbox.place() +
                                   " gives mails another number on every connection; try --all");
  }
  std::vector<listed_mail> listed = m_visit.list(m_hasUids);
  if (!m_hasUids && m_seen && m_options.picks.is_empty()) {
    throw problem(EX_UNAVAILABLE, m_options.mailbox.place() +
                                      " gives mails no unique ids (UIDL); fetch them with --all");
  }
  take_listed(std::move(listed));
}

// What this run has done with a mail is known by its unique id.
void collection::take_listed(std::vector<listed_mail> listed) {
  std::map<mail_key, entry> before;
  for (entry& mail : m_entries) before.emplace(mail.key(), std::move(mail));
  m_entries.clear();
  m_copies.clear();
  for (listed_mail& each : listed) {
    entry mail;
    static_cast<listed_mail&>(mail) = std::move(each);
    mail.copy = ++m_copies[mail.uid];
    const auto known = before.find(mail.key());
    if (known != before.end() && !mail.uid.empty()) {
      mail.connection = known->second.connection;
      mail.mail = known->second.mail;
      mail.is_to_go = known->second.is_to_go;
      mail.is_picked = known->second.is_picked;
    }
    m_entries.push_back(std::move(mail));
  }
  m_listed = m_visit.connection();
}

// Brings the file and what the server has together.
void collection::compare_with_seen() {
  const auto nameless = m_copies.find("");
  if (nameless == m_copies.end()) {
    m_seen->keep(m_copies);
  } else if (m_options.picks.is_empty()) {
    note_trouble(problem(EX_UNAVAILABLE, m_options.mailbox.place() + " gives " +
                                             std::to_string(nameless->second) + " of " +
                                             std::to_string(m_visit.on_server()) +
                                             " mails no unique id (UIDL); fetch them with --all"));
  }
  for (entry& mail : m_entries) {
    mail.is_to_go = m_options.is_deleting && m_seen->is_to_go(mail.key());
    if (m_seen->is_given_up(mail.key()) && m_options.picks.is_empty()) note_given_up(mail);
  }
}

// By its number or unique id as the server lists it now. What is picked and not there ends the run.
void collection::pick() {
  const picking& picks = m_options.picks;
  picks.require_all({m_entries.begin(), m_entries.end()});
  for (entry& mail : m_entries) mail.is_picked = picks.has(mail);
}

void collection::leave_large_ones() {
  for (const entry& mail : m_entries) {
    if (is_wanted(mail) && is_too_large(mail)) m_tooLarge.push_back(mail);
  }
}

void collection::note_given_up(const entry& mail) {
  discard_left(mail);
  received_mail told;
  told.number = mail.number;
  told.uid = mail.uid;
  told.size = mail.size;
  told.is_given_up = true;
  told.problem = "mail " + std::to_string(mail.number) + " (" +
                 amount(static_cast<double>(mail.size)) +
                 ") was given up after 3 tries and stays on the server; fetch it with --uid or "
                 "--all, or delete it with tavmail delete";
  m_givenUp.push_back(std::move(told));
}

bool collection::is_too_large(const entry& mail) const {
  return m_options.largest > 0 && static_cast<uint64_t>(mail.size) > m_options.largest;
}

bool collection::is_wanted(const entry& mail) const {
  if (mail.connection > 0) return false;
  if (!m_options.picks.is_empty()) return mail.is_picked;
  if (!m_seen) return true;
  return !mail.uid.empty() && !m_seen->is_received(mail.key()) && !m_seen->is_given_up(mail.key());
}

void collection::take_mails() {
  int refused = 0;
  for (size_t at = 0; at < m_entries.size() && !is_done();) {
    if (!is_wanted(m_entries[at]) || is_too_large(m_entries[at])) {
      ++at;
      continue;
    }
    m_visit.open();
    if (!has_its_number(m_entries[at])) {
      list();
      at = 0;
      continue;
    }
    take(m_entries[at++]);
    // A server may count mails that it does not have, and very many of them. What was received
    // before is deleted all the same.
    refused = m_mails.back().problem.empty() ? 0 : refused + 1;
    const bool is_endless = !m_seen || !m_options.pipe.empty();
    if (is_endless && refused >= kMostRefused) return;
  }
}

// Another connection may number the mails in another way. To list them all again for each mail that
// breaks one would cost the square of their count.
bool collection::has_its_number(const entry& mail) {
  if (m_listed == m_visit.connection() || mail.uid.empty()) return true;
  std::string uid;
  m_visit.require(m_visit.session().uid_of(mail.number, uid));
  return uid == mail.uid;
}

bool collection::is_noted(const entry& mail) const {
  return m_seen && m_options.saves() && !mail.uid.empty();
}

// Reads a mail. The connection may be lost afterwards.
void collection::take(entry& listed) {
  listed.connection = m_visit.connection();
  listed.mail = m_mails.size();
  if (is_noted(listed)) {
    if (m_seen->tries(listed.key()) > 0) discard_left(listed);
    m_seen->begin(listed.key());
  }
  received_mail mail;
  TAV_EML_RESULT result = TAV_EML_OK;
  try {
    result = read(listed, mail);
  } catch (const not_taken& cause) {
    if (is_noted(listed)) m_seen->cancel(listed.key());
    mail.problem =
        "mail " + std::to_string(listed.number) + " stays on the server; " + cause.what();
    note_trouble(problem(cause.exit_code(), mail.problem));
    m_mails.push_back(std::move(mail));
    return;
  } catch (const problem&) {
    if (is_noted(listed)) m_seen->cancel(listed.key());  // it was not the mail's fault
    throw;
  }
  const bool has_content = !mail.parts.empty() || mail.is_kept;
  const bool is_whole = result == TAV_EML_OK && (!m_options.saves() || has_content);
  if (!is_whole) note_failure(listed, result, mail);
  const bool is_doubtful = is_whole && m_options.saves() && m_visit.view().has_excess();
  if (is_doubtful) note_doubt(listed, mail);
  listed.is_to_go = m_options.is_deleting && is_whole && !is_doubtful && mail.is_safe();
  m_mails.push_back(std::move(mail));
  if (is_whole && is_noted(listed)) m_seen->finish(listed.key(), listed.is_to_go);
}

void collection::note_failure(const entry& listed, TAV_EML_RESULT result, received_mail& mail) {
  mailbox_session& session = m_visit.session();
  tav_eml_pop3_mail_info info;
  tav_eml_pop3_receive_mail rest(info);
  // The rest of a mail in parts has to be read before the next reply.
  const bool is_lost = result != TAV_EML_OK &&
                       (m_folder ? session.skip_mail(rest) != TAV_EML_OK : !session.is_connected());
  problem cause = explain_mail(result, listed.number, is_lost);
  if (is_noted(listed) && m_seen->is_given_up(listed.key())) {
    cause = problem(cause.exit_code(),
                    std::string(cause.what()) +
                        (is_line_too_long() ? "; it is not tried again"
                                            : "; after 3 tries only --uid or --all fetches it"))
                .at(cause.stage(), cause.reply(), cause.code());
    discard_left(listed);
    mail.parts.clear();
    mail.folder.clear();
  }
  mail.problem = cause.what();
  note_trouble(cause);
}

// It is kept as it is, and not fetched again: the next try would end there, too.
void collection::note_doubt(const entry& listed, received_mail& mail) {
  mail.problem = "more came after the end of mail " + std::to_string(listed.number) +
                 ", which may not be complete; it stays on the server";
  note_trouble(problem(EX_DATAERR, mail.problem));
}

TAV_EML_RESULT collection::read(const entry& listed, received_mail& mail) {
  progress_bar bar("Receiving mail " + std::to_string(listed.number),
                   static_cast<uint64_t>(listed.size), !m_options.quiet && !m_options.verbose);
  uint64_t shown = m_visit.view().message_bytes();
  const auto progress = [&] {
    bar.advance(m_visit.view().message_bytes() - shown);
    shown = m_visit.view().message_bytes();
    check_end();
  };
  if (m_store) return read_whole(listed, mail, progress);
  if (!m_folder) return read_header(listed, mail, progress);
  tav_eml_pop3_mail_info info(listed.number, listed.uid.c_str(), listed.size, 1);
  mail_reader reader(m_visit.session(), m_visit.header(), m_options.keeps_char_set, progress);
  return reader.read(info, *m_folder, mark_of(listed), mail);
}

TAV_EML_RESULT collection::read_header(const entry& listed, received_mail& mail,
                                       const std::function<void()>& progress) {
  whole_mail_reader reader(m_visit.session(), m_visit.header(), progress);
  const TAV_EML_RESULT result = reader.read_header(listed, mail);
  if (result != TAV_EML_OK) progress();  // throws when the run is to end
  return result;
}

TAV_EML_RESULT collection::read_whole(const entry& listed, received_mail& mail,
                                      const std::function<void()>& progress) {
  m_store->begin(mark_of(listed));
  wire_text text(m_store->line_end(), [this](std::string_view piece) { m_store->write(piece); });
  whole_mail_reader reader(m_visit.session(), m_visit.header(), progress);
  const TAV_EML_RESULT result = reader.read(listed, text, mail);
  if (result != TAV_EML_OK) {
    m_store->abandon();
    progress();  // throws when the run is to end
    return result;
  }
  mail.file = m_store->finish(m_visit.header());
  mail.is_kept = true;
  return result;
}

void collection::discard_left(const entry& mail) const {
  if (m_folder) m_folder->discard_marked(mark_of(mail));
  if (m_store) m_store->discard_marked(mark_of(mail));
}

// The name of what is left of a mail that breaks off: the next try finds it.
std::string collection::mark_of(const entry& mail) const {
  if (!m_seen) return {};
  const std::string copy = std::to_string(mail.copy);
  return fingerprint(m_key + " " + copy + " " + mail.uid).substr(0, 16);
}

// Then the library has ended the connection. Its results do not tell it from one that broke; that
// no more of the line was read does. A mail that is not parsed may have longer ones.
bool collection::is_line_too_long() const {
  return m_folder && m_visit.view().unfinished_line() >= kLongestReadLine;
}

problem collection::explain_mail(TAV_EML_RESULT result, int number, bool is_lost) const {
  const std::string which = "mail " + std::to_string(number);
  const problem cause =
      explain_mailbox(result == TAV_EML_ERR_UNKNOWN && is_lost ? TAV_EML_ERR_TRANSFER : result,
                      m_visit.view(), m_options.mailbox);
  const auto told = [&](int exit_code, const std::string& sentence) {
    return problem(exit_code, which + sentence).at(cause.stage(), cause.reply(), cause.code());
  };
  if (is_line_too_long()) {
    return told(EX_DATAERR, " has a line that is longer than the library takes (" +
                                std::to_string(kLongestReadLine) +
                                " bytes), so its parts cannot be saved; it stays on the server, "
                                "fetch all of it with --format eml or delete it");
  }
  if (result == TAV_EML_ERR_REPLY && cause.reply().rfind("+OK", 0) == 0) {
    if (!m_options.saves()) return endless_header(number);
    return told(EX_DATAERR, " is larger than the library takes (2 GiB), or without end");
  }
  if (result == TAV_EML_OK) {
    return told(EX_DATAERR, " has none of the parts that it announces; nothing was saved");
  }
  if (result == TAV_EML_ERR_UNKNOWN && !is_lost) {
    return told(EX_DATAERR,
                " cannot be read in parts: it is not formed as a mail should be; --format eml "
                "fetches all of it");
  }
  return told(EX_TEMPFAIL, std::string(" could not be received; ") + cause.what());
}

// At the end, as the server does it: with a connection that breaks before, deletions would be
// undone.
void collection::delete_mails() {
  const auto is_to_go = [](const entry& mail) { return mail.is_to_go; };
  if (std::none_of(m_entries.begin(), m_entries.end(), is_to_go)) return;
  m_visit.open();
  if (m_listed != m_visit.connection() && m_hasUids) list();
  const std::vector<const entry*> deleted = mark_as_deleted();
  if (!m_visit.session().is_connected()) return;
  if (m_visit.quit_is_confirmed()) {
    note_deleted(deleted);
  } else if (!deleted.empty() && interrupt_guard::was_pressed()) {
    note_trouble(interrupt_guard::cause("the server did not confirm what it was to delete"));
  } else if (!deleted.empty()) {
    note_trouble(problem(EX_TEMPFAIL, m_options.mailbox.place() +
                                          " did not confirm that it deleted what was received")
                     .at("the goodbye", reply_text(m_visit.view().decisive()), ""));
  }
}

// Those that the server has marked.
std::vector<const collection::entry*> collection::mark_as_deleted() {
  std::vector<const entry*> marked;
  const std::map<std::string, int> staying = copies_that_stay();
  for (const entry& mail : m_entries) {
    const bool is_certain = mail.connection == m_visit.connection() ||
                            (m_listed == m_visit.connection() && staying.count(mail.uid) == 0);
    if (!mail.is_to_go || !is_certain) continue;
    const TAV_EML_RESULT result = m_visit.session().remove(mail.number);
    if (result == TAV_EML_OK) {
      marked.push_back(&mail);
    } else {
      check_end();
      note_trouble(explain_mailbox(result, m_visit.view(), m_options.mailbox));
    }
    if (!m_visit.session().is_connected()) break;
  }
  return marked;
}

// Unique ids of which not all copies are to go: which of them is which is certain only on the
// connection that read them. Mails without unique id count as copies.
std::map<std::string, int> collection::copies_that_stay() const {
  std::map<std::string, int> staying = {{"", 1}};
  for (const entry& mail : m_entries) {
    if (!mail.is_to_go) ++staying[mail.uid];
  }
  return staying;
}

void collection::note_deleted(const std::vector<const entry*>& deleted) {
  std::vector<mail_key> keys;
  for (const entry* mail : deleted) {
    keys.push_back(mail->key());
    if (mail->connection > 0) {
      m_mails[mail->mail].is_deleted = true;
    } else {
      m_deletedBefore.push_back(*mail);
    }
  }
  if (m_seen) m_seen->settle(std::move(keys));
}

}  // namespace tavmail
