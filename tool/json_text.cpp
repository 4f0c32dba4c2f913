#include "json_text.h"

#include <nlohmann/json.hpp>

namespace tavmail {

std::string text_at(const nlohmann::json& document, const char* key) {
  if (!document.is_object()) return {};
  const auto found = document.find(key);
  return found != document.end() && found->is_string() ? found->get<std::string>() : std::string();
}

}  // namespace tavmail
