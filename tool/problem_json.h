// problem_json.h - what goes wrong, for a script.

#ifndef PROBLEM_JSON_H
#define PROBLEM_JSON_H

#include <nlohmann/json.hpp>
#include <string>

#include "problem.h"

namespace tavmail {

// Adds what ended the command to its document.
inline void add_problem(nlohmann::ordered_json& document, const problem& cause) {
  document["stage"] = cause.stage();
  document["reply"] = cause.reply();
  document["code"] = cause.code();
  if (!cause.recipient().empty()) document["recipient"] = cause.recipient();
  document["exit_code"] = cause.exit_code();
  document["problem"] = cause.what();
}

// Texts are UTF-8 already; whatever slipped through must not end the command.
inline std::string json_text(const nlohmann::ordered_json& document) {
  return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace tavmail

#endif
