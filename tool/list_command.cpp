// tavmail list.

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "account_file.h"
#include "commands.h"
#include "header_value.h"
#include "interrupt.h"
#include "mailbox_visit.h"
#include "problem_json.h"
#include "progress_bar.h"
#include "received_mail.h"
#include "received_text.h"
#include "seen_file.h"
#include "seen_path.h"
#include "text_table.h"
#include "whole_mail.h"
#include "words.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

struct list_options {
  account_file account;
  mailbox_options mailbox;
  std::string seen;
  int most = 0;
  bool is_json = false;
  bool verbose = false;
};

struct shown_mail : received_mail {
  bool is_new = false;
};

// What has been received before, and what is new.
class known_mails {
 public:
  known_mails(const list_options& options, const std::vector<listed_mail>& listed)
      : m_seen(seen_in(place_of_list(options.mailbox, options.seen))) {
    std::map<std::string, int> copies;
    for (const listed_mail& mail : listed) {
      m_copies.push_back(++copies[mail.uid]);
    }
    m_seen.keep(copies);
  }

  // `mail` is from `listed`. One without unique id is new: nobody knows.
  void tell(const listed_mail& mail, shown_mail& shown) const {
    const mail_key key = {mail.uid, m_copies[static_cast<size_t>(mail.number) - 1]};
    shown.is_given_up = !mail.uid.empty() && m_seen.is_given_up(key);
    shown.is_new = mail.uid.empty() || (!m_seen.is_received(key) && !shown.is_given_up);
  }

 private:
  static seen_file seen_in(const seen_path& place) {
    return seen_file::look_at(place.path, place.old);
  }

  seen_file m_seen;
  std::vector<int> m_copies;
};

constexpr size_t kDateColumns = 10;

// No character of UTF-8 has more columns than bytes.
std::string begin_of(const std::string& date) {
  size_t end = std::min(date.size(), kDateColumns);
  while (end > 0 && end < date.size() && (static_cast<unsigned char>(date[end]) & 0xC0) == 0x80) {
    --end;
  }
  return date.substr(0, end);
}

// "2026-11-20" in local time; the beginning of the text if it is not a date.
std::string short_date(const std::string& date) {
  const size_t comma = date.find(',');
  const std::string from = date.substr(comma == std::string::npos ? 0 : comma + 1);
  std::tm told{};
  const char* rest = strptime(from.c_str(), " %d %b %Y %H:%M:%S", &told);
  if (rest == nullptr) rest = strptime(from.c_str(), " %d %b %Y %H:%M", &told);
  if (rest == nullptr) return begin_of(date);
  std::tm zone{};
  const bool has_zone = strptime(rest, " %z", &zone) != nullptr;
  const std::time_t moment = timegm(&told) - (has_zone ? zone.tm_gmtoff : 0);
  std::tm here{};
  char text[32];
  if (localtime_r(&moment, &here) == nullptr) return begin_of(date);
  return std::strftime(text, sizeof text, "%Y-%m-%d", &here) > 0 ? text : begin_of(date);
}

// The name of the sender, or the address where there is none.
std::string short_name(const std::string& from) {
  const size_t bracket = std::min(from.find('<'), from.size());
  std::string name = trimmed(from.substr(0, bracket));
  if (name.size() > 1 && name.front() == '"' && name.back() == '"') {
    name = name.substr(1, name.size() - 2);
  }
  if (!name.empty()) return name;
  return from.substr(std::min(bracket + 1, from.size()), from.find('>', bracket) - bracket - 1);
}

size_t terminal_width() {
  winsize size{};
  const bool is_terminal = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > kColumns;
  return is_terminal ? size.ws_col : kColumns;
}

// The mails, one line each after that of the titles.
std::string table_of(const std::vector<shown_mail>& mails, bool has_uids) {
  text_table out(terminal_width());
  out.add_column("NO", 1, SCOLS_FL_RIGHT);
  out.add_column("", 1, 0);
  out.add_column("SIZE", 1, SCOLS_FL_RIGHT);
  out.add_column("DATE", kDateColumns, SCOLS_FL_TRUNC);
  out.add_column("FROM", 0.25, SCOLS_FL_TRUNC);
  out.add_column("SUBJECT", 0.5, SCOLS_FL_TRUNC);
  if (has_uids) out.add_column("UID", 1, 0);
  for (const shown_mail& mail : mails) {
    std::vector<std::string> cells = {std::to_string(mail.number),
                                      mail.is_given_up ? "!"
                                      : mail.is_new    ? "*"
                                                       : "",
                                      mail.size > 0 ? amount(static_cast<double>(mail.size)) : "",
                                      short_date(mail.date),
                                      short_name(mail.from),
                                      mail.subject};
    if (has_uids) cells.push_back(presentable(mail.uid));
    out.add_line(cells);
  }
  return out.text();
}

// A unique id is never cut: it is there to be used. Long ones stand below their mails.
std::string lines_of(const std::vector<shown_mail>& mails) {
  constexpr size_t kWithout = 62;  // columns that a line should have for the rest
  size_t longest = 0;
  for (const shown_mail& mail : mails) longest = std::max(longest, mail.uid.size());
  if (longest + kWithout <= terminal_width()) return table_of(mails, true);
  std::istringstream rows(table_of(mails, false));
  std::string text;
  std::string row;
  if (std::getline(rows, row)) text += row + '\n';
  for (const shown_mail& mail : mails) {
    if (std::getline(rows, row)) text += row + '\n';
    if (!mail.uid.empty()) text += "     " + presentable(mail.uid) + '\n';
  }
  return text;
}

std::string json_of(const std::vector<shown_mail>& mails, const problem* cause) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const shown_mail& mail : mails) {
    list.push_back({{"number", mail.number},
                    {"uid", mail.uid},
                    {"size", mail.size},
                    {"new", mail.is_new},
                    {"given_up", mail.is_given_up},
                    {"from", mail.from},
                    {"to", mail.to},
                    {"subject", mail.subject},
                    {"date", mail.date},
                    {"problem", mail.problem}});
  }
  nlohmann::ordered_json document = {{"messages", list}};
  if (cause != nullptr) add_problem(document, *cause);
  return json_text(document);
}

// Shows the mails of a mailbox, the last ones.
class listing {
 public:
  listing(const list_options& options, std::vector<shown_mail>& mails)
      : m_most(static_cast<size_t>(options.most)),
        m_visit(options.mailbox, options.verbose, [] { interrupt_guard::check(); }),
        m_mails(mails) {}

  void run(const list_options& options) {
    m_visit.open();
    bool has_uids = true;
    const std::vector<listed_mail> listed = m_visit.list(has_uids);
    const known_mails known(options, listed);
    const size_t first = m_most > 0 && listed.size() > m_most ? listed.size() - m_most : 0;
    for (size_t at = first; at < listed.size(); ++at) {
      interrupt_guard::check();
      shown_mail mail;
      known.tell(listed[at], mail);
      read_header(listed[at], mail);
      m_mails.push_back(std::move(mail));
    }
    m_visit.session().quit();
  }

  // Why the first header that is missing could not be read.
  const std::optional<problem>& trouble() const { return m_trouble; }

 private:
  // One that cannot be read hides neither the mail nor the others.
  void read_header(const listed_mail& listed, shown_mail& mail) {
    reopen(listed);
    whole_mail_reader reader(m_visit.session(), m_visit.header(), [] { interrupt_guard::check(); });
    const TAV_EML_RESULT result = reader.read_header(listed, mail);
    if (result == TAV_EML_OK) return;
    interrupt_guard::check();
    const problem cause =
        reader.was_endless() ? endless_header(listed.number) : m_visit.explain(result);
    mail.problem = cause.what();
    if (!m_trouble) m_trouble = cause;
    const bool is_lost = !m_visit.session().is_connected();
    if (is_lost && ++m_lost > kMostLost) throw problem(cause);
  }

  // Another connection may number the mails in another way.
  void reopen(const listed_mail& listed) {
    const int before = m_visit.connection();
    m_visit.open();
    if (m_visit.connection() == before) return;
    std::string uid;
    if (!listed.uid.empty()) m_visit.require(m_visit.session().uid_of(listed.number, uid));
    if (uid != listed.uid) throw problem(EX_TEMPFAIL, "the mailbox has changed; try again");
  }

  static constexpr int kMostLost = 20;  // connections

  const size_t m_most;
  mailbox_visit m_visit;
  std::vector<shown_mail>& m_mails;
  std::optional<problem> m_trouble;
  int m_lost = 0;
};

int run_list(command_line& command, list_options& options) {
  std::vector<shown_mail> mails;
  std::optional<problem> end;
  try {
    options.account.apply(command, *command.parent(), "pop3", options.mailbox);
    options.mailbox.complete();
    listing run(options, mails);
    run.run(options);
    end = run.trouble();
  } catch (const problem& cause) {
    end = cause;
  }
  if (options.is_json) {
    std::cout << json_of(mails, end ? &*end : nullptr);
  } else if (!mails.empty()) {
    std::cout << lines_of(mails);
  } else if (!end) {
    std::cout << "the mailbox is empty\n";
  }
  if (end) throw problem(*end);
  return EX_OK;
}

}  // namespace

command add_list(command_line& tool) {
  command_line& line = tool.add_command("list", "show what is in the mailbox");
  const auto options = std::make_shared<list_options>();
  options->account.add_to(line);
  options->mailbox.add_to(line);
  line.add("-n,--max", options->most, "most mails to show, the latest ones")
      .range(1, 1000000)
      .value_name("N")
      .group("Mail");
  line.add("--seen", options->seen, "list of seen mails; by default of the account")
      .value_name("FILE")
      .group("Mail");
  line.add_flag("--json", options->is_json, "tell what is there as JSON").group("Output");
  line.add_flag("-v,--verbose", options->verbose, "show the dialogue, secrets masked")
      .group("Output");
  return {&line, [&line, options] { return run_list(line, *options); }};
}

}  // namespace tavmail
