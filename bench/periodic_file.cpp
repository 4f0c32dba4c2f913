#include "periodic_file.h"

#include <openssl/evp.h>

#include <algorithm>
#include <fstream>
#include <vector>

namespace bench {

namespace {

std::string encode_lines(const std::string& bytes, size_t line_bytes) {
  std::string text;
  unsigned char line[80];
  for (size_t at = 0; at < bytes.size(); at += line_bytes) {
    const size_t count = std::min(line_bytes, bytes.size() - at);
    const int length = EVP_EncodeBlock(
        line, reinterpret_cast<const unsigned char*>(bytes.data() + at), static_cast<int>(count));
    text.append(reinterpret_cast<char*>(line), static_cast<size_t>(length));
    text += "\r\n";
  }
  return text;
}

}  // namespace

encoded_file encode_periodic_file(const std::string& path, size_t line_bytes) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) return {};
  const auto size = static_cast<size_t>(file.tellg());
  file.seekg(0);
  std::string period(std::min(size, kPeriod), '\0');
  file.read(period.data(), static_cast<std::streamsize>(period.size()));
  encoded_file encoded;
  encoded.repeated = size / kPeriod;
  if (encoded.repeated > 0) encoded.block = encode_lines(period, line_bytes);
  period.resize(size % kPeriod);
  encoded.tail = encode_lines(period, line_bytes);
  return encoded;
}

}  // namespace bench
