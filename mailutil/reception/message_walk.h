// message_walk.h - reading through a message: its header, its parts, its end.

#ifndef MESSAGE_WALK_H
#define MESSAGE_WALK_H

#include <optional>

#include "reception/block_store.h"
#include "reception/header_lines.h"
#include "reception/line_source.h"
#include "reception/receive_log.h"

namespace quorvelmida {

// One operation's steps through a message. Throws std::bad_alloc.
class message_walk {
 public:
  message_walk(const receive_operation& operation, tav_eml_mlutl_mail& mail,
               const line_source& lines, const block_store& blocks)
      : m_cOperation(operation), m_cMail(mail), m_cLines(lines), m_cBlocks(blocks) {}

  // The header of the message, up to an empty line if a body follows.
  TAV_EML_UTL_RETCODE read_header(bool has_body);

  // Up to the end of the header of the next leaf, into the current part.
  TAV_EML_UTL_RETCODE read_part_header();

  // One block of a message of a single part, or of the current part.
  TAV_EML_UTL_RETCODE read_body();
  TAV_EML_UTL_RETCODE read_part_body();

  TAV_EML_UTL_RETCODE skip_part();
  TAV_EML_UTL_RETCODE skip_to_end();

 private:
  TAV_EML_UTL_RETCODE misplaced_delimiter() const;
  TAV_EML_UTL_RETCODE read_line(std::string_view& line);
  TAV_EML_UTL_RETCODE read_part_line(std::string_view& line, bool& is_end);
  TAV_EML_UTL_RETCODE read_epilogue();
  TAV_EML_UTL_RETCODE add(std::string_view lines);
  TAV_EML_UTL_RETCODE collect(std::string_view line);
  TAV_EML_UTL_RETCODE collect_part_header();
  TAV_EML_UTL_RETCODE read_block(tav_eml_mlutl_mail_part& part, bool has_delimiters);
  std::optional<header_lines> decode_header(TAV_EML_CHAR_SET& char_set) const;

  const receive_operation& m_cOperation;
  tav_eml_mlutl_mail& m_cMail;
  line_source m_cLines;
  block_store m_cBlocks;
};

}  // namespace quorvelmida

#endif
