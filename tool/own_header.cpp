#include "own_header.h"

#include <algorithm>
#include <string_view>

#include "message_text.h"
#include "problem.h"
#include "words.h"

namespace tavmail {

namespace {

// Fields that are composed, and the option for each; "" where there is none.
constexpr struct {
  const char* name;
  const char* option;
} kComposed[] = {
    {"Date", ""},
    {"From", "--from"},
    {"Sender", "--sender"},
    {"Reply-To", "--reply-to"},
    {"To", "--to"},
    {"Cc", "--cc"},
    {"Bcc", "--bcc"},
    {"Subject", "--subject"},
    {"Message-Id", "--message-id"},
    {"In-Reply-To", "--in-reply-to"},
    {"References", "--references"},
    {"Disposition-Notification-To", "--mdn"},
    {"Mime-Version", ""},
};

// Servers write these, and who reads them believes that.
constexpr const char* kOfServers[] = {"Return-Path",    "Received",      "Delivered-To",
                                      "DKIM-Signature", "Received-SPF",  "Authentication-Results",
                                      "Envelope-To",    "X-Original-To", "Apparently-To"};
constexpr const char* kBeginnings[] = {"Content-", "Resent-", "ARC-"};

void check_name(const std::string& name) {
  const std::string what = "--header: the field " + name;
  for (const auto& composed : kComposed) {
    if (!is_same_word(name, composed.name)) continue;
    const std::string option = composed.option;
    throw problem(EX_USAGE, what + " is always composed" +
                                (option.empty() ? "" : "; give " + option + " instead"));
  }
  const bool is_of_server =
      std::any_of(std::begin(kOfServers), std::end(kOfServers),
                  [&](const char* known) { return is_same_word(name, known); });
  const bool is_of_kind = std::any_of(std::begin(kBeginnings), std::end(kBeginnings),
                                      [&](const char* start) { return begins_with(name, start); });
  if (is_of_server || is_of_kind) {
    throw problem(EX_USAGE, what + " cannot be given; a mail that has it can be sent with --raw");
  }
}

}  // namespace

header_field own_header_field(const std::string& text) {
  const size_t colon = std::min(text.find(':'), text.size());
  const std::string name = text.substr(0, colon);
  if (colon == text.size() || !is_field_name(name)) {
    throw problem(EX_USAGE, "--header \"" + text + "\": expected \"NAME: VALUE\"");
  }
  check_header_text("--header " + name.substr(0, 40), text, quorvelmida::TAV_EML_CS_UTF_8);
  check_name(name);
  const size_t begin = text.find_first_not_of(" \t", colon + 1);
  return {name, begin != std::string::npos ? text.substr(begin) : ""};
}

}  // namespace tavmail
