#include "display.h"

#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>

#include "text.h"

namespace mailhost {
namespace {

using json = nlohmann::ordered_json;

constexpr char red[] = "31", green[] = "32", yellow[] = "33", cyan[] = "36", bold[] = "1",
               dim[] = "2";

const char* name_of(protocol speaks) { return speaks == protocol::smtp ? "smtp" : "pop3"; }

bool is_refusal(const std::string& line) {
  return begins(line, "4") || begins(line, "5") || begins(line, "-ERR");
}

std::string list_of(const std::vector<std::string>& words) {
  std::string list;
  for (const std::string& word : words) list += (list.empty() ? "" : ", ") + word;
  return list;
}

// Names and addresses of a client need not be UTF-8, and no character of them steers a terminal:
// those that are not ASCII are escaped.
std::string line_of(const json& object) {
  return object.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
}

bool is_writable(int milliseconds) {
  pollfd output = {STDOUT_FILENO, POLLOUT, 0};
  return poll(&output, 1, milliseconds) > 0;
}

std::string time_now() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  std::tm parts = {};
  gmtime_r(&now.tv_sec, &parts);
  char day[32], text[48];
  std::strftime(day, sizeof day, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text, sizeof text, "%s.%03ldZ", day, now.tv_nsec / 1000000);
  return text;
}

void add_message(json& object, const mail& message) {
  object["helo"] = message.helo;
  object["tls"] = message.tls;
  object["user"] = message.user;
  object["from"] = message.from;
  object["to"] = message.to;
  object["bytes"] = message.data.size();
}

json json_of(const event& what) {
  static constexpr const char* names[] = {"connected", "line",    "line",    "tls",  "login",
                                          "received",  "fetched", "deleted", "note", "closed"};
  static constexpr const char* text_keys[] = {"address", "text", "text", "cipher", "user",
                                              "file",    "uid",  "uid",  "text",   nullptr};
  json object = {{"event", names[what.kind]},
                 {"time", time_now()},
                 {"connection", what.connection},
                 {"protocol", name_of(what.speaks)}};
  if (what.kind == event::client) object["by"] = "client";
  if (what.kind == event::server) object["by"] = "server";
  if (text_keys[what.kind] != nullptr) object[text_keys[what.kind]] = what.text;
  if (what.kind == event::login) {
    object["granted"] = !what.failed;
    object[what.failed ? "reason" : "method"] = what.detail;
  }
  if (what.message != nullptr) add_message(object, *what.message);
  return object;
}

// The text for a person, and its colour.
std::pair<const char*, std::string> told(const event& what) {
  switch (what.kind) {
    case event::connected:
      return {dim, "-- connected from " + what.text};
    case event::client:
      return {cyan, "C: " + what.text};
    case event::server:
      return {is_refusal(what.text) ? red : green, "S: " + what.text};
    case event::tls:
      return {dim, "-- TLS begins: " + what.text};
    case event::login:
      if (!what.failed) return {bold, "-- " + what.text + " is logged in by " + what.detail};
      return {red, "-- login of " + what.text + " refused" +
                       (what.detail.empty() ? "" : ": " + what.detail)};
    case event::received:
      return {bold, "-- mail from <" + printable(what.message->from) + "> to <" +
                        printable(list_of(what.message->to)) + ">, " +
                        std::to_string(what.message->data.size()) + " bytes: " + what.text};
    case event::fetched:
      return {bold, "-- mail " + what.text + " is fetched"};
    case event::deleted:
      return {bold, "-- mail " + what.text + " is deleted"};
    case event::note:
      return {yellow, "-- " + what.text};
    case event::closed:
      break;
  }
  return {dim, "-- closed"};
}

}  // namespace

display::display(bool as_json) : m_isJson(as_json) {
  const char* const terminal = std::getenv("TERM");
  const bool is_dumb = terminal == nullptr || std::strcmp(terminal, "dumb") == 0;
  m_hasColours =
      isatty(STDOUT_FILENO) == 1 && !is_dumb && std::getenv("NO_COLOR") == nullptr && !as_json;
}

std::string display::coloured(const char* colour, const std::string& text) const {
  return m_hasColours ? "\x1b[" + std::string(colour) + "m" + text + "\x1b[0m" : text;
}

void display::print(const std::string& line) {
  constexpr size_t piece = 4096;  // which a pipe takes at once when it can be written to
  constexpr int patience = 1000;
  if (!is_writable(m_lost == 0 ? patience : 0)) {
    ++m_lost;
    return;
  }
  if (m_lost != 0) {
    const std::string told =
        std::to_string(std::exchange(m_lost, 0)) + " lines are lost: nobody read";
    print(m_isJson ? line_of({{"event", "note"}, {"time", time_now()}, {"text", told}})
                   : "-- " + told + "\n");
  }
  for (size_t at = 0; at < line.size() && is_writable(patience); at += piece) {
    const std::string_view next = std::string_view(line).substr(at, piece);
    if (write(STDOUT_FILENO, next.data(), next.size()) < 0) return;  // the clients go on
  }
}

void display::show(const entrance& where) {
  if (m_isJson) {
    json object = {{"event", "ready"}, {"time", time_now()}, {"address", where.address}};
    for (const auto& [name, port] : where.ports) object[name] = port;
    object["users"] = where.users;
    object["folder"] = where.folder;
    return print(line_of(object));
  }
  std::string text = "tavmail-host listens on " + where.address + "; Ctrl-C ends it\n";
  for (const auto& [name, port] : where.ports)
    text += "  " + name + std::string(7 - name.size(), ' ') + std::to_string(port) + "\n";
  text += "  users  " + list_of(where.users) + "\n  mails  " + where.folder +
          (where.is_private ? " (goes at the end; --folder keeps them)" : "") + "\n";
  print(text);
}

void display::show(const event& what) {
  if (m_isJson) return print(line_of(json_of(what)));
  const auto [colour, text] = told(what);
  print(coloured(dim, std::to_string(what.connection) + " " + name_of(what.speaks)) + " " +
        coloured(colour, text) + "\n");
}

}  // namespace mailhost
