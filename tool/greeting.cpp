#include "greeting.h"

#include <algorithm>

#include "words.h"

namespace tavmail {

namespace {

bool begins_with_code(const std::string& text) {
  const auto is_digit = [](char ch) { return ch >= '0' && ch <= '9'; };
  return text.size() >= 3 && std::all_of(text.begin(), text.begin() + 3, is_digit) &&
         (text.size() == 3 || text[3] == ' ' || text[3] == '-' || text[3] == '\r' ||
          text[3] == '\n');
}

const char* name_of(speaker who) {
  switch (who) {
    case speaker::smtp:
      return "an SMTP server";
    case speaker::pop3:
      return "a POP3 server";
    case speaker::imap:
      return "an IMAP server";
    case speaker::ftp:
      return "an FTP server";
    case speaker::ssh:
      return "an SSH server";
    default:
      return "a web server";
  }
}

bool is_right(speaker who, bool is_pop3) {
  return who == (is_pop3 ? speaker::pop3 : speaker::smtp);
}

std::string right_port(bool is_pop3) {
  return is_pop3 ? "POP3 has port 110 or, with TLS, 995"
                 : "sending has port 587, 25 or, with TLS, 465";
}

std::string remedy_for(speaker who, bool is_pop3) {
  if (who == speaker::pop3) return "POP3 only receives: " + right_port(false);
  if (who == speaker::smtp) return "it takes mail: " + right_port(true);
  if (who == speaker::imap && is_pop3) return "IMAP is not spoken here; " + right_port(true);
  return "check server and port; " + right_port(is_pop3);
}

}  // namespace

speaker speaker_of(const std::string& greeting) {
  if (greeting.empty()) return speaker::nobody;
  if (begins_with(greeting, "SSH-")) return speaker::ssh;
  if (begins_with(greeting, "HTTP/") || greeting[0] == '<') return speaker::web;
  if (begins_with(greeting, "* ")) return speaker::imap;
  if (begins_with(greeting, "+OK") || begins_with(greeting, "-ERR")) return speaker::pop3;
  if (!begins_with_code(greeting)) return speaker::other;
  const bool is_ftp = says(greeting, "ftp") && !says(greeting, "smtp");
  return is_ftp ? speaker::ftp : speaker::smtp;
}

bool is_temporary_pop3(const std::string& reply) {
  constexpr const char* kCodes[] = {"[IN-USE]", "[LOGIN-DELAY]", "[SYS/TEMP]"};
  return std::any_of(std::begin(kCodes), std::end(kCodes),
                     [&](const char* code) { return says(reply, code); });
}

bool is_of_another(const std::string& greeting, bool is_pop3) {
  const speaker who = speaker_of(greeting);
  if (who == speaker::nobody || is_right(who, is_pop3)) return false;
  if (is_pop3 && greeting.find("+OK") != std::string::npos) return false;
  // Its name may only look like one; its replies tell.
  return is_pop3 || who != speaker::ftp;
}

finding explain_greeting(const std::string& greeting, bool is_pop3,
                         const endpoint_options& options) {
  const std::string place = options.place();
  const speaker who = speaker_of(greeting);
  const bool is_reply = is_pop3 || greeting[0] == '4' || greeting[0] == '5' || who != speaker::smtp;
  if (who == speaker::nobody || who == speaker::other || !is_reply) {
    return {EX_PROTOCOL, place + " greets with what is no " + (is_pop3 ? "POP3" : "SMTP"),
            remedy_for(who, is_pop3)};
  }
  if (!is_right(who, is_pop3)) {
    return {EX_PROTOCOL, place + " is " + name_of(who), remedy_for(who, is_pop3)};
  }
  if (is_pop3 ? is_temporary_pop3(greeting) : greeting[0] == '4') {
    return {EX_TEMPFAIL, place + " serves nobody for now", "try again later"};
  }
  return {EX_UNAVAILABLE, place + " does not serve this machine",
          is_pop3 ? "ask whoever runs the server"
                  : "ask whoever runs the server whether this address is blocked; with a login "
                    "port 587 or 465 may be open"};
}

}  // namespace tavmail
