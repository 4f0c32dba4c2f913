#include "send_options.h"

#include <initializer_list>

#include "problem.h"

namespace tavmail {

namespace {

constexpr char kMail[] = "Mail";

}  // namespace

void send_options::add_to(command_line& command) {
  account.add_to(command);
  server.add_to(command);
  const auto add = [&](const char* names, auto& value, const char* help, const char* type) {
    return command.add(names, value, help).value_name(type).group(kMail);
  };
  add("-f,--from", from, "author", "ADDRESS");
  add("-t,--to", to, "recipients: one or a list; may be repeated", "ADDRESS").repeatable();
  add("--cc", cc, "copies", "ADDRESS").repeatable();
  add("--bcc", bcc, "blind copies", "ADDRESS").repeatable();
  add_content_to(command);
  add("--raw", raw, "a mail that is ready; \"-\" is standard input", "FILE");
  envelope_from_option =
      add("--envelope-from", envelope_from, "where bounces go; the author by default", "ADDRESS");
  limits.add_to(command, kMail);
  const option loud = command.add_flag("-v,--verbose", verbose, "show the dialogue, secrets masked")
                          .group("Output");
  command.add_flag("--json", is_json, "tell the outcome as JSON").group("Output");
  command.add_flag("-q,--quiet", quiet, "say nothing on success").excludes(loud).group("Output");
}

void send_options::add_content_to(command_line& command) {
  const auto add = [&](const char* names, auto& value, const char* help, const char* type) {
    m_content.push_back(command.add(names, value, help).value_name(type).group(kMail));
    return m_content.back();
  };
  add("--reply-to", reply_to, "where answers go", "ADDRESS").repeatable();
  add("--sender", sender, "who sends for the author", "ADDRESS");
  add("-S,--subject", subject, "subject", "TEXT");
  text_option = add("--text", text, "text of the mail", "TEXT");
  add("--text-file", text_file, "file with the text; \"-\" is standard input", "FILE")
      .excludes(text_option);
  html_option = add("--html", html, "the text as HTML, beside the plain one", "TEXT");
  add("--html-file", html_file, "file with it", "FILE").excludes(html_option);
  add("--charset", char_set_name, "utf-8 (default), iso-2022-jp or shift_jis", "NAME")
      .suggest({"utf-8", "iso-2022-jp", "shift_jis"});
  add("-a,--attach", attach, "file to attach; may be repeated", "FILE").repeatable();
  add("--attach-name", attach_name, "name in the mail of the file before it", "NAME").repeatable();
  add("--content-type", content_type, "its type; by its name by default", "TYPE").repeatable();
  add("--header", headers, "\"NAME: VALUE\", a field of your own; repeatable", "FIELD")
      .repeatable();
  add("--message-id", message_id, "id of the mail; a new one by default", "ID");
  add("--in-reply-to", in_reply_to, "ids of the mail answered", "IDS");
  add("--references", references, "ids of the thread", "IDS");
  add("--mdn", mdn, "ask for a notice that the mail was displayed", "ADDRESS");
  m_content.push_back(
      command.add_flag("--internet-fax", internet_fax, "mark the attachments as internet fax")
          .group(kMail));
}

void send_options::check_raw() const {
  if (raw.empty()) return;
  for (const option& each : m_content) {
    if (!each.is_given()) continue;
    throw problem(EX_USAGE, "--raw sends a mail as it is; leave out --" + each.name());
  }
}

std::vector<attachment_request> send_options::attachments(const command_line& command) const {
  std::vector<attachment_request> all;
  attachment_request ahead;  // of the first file
  for (const auto& [name, value] : command.in_order({"attach", "attach-name", "content-type"})) {
    if (name == "attach") {
      all.push_back(all.empty() ? ahead : attachment_request());
      all.back().path = value;
      continue;
    }
    attachment_request& current = all.empty() ? ahead : all.back();
    std::string& detail = name == "attach-name" ? current.name : current.type;
    if (!detail.empty()) throw problem(EX_USAGE, "--" + name + " is given twice for one --attach");
    detail = value;
  }
  if (all.empty() && (!ahead.name.empty() || !ahead.type.empty())) {
    throw problem(EX_USAGE, "--attach-name and --content-type need --attach FILE");
  }
  return all;
}

}  // namespace tavmail
