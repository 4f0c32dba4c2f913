#include "exchange.h"

#include <algorithm>

#include "message_text.h"

namespace tavmail {

namespace {

constexpr size_t kLongestShown = 2000;

// The bytes of a POP3 line that are looked at.
constexpr size_t kLongestStatus = 1022;

constexpr size_t kCodeLength = 3;

verdict smtp_verdict(std::string_view line) {
  switch (line.empty() ? '\0' : line[0]) {
    case '2':
      return verdict::success;
    case '3':
      return verdict::goes_on;
    case '4':
      return verdict::temporary;
    case '5':
      return verdict::refused;
    default:
      return verdict::nonsense;
  }
}

verdict pop3_verdict(std::string_view line) {
  line = line.substr(0, line.find('\0'));
  if (line.substr(0, kLongestStatus).find("+OK") != std::string_view::npos) {
    return verdict::success;
  }
  return !line.empty() && line[0] == '-' ? verdict::refused : verdict::nonsense;
}

// A space after the code ends a reply. A refusal of EHLO need not have it.
bool is_last_line(std::string_view line, bool is_ehlo) {
  if (line.size() > kCodeLength && line[kCodeLength] == ' ') return true;
  line = line.substr(0, line.find('\0'));
  const bool goes_on = line.size() > kCodeLength && line[kCodeLength] == '-';
  return is_ehlo && !goes_on && smtp_verdict(line) != verdict::success;
}

// The three digits that a line begins with, "" when it does not.
std::string_view code_of(std::string_view line) {
  const std::string_view code = line.substr(0, kCodeLength);
  const bool is_code =
      code.size() == kCodeLength &&
      std::all_of(code.begin(), code.end(), [](char ch) { return ch >= '0' && ch <= '9'; });
  return is_code ? code : std::string_view();
}

bool is_continuation(char ch) { return (static_cast<unsigned char>(ch) & 0xC0) == 0x80; }

// U+2028 to U+202E and U+2066 to U+2069 let a text look like another one.
bool turns_direction(std::string_view character) {
  return (character >= "\xE2\x80\xA8" && character <= "\xE2\x80\xAE") ||
         (character >= "\xE2\x81\xA6" && character <= "\xE2\x81\xA9");
}

}  // namespace

void exchange::judge(std::string_view line) {
  const bool is_first = lines++ == 0;
  if (line.find('\n') != std::string_view::npos) has_lone_feed = true;
  if (is_pop3) {
    const bool asks = verb == "AUTH" && line.substr(0, 1) == "+" && line.substr(0, 3) != "+OK";
    if (is_first) judged = asks ? verdict::goes_on : pop3_verdict(line);
    is_complete = true;
    return;
  }
  const bool is_ehlo = verb == "EHLO";
  if (is_first || (is_ehlo && judged == verdict::success)) judged = smtp_verdict(line);
  if (is_first) {
    code = code_of(line);
  } else if (code != code_of(line)) {
    code.clear();
  }
  if (is_last_line(line, is_ehlo)) is_complete = true;
}

void exchange::judge_cut_line(std::string_view line) {
  const bool was_complete = is_complete;
  const verdict before = judged;
  judge(line);
  is_complete = was_complete;
  if (judged == verdict::success || judged == verdict::goes_on) judged = before;
}

std::string reply_text(const exchange* entry) {
  if (entry == nullptr) return {};
  std::string text;
  for (const std::string& line : entry->reply) {
    if (text.empty()) {
      text = line;
    } else {
      text += " " + line.substr(entry->is_pop3 ? 0 : std::min<size_t>(4, line.size()));
    }
  }
  return presentable(text);
}

bool says(std::string_view text, std::string_view words) {
  const auto lower = [](char ch) {
    return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
  };
  return std::search(text.begin(), text.end(), words.begin(), words.end(),
                     [&](char a, char b) { return lower(a) == lower(b); }) != text.end();
}

// The controls from U+0080 to U+009F steer terminals too.
size_t steering_bytes(std::string_view text) {
  const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
  if (text.empty()) return 0;
  if (byte(0) < 0x20 || byte(0) == 0x7F) return 1;
  if (byte(0) == 0xC2 && text.size() > 1 && byte(1) < 0xA0) return 2;
  return turns_direction(text.substr(0, 3)) ? 3 : 0;
}

std::string presentable(std::string_view text) {
  size_t end = std::min(text.size(), kLongestShown);
  while (end < text.size() && end > kLongestShown - 4 && is_continuation(text[end])) --end;
  std::string result(text.substr(0, end));
  const bool is_text = is_utf8(result);
  for (size_t i = 0; i < result.size(); ++i) {
    if (!is_text && static_cast<unsigned char>(result[i]) >= 0x80) result[i] = '?';
    const size_t count = steering_bytes(std::string_view(result).substr(i));
    result.replace(i, count, count, ' ');
  }
  result.erase(result.find_last_not_of(' ') + 1);
  return result;
}

}  // namespace tavmail
