// problem_json.h - what goes wrong, for a script.

#ifndef PROBLEM_JSON_H
#define PROBLEM_JSON_H

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "problem.h"

namespace tavmail {

// Adds what ended the command to its document.
void add_problem(nlohmann::ordered_json& document, const problem& cause);

// A document that says nothing else.
std::string problem_document(const problem& cause);

// Texts are UTF-8 already; whatever slipped through must not end the command. What steers a
// terminal is escaped.
std::string json_text(const nlohmann::ordered_json& document);

}  // namespace tavmail

#endif
