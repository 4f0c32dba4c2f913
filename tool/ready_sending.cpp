#include "ready_sending.h"

#include <algorithm>

#include "envelope.h"
#include "message_text.h"
#include "problem.h"
#include "quorvelmida/taveml_easy_text.h"
#include "ready_mail.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// The address that bounces go to.
std::string sender_of(const header_block& header, const ready_options& options) {
  const std::string named = options.sender.empty() ? author_of(header) : options.sender;
  const bool is_complete = named.find('@') != std::string::npos;
  if (is_complete || (options.fallback_sender.empty() && !named.empty())) return named;
  if (!options.fallback_sender.empty()) return options.fallback_sender;
  throw problem(EX_USAGE, "no sender: the mail names no author; give --envelope-from ADDRESS");
}

envelope envelope_of(const header_block& header, const ready_options& options) {
  envelope found;
  found.sender = sender_of(header, options);
  for (const std::string& list : options.recipients) found.add_list("the recipient", list);
  if (options.reads_recipients) found.add_named(header);
  if (!found.recipients.empty()) return found;
  if (!options.reads_recipients) throw problem(EX_USAGE, "no recipient: name one, or give -t");
  throw problem(EX_DATAERR, "no recipient: the mail names none in To, Cc or Bcc");
}

// "NAME" <ADDRESS>, the name as words where it has to be.
std::string author_with(const std::string& name, const std::string& address) {
  std::string quoted;
  for (const char ch : name) quoted += (ch == '"' || ch == '\\' ? "\\" : "") + std::string(1, ch);
  std::string value =
      encoded_addresses("-F", "\"" + quoted + "\" <" + address + ">", TAV_EML_CS_UTF_8);
  value.erase(std::remove(value.begin(), value.end(), '\r'), value.end());  // of its folds
  return value;
}

void complete(header_block& header, const envelope& known, const ready_options& options) {
  if (!header.has("From")) {
    const std::string& name = options.author_name;
    header.add("From", name.empty() ? known.sender : author_with(name, known.sender));
  }
  if (!header.has("Date")) header.add("Date", easy::date_now());
  if (header.has("Message-Id")) return;
  UtlString id;
  tav_eml_smtp_send_mail::create_message_id(known.sender.c_str(), id);
  header.add("Message-Id", id.GetString());
}

}  // namespace

void send_ready(mail_input& input, const ready_options& options, const send_attempt& attempt,
                tav_eml_smtp_send_mail& mail, const std::function<void(size_t)>& advance) {
  raw_transaction transaction(attempt);
  const auto begin = [&](header_block& header) {
    if (header.is_empty() && !options.completes) {
      throw problem(EX_DATAERR, "--raw: what is there is no mail; it begins with no header field");
    }
    const envelope known = envelope_of(header, options);
    check_recipients(known.recipients, options.permit, options.deny);
    known.write_to(mail);
    if (options.completes) complete(header, known, options);
    header.remove("Bcc");
    header.remove("Resent-Bcc");
    for (const std::string& id : header.values("Message-Id")) mail.set_message_id(id.c_str());
    transaction.connect(mail);
  };
  ready_mail ready(begin, transaction);
  std::string piece(size_t{64} << 10, '\0');
  while (const size_t count = input.read(piece.data(), piece.size())) {
    ready.add(std::string_view(piece).substr(0, count));
    advance(count);
  }
  ready.end();
}

}  // namespace tavmail
