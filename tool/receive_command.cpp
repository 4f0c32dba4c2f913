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
                                : dialogue_view::line_sink()),
        m_cTap(m_cView),
        m_cSettings(options.mailbox.settings()),
        m_cSession(m_cSettings) {
    if (options.saves()) m_cFolder.emplace(options.folder);
    if (!options.all) m_cSeen.emplace(seen_path(options));
  }

  void run() {
    const interrupt_guard guard;
    open();
    if (m_nOnServer == 0) {
      close();
      return;
    }
    if (m_cOptions.all) {
      for (int number = 1; number <= m_nOnServer && !is_done(); ++number) {
        tav_eml_pop3_mail_info info(number, "", 0, 1);
        take(info);
      }
    } else {
      take_new();
    }
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
    return m_cOptions.most > 0 && static_cast<int>(m_cMails.size()) >= m_cOptions.most;
  }

  void open() {
    require(m_cSession.connect_mail());
    require(m_cSession.stat(m_nOnServer));
  }

  // Deletions count from here on.
  void close() { m_cSession.close_mail(); }

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

  void take_new() {
    // Room for everything that is on the server and everything that was.
    const size_t room = m_cSeen->size() + static_cast<size_t>(m_nOnServer) + 1000;
    tav_eml_pop3_mail_info_list known(static_cast<int>(std::min<size_t>(room, 10000000)));
    m_cSeen->fill(known);
    list(known);
    m_cSeen->keep(known);
    tav_eml_pop3_mail_info info;
    while (!is_done() && known.is_has_next_mail() != 0 && known.search_next_mail(info) != 0) {
      // Handed out before it is read: a mail that breaks the connection must not come again and
      // again.
      require(m_cSession.list_next(known, info));
      if (take(info)) continue;
      open();  // the connection broke at this mail; those behind it are still wanted
      list(known);
    }
  }

  // Reads a mail. False when the connection is lost.
  bool take(tav_eml_pop3_mail_info& info) {
    const std::string uid = text_of(info.m_strUID);
    if (m_cSeen && m_cOptions.saves()) m_cSeen->begin(uid);
    received_mail mail;
    progress_bar bar("Receiving", static_cast<uint64_t>(std::max<long>(info.m_lSize, 0)),
                     !m_cOptions.quiet && !m_cOptions.verbose);
    uint64_t shown = m_cView.message_bytes();
    mail_reader reader(m_cSession, [&] {
      bar.advance(m_cView.message_bytes() - shown);
      shown = m_cView.message_bytes();
      if (interrupt_guard::was_pressed()) {
        throw problem(kInterruptedExit, "interrupted; the mails before this one are saved");
      }
    });
    const TAV_EML_RESULT result =
        m_cOptions.saves() ? reader.read(info, *m_cFolder, mail) : reader.read_header(info, mail);
    m_cMails.push_back(mail);
    if (result == TAV_EML_OK) {
      finish(uid, m_cMails.back());
      return true;
    }
    if (!m_cTrouble) m_cTrouble.emplace(explain_mail(result, info.m_nMailNo));
    // What is left of it stands between us and the next mail.
    tav_eml_pop3_receive_mail rest(info);
    return m_cSession.skip_mail(rest) == TAV_EML_UTL_OK;
  }

  void finish(const std::string& uid, received_mail& mail) {
    if (m_cSeen && m_cOptions.saves()) m_cSeen->finish(uid);
    if (!m_cOptions.is_deleting || !mail.is_certain()) return;
    require(m_cSession.delete_mail(mail.number));
    mail.is_deleted = true;
  }

  problem explain_mail(TAV_EML_RESULT result, int number) const {
    const std::string which = "mail " + std::to_string(number);
    if (result == TAV_EML_ERR_UNKNOWN) {
      return problem(EX_DATAERR, which + " cannot be read: it is not formed as a mail should be");
    }
    return problem(EX_TEMPFAIL, which + " could not be received; " +
                                    explain_mailbox(result, m_cView, m_cOptions.mailbox).what());
  }

  const receive_options& m_cOptions;
  dialogue_view m_cView;
  dialogue_tap m_cTap;
  tav_eml_pop3_settings m_cSettings;
  tav_eml_pop3_boundary m_cSession;
  std::optional<mail_folder> m_cFolder;
  std::optional<seen_file> m_cSeen;
  std::vector<received_mail> m_cMails;
  std::optional<problem> m_cTrouble;
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

int run_receive(CLI::App& command, receive_options& options) {
  options.account.apply(command, *command.get_parent(), "pop3", options.mailbox);
  options.mailbox.complete();
  if (options.is_deleting && !options.saves()) {
    throw problem(EX_USAGE, "--delete deletes what was saved; add --folder DIR");
  }
  collection mails(options);
  std::optional<problem> end;
  try {
    mails.run();
  } catch (const problem& cause) {
    end = cause;
  }
  if (!end) end = mails.trouble();
  if (options.is_json) {
    std::cout << mails_json(mails.mails(), end ? end->what() : "");
  } else if (!end || !mails.mails().empty()) {
    print(options, mails);
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
