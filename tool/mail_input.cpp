#include "mail_input.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

#include "spool_file.h"

namespace tavmail {

namespace {

constexpr size_t kInputPiece = size_t{64} << 10;
constexpr size_t kMostInMemory = size_t{1} << 20;

}  // namespace

mail_input::mail_input(const std::string& path, const std::string& what)
    : m_file(open_input(path, what)) {
  if (S_ISREG(m_file->status().st_mode)) {
    m_size = static_cast<uint64_t>(m_file->status().st_size);
  } else {
    read_ahead();
  }
}

void mail_input::read_ahead() {
  const std::unique_ptr<input_file> source = std::move(m_file);
  m_kept = source->read_all(kMostInMemory);
  m_size = m_kept.size();
  if (m_size <= kMostInMemory) return;
  spool_file rest("", spool_file::nameless());
  std::string piece(kInputPiece, '\0');
  while (const size_t count = source->read(piece.data(), piece.size())) {
    rest.write(std::string_view(piece).substr(0, count));
    m_size += count;
  }
  m_file =
      std::make_unique<input_file>(fcntl(rest.rewind(), F_DUPFD_CLOEXEC, 3), "the temporary file");
}

size_t mail_input::read(char* bytes, size_t size) {
  if (m_at == m_kept.size()) return m_file ? m_file->read(bytes, size) : 0;
  const size_t count = std::min(size, m_kept.size() - m_at);
  std::memcpy(bytes, m_kept.data() + m_at, count);
  m_at += count;
  return count;
}

}  // namespace tavmail
