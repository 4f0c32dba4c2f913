#include "send_options.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include "input_file.h"
#include "message_text.h"
#include "problem.h"
#include "quorvelmida/tav_eml_mlutl_domain_filter.h"
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

std::string read_body(const send_options& options) {
  if (options.text_option.is_given()) return options.text;
  const bool is_standard = options.text_file.empty() || options.text_file == "-";
  if (options.text_file.empty() && isatty(STDIN_FILENO) == 1) {
    throw problem(EX_USAGE, "no text: give --text TEXT, --text-file FILE or standard input");
  }
  std::string text = is_standard
                         ? input_file(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3), "standard input")
                               .read_all(kLargestBody)
                         : input_file(options.text_file, "--text-file").read_all(kLargestBody);
  if (text.size() > kLargestBody) {
    throw problem(EX_DATAERR, "the text is too long for a mail's text; attach it with --attach");
  }
  return text;
}

TAV_EML_CHAR_SET char_set_of(const std::string& name) {
  for (const TAV_EML_CHAR_SET known :
       {TAV_EML_CS_UTF_8, TAV_EML_CS_ISO_2022_JP, TAV_EML_CS_SHIFT_JIS}) {
    if (name == tav_eml_mlutl_mail_type::get_char_set(known)) return known;
  }
  throw problem(EX_USAGE,
                "--charset " + name + " is not known; use utf-8, iso-2022-jp or shift_jis");
}

void check_body(const std::string& body, TAV_EML_CHAR_SET char_set) {
  if (!is_utf8(body)) {
    throw problem(EX_DATAERR, "the text is not UTF-8; convert it first, for example with iconv");
  }
  if (!can_express(body, char_set)) {
    throw problem(EX_DATAERR, std::string("the text has a character that ") +
                                  tav_eml_mlutl_mail_type::get_char_set(char_set) +
                                  " lacks; use --charset utf-8");
  }
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
  if (options.to.empty() && options.cc.empty() && options.bcc.empty()) {
    throw problem(EX_USAGE, "no recipient: give --to, --cc or --bcc");
  }
  if (count_addresses(options.sender) > 1) throw problem(EX_USAGE, "--sender takes one address");
}

// Holds every recipient against the permit or deny list.
void check_recipients(const send_options& options) {
  constexpr unsigned char kPermit = 1;
  constexpr unsigned char kDeny = 2;
  const bool is_permit = !options.permit.empty();
  const std::vector<std::string>& names = is_permit ? options.permit : options.deny;
  if (names.empty()) return;
  std::vector<const char*> list;
  for (const std::string& name : names) list.push_back(name.c_str());
  for (const auto& recipients : {options.to, options.cc, options.bcc}) {
    for (const std::string& addresses : recipients) {
      if (tav_eml_mlutl_check_filter(addresses.c_str(), is_permit ? kPermit : kDeny, list.data(),
                                     static_cast<int>(list.size())) == 0) {
        throw problem(EX_NOPERM, "mail may not go to " + addresses + ": " +
                                     (is_permit ? "not all of it is on the --permit list"
                                                : "it is on the --deny list"));
      }
    }
  }
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

void fill_attachment(const send_options& options, outgoing& out) {
  if (options.attach.empty()) {
    if (!options.attach_name.empty() || !options.content_type.empty()) {
      throw problem(EX_USAGE, "--attach-name and --content-type need --attach FILE");
    }
    return;
  }
  // First: of a file that is not there the type does not matter.
  out.file = std::make_unique<attachment>(options.attach);
  const TAV_EML_CONTENT_TYPE type = content_type_of(options.attach, options.content_type);
  const std::string name = !options.attach_name.empty()
                               ? options.attach_name
                               : options.attach.substr(options.attach.rfind('/') + 1);
  check_header_text("the name of the attachment", name, out.mail.m_nCharSet);

  auto part = std::make_unique<tav_eml_smtp_send_mail_part>();
  part->m_nContentType = type;
  part->m_nTransferEncoding = TAV_EML_TE_BASE64;
  part->m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
  part->m_cFIleName = easy::quotable_file_name(name).c_str();
  part->set_content_ciajwnetfax(options.internet_fax ? 1 : 0);
  out.mail.set_part(part.release());
  out.mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  out.mail.m_cBoundaryString = easy::new_boundary().c_str();
}

}  // namespace

void send_options::add_to(command_line& command) {
  account.add_to(command);
  server.add_to(command);
  const std::string mail = "Mail";
  const auto add = [&](const char* names, auto& value, const char* help, const char* type) {
    return command.add(names, value, help).value_name(type).group(mail);
  };
  add("-f,--from", from, "author", "ADDRESS");
  add("-t,--to", to, "recipients: one or a list; may be repeated", "ADDRESS").repeatable();
  add("--cc", cc, "copies", "ADDRESS").repeatable();
  add("--bcc", bcc, "blind copies", "ADDRESS").repeatable();
  add("--reply-to", reply_to, "where answers go", "ADDRESS").repeatable();
  add("--sender", sender, "who sends for the author", "ADDRESS");
  add("-S,--subject", subject, "subject", "TEXT");
  text_option = add("--text", text, "text of the mail", "TEXT");
  add("--text-file", text_file, "file with the text; \"-\" is standard input", "FILE")
      .excludes(text_option);
  add("--charset", char_set_name, "utf-8 (default), iso-2022-jp or shift_jis", "NAME")
      .suggest({"utf-8", "iso-2022-jp", "shift_jis"});
  add("-a,--attach", attach, "file to attach", "FILE");
  add("--attach-name", attach_name, "its name in the mail", "NAME");
  add("--content-type", content_type, "its type; by the file's name by default", "TYPE");
  add("--message-id", message_id, "id of the mail; a new one by default", "ID");
  add("--in-reply-to", in_reply_to, "ids of the mail answered", "IDS");
  add("--references", references, "ids of the thread", "IDS");
  add("--mdn", mdn, "ask for a notice that the mail was displayed", "ADDRESS");
  add("--size-limit", size_limit, "most bytes of the mail", "BYTES");
  const option only =
      add("--permit", permit, "domain or address mail may go to; repeatable", "NAME").repeatable();
  add("--deny", deny, "domain or address that mail may not go to", "NAME")
      .repeatable()
      .excludes(only);
  command.add_flag("--internet-fax", internet_fax, "mark the attachment as internet fax")
      .group(mail);
  const option loud = command.add_flag("-v,--verbose", verbose, "show the dialogue, secrets masked")
                          .group("Output");
  command.add_flag("--json", is_json, "tell the outcome as JSON").group("Output");
  command.add_flag("-q,--quiet", quiet, "say nothing on success").excludes(loud).group("Output");
}

void prepare(const send_options& options, outgoing& out) {
  out.mail.m_nCharSet = char_set_of(options.char_set_name);
  out.mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  out.mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  check_recipients(options);
  fill_addresses(options, out.mail);
  check_header_text("--subject", options.subject, out.mail.m_nCharSet);
  out.mail.m_cSubject = options.subject.c_str();
  out.mail.m_cDate = easy::date_now().c_str();
  fill_threading(options, out.mail);
  fill_attachment(options, out);
  out.body = canonical_lines(read_body(options));
  check_body(out.body, out.mail.m_nCharSet);
}

}  // namespace tavmail
