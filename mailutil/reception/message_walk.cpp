#include "reception/message_walk.h"

#include <optional>
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

// Empty, after a log line, if memory ran out.
std::optional<header_lines> decode_header(const receive_operation& operation,
                                          std::string_view received, TAV_EML_CHAR_SET& char_set) {
  std::optional<header_lines> lines;
  guarded(operation.name, [&] { lines.emplace(received, char_set); });
  if (!lines) operation.end(TAV_EML_UTL_ERROR, " inline_decode error.");
  return lines;
}

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

TAV_EML_UTL_RETCODE message_walk::add(const receive_operation& operation, std::string_view lines) {
  return m_cBlocks.add(lines) ? TAV_EML_UTL_OK : operation.failed("WriteStream() returns [FALSE]");
}

// Adds a line to the header that is being read.
TAV_EML_UTL_RETCODE message_walk::collect(const receive_operation& operation,
                                          std::string_view line) {
  if (m_cBlocks.held().size() + line.size() <= kMaxHeaderBytes) return add(operation, line);
  m_cBlocks.clear();
  return operation.failed("header too long");
}

TAV_EML_UTL_RETCODE message_walk::read_header(const receive_operation& operation, bool has_body) {
  m_cBlocks.clear();
  while (m_cMail.m_nReceiving != 0) {
    std::string_view line;
    TAV_EML_UTL_RETCODE code = m_cLines.read_content(m_cMail, line);
    if (code != TAV_EML_UTL_OK) return operation.passed_on("ReadLine", code);
    if (line.empty()) continue;
    if (has_body && line == kEmptyLine && !m_cBlocks.held().empty()) break;
    code = collect(operation, line);
    if (code != TAV_EML_UTL_OK) return code;
  }
  const header_end end(m_cBlocks);
  const std::string_view received = m_cBlocks.held();
  if (received.empty()) return TAV_EML_UTL_OK;
  TAV_EML_CHAR_SET char_set = m_cMail.m_nCharSet;
  const std::optional<header_lines> lines = decode_header(operation, received, char_set);
  if (!lines) return TAV_EML_UTL_ERROR;
  m_cMail.m_nCharSet = char_set;
  keep_received_lines(m_cMail, received);
  take_mail_fields(m_cMail, *lines);
  return TAV_EML_UTL_OK;
}

// Lines before a level's first delimiter are a preamble, or an epilogue of the level below it, and
// no header. A later delimiter ends the part within its header: what follows belongs to the next
// part.
TAV_EML_UTL_RETCODE message_walk::collect_part_header(const receive_operation& operation) {
  m_cBlocks.clear();
  const tav_eml_mlutl_mail_part& part = *m_cMail.get_part();
  while (m_cMail.m_nReceiving != 0 && part.m_nComplete == 0) {
    std::string_view line;
    TAV_EML_UTL_RETCODE code = m_cLines.read_content(m_cMail, line);
    if (code != TAV_EML_UTL_OK) return operation.passed_on("ReadLine", code);
    if (line.empty()) continue;
    if (line == kEmptyLine && m_cMail.m_nBoundarySeen != 0) return TAV_EML_UTL_OK;
    const delimiter kind = pass_delimiter(line, m_cMail);
    if (kind == delimiter::misplaced) return operation.failed("ChkBoundaryString() returns [-1]");
    if (kind == delimiter::none && m_cMail.m_nBoundarySeen != 0) {
      code = collect(operation, line);
      if (code != TAV_EML_UTL_OK) return code;
    }
    // There are no parts after the outermost multipart.
    if (kind == delimiter::close && m_cMail.m_nBoundaryLevel == 0) return skip_to_end();
  }
  return TAV_EML_UTL_OK;
}

// Enters multiparts on the way and ignores their other fields: the part is the next leaf.
TAV_EML_UTL_RETCODE message_walk::read_part_header(const receive_operation& operation) {
  tav_eml_mlutl_mail_part& part = *m_cMail.get_part();
  do {
    const TAV_EML_UTL_RETCODE code = collect_part_header(operation);
    if (code != TAV_EML_UTL_OK) return code;
    const header_end end(m_cBlocks);
    const std::string_view received = m_cBlocks.held();
    // A header cut off by a delimiter must not open a level that is never closed.
    const bool is_cut = part.m_nComplete != 0 && m_cMail.m_nReceiving != 0;
    if (is_cut || received.empty()) return TAV_EML_UTL_OK;
    TAV_EML_CHAR_SET char_set = part.m_nCharSet;
    const std::optional<header_lines> lines = decode_header(operation, received, char_set);
    if (!lines) return TAV_EML_UTL_ERROR;
    if (!enter_multipart(m_cMail, *lines)) {
      part.m_nCharSet = char_set;
      keep_received_lines(part, received);
      take_part_fields(m_cMail, *lines);
      return TAV_EML_UTL_OK;
    }
    // If the message ends in a multipart's header, no part follows.
  } while (m_cMail.m_nReceiving != 0);
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE message_walk::read_body(const receive_operation& operation) {
  // Each call reads on: only a line that is added now makes a block full.
  bool is_full = false;
  while (m_cMail.m_nReceiving != 0 && !is_full) {
    std::string_view lines = m_cLines.take_plain(m_cBlocks.room());
    if (lines.empty()) {
      const TAV_EML_UTL_RETCODE code = m_cLines.read_content(m_cMail, lines);
      if (code != TAV_EML_UTL_OK) return operation.passed_on("ReadLine", code);
    }
    const TAV_EML_UTL_RETCODE code = add(operation, lines);
    if (code != TAV_EML_UTL_OK) return code;
    is_full = !lines.empty() && m_cBlocks.is_full();
  }
  return m_cBlocks.deliver(operation, m_cMail);
}

// Reads lines of the current part until it ends or there is a block.
TAV_EML_UTL_RETCODE message_walk::read_part_lines(const receive_operation& operation) {
  // Each call reads on: only a line that is added now makes a block full.
  bool is_full = false;
  while (m_cMail.m_nReceiving != 0 && !is_full) {
    std::string_view lines = m_cLines.take_plain(m_cBlocks.room());
    if (lines.empty()) {
      const TAV_EML_UTL_RETCODE code = m_cLines.read_content(m_cMail, lines);
      if (code != TAV_EML_UTL_OK) return operation.passed_on("ReadLine", code);
      const delimiter kind = pass_delimiter(lines, m_cMail);
      if (kind == delimiter::misplaced) {
        return operation.failed("ChkBoundaryString() returns [-1]");
      }
      if (kind != delimiter::none) return end_part(operation, kind);
    }
    const TAV_EML_UTL_RETCODE code = add(operation, lines);
    if (code != TAV_EML_UTL_OK) return code;
    is_full = !lines.empty() && m_cBlocks.is_full();
  }
  return TAV_EML_UTL_OK;
}

// Reads and drops what follows the outermost multipart.
TAV_EML_UTL_RETCODE message_walk::end_part(const receive_operation& operation, delimiter kind) {
  if (kind != delimiter::close || m_cMail.m_nBoundaryLevel > 0) return TAV_EML_UTL_OK;
  const TAV_EML_UTL_RETCODE code = skip_to_end();
  return code == TAV_EML_UTL_OK ? code : operation.passed_on("skip_mail", code);
}

TAV_EML_UTL_RETCODE message_walk::read_part_body(const receive_operation& operation) {
  const TAV_EML_UTL_RETCODE code = read_part_lines(operation);
  return code == TAV_EML_UTL_OK ? m_cBlocks.deliver(operation, *m_cMail.get_part()) : code;
}

TAV_EML_UTL_RETCODE message_walk::skip_part(const receive_operation& operation) {
  // The rest of a partly read body must not become part of the next header.
  m_cBlocks.clear();
  const tav_eml_mlutl_mail_part& part = *m_cMail.get_part();
  while (m_cMail.m_nReceiving != 0 && part.m_nComplete == 0) {
    std::string_view line;
    const TAV_EML_UTL_RETCODE code = m_cLines.read_content(m_cMail, line);
    if (code != TAV_EML_UTL_OK) return operation.passed_on("ReadLine", code);
    const delimiter kind = pass_delimiter(line, m_cMail);
    if (kind == delimiter::misplaced) return operation.failed("ChkBoundaryString() returns [-1]");
    if (kind != delimiter::none) return end_part(operation, kind);
  }
  return TAV_EML_UTL_OK;
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
