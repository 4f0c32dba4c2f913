#include "receive_report.h"

#include <nlohmann/json.hpp>

#include "problem_json.h"
#include "progress_bar.h"
#include "received_text.h"

namespace tavmail {

namespace {

void add_line(std::string& out, const std::string& label, const std::string& text) {
  if (text.empty()) return;
  std::string line = label;
  line.resize(std::max<size_t>(label.size(), 9), ' ');
  out += line + fit(text, kColumns - line.size()) + "\n";
}

std::string part_line(const received_part& part, const std::string& folder) {
  std::string text = part.content_type.empty() ? "text/plain" : part.content_type;
  if (!part.name.empty()) text += " \"" + part.name + "\"";
  text += ", " + amount(static_cast<double>(part.bytes));
  if (!part.is_certain) text += ", a block of it held no data";
  const std::string line = "  " + fit(text, kColumns - 2) + "\n";
  // A path is never cut: it is there to be used.
  return line + "    " + folder + "/" + part.file + "\n";
}

nlohmann::ordered_json part_json(const received_part& part, const std::string& folder) {
  return {{"content_type", part.content_type},
          {"charset", part.char_set},
          {"saved_charset", part.is_utf8 ? "utf-8" : part.char_set},
          {"encoding", part.encoding},
          {"disposition", part.disposition},
          {"name", part.name},
          {"file", folder + "/" + part.file},
          {"bytes", part.bytes},
          {"certain", part.is_certain}};
}

}  // namespace

nlohmann::ordered_json listed_json(const std::vector<listed_mail>& mails) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const listed_mail& mail : mails) {
    list.push_back({{"number", mail.number}, {"uid", mail.uid}, {"size", mail.size}});
  }
  return list;
}

std::string mail_lines(const received_mail& mail, const std::string& folder) {
  if (mail.is_given_up) return wrapped("", mail.problem);
  std::string out;
  add_line(out, "From:", mail.from);
  add_line(out, "To:", mail.to);
  add_line(out, "Cc:", mail.cc);
  add_line(out, "Subject:", mail.subject);
  add_line(out, "Date:", mail.date);
  if (mail.size > 0) add_line(out, "Size:", amount(static_cast<double>(mail.size)));
  for (const received_part& part : mail.parts) out += part_line(part, folder + "/" + mail.folder);
  if (!mail.file.empty()) out += "    " + folder + "/" + mail.file + "\n";
  if (!mail.problem.empty()) out += wrapped("  not complete: ", mail.problem);
  if (mail.is_deleted) out += "  deleted on the server\n";
  return out;
}

std::string mails_json(const std::vector<received_mail>& mails,
                       const std::vector<listed_mail>& deleted_before,
                       const std::vector<listed_mail>& too_large, const problem* cause) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const received_mail& mail : mails) {
    nlohmann::ordered_json parts = nlohmann::ordered_json::array();
    for (const received_part& part : mail.parts) parts.push_back(part_json(part, mail.folder));
    list.push_back({{"number", mail.number},
                    {"uid", mail.uid},
                    {"size", mail.size},
                    {"from", mail.from},
                    {"to", mail.to},
                    {"cc", mail.cc},
                    {"reply_to", mail.reply_to},
                    {"subject", mail.subject},
                    {"date", mail.date},
                    {"message_id", mail.message_id},
                    {"content_type", mail.content_type},
                    {"file", mail.file},
                    {"problem", mail.problem},
                    {"given_up", mail.is_given_up},
                    {"deleted", mail.is_deleted},
                    {"parts", parts}});
  }
  nlohmann::ordered_json document = {{"messages", list},
                                     {"deleted_before", listed_json(deleted_before)},
                                     {"too_large", listed_json(too_large)}};
  if (cause != nullptr) add_problem(document, *cause);
  return json_text(document);
}

}  // namespace tavmail
