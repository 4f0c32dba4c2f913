#include "outgoing_mail.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "envelope.h"
#include "input_file.h"
#include "message_text.h"
#include "own_header.h"
#include "problem.h"
#include "quorvelmida/taveml_easy_text.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr size_t kLargestBody = size_t{64} << 20;

std::string join(const std::vector<std::string>& lists) {
  std::string joined;
  for (const std::string& list : lists) joined += (joined.empty() ? "" : ", ") + list;
  return joined;
}

std::string read_text_file(const std::string& path, const char* option) {
  std::string text = open_input(path, option)->read_all(kLargestBody);
  if (text.size() > kLargestBody) {
    throw problem(EX_DATAERR, "the text is too long for a mail's text; attach it with --attach");
  }
  return text;
}

// HTML alone is all of the text; otherwise the standard input has the plain one where nothing else
// does.
std::optional<std::string> read_body(const send_options& options) {
  if (options.text_option.is_given()) return options.text;
  if (!options.text_file.empty()) return read_text_file(options.text_file, "--text-file");
  if (options.html_option.is_given() || !options.html_file.empty()) return std::nullopt;
  if (isatty(STDIN_FILENO) == 1) {
    throw problem(EX_USAGE, "no text: give --text TEXT, --text-file FILE or standard input");
  }
  return read_text_file("-", "");
}

std::optional<std::string> read_html(const send_options& options) {
  if (options.html_option.is_given()) return options.html;
  if (options.html_file.empty()) return std::nullopt;
  if (options.html_file == "-" && options.text_file == "-") {
    throw problem(EX_USAGE, "--text-file and --html-file cannot both be the standard input");
  }
  return read_text_file(options.html_file, "--html-file");
}

TAV_EML_CHAR_SET char_set_of(const std::string& name) {
  for (const TAV_EML_CHAR_SET known :
       {TAV_EML_CS_UTF_8, TAV_EML_CS_ISO_2022_JP, TAV_EML_CS_SHIFT_JIS}) {
    if (name == tav_eml_mlutl_mail_type::get_char_set(known)) return known;
  }
  throw problem(EX_USAGE,
                "--charset " + name + " is not known; use utf-8, iso-2022-jp or shift_jis");
}

// A text as it is sent: checked, with canonical lines.
std::optional<std::string> sendable(const std::optional<std::string>& text,
                                    TAV_EML_CHAR_SET char_set) {
  if (!text) return std::nullopt;
  std::string lines = canonical_lines(*text);
  if (!is_utf8(lines)) {
    throw problem(EX_DATAERR, "the text is not UTF-8; convert it first, for example with iconv");
  }
  if (!can_express(lines, char_set)) {
    throw problem(EX_DATAERR, std::string("the text has a character that ") +
                                  tav_eml_mlutl_mail_type::get_char_set(char_set) +
                                  " lacks; use --charset utf-8");
  }
  return lines;
}

void fill_addresses(const send_options& options, tav_eml_smtp_send_mail& mail) {
  const TAV_EML_CHAR_SET char_set = mail.m_nCharSet;
  const auto set = [&](const char* what, const std::string& list,
                       tav_eml_mlutl_mail_address& field) {
    if (list.empty()) return;
    field = tav_eml_mlutl_mail_address(encoded_addresses(what, list, char_set).c_str());
  };
  set("--from", options.from, mail.m_cFrom);
  set("--to", join(options.to), mail.m_cTo);
  set("--cc", join(options.cc), mail.m_cCc);
  set("--bcc", join(options.bcc), mail.m_cBcc);
  set("--reply-to", join(options.reply_to), mail.m_cReplyTo);
  set("--sender", options.sender, mail.m_cSender);
  set("--mdn", options.mdn, mail.m_cMdnAddress);
  if (options.from.empty()) throw problem(EX_USAGE, "no author: give --from ADDRESS");
  if (count_addresses(options.from) != 1) {
    throw problem(EX_USAGE, "--from takes one address; others go into --reply-to");
  }
  // Lists that name nobody: a variable of a script may be empty.
  if (count_addresses(join({join(options.to), join(options.cc), join(options.bcc)})) == 0) {
    throw problem(EX_USAGE, "no recipient: give --to, --cc or --bcc");
  }
  if (count_addresses(options.sender) > 1) throw problem(EX_USAGE, "--sender takes one address");
}

// Message ids stand in angle brackets.
void fill_threading(const send_options& options, tav_eml_smtp_send_mail& mail) {
  const auto check = [&](const char* what, const std::string& value, bool needs_brackets) {
    // The library gives each id a line of its own.
    for (size_t at = 0, end = 0; end < value.size(); at = end) {
      end = std::min(value.find('>', at), value.size() - 1) + 1;
      check_header_text(what, value.substr(at, end - at), TAV_EML_CS_US_ASCII);
    }
    if (!value.empty() && needs_brackets &&
        (value.find('<') == std::string::npos || value.find('>') == std::string::npos)) {
      throw problem(EX_USAGE, std::string(what) + ": expected message ids as \"<ID@HOST>\"");
    }
  };
  check("--message-id", options.message_id, false);
  check("--in-reply-to", options.in_reply_to, true);
  check("--references", options.references, true);
  UtlString id(options.message_id.c_str());
  // Made here and not by the library, so that the outcome can name it.
  if (id.IsEmpty()) tav_eml_smtp_send_mail::create_message_id(mail.m_cFrom, id);
  mail.set_message_id(id);
  mail.set_in_reply_to(options.in_reply_to.c_str());
  mail.set_references(options.references.c_str());
}

void open_attachments(const std::vector<attachment_request>& requests, outgoing& out) {
  for (const attachment_request& request : requests) {
    auto file = std::make_unique<attachment>(request);
    check_header_text("the name of the attachment", file->name(), out.mail.m_nCharSet);
    out.files.push_back(std::move(file));
  }
  if (requests.empty()) return;
  out.mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  out.mail.m_cBoundaryString = easy::new_boundary().c_str();
}

// What takes another way than the facade's.
void fill_own(const send_options& options, outgoing& out) {
  for (const std::string& header : options.headers) out.own.push_back(own_header_field(header));
  out.html = sendable(read_html(options), out.mail.m_nCharSet);
  if (options.envelope_from_option.is_given()) {
    const std::string sender = given_sender("--envelope-from", options.envelope_from);
    if (sender != bare_addresses(options.from).front()) out.sender = sender;
  }
}

}  // namespace

void prepare(const send_options& options, const std::vector<attachment_request>& files,
             outgoing& out) {
  out.mail.m_nCharSet = char_set_of(options.char_set_name);
  out.mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  out.mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  for (const auto& recipients : {options.to, options.cc, options.bcc}) {
    check_recipients(recipients, options.limits.permit, options.limits.deny);
  }
  fill_addresses(options, out.mail);
  check_header_text("--subject", options.subject, out.mail.m_nCharSet);
  out.mail.m_cSubject = options.subject.c_str();
  out.mail.m_cDate = easy::date_now().c_str();
  fill_threading(options, out.mail);
  fill_own(options, out);
  open_attachments(files, out);
  out.body = sendable(read_body(options), out.mail.m_nCharSet);
}

}  // namespace tavmail
