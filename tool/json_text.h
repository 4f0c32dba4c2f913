// json_text.h - texts in JSON that others wrote.

#ifndef JSON_TEXT_H
#define JSON_TEXT_H

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace tavmail {

// "" unless the document is an object that has a text there.
std::string text_at(const nlohmann::json& document, const char* key);

}  // namespace tavmail

#endif
