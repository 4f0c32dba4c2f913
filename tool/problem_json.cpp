#include "problem_json.h"

#include <nlohmann/json.hpp>

namespace tavmail {

void add_problem(nlohmann::ordered_json& document, const problem& cause) {
  document["stage"] = cause.stage();
  document["reply"] = cause.reply();
  document["code"] = cause.code();
  if (!cause.recipient().empty()) document["recipient"] = cause.recipient();
  document["exit_code"] = cause.exit_code();
  document["problem"] = cause.what();
}

std::string problem_document(const problem& cause) {
  nlohmann::ordered_json document;
  add_problem(document, cause);
  return json_text(document);
}

std::string json_text(const nlohmann::ordered_json& document) {
  return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace tavmail
