// message_walk.h - reading through a message: its header, its parts, its end.

#ifndef MESSAGE_WALK_H
#define MESSAGE_WALK_H

#include "reception/block_store.h"
#include "reception/delimiter.h"
#include "reception/line_source.h"
#include "reception/receive_log.h"

namespace quorvelmida {

// Reads one message step by step. Throws std::bad_alloc.
class message_walk {
 public:
  message_walk(tav_eml_mlutl_mail& mail, const line_source& lines, const block_store& blocks)
      : m_cMail(mail), m_cLines(lines), m_cBlocks(blocks) {}

  // The header of the message, up to an empty line if a body follows.
  TAV_EML_UTL_RETCODE read_header(const receive_operation& operation, bool has_body);

  // Up to the end of the header of the next leaf, into the current part.
  TAV_EML_UTL_RETCODE read_part_header(const receive_operation& operation);

  // One block of a message of a single part, or of the current part.
  TAV_EML_UTL_RETCODE read_body(const receive_operation& operation);
  TAV_EML_UTL_RETCODE read_part_body(const receive_operation& operation);

  TAV_EML_UTL_RETCODE skip_part(const receive_operation& operation);
  TAV_EML_UTL_RETCODE skip_to_end();

 private:
  TAV_EML_UTL_RETCODE collect(const receive_operation& operation, std::string_view line);
  TAV_EML_UTL_RETCODE collect_part_header(const receive_operation& operation);
  TAV_EML_UTL_RETCODE read_part_lines(const receive_operation& operation);
  TAV_EML_UTL_RETCODE add(const receive_operation& operation, std::string_view lines);
  TAV_EML_UTL_RETCODE end_part(const receive_operation& operation, delimiter kind);

  tav_eml_mlutl_mail& m_cMail;
  line_source m_cLines;
  block_store m_cBlocks;
};

}  // namespace quorvelmida

#endif
