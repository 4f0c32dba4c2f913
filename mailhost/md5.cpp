#include "md5.h"

#include <array>
#include <cmath>
#include <cstdint>

namespace mailhost {
namespace {

constexpr size_t block_size = 64;

using words = std::array<uint32_t, 4>;

uint32_t word_at(std::string_view bytes, size_t at) {
  uint32_t word = 0;
  for (size_t i = 4; i > 0; --i) word = word << 8 | static_cast<unsigned char>(bytes[at + i - 1]);
  return word;
}

void append_word(std::string& bytes, uint32_t word) {
  for (int i = 0; i < 4; ++i, word >>= 8) bytes += static_cast<char>(word & 0xff);
}

// The table T of the RFC: 4294967296 times abs(sin(i)), i in radians.
std::array<uint32_t, 64> make_sines() {
  std::array<uint32_t, 64> table = {};
  for (size_t i = 0; i < table.size(); ++i)
    table[i] =
        static_cast<uint32_t>(std::floor(4294967296.0 * std::fabs(std::sin(double(i) + 1.0))));
  return table;
}

uint32_t mixed(size_t round, uint32_t b, uint32_t c, uint32_t d) {
  switch (round) {
    case 0:
      return (b & c) | (~b & d);
    case 1:
      return (b & d) | (c & ~d);
    case 2:
      return b ^ c ^ d;
    default:
      return c ^ (b | ~d);
  }
}

void add_block(words& state, std::string_view block) {
  static const std::array<uint32_t, 64> sines = make_sines();
  static constexpr unsigned shifts[4][4] = {
      {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
  static constexpr size_t step[4] = {1, 5, 3, 7}, start[4] = {0, 1, 5, 0};
  auto [a, b, c, d] = state;
  for (size_t i = 0; i < 64; ++i) {
    const size_t round = i / 16;
    const size_t from = (start[round] + i * step[round]) % 16;
    const uint32_t sum = a + mixed(round, b, c, d) + word_at(block, 4 * from) + sines[i];
    const unsigned shift = shifts[round][i % 4];
    a = d;
    d = c;
    c = b;
    b += sum << shift | sum >> (32 - shift);
  }
  state = {state[0] + a, state[1] + b, state[2] + c, state[3] + d};
}

}  // namespace

std::string md5(std::string_view text) {
  std::string padded(text);
  padded += '\x80';
  while (padded.size() % block_size != block_size - 8) padded += '\0';
  const uint64_t bits = uint64_t{text.size()} * 8;
  append_word(padded, static_cast<uint32_t>(bits));
  append_word(padded, static_cast<uint32_t>(bits >> 32));

  words state = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
  for (size_t at = 0; at < padded.size(); at += block_size)
    add_block(state, std::string_view(padded).substr(at, block_size));
  std::string digest;
  for (const uint32_t word : state) append_word(digest, word);
  return digest;
}

std::string hmac_md5(std::string_view key, std::string_view text) {
  std::string inner = key.size() > block_size ? md5(key) : std::string(key);
  inner.resize(block_size);
  std::string outer = inner;
  for (char& c : inner) c = static_cast<char>(c ^ 0x36);
  for (char& c : outer) c = static_cast<char>(c ^ 0x5c);
  return md5(outer + md5(inner + std::string(text)));
}

std::string hex(std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += digits[byte >> 4];
    text += digits[byte & 0xf];
  }
  return text;
}

}  // namespace mailhost
