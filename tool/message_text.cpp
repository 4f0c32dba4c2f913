#include "message_text.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "chc.h"
#include "problem.h"
#include "quorvelmida/tav_eml_mlutl_mail_address.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_smtp_util.h"
#include "utl_os.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr char kSeparators[] = ";,";
constexpr size_t kLongestLine = 75;
constexpr size_t kLongestText = 900;
constexpr size_t kAddressLabel = sizeof "Disposition-Notification-To: ";

bool has_control(const std::string& text) {
  return std::any_of(text.begin(), text.end(),
                     [](char ch) { return static_cast<unsigned char>(ch) < 0x20 || ch == 0x7F; });
}

// True when all of the text converts.
bool converts(const std::string& text, CHC_ENCODE_TYPE to) {
  if (text.find('\0') != std::string::npos) return false;
  std::vector<char> room(4096);
  for (size_t at = 0; at < text.size();) {
    CHC_CONVERT_REQUEST request{};
    request.source = text.c_str() + at;
    request.destination = room.data();
    request.capacity = static_cast<int32_t>(room.size());
    if (chc_convert_encode(CHC_UTF_8, to, &request) != CHC_OK || request.consumed < 1) return false;
    at += static_cast<size_t>(request.consumed);
  }
  return true;
}

std::string charset_advice(TAV_EML_CHAR_SET char_set) {
  return std::string("has a character that ") + tav_eml_mlutl_mail_type::get_char_set(char_set) +
         " lacks; use --charset utf-8";
}

void check_characters(const std::string& what, const std::string& text, TAV_EML_CHAR_SET char_set) {
  if (has_control(text)) {
    throw problem(EX_DATAERR, what + " has a line break or control character; remove it");
  }
  if (!is_utf8(text)) throw problem(EX_DATAERR, what + " is not UTF-8 text; convert it first");
  if (!can_express(text, char_set))
    throw problem(EX_DATAERR, what + " " + charset_advice(char_set));
}

// RFC 5322 2.1.1.
void check_line(const std::string& what, const std::string& line) {
  if (line.size() > kLongestText) {
    throw problem(EX_DATAERR, what + " is longer than a mail's line can be; shorten it");
  }
}

std::string to_words(const std::string& text, TAV_EML_CHAR_SET char_set, int max_line) {
  char* words = nullptr;
  long length = 0;
  const int made = tav_eml_mlutl_mime_utility::ToMimeEncode(
      char_set, text.data(), static_cast<long>(text.size()), words, length, max_line);
  const std::unique_ptr<char, decltype(&UtlOS::MemFree)> owner(words, UtlOS::MemFree);
  if (made == 0) throw problem(EX_DATAERR, "\"" + text + "\" " + charset_advice(char_set));
  return {words, static_cast<size_t>(length)};
}

// The display name of an address, without its quotes.
std::string display_name(const std::string& address) {
  std::string name = address.substr(0, address.rfind('<'));
  name.erase(name.find_last_not_of(" \t") + 1);
  if (name.size() < 2 || name.front() != '"' || name.back() != '"') return name;
  std::string plain;
  for (size_t i = 1; i + 1 < name.size(); ++i) {
    if (name[i] == '\\' && i + 2 < name.size()) ++i;
    plain += name[i];
  }
  return plain;
}

// One address, its display name encoded when it has to be.
std::string encoded_address(const std::string& what, const std::string& address,
                            TAV_EML_CHAR_SET char_set) {
  UtlString bare;
  UtlString account;
  UtlString domain;
  if (tav_eml_mlutl_mail_address::get_real_address(bare, address.c_str()) == 0 ||
      tav_eml_mlutl_mail_address::split_address(account, domain, bare.GetString()) == 0 ||
      bare.GetLength() > 256 || std::string(bare.GetString()).find(' ') != std::string::npos) {
    throw problem(EX_DATAERR, what + ": \"" + address + "\" is no address; expected NAME@DOMAIN");
  }
  if (!is_ascii(bare.GetString())) {
    throw problem(EX_DATAERR, what + ": \"" + std::string(bare.GetString()) +
                                  "\" has characters that no mail address can have");
  }
  const std::string encoded = is_ascii(address)
                                  ? address
                                  : to_words(display_name(address), char_set,
                                             static_cast<int>(kLongestLine - kAddressLabel)) +
                                        " <" + bare.GetString() + ">";
  // The library gives each address of a list a line of its own, and folds none.
  check_line(what + ": the name of " + bare.GetString(), encoded);
  return encoded;
}

template <typename Take>
void for_each_address(const std::string& list, Take&& take) {
  const tav_eml_mlutl_mail_address addresses(list.c_str());
  UtlString address;
  for (int pos = 0; addresses.get_address(address, pos, kSeparators) != 0;) {
    take(std::string(address.GetString()));
  }
}

}  // namespace

bool is_ascii(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char ch) { return static_cast<unsigned char>(ch) < 0x80; });
}

bool is_utf8(const std::string& text) { return converts(text, CHC_UTF_8); }

bool can_express(const std::string& text, TAV_EML_CHAR_SET char_set) {
  CHC_ENCODE_TYPE type;
  return tav_eml_mlutl_mail_type::convert_util_lib_encode_type(char_set, type) == 0 &&
         converts(text, type);
}

void check_header_text(const std::string& what, const std::string& text,
                       TAV_EML_CHAR_SET char_set) {
  check_characters(what, text, char_set);
  // Only what is encoded is folded; an ASCII line goes as it is.
  if (is_ascii(text)) check_line(what, text);
}

std::string encoded_addresses(const std::string& what, const std::string& list,
                              TAV_EML_CHAR_SET char_set) {
  check_characters(what, list, char_set);
  std::string encoded;
  for_each_address(list, [&](const std::string& address) {
    encoded += (encoded.empty() ? "" : ", ") + encoded_address(what, address, char_set);
  });
  return encoded;
}

int count_addresses(const std::string& list) {
  int count = 0;
  for_each_address(list, [&](const std::string&) { ++count; });
  return count;
}

std::string canonical_lines(const std::string& text) {
  std::string lines;
  lines.reserve(text.size() + text.size() / 16);
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r' || text[i] == '\n') {
      lines += "\r\n";
      if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') ++i;
    } else {
      lines += text[i];
    }
  }
  return lines;
}

}  // namespace tavmail
