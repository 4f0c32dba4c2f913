#include "wire_text.h"

#include <algorithm>
#include <utility>

#include "received_text.h"
#include "words.h"

namespace tavmail {

namespace {

constexpr std::string_view kEnd = ".\r\n";
constexpr std::string_view kFrom = "From ";

// Cuts a piece off the front: up to the first line feed, or all of it.
std::string_view take_piece(std::string_view& text) {
  const size_t count = std::min(text.find('\n'), text.size() - 1) + 1;
  const std::string_view piece = text.substr(0, count);
  text.remove_prefix(count);
  return piece;
}

}  // namespace

void wire_text::take(std::string_view received) {
  while (!m_ended && !received.empty()) {
    if (m_beginsLine) {
      take_beginning(received[0]);
      received.remove_prefix(1);
    } else {
      put(take_piece(received));
    }
  }
}

void wire_text::take_beginning(char ch) {
  m_begun += ch;
  m_ended = m_begun == kEnd;
  if (m_ended || m_begun == kEnd.substr(0, m_begun.size())) return;
  const std::string begun = std::exchange(m_begun, {});
  put(std::string_view(begun).substr(begun[0] == '.' ? 1 : 0));
}

void wire_text::put(std::string_view piece) {
  m_beginsLine = !piece.empty() && piece.back() == '\n';
  if (m_end == line_end::cr_lf) return m_sink(piece);
  if (m_holdsCr && piece != "\n") m_sink("\r");
  m_holdsCr = !piece.empty() && piece.back() == '\r';
  const bool is_pair = piece.size() > 1 && piece.substr(piece.size() - 2) == "\r\n";
  m_sink(piece.substr(0, piece.size() - (is_pair ? 2 : m_holdsCr ? 1 : 0)));
  if (is_pair) m_sink("\n");
}

void from_quote::take(std::string_view text) {
  while (!text.empty()) {
    if (!m_beginsLine) {
      const std::string_view piece = take_piece(text);
      m_beginsLine = piece.back() == '\n';
      m_sink(piece);
      continue;
    }
    const char ch = text[0];
    const bool is_quote = ch == '>' && m_matched == 0;
    if (is_quote || ch == kFrom[m_matched]) {
      ++(is_quote ? m_quotes : m_matched);
      text.remove_prefix(1);
      if (m_matched == kFrom.size()) decide(true);
    } else {
      decide(false);
    }
  }
}

// However many there are: they are counted and not kept.
void from_quote::decide(bool is_from) {
  const std::string block(std::min<size_t>(m_quotes, 4096), '>');
  for (size_t left = m_quotes; left > 0; left -= std::min(left, block.size())) {
    m_sink(std::string_view(block).substr(0, left));
  }
  if (is_from) m_sink(">");
  m_sink(kFrom.substr(0, m_matched));
  m_quotes = m_matched = 0;
  m_beginsLine = false;
}

void from_quote::finish() {
  if (m_beginsLine) decide(false);
}

void mbox_header::take(std::string_view text) {
  while (!m_ended && !text.empty()) {
    if (m_beginsLine) {
      take_beginning(text[0]);
      text.remove_prefix(1);
    } else {
      const std::string_view piece = take_piece(text);
      m_beginsLine = piece.back() == '\n';
      m_sink(piece);
    }
  }
  if (!text.empty()) m_sink(text);
}

void mbox_header::take_beginning(char ch) {
  static constexpr std::string_view kNames[] = {"content-length:", "status:", "x-status:"};
  m_begun += ch;
  const std::string begun = lower_case(m_begun);
  for (const std::string_view name : kNames) {
    if (begun == name) {
      m_sink("Old-");
    } else if (begun == name.substr(0, begun.size())) {
      return;
    }
  }
  m_sink(m_begun);
  m_ended = m_begun == "\n";
  m_beginsLine = ch == '\n';
  m_begun.clear();
}

}  // namespace tavmail
