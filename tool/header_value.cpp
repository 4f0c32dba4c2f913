#include "header_value.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "received_text.h"
#include "utl_os.h"
#include "words.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// encoded-word = "=?" charset ["*" language] "?" encoding "?" encoded-text "?="
struct encoded_word {
  std::string char_set;
  char encoding = ' ';  // 'B' or 'Q'
  std::string text;
  size_t end = 0;  // after it
};

// Takes the word at `at`, where a "=?" stands.
bool take_word(const std::string& value, size_t at, encoded_word& word) {
  const size_t set = at + 2;
  const size_t encoding = value.find('?', set);
  if (encoding == std::string::npos || encoding + 2 >= value.size()) return false;
  if (value[encoding + 2] != '?') return false;
  word.char_set = lower_case(value.substr(set, encoding - set));
  if (word.char_set.empty() || word.char_set.find_first_of(" \t=") != std::string::npos) {
    return false;
  }
  word.char_set.resize(std::min(word.char_set.find('*'), word.char_set.size()));
  word.encoding = static_cast<char>(value[encoding + 1] & ~0x20);
  if (word.encoding != 'B' && word.encoding != 'Q') return false;
  const size_t text = encoding + 3;
  const size_t end = value.find("?=", text);
  if (end == std::string::npos) return false;
  word.text = value.substr(text, end - text);
  word.end = end + 2;
  return true;
}

int digit_of(char ch) {
  if (ch >= '0' && ch <= '9') return ch - '0';
  if (ch >= 'A' && ch <= 'F') return ch - 'A' + 10;
  if (ch >= 'a' && ch <= 'f') return ch - 'a' + 10;
  return -1;
}

// Text with bytes as two digits after a mark, which is itself where no digits follow it.
std::string decoded_escapes(const std::string& text, char mark) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    const int high = i + 2 < text.size() ? digit_of(text[i + 1]) : -1;
    const int low = i + 2 < text.size() ? digit_of(text[i + 2]) : -1;
    if (text[i] == mark && high >= 0 && low >= 0) {
      bytes += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      bytes += text[i];
    }
  }
  return bytes;
}

// The Q encoding (RFC 2047 4.2).
std::string decoded_q(std::string text) {
  std::replace(text.begin(), text.end(), '_', ' ');
  return decoded_escapes(text, '=');
}

std::string decoded_b(const std::string& text) {
  void* data = nullptr;
  long length = 0;
  if (tav_eml_mlutl_mime_utility::from_b64(text.data(), static_cast<long>(text.size()), data,
                                           length) == 0) {
    return {};
  }
  const std::string bytes(static_cast<const char*>(data), static_cast<size_t>(length));
  UtlOS::MemFree(data);
  return bytes;
}

// Words of one character set that follow each other: a character may be cut between them.
struct run_of_words {
  std::string char_set;
  std::string bytes;

  void flush(std::string& out) {
    if (!bytes.empty()) out += text_in(char_set, bytes);
    bytes.clear();
  }
};

bool is_empty_text(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

}  // namespace

std::string parameter_of(std::string value, const char* name) {
  const size_t at = lower_case(value).find(name);
  if (at == std::string::npos) return {};
  value = trimmed(value.substr(at + std::strlen(name)));
  const bool is_quoted = !value.empty() && value[0] == '"';
  if (is_quoted) value.erase(0, 1);
  return trimmed(value.substr(0, value.find_first_of(is_quoted ? "\"" : "\";")));
}

std::string parameter_in_pieces(const std::string& received, const std::string& name) {
  // Each piece is looked for from the beginning on.
  constexpr int kMostPieces = 100;
  const std::string value = received.substr(0, 8192);
  std::string bytes;
  std::string set;
  for (int i = 0; i < kMostPieces; ++i) {
    const std::string piece = name + "*" + std::to_string(i);
    std::string text = parameter_of(value, (piece + "*=").c_str());
    if (text.empty()) {
      text = parameter_of(value, (piece + "=").c_str());
      if (text.empty()) break;
      bytes += text;
      continue;
    }
    const size_t language = text.find('\'');
    const size_t begin = text.find('\'', language + 1);
    if (i == 0 && language < begin && begin != std::string::npos) {
      set = text.substr(0, language);
      text.erase(0, begin + 1);
    }
    bytes += decoded_escapes(text, '%');
  }
  return text_in(set, bytes);
}

std::string header_value(const std::string& received, const std::string& hint) {
  std::string out;
  run_of_words run;
  size_t plain = 0;  // where the text begins that no word has taken
  bool follows_word = false;
  // Looked for once: a header full of beginnings must not cost the square of its length.
  const size_t last_end = received.rfind("?=");
  size_t at = last_end != std::string::npos ? received.find("=?") : last_end;
  while (at < last_end) {
    encoded_word word;
    if (!take_word(received, at, word)) {
      at = received.find("=?", at + 2);
      continue;
    }
    const std::string between = received.substr(plain, at - plain);
    if (!follows_word || !is_empty_text(between)) {
      run.flush(out);
      out += header_text(between, hint);
    }
    if (word.char_set != run.char_set) run.flush(out);
    run.char_set = std::move(word.char_set);
    run.bytes += word.encoding == 'Q' ? decoded_q(word.text) : decoded_b(word.text);
    follows_word = true;
    plain = word.end;
    at = received.find("=?", plain);
  }
  run.flush(out);
  return out + header_text(received.substr(plain), hint);
}

}  // namespace tavmail
