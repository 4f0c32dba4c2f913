#include "mail_log.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

namespace tavmail {

namespace {

struct sending {
  bool was_tried = false;
  bool has_tls = false;
  bool has_login = false;
  std::string sender;
  std::string recipients;
  uint64_t bytes = 0;
  std::string reply;
};

sending g_sending;
std::vector<received_mail> g_received;

constexpr struct {
  int code;
  const char* name;
} kExitNames[] = {{EX_OK, "EX_OK"},
                  {EX_USAGE, "EX_USAGE"},
                  {EX_DATAERR, "EX_DATAERR"},
                  {EX_NOINPUT, "EX_NOINPUT"},
                  {EX_NOHOST, "EX_NOHOST"},
                  {EX_UNAVAILABLE, "EX_UNAVAILABLE"},
                  {EX_SOFTWARE, "EX_SOFTWARE"},
                  {EX_OSERR, "EX_OSERR"},
                  {EX_CANTCREAT, "EX_CANTCREAT"},
                  {EX_IOERR, "EX_IOERR"},
                  {EX_TEMPFAIL, "EX_TEMPFAIL"},
                  {EX_PROTOCOL, "EX_PROTOCOL"},
                  {EX_NOPERM, "EX_NOPERM"},
                  {EX_CONFIG, "EX_CONFIG"}};

std::string exit_name(int code) {
  for (const auto& known : kExitNames) {
    if (known.code == code) return known.name;
  }
  return std::to_string(code);
}

// A word of the line: what a peer says cannot end it.
std::string word(std::string text) {
  text = presentable(text);
  std::replace(text.begin(), text.end(), ' ', '_');
  return text;
}

std::string log_quoted(std::string text) {
  text = presentable(text);
  std::replace(text.begin(), text.end(), '\'', '"');
  return "'" + text + "'";
}

std::string ending(const problem* cause) {
  return (cause != nullptr ? " errormsg=" + log_quoted(cause->what()) : "") +
         " exitcode=" + exit_name(cause != nullptr ? cause->exit_code() : EX_OK);
}

std::string sent_line(const std::string& server, const std::string& user, const problem* cause) {
  const sending& mail = g_sending;
  std::string line = "host=" + word(server);
  if (mail.was_tried) {
    line += std::string(" tls=") + (mail.has_tls ? "on" : "off") +
            " auth=" + (mail.has_login ? "on user=" + word(user) : "off") + " from=" + mail.sender +
            " recipients=" + mail.recipients + " mailsize=" + std::to_string(mail.bytes);
  }
  if (!mail.reply.empty()) {
    line += " smtpstatus=" + word(mail.reply.substr(0, 3)) + " smtpmsg=" + log_quoted(mail.reply);
  }
  return line + ending(cause);
}

std::string received_line(const std::string& server, const std::string& user,
                          const received_mail& mail) {
  std::string line = "host=" + word(server) + " user=" + word(user) + " uid=" + word(mail.uid) +
                     " from=" + log_quoted(mail.from) + " mailsize=" + std::to_string(mail.size);
  const std::string& place = mail.is_kept ? mail.file : mail.folder;
  if (!place.empty()) line += " saved=" + log_quoted(place);
  if (mail.is_deleted) line += " deleted=yes";
  if (mail.problem.empty()) return line + ending(nullptr);
  const problem cause(EX_DATAERR, mail.problem);
  return line + ending(&cause);
}

bool add_to_file(const std::string& path, const std::string& text) {
  // A pipe that nobody reads is not waited for.
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  const int fd = open(path.c_str(), kFlags, 0600);
  if (fd < 0) return false;
  // In one piece: other runs may write there too.
  const bool is_written =
      ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && is_written;
}

}  // namespace

void mail_log::begin() {
  g_sending = sending();
  g_received.clear();
}

void mail_log::note(const dialogue_view& view) {
  if (view.is_pop3()) return;  // what failed is the login before sending
  sending mail;
  mail.was_tried = true;
  mail.has_tls = !view.latest().tls.empty();
  mail.sender = word(view.sender());
  for (const std::string& address : view.recipients()) {
    mail.recipients += (mail.recipients.empty() ? "" : ",") + word(address);
  }
  mail.bytes = view.mail_bytes();
  mail.has_login = view.has_login();
  const exchange* refused = view.refused_login();
  mail.reply = reply_text(refused != nullptr ? refused : view.decisive());
  g_sending = mail;
}

void mail_log::note(const std::vector<received_mail>& mails) { g_received = mails; }

std::vector<std::string> mail_log::lines(const std::string& server, const std::string& user,
                                         bool is_sending, const problem* cause) {
  if (is_sending) return {sent_line(server, user, cause)};
  std::vector<std::string> lines;
  for (const received_mail& mail : g_received) lines.push_back(received_line(server, user, mail));
  const bool is_told = std::any_of(g_received.begin(), g_received.end(), [&](const auto& mail) {
    return cause != nullptr && mail.problem == cause->what();
  });
  if (cause != nullptr && !is_told) {
    lines.push_back("host=" + word(server) + " user=" + word(user) + ending(cause));
  }
  return lines;
}

bool mail_log::write(const std::string& target, const std::vector<std::string>& lines,
                     bool is_failure) {
  if (target == "syslog") {
    openlog("tavmail", 0, LOG_MAIL);
    for (const std::string& line : lines) {
      syslog(is_failure ? LOG_ERR : LOG_INFO, "%s", line.c_str());
    }
    closelog();
    return true;
  }
  char time_text[32] = "";
  const time_t now = std::time(nullptr);
  tm parts{};
  std::strftime(time_text, sizeof time_text, "%b %d %H:%M:%S ", localtime_r(&now, &parts));
  std::string text;
  for (const std::string& line : lines) text += time_text + line + "\n";
  return text.empty() || add_to_file(target, text);
}

}  // namespace tavmail
