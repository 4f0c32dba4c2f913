// tavmail receive.

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>

#include "account_file.h"
#include "commands.h"
#include "dialogue_view.h"
#include "interrupt.h"
#include "mail_folder.h"
#include "mailbox_options.h"
#include "outcome.h"
#include "progress_bar.h"
#include "quorvelmida/tav_eml_pop3_boundary.h"
#include "receive_report.h"
#include "received_mail.h"
#include "seen_file.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr int kMostRefused = 100;  // mails in a row

// The bytes of a received line for which the library has room, its end counted.
constexpr size_t kLongestLine = 4095;

struct receive_options {
  account_file account;
  mailbox_options mailbox;
  std::string folder;
  std::string seen;
  int most = 0;
  bool all = false;
  bool is_deleting = false;
  bool is_json = false;
  bool verbose = false;
  bool quiet = false;

  bool saves() const { return !folder.empty(); }
};

std::string text_of(const UtlString& text) {
  return text.GetString() != nullptr ? text.GetString() : "";
}

// One run over a mailbox. The connection may break at a mail and is opened again for those behind
// it.
class collection {
 public:
  explicit collection(const receive_options& options)
      : m_cOptions(options),
        m_cView(options.verbose ? [](const std::string& line) { std::cerr << line << '\n'; }
                                : dialogue_view::line_sink(),
                dialogue_kind::pop3),
        m_cTap(m_cView),
        m_cSettings(options.mailbox.settings()),
        m_cSession(m_cSettings) {
    if (options.saves()) m_cFolder.emplace(options.folder);
    if (!options.all) m_cSeen.emplace(seen_path(options));
  }

  void run() {
    const interrupt_guard guard;
    open();
    if (m_nOnServer > 0) m_cOptions.all ? take_all() : take_new();
    close();
  }

  const std::vector<received_mail>& mails() const { return m_cMails; }
  // The first thing that went wrong with a mail, while the others were received.
  const std::optional<problem>& trouble() const { return m_cTrouble; }
  int on_server() const { return m_nOnServer; }

 private:
  static std::string seen_path(const receive_options& options) {
    return options.seen.empty() ? default_seen_path(options.mailbox.user, options.mailbox.server)
                                : options.seen;
  }

  void require(TAV_EML_RESULT result) {
    if (result == TAV_EML_OK) return;
    throw explain_mailbox(result, m_cView, m_cOptions.mailbox);
  }

  bool is_done() const {
    if (interrupt_guard::was_pressed()) {
      throw problem(interrupt_guard::exit_code(), "interrupted; the mails before are received");
    }
    return m_cOptions.most > 0 && static_cast<int>(m_cMails.size()) >= m_cOptions.most;
  }

  void open() {
    require(m_cSession.connect_mail());
    require(m_cSession.stat(m_nOnServer));
    m_uBefore = m_cMails.size();
  }

  // Deletes at the end, as the server does: with a connection that breaks before, deletions would
  // be undone.
  void close() {
    std::vector<received_mail*> deleted;
    for (received_mail& mail : m_cMails) {
      const int number = is_to_go(mail) ? number_of(mail) : 0;
      if (number == 0) continue;
      const TAV_EML_RESULT result = m_cSession.delete_mail(number);
      if (result == TAV_EML_OK) {
        deleted.push_back(&mail);
      } else if (!m_cTrouble) {
        m_cTrouble = explain_mailbox(result, m_cView, m_cOptions.mailbox);
      }
    }
    m_cSession.close_mail();
    const exchange* last = m_cView.decisive();
    const std::string reply = reply_text(last);
    if (last != nullptr && last->verb == "QUIT" && !reply.empty() && reply[0] == '+') {
      for (received_mail* mail : deleted) mail->is_deleted = true;
    } else if (!deleted.empty() && !m_cTrouble) {
      m_cTrouble.emplace(EX_TEMPFAIL, m_cOptions.mailbox.place() +
                                          " did not confirm that it deleted what was received");
      m_cTrouble->at("the goodbye", reply, "");
    }
  }

  void list(tav_eml_pop3_mail_info_list& known) {
    if (m_nOnServer == 0) return;
    const TAV_EML_RESULT result = m_cSession.list(known, 0);
    if (result == TAV_EML_OK) return;
    const exchange* last = m_cView.decisive();
    if (last != nullptr && last->verb == "UIDL" && !last->reply.empty()) {
      throw problem(EX_UNAVAILABLE, m_cOptions.mailbox.place() +
                                        " gives mails no unique ids (UIDL); fetch them with --all");
    }
    throw explain_mailbox(result, m_cView, m_cOptions.mailbox);
  }

  void take_all() {
    int refused = 0;
    for (int number = 1; number <= m_nOnServer && !is_done(); ++number) {
      tav_eml_pop3_mail_info info(number, "", 0, 1);
      if (!take(info)) open();
      // A server may count mails that it does not have, and very many of them.
      refused = m_cMails.back().problem.empty() ? 0 : refused + 1;
      if (refused >= kMostRefused) throw problem(*m_cTrouble);
    }
  }

  void take_new() {
    // Room for everything that is on the server and everything that was.
    const size_t room = m_cSeen->size() + static_cast<size_t>(m_nOnServer) + 1000;
    m_cKnown.emplace(static_cast<int>(std::min<size_t>(room, 10000000)));
    m_cSeen->fill(*m_cKnown);
    list(*m_cKnown);
    m_cSeen->keep(*m_cKnown);
    tav_eml_pop3_mail_info info;
    while (!is_done() && m_cKnown->is_has_next_mail() != 0 &&
           m_cKnown->search_next_mail(info) != 0) {
      // Handed out before it is read: a mail that breaks the connection must not come again and
      // again.
      require(m_cSession.list_next(*m_cKnown, info));
      if (take(info)) continue;
      open();  // the connection broke at this mail; those behind it are still wanted
      list(*m_cKnown);
    }
  }

  bool is_to_go(const received_mail& mail) const {
    return m_cOptions.is_deleting && mail.problem.empty() && mail.is_safe();
  }

  // Its number on this connection, 0 when that is not known: another mail may have it now.
  int number_of(const received_mail& mail) {
    if (m_cKnown && !mail.uid.empty()) {
      const tav_eml_pop3_mail_info wanted(0, mail.uid.c_str(), 0, 0);
      const tav_eml_pop3_mail_info* entry = m_cKnown->search_mail_info(wanted);
      return entry != nullptr ? entry->m_nMailNo : 0;
    }
    const auto index = static_cast<size_t>(&mail - m_cMails.data());
    return index >= m_uBefore ? mail.number : 0;
  }

  // Reads a mail. False when the connection is lost.
  bool take(tav_eml_pop3_mail_info& info) {
    const std::string uid = text_of(info.m_strUID);
    const bool is_noted = m_cSeen && m_cOptions.saves();
    if (is_noted) m_cSeen->begin(uid);
    received_mail mail;
    TAV_EML_RESULT result = TAV_EML_OK;
    try {
      result = read(info, mail);
    } catch (const problem&) {
      if (is_noted) m_cSeen->cancel(uid);  // it was not the mail's fault
      throw;
    }
    if (result == TAV_EML_OK && (!m_cOptions.saves() || !mail.parts.empty())) {
      if (is_noted) m_cSeen->finish(uid);
      m_cMails.push_back(mail);
      return true;
    }
    // What is left of it stands between us and the next mail.
    tav_eml_pop3_receive_mail rest(info);
    const bool is_lost = result != TAV_EML_OK && m_cSession.skip_mail(rest) != TAV_EML_UTL_OK;
    problem cause = explain_mail(result, info.m_nMailNo, is_lost);
    if (is_noted && m_cSeen->tries(uid) >= seen_file::kMostTries) {
      cause = problem(cause.exit_code(),
                      std::string(cause.what()) + (is_line_too_long()
                                                       ? "; it is not tried again"
                                                       : "; after 3 tries only --all fetches it"))
                  .at(cause.stage(), cause.reply(), cause.code());
    }
    mail.problem = cause.what();
    m_cMails.push_back(mail);
    if (!m_cTrouble) m_cTrouble = cause;
    return !is_lost;
  }

  TAV_EML_RESULT read(tav_eml_pop3_mail_info& info, received_mail& mail) {
    progress_bar bar("Receiving mail " + std::to_string(info.m_nMailNo),
                     static_cast<uint64_t>(std::max<long>(info.m_lSize, 0)),
                     !m_cOptions.quiet && !m_cOptions.verbose);
    uint64_t shown = m_cView.message_bytes();
    mail_reader reader(m_cSession, [&] {
      bar.advance(m_cView.message_bytes() - shown);
      shown = m_cView.message_bytes();
      if (interrupt_guard::was_pressed()) {
        throw problem(interrupt_guard::exit_code(), "interrupted; the mails before are received");
      }
    });
    return m_cOptions.saves() ? reader.read(info, *m_cFolder, mail)
                              : reader.read_header(info, mail);
  }

  // Then the library has ended the connection. Its results do not tell it from one that broke; that
  // no more of the line was read does.
  bool is_line_too_long() const { return m_cView.unfinished_line() >= kLongestLine; }

  problem explain_mail(TAV_EML_RESULT result, int number, bool is_lost) const {
    const std::string which = "mail " + std::to_string(number);
    const problem cause =
        explain_mailbox(result == TAV_EML_ERR_UNKNOWN && is_lost ? TAV_EML_ERR_TRANSFER : result,
                        m_cView, m_cOptions.mailbox);
    const auto told = [&](int exit_code, const std::string& sentence) {
      return problem(exit_code, which + sentence).at(cause.stage(), cause.reply(), cause.code());
    };
    if (is_line_too_long()) {
      return told(EX_DATAERR, " has a line that is longer than the library takes (" +
                                  std::to_string(kLongestLine) +
                                  " bytes), so it cannot be received; it stays on the server, read "
                                  "or delete it there with another program");
    }
    if (result == TAV_EML_ERR_REPLY && cause.reply().rfind("+OK", 0) == 0) {
      return told(EX_DATAERR, " is larger than the library takes (2 GiB), or without end");
    }
    if (result == TAV_EML_OK) {
      return told(EX_DATAERR, " has none of the parts that it announces; nothing was saved");
    }
    if (result == TAV_EML_ERR_UNKNOWN && !is_lost) {
      return told(EX_DATAERR, " cannot be read: it is not formed as a mail should be");
    }
    return told(EX_TEMPFAIL, std::string(" could not be received; ") + cause.what());
  }

  const receive_options& m_cOptions;
  dialogue_view m_cView;
  dialogue_tap m_cTap;
  tav_eml_pop3_settings m_cSettings;
  tav_eml_pop3_boundary m_cSession;
  std::optional<mail_folder> m_cFolder;
  std::optional<seen_file> m_cSeen;
  std::optional<tav_eml_pop3_mail_info_list> m_cKnown;  // not with --all
  std::vector<received_mail> m_cMails;
  std::optional<problem> m_cTrouble;
  size_t m_uBefore = 0;  // mails that were read over earlier connections
  int m_nOnServer = 0;
};

void print(const receive_options& options, const collection& mails) {
  if (options.quiet) return;
  for (const received_mail& mail : mails.mails()) {
    std::cout << mail_lines(mail, options.folder) << '\n';
  }
  const size_t count = mails.mails().size();
  std::cout << count << (options.all ? "" : " new") << (count == 1 ? " mail" : " mails") << "; "
            << mails.on_server() << " on the server\n";
}

// Fills in what was left open and checks what was given.
void complete(CLI::App& command, receive_options& options) {
  options.account.apply(command, *command.get_parent(), "pop3", options.mailbox);
  options.mailbox.complete();
  if (options.is_deleting && !options.saves()) {
    throw problem(EX_USAGE, "--delete deletes what was saved; add --folder DIR");
  }
}

int run_receive(CLI::App& command, receive_options& options) {
  std::optional<collection> mails;
  std::optional<problem> end;
  try {
    complete(command, options);
    mails.emplace(options);
    mails->run();
  } catch (const problem& cause) {
    end = cause;
  }
  if (!end && mails->trouble()) end = mails->trouble();
  const std::vector<received_mail> none;
  const std::vector<received_mail>& received = mails ? mails->mails() : none;
  if (options.is_json) {
    std::cout << mails_json(received, end ? &*end : nullptr);
  } else if (!end || !received.empty()) {
    print(options, *mails);
  }
  if (end) throw *end;
  return EX_OK;
}

constexpr char kExamples[] = R"(
Without --folder the headers of new mails are shown, and nothing is changed.
With it new mails are saved there, one sub-folder each, and are not new the
next time.

Examples:
  tavmail receive -s mail.example.com -u anna
  tavmail receive -s mail.example.com:995 -u anna --folder mail --delete
)";

}  // namespace

command add_receive(CLI::App& tool) {
  CLI::App* app = tool.add_subcommand("receive", "list, fetch and delete mail");
  const auto options = std::make_shared<receive_options>();
  options->account.add_to(*app);
  options->mailbox.add_to(*app);
  app->add_option("-d,--folder", options->folder, "save new mails there")
      ->type_name("DIR")
      ->group("Mail");
  app->add_flag("--delete", options->is_deleting, "delete what was saved on the server")
      ->group("Mail");
  app->add_option("-n,--max", options->most, "most mails to fetch")
      ->check(CLI::Range(1, 1000000).description(""))
      ->type_name("N")
      ->group("Mail");
  auto* all =
      app->add_flag("--all", options->all, "all mails, whether seen before or not")->group("Mail");
  app->add_option("--seen", options->seen, "list of seen mails; by default of the account")
      ->type_name("FILE")
      ->excludes(all)
      ->group("Mail");
  app->add_flag("--json", options->is_json, "tell what was received as JSON")->group("Output");
  auto* verbose =
      app->add_flag("-v,--verbose", options->verbose, "show the dialogue, secrets masked")
          ->group("Output");
  app->add_flag("-q,--quiet", options->quiet, "say nothing on success")
      ->excludes(verbose)
      ->group("Output");
  app->footer(kExamples);
  return {app, [app, options] { return run_receive(*app, *options); }};
}

}  // namespace tavmail
