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
constexpr size_t kAddressLabel = sizeof "Disposition-Notification-To: ";

// What fits a header line of the library, below 1024 bytes with its label and CR LF: a text that is
// encoded afterwards, counted before; an address, whose name is encoded already.
constexpr size_t kLongestText = 1012;
constexpr size_t kLongestAddress = 990;
// What is not encoded is not folded: RFC 5322 2.1.1 allows 998 bytes.
constexpr size_t kLongestAscii = 980;

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

problem too_long(const std::string& what, size_t size, size_t most) {
  return problem(EX_DATAERR, what + " is too long for a header line: it has " +
                                 std::to_string(size) + " bytes, and " + std::to_string(most) +
                                 " fit");
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

std::string to_name_words(const std::string& name, TAV_EML_CHAR_SET char_set) {
  return to_words(name, char_set, static_cast<int>(kLongestLine - kAddressLabel));
}

// For a message of one line.
std::string shortened(const std::string& text) {
  constexpr size_t kMost = 40;
  return text.size() > kMost ? text.substr(0, kMost) + "..." : text;
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
  // The library gives each address of a list a line of its own, and folds none.
  if (is_ascii(address)) {
    if (address.size() > kLongestAscii - kAddressLabel) {
      throw too_long(what + ": the address " + shortened(address), address.size(),
                     kLongestAscii - kAddressLabel);
    }
    return address;
  }
  const std::string name = display_name(address);
  const std::string end = std::string(" <") + bare.GetString() + ">";
  const std::string words = to_name_words(name, char_set);
  if (words.size() + end.size() <= kLongestAddress) return words + end;
  size_t most = std::min(name.size(), kLongestAddress);  // whole characters of the name
  do {
    --most;
    while ((static_cast<unsigned char>(name[most]) & 0xC0) == 0x80) --most;
  } while (to_name_words(name.substr(0, most), char_set).size() + end.size() > kLongestAddress);
  throw too_long(what + ": the name of " + bare.GetString(), name.size(), most);
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

bool has_control(const std::string& text) {
  return std::any_of(text.begin(), text.end(),
                     [](char ch) { return static_cast<unsigned char>(ch) < 0x20 || ch == 0x7F; });
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
  const size_t most = is_ascii(text) ? kLongestAscii : kLongestText;
  if (text.size() > most) throw too_long(what, text.size(), most);
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

std::vector<std::string> bare_addresses(const std::string& list) {
  std::vector<std::string> all;
  for_each_address(list, [&](const std::string& address) {
    UtlString bare;
    if (tav_eml_mlutl_mail_address::get_real_address(bare, address.c_str()) != 0) {
      all.emplace_back(bare.GetString());
    }
  });
  return all;
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

size_t end_of_piece(const std::string& text, size_t at) {
  constexpr size_t kPiece = 48 * 1024;
  size_t end = at + kPiece;
  if (end >= text.size()) return text.size();
  const size_t feed = text.rfind('\n', end - 1);
  if (feed != std::string::npos && feed > at) return feed + 1;
  while ((static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return end;
}

std::string in_char_set(const std::string& text, TAV_EML_CHAR_SET char_set) {
  if (char_set == TAV_EML_CS_UTF_8) return text;
  std::string all;
  std::string room;
  for (size_t at = 0, end = 0; at < text.size(); at = end) {
    end = end_of_piece(text, at);
    room.resize((end - at) * 4 + 16);
    const TAV_EML_ENCODED_STRING in = {TAV_EML_CS_UTF_8, const_cast<char*>(text.data()) + at,
                                       static_cast<int32_t>(end - at)};
    TAV_EML_ENCODED_STRING out = {char_set, room.data(), static_cast<int32_t>(room.size())};
    int consumed = 0;
    if (tav_eml_mlutl_mail_type::convert_encoded_string(in, out, consumed) != 0 ||
        consumed != in.length) {
      throw problem(EX_DATAERR, "the text " + charset_advice(char_set));
    }
    all.append(room, 0, static_cast<size_t>(out.length));
  }
  return all;
}

}  // namespace tavmail
