#include "ready_mail.h"

#include <algorithm>

namespace tavmail {

namespace {

constexpr size_t kMailPiece = size_t{64} << 10;

// The line in front of a mail in a mailbox file.
bool is_mailbox_line(std::string_view line) { return line.substr(0, 5) == "From "; }

// Windows programs write it at the beginning of a text.
std::string_view without_mark(std::string_view line) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  return line.substr(line.substr(0, kByteOrderMark.size()) == kByteOrderMark ? 3 : 0);
}

// What follows such a line would be text that everybody can read: Bcc, for example.
void check_end(std::string_view line, const header_block& header) {
  if (line.empty() || line == "\n" || header.is_empty()) return;
  throw problem(EX_DATAERR, "the line after the field " + header.fields().back().name +
                                " of the mail is no header field; end the header with an empty "
                                "line");
}

}  // namespace

void ready_mail::grow_line(size_t bytes) {
  m_line += bytes;
  if (m_line <= kLongestLine) return;
  throw problem(EX_DATAERR, "a line of the mail is longer than " + std::to_string(kLongestLine) +
                                " bytes; encode what has it, with base64 for example");
}

void ready_mail::append_line_end() {
  m_text += '\n';
  m_line = 0;
}

// Several CR in front of a LF are one line end.
void ready_mail::append(std::string_view bytes) {
  while (!bytes.empty()) {
    const char first = bytes.front();
    if (first == '\r' || first == '\n') {
      m_hasReturn = first == '\r';
      if (!m_hasReturn) append_line_end();
      bytes.remove_prefix(1);
      continue;
    }
    if (m_hasReturn) append_line_end();
    m_hasReturn = false;
    const size_t feed = std::min(bytes.find('\n'), bytes.size());
    const size_t count = std::min(bytes.substr(0, feed).find('\r'), feed);
    grow_line(count);
    m_text.append(bytes.substr(0, count));
    bytes.remove_prefix(count);
  }
}

void ready_mail::take_header(bool is_all) {
  size_t at = 0;
  while (m_inHeader) {
    const size_t feed = m_text.find('\n', at);
    if (feed == std::string::npos && !is_all) break;
    const std::string_view whole =
        std::string_view(m_text).substr(at, feed == std::string::npos ? feed : feed + 1 - at);
    const std::string_view line = m_headerBytes == 0 ? without_mark(whole) : whole;
    const bool is_empty = line == "\n";
    const bool is_skipped = m_headerBytes == 0 && is_mailbox_line(line);
    m_headerBytes += whole.size();
    m_inHeader = !line.empty() && !is_empty && (is_skipped || m_header.take(line));
    if (!m_inHeader) check_end(line, m_header);
    if (m_inHeader || is_empty) at += whole.size();
  }
  m_text.erase(0, at);
  if (m_headerBytes + m_text.size() * (m_inHeader ? 1 : 0) > kLongestHeader) {
    throw problem(EX_DATAERR, "the header of the mail is longer than " +
                                  std::to_string(kLongestHeader >> 20) + " MiB; shorten it");
  }
  if (m_inHeader) return;
  m_onHeader(m_header);
  m_text.insert(0, m_header.text());
}

// All but the last line: its end may be that of the mail.
void ready_mail::send_lines() {
  const size_t feed = m_text.size() < 2 ? std::string::npos : m_text.rfind('\n', m_text.size() - 2);
  if (feed == std::string::npos) return;
  m_out.send(std::string_view(m_text).substr(0, feed + 1));
  m_text.erase(0, feed + 1);
}

void ready_mail::add(std::string_view bytes) {
  append(bytes);
  if (m_inHeader) take_header(false);
  if (!m_inHeader && m_text.size() >= kMailPiece) send_lines();
}

void ready_mail::end() {
  if (m_hasReturn) append_line_end();
  m_hasReturn = false;
  if (m_inHeader) {
    if (!m_text.empty() && m_text.back() != '\n') append_line_end();
    take_header(true);
  }
  send_lines();
  if (!m_text.empty() && m_text.back() == '\n') m_text.pop_back();
  m_out.finish(m_text);
}

}  // namespace tavmail
