#include "problem_json.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "exchange.h"

namespace tavmail {

namespace {

std::string escaped(const std::string& character) {
  const std::string quoted = nlohmann::json(character).dump(-1, ' ', true);
  return quoted.substr(1, quoted.size() - 2);
}

}  // namespace

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
  const std::string plain =
      document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
  std::string text;
  for (size_t i = 0; i < plain.size();) {
    const size_t count = plain[i] == '\n' ? 0 : steering_bytes(std::string_view(plain).substr(i));
    text += count > 0 ? escaped(plain.substr(i, count)) : plain.substr(i, 1);
    i += std::max<size_t>(count, 1);
  }
  return text;
}

}  // namespace tavmail
