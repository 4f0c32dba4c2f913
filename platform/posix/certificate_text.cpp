#include "certificate_text.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "wiretap.h"

namespace {

// Steers a terminal or the direction of writing, ends a line, or is not to be seen at all.
bool is_hidden(uint32_t c) {
  static constexpr uint32_t kRanges[][2] = {
      {0, 0x1F},        {0x7F, 0x9F},     {0xAD, 0xAD},       {0x61C, 0x61C},
      {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F},   {0xD800, 0xDFFF},
      {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFF}, {0xE0000, 0xE007F}, {0x110000, UINT32_MAX}};
  return std::any_of(std::begin(kRanges), std::end(kRanges),
                     [c](const auto& range) { return range[0] <= c && c <= range[1]; });
}

// The character that a text begins with (RFC 3629), and how many bytes it has: 0 when it is broken.
size_t first_character(std::string_view text, uint32_t& character) {
  const auto byte = [&](size_t index) { return static_cast<unsigned char>(text[index]); };
  character = byte(0);
  if (character < 0x80) return 1;
  const size_t length = character >= 0xF0 ? 4 : character >= 0xE0 ? 3 : 2;
  if (character < 0xC2 || character > 0xF4 || text.size() < length) return 0;
  character &= 0x7FU >> length;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    character = character << 6 | (byte(i) & 0x3F);
  }
  static constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  return character < kLeast[length] ? 0 : length;
}

// One line, cut where it is beyond all measure, with `?` for what is hidden or broken, and for all
// of `separators`, which part it from its neighbours.
std::string shown(std::string_view text, std::string_view separators) {
  constexpr size_t kLongest = 253;  // of a host name
  std::string line;
  while (!text.empty()) {
    if (line.size() >= kLongest) return line + "...";
    uint32_t character = 0;
    const size_t length = first_character(text, character);
    const bool is_good = length > 0 && !is_hidden(character) &&
                         (length > 1 || separators.find(text[0]) == separators.npos);
    const std::string_view taken = text.substr(0, std::max<size_t>(length, 1));
    line += is_good ? taken : "?";
    text.remove_prefix(taken.size());
  }
  return line;
}

std::string day_text(const std::tm* day) {
  char text[16] = "";
  if (day == nullptr || std::strftime(text, sizeof text, "%Y-%m-%d", day) == 0) return "unknown";
  return text;
}

}  // namespace

bool is_address_literal(const std::string& name) {
  unsigned char buffer[16];
  return inet_pton(AF_INET, name.c_str(), buffer) == 1 ||
         inet_pton(AF_INET6, name.c_str(), buffer) == 1;
}

std::string bare_name(const std::string& name) {
  std::string bare = name.substr(0, name.find('%'));
  if (!bare.empty() && bare.back() == '.') bare.pop_back();
  return bare;
}

void certificate_text::add_host(std::string_view name) {
  if (!name.empty()) m_cNames.push_back(shown(name, ", "));
}

void certificate_text::add_address(std::string_view bytes) {
  if (bytes.size() != 4 && bytes.size() != 16) return;
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(bytes.size() == 4 ? AF_INET : AF_INET6, bytes.data(), text, sizeof text);
  m_cNames.emplace_back(text);
}

void certificate_text::set_days(const std::tm* first, const std::tm* last) {
  m_cFirstDay = day_text(first);
  m_cLastDay = day_text(last);
}

void certificate_text::set_issuer(std::string_view name) {
  if (!name.empty()) m_cIssuer = shown(name, "");
}

// As far as a person wants to read them.
std::string certificate_text::names() const {
  constexpr size_t kMostNames = 5;
  if (m_cNames.empty()) return "no host";
  std::string list;
  for (size_t i = 0; i < m_cNames.size() && i < kMostNames; ++i) {
    list += (i == 0 ? "" : ", ") + m_cNames[i];
  }
  return list;
}

void certificate_text::tell() const {
  wiretap(TAV_WIRETAP_TLS_CERTIFICATE,
          names() + "\n" + m_cFirstDay + "\n" + m_cLastDay + "\n" + m_cIssuer);
}

std::string certificate_text::refusal(std::string_view refused, const std::string& server,
                                      const std::string& other) const {
  if (refused == TAV_TLS_REFUSED_EXPIRED) {
    return "it or an issuer of it has expired (the server's own ends " + m_cLastDay + ")";
  }
  if (refused == TAV_TLS_REFUSED_NOT_YET) {
    return "it is not yet valid; is the clock right? (the server's own begins " + m_cFirstDay + ")";
  }
  if (refused == TAV_TLS_REFUSED_SELF_SIGNED) {
    return "it is self-signed and not in the trust store";
  }
  if (refused == TAV_TLS_REFUSED_ISSUER) return "its issuer is unknown: not in the trust store";
  if (refused == TAV_TLS_REFUSED_NAME) return "it is for " + names() + ", not for " + server;
  return other;
}
