#include "reception/message_walk.h"

#include <string>

#include "common/guard.h"
#include "message/content_type.h"
#include "reception/content_fields.h"
#include "reception/delimiter.h"
#include "reception/header_fields.h"

namespace quorvelmida {

namespace {

// More than any mail system accepts. A larger header is an attack on memory.
constexpr size_t kMaxHeaderBytes = 256 * 1024;

constexpr std::string_view kEmptyLine = "\r\n";

// Leaves nothing of a header in the store once its lines were read, whatever comes of them.
class header_end {
 public:
  explicit header_end(block_store& blocks) : m_cBlocks(blocks) {}
  header_end(const header_end&) = delete;
  header_end& operator=(const header_end&) = delete;
  ~header_end() { m_cBlocks.clear(); }

 private:
  block_store& m_cBlocks;
};

// File names are read from the lines as received: an encoded word can add quotes to the decoded
// ones.
void keep_received_lines(tav_eml_mlutl_mail_part& part, std::string_view received) {
  std::string field;
  find_received_field(received, "Content-Type:", field);
  store_value(part.m_cHeader1, field);
  field.clear();
  if (find_received_field(received, "Content-Disposition:", field)) {
    store_value(part.m_cHeader2, field);
  }
}

}  // namespace

TAV_EML_UTL_RETCODE message_walk::misplaced_delimiter() const {
  return m_cOperation.failed("ChkBoundaryString() returns [-1]");
}

TAV_EML_UTL_RETCODE message_walk::read_line(std::string_view& line) {
  const TAV_EML_UTL_RETCODE code = m_cLines.read_content(m_cMail, line);
  return code == TAV_EML_UTL_OK ? code : m_cOperation.passed_on("ReadLine", code);
}

// Reads a line of the current part. `is_end` becomes true for the delimiter that ends the part.
TAV_EML_UTL_RETCODE message_walk::read_part_line(std::string_view& line, bool& is_end) {
  const TAV_EML_UTL_RETCODE code = read_line(line);
  if (code != TAV_EML_UTL_OK) return code;
  const delimiter kind = pass_delimiter(line, m_cMail);
  if (kind == delimiter::misplaced) return misplaced_delimiter();
  is_end = kind != delimiter::none;
  return kind == delimiter::close && m_cMail.m_nBoundaryLevel == 0 ? read_epilogue() : code;
}

// Reads and drops what follows the outermost multipart.
TAV_EML_UTL_RETCODE message_walk::read_epilogue() {
  const TAV_EML_UTL_RETCODE code = skip_to_end();
  return code == TAV_EML_UTL_OK ? code : m_cOperation.passed_on("skip_mail", code);
}

TAV_EML_UTL_RETCODE message_walk::add(std::string_view lines) {
  return m_cBlocks.add(lines) ? TAV_EML_UTL_OK
                              : m_cOperation.failed("WriteStream() returns [FALSE]");
}

// Adds a line to the header that is being read.
TAV_EML_UTL_RETCODE message_walk::collect(std::string_view line) {
  if (m_cBlocks.held().size() + line.size() <= kMaxHeaderBytes) return add(line);
  m_cBlocks.clear();
  return m_cOperation.failed("header too long");
}

// Decodes the header in the store. Empty, after a log line, if memory ran out.
std::optional<header_lines> message_walk::decode_header(TAV_EML_CHAR_SET& char_set) const {
  std::optional<header_lines> lines;
  guarded(m_cOperation.name, [&] { lines.emplace(m_cBlocks.held(), char_set); });
  if (!lines) m_cOperation.end(TAV_EML_UTL_ERROR, " inline_decode error.");
  return lines;
}

TAV_EML_UTL_RETCODE message_walk::read_header(bool has_body) {
  m_cBlocks.clear();
  while (m_cMail.m_nReceiving != 0) {
    std::string_view line;
    TAV_EML_UTL_RETCODE code = read_line(line);
    if (code != TAV_EML_UTL_OK) return code;
    if (line.empty()) continue;
    if (has_body && line == kEmptyLine && !m_cBlocks.held().empty()) break;
    code = collect(line);
    if (code != TAV_EML_UTL_OK) return code;
  }
  const header_end end(m_cBlocks);
  if (m_cBlocks.held().empty()) return TAV_EML_UTL_OK;
  TAV_EML_CHAR_SET char_set = m_cMail.m_nCharSet;
  const std::optional<header_lines> lines = decode_header(char_set);
  if (!lines) return TAV_EML_UTL_ERROR;
  m_cMail.m_nCharSet = char_set;
  keep_received_lines(m_cMail, m_cBlocks.held());
  take_mail_fields(m_cMail, *lines);
  return TAV_EML_UTL_OK;
}

// Lines before a level's first delimiter are a preamble, or an epilogue of the level below it, and
// no header. A later delimiter ends the part within its header: what follows belongs to the next
// part.
TAV_EML_UTL_RETCODE message_walk::collect_part_header() {
  m_cBlocks.clear();
  const tav_eml_mlutl_mail_part& part = *m_cMail.get_part();
  while (m_cMail.m_nReceiving != 0 && part.m_nComplete == 0) {
    std::string_view line;
    TAV_EML_UTL_RETCODE code = read_line(line);
    if (code != TAV_EML_UTL_OK) return code;
    if (line.empty()) continue;
    if (line == kEmptyLine && m_cMail.m_nBoundarySeen != 0) return TAV_EML_UTL_OK;
    const delimiter kind = pass_delimiter(line, m_cMail);
    if (kind == delimiter::misplaced) return misplaced_delimiter();
    if (kind == delimiter::none && m_cMail.m_nBoundarySeen != 0) {
      code = collect(line);
      if (code != TAV_EML_UTL_OK) return code;
    }
    // There are no parts after the outermost multipart.
    if (kind == delimiter::close && m_cMail.m_nBoundaryLevel == 0) return skip_to_end();
  }
  return TAV_EML_UTL_OK;
}

// Enters multiparts on the way and ignores their other fields: the part is the next leaf.
TAV_EML_UTL_RETCODE message_walk::read_part_header() {
  tav_eml_mlutl_mail_part& part = *m_cMail.get_part();
  do {
    const TAV_EML_UTL_RETCODE code = collect_part_header();
    if (code != TAV_EML_UTL_OK) return code;
    const header_end end(m_cBlocks);
    // A header cut off by a delimiter must not open a level that is never closed.
    const bool is_cut = part.m_nComplete != 0 && m_cMail.m_nReceiving != 0;
    if (is_cut || m_cBlocks.held().empty()) return TAV_EML_UTL_OK;
    TAV_EML_CHAR_SET char_set = part.m_nCharSet;
    const std::optional<header_lines> lines = decode_header(char_set);
    if (!lines) return TAV_EML_UTL_ERROR;
    if (!enter_multipart(m_cMail, *lines)) {
      part.m_nCharSet = char_set;
      keep_received_lines(part, m_cBlocks.held());
      take_part_fields(m_cMail, *lines);
      return TAV_EML_UTL_OK;
    }
    // If the message ends in a multipart's header, no part follows.
  } while (m_cMail.m_nReceiving != 0);
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE message_walk::read_body() { return read_block(m_cMail, false); }

TAV_EML_UTL_RETCODE message_walk::read_part_body() { return read_block(*m_cMail.get_part(), true); }

// Reads lines until there is a block or their part ends, and delivers the block to the part.
TAV_EML_UTL_RETCODE message_walk::read_block(tav_eml_mlutl_mail_part& part, bool has_delimiters) {
  // Each call reads on: only a line that is added now makes a block full.
  bool is_done = false;
  while (m_cMail.m_nReceiving != 0 && !is_done) {
    TAV_EML_UTL_RETCODE code = TAV_EML_UTL_OK;
    std::string_view lines = m_cLines.take_plain(m_cBlocks.room());
    if (lines.empty()) code = has_delimiters ? read_part_line(lines, is_done) : read_line(lines);
    if (code == TAV_EML_UTL_OK && !is_done) {
      code = add(lines);
      is_done = !lines.empty() && m_cBlocks.is_full();
    }
    if (code != TAV_EML_UTL_OK) return code;
  }
  return m_cBlocks.deliver(m_cOperation, part);
}

TAV_EML_UTL_RETCODE message_walk::skip_part() {
  // The rest of a partly read body must not become part of the next header.
  m_cBlocks.clear();
  const tav_eml_mlutl_mail_part& part = *m_cMail.get_part();
  TAV_EML_UTL_RETCODE code = TAV_EML_UTL_OK;
  for (bool is_end = false;
       code == TAV_EML_UTL_OK && !is_end && m_cMail.m_nReceiving != 0 && part.m_nComplete == 0;) {
    std::string_view line;
    code = read_part_line(line, is_end);
  }
  return code;
}

TAV_EML_UTL_RETCODE message_walk::skip_to_end() {
  constexpr receive_operation kSkipMail = {"skip_mail"};
  while (m_cMail.m_nReceiving != 0) {
    std::string_view line;
    const TAV_EML_UTL_RETCODE code = m_cLines.read_content(m_cMail, line);
    if (code != TAV_EML_UTL_OK) return kSkipMail.passed_on("ReadLine", code);
  }
  return TAV_EML_UTL_OK;
}

}  // namespace quorvelmida
