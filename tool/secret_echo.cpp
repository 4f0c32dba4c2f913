#include "secret_echo.h"

#include <algorithm>
#include <random>

namespace tavmail {

namespace {

constexpr size_t kMostSecrets = 200;  // a server that asks again and again gets no more answers

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

uint64_t value_of(char ch) { return static_cast<unsigned char>(ch) + uint64_t{1}; }

}  // namespace

// Odd, so that no byte's weight is lost.
secret_echo::secret_echo()
    : m_base(((uint64_t{std::random_device()()} << 32) | std::random_device()()) | 1) {}

void secret_echo::extend(mark& secret, char ch) const {
  secret.hash = secret.hash * m_base + value_of(ch);
  ++secret.length;
}

void secret_echo::decode(char ch) {
  const size_t value = kAlphabet.find(ch);
  if (value == kAlphabet.npos) {
    m_isBase64 = m_isBase64 && ch == '=';
    return;
  }
  m_group = (m_group << 6 | static_cast<unsigned int>(value)) & 0xFFFF;
  m_bitCount += 6;
  if (m_bitCount < 8) return;
  m_bitCount -= 8;
  take_decoded(static_cast<char>(m_group >> m_bitCount & 0xFF));
}

void secret_echo::take_decoded(char byte) {
  constexpr std::string_view kField = "auth=Bearer ";
  if (byte == '\0') {
    m_decoded = {0, 0};
  } else {
    extend(m_decoded, byte);
  }
  if (byte == '\1') {
    m_fieldMatched = 0;
  } else if (m_fieldMatched == kField.size()) {
    extend(m_token, byte);
  } else if (m_fieldMatched < kField.size()) {
    m_fieldMatched = byte == kField[m_fieldMatched] ? m_fieldMatched + 1 : kNoField;
  }
}

void secret_echo::add(char ch) {
  extend(m_current, ch);
  decode(ch);
}

void secret_echo::end() {
  keep(m_current);
  if (m_isBase64) keep(m_decoded);
  if (m_isBase64) keep(m_token);
  m_current = m_decoded = m_token = {0, 0};
  m_fieldMatched = kNoField;
  m_isBase64 = true;
  m_group = 0;
  m_bitCount = 0;
}

void secret_echo::keep(const mark& secret) {
  const bool is_known = std::any_of(m_secrets.begin(), m_secrets.end(), [&](const mark& m) {
    return m.length == secret.length && m.hash == secret.hash;
  });
  if (secret.length == 0 || is_known || m_secrets.size() >= kMostSecrets) return;
  m_secrets.push_back(secret);
  // The longest first: it may hold another one.
  std::stable_sort(m_secrets.begin(), m_secrets.end(),
                   [](const mark& a, const mark& b) { return a.length > b.length; });
}

size_t secret_echo::find(std::string_view text, const mark& secret, size_t from) const {
  uint64_t weight = 1;  // of the byte that leaves the window
  uint64_t hash = 0;
  for (size_t i = from; i < text.size(); ++i) {
    hash = hash * m_base + value_of(text[i]);
    const size_t length = i - from + 1;
    if (length < secret.length) {
      weight *= m_base;
      continue;
    }
    if (hash == secret.hash) return i + 1 - secret.length;
    hash -= weight * value_of(text[i + 1 - secret.length]);
  }
  return std::string_view::npos;
}

std::string secret_echo::masked(std::string_view text) const {
  std::string result(text);
  for (const mark& secret : m_secrets) {
    for (size_t at = 0; (at = find(result, secret, at)) != std::string::npos;) {
      result.replace(at, secret.length, kMask);
      at += sizeof kMask - 1;
    }
  }
  return result;
}

}  // namespace tavmail
