// taveml_easy.h - conveniences for applications, made of the interface alone.
//
// Everything here and in taveml_easy_text.h is inline code on top of the exported classes, in
// namespace quorvelmida::easy. The library neither uses nor exports it. taveml.h does not include
// it; it includes taveml.h.
//
// Texts are UTF-8. Lengths are in bytes. A lack of memory is TAV_EML_ERR_NO_MEMORY where stated;
// what makes a std::string may also throw std::bad_alloc. What is in easy::detail is not for
// applications and may change.

#ifndef TAVEML_EASY_H
#define TAVEML_EASY_H

#include <climits>
#include <cstring>
#include <istream>
#include <sstream>
#include <string>

#include "quorvelmida/taveml.h"
#include "quorvelmida/taveml_easy_text.h"
#include "utl_os.h"

namespace quorvelmida {
namespace easy {

// ---- Settings

// Records for an account with a login: the certificate is checked, and a wait takes at most 30
// seconds. TLS from the first byte on the ports for it, 465 and 995; on any other port the session
// is made secure with STARTTLS or STLS, or fails. Change what differs. With an empty user
// smtp_account does not log in.
inline _tav_eml_smtp_setting smtp_account(const char* server, int port, const char* user,
                                          const char* password) {
  _tav_eml_smtp_setting record;
  record.server = server;
  record.port = port;
  record.user_id = user;
  record.password = password;
  record.auth_kind = record.user_id.IsEmpty() ? 0 : 1;
  record.timeout = 30;
  record.tlsmode = port == 465 ? 1 : 2;
  record.tls_opt[0] = 1;
  return record;
}

inline _tav_eml_pop3_setting pop3_account(const char* server, int port, const char* user,
                                          const char* password) {
  _tav_eml_pop3_setting record;
  record.strServer = server;
  record.nPort = port;
  record.strUserID = user;
  record.strPassword = password;
  record.nTimeout = 30;
  record.ucTLSMode = port == 995 ? 1 : 2;
  record.ucTLSOption[0] = 1;
  return record;
}

// ---- Blocks

// Copies `length` bytes into a UtlOS block and appends it to the part's data. No bytes are a
// success that changes nothing. Otherwise TAV_EML_OK or TAV_EML_ERR_NO_MEMORY.
inline TAV_EML_RESULT give(tav_eml_mlutl_mail_part& part, const void* bytes, size_t length) {
  if (length == 0) return TAV_EML_OK;
  if (length >= INT_MAX) return TAV_EML_ERR_NO_MEMORY;
  void* block = UtlOS::MemAllocate(length + 1);  // with room for the NUL after the data
  if (block == nullptr) return TAV_EML_ERR_NO_MEMORY;
  std::memcpy(block, bytes, length);
  static_cast<char*>(block)[length] = '\0';
  long count = static_cast<long>(length);
  if (part.set_buffer(block, count) != 0) return TAV_EML_OK;  // the part owns it now
  UtlOS::MemFree(block);
  return TAV_EML_ERR_NO_MEMORY;
}

// All data of a part, taken out of it without copying; freed by the destructor.
class taken_block {
 public:
  explicit taken_block(tav_eml_mlutl_mail_part& part) : m_pData(nullptr), m_lLength(0) {
    part.get_buffer(m_pData, m_lLength);  // cannot fail for all of it
  }
  taken_block(const taken_block&) = delete;
  taken_block& operator=(const taken_block&) = delete;
  ~taken_block() { UtlOS::MemFree(m_pData); }

  const char* data() const { return static_cast<const char*>(m_pData); }  // null for no data
  size_t size() const { return static_cast<size_t>(m_lLength); }

 private:
  void* m_pData;
  long m_lLength;
};

// The same as a string; "" for a part without data.
inline std::string take(tav_eml_mlutl_mail_part& part) {
  const taken_block block(part);
  return block.size() > 0 ? std::string(block.data(), block.size()) : std::string();
}

// ---- Sending

// Makes the mail a multipart with an attachment in base64 and returns the attachment, which the
// mail owns. `file_name` is UTF-8; a line break in it makes send_part_header fail.
//
// A mail holds one attachment at a time. For the next one call attach again when all of the latest
// has been sent, then send_part_header and send_stream.
inline tav_eml_smtp_send_mail_part& attach(tav_eml_smtp_send_mail& mail, TAV_EML_CONTENT_TYPE type,
                                           const std::string& file_name) {
  mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  // A boundary that is there may stand in the header that was sent.
  if (mail.m_cBoundaryString.IsEmpty()) mail.m_cBoundaryString = new_boundary().c_str();
  mail.set_part(new tav_eml_smtp_send_mail_part);
  mail.m_pPart->m_nContentType = type;
  mail.m_pPart->m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_pPart->m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
  mail.m_pPart->m_cFIleName = quotable_file_name(file_name).c_str();
  return *mail.m_pPart;
}

// The same with a type that has no value of its own, such as "image/png".
inline tav_eml_smtp_send_mail_part& attach(tav_eml_smtp_send_mail& mail, const char* media_type,
                                           const std::string& file_name) {
  tav_eml_smtp_send_mail_part& part = attach(mail, TAV_EML_CT_UNKNOWN, file_name);
  part.m_cMediaType = media_type;
  return part;
}

namespace detail {

// Where to cut a full piece of text: after a line if possible, never inside a character.
inline size_t end_of_lines(const std::string& piece) {
  const size_t feed = piece.rfind('\n');
  if (feed != std::string::npos) return feed + 1;
  size_t end = piece.size() - 1;
  while (end > 0 && (static_cast<unsigned char>(piece[end]) & 0xC0) == 0x80) --end;
  return end > 0 ? end : piece.size();
}

// Sends a stream piece by piece with `send`, which takes the data out of `part`.
template <typename Send>
TAV_EML_RESULT send_pieces(tav_eml_mlutl_mail_part& part, std::istream& in, bool is_text,
                           const Send& send) {
  const size_t full = 48 * 1024;  // a multiple of 48 fills every base64 line
  if (!in) return TAV_EML_ERR_PARAM;
  std::string piece;
  for (;;) {
    const size_t held = piece.size();
    piece.resize(full);
    in.read(&piece[held], static_cast<std::streamsize>(full - held));
    piece.resize(held + static_cast<size_t>(in.gcount()));
    if (in.bad()) return TAV_EML_ERR_UNKNOWN;  // half a file must not be delivered
    if (piece.empty()) return TAV_EML_OK;
    const size_t end = is_text && piece.size() == full ? end_of_lines(piece) : piece.size();
    TAV_EML_RESULT result = give(part, piece.data(), end);
    if (result == TAV_EML_OK) result = send();
    if (result != TAV_EML_OK) return result;
    piece.erase(0, end);
  }
}

}  // namespace detail

// Sends a text of any length as the body (send_body), after send_header: with CR LF at every line
// end, cut where it may be cut. An empty text sends nothing. TAV_EML_OK or the code of the step
// that failed; then abort the message.
inline TAV_EML_RESULT send_text(tav_eml_smtp_boundary& session, tav_eml_smtp_send_mail& mail,
                                const std::string& text) {
  std::string lines;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') continue;
    if (text[i] == '\r' || text[i] == '\n') {
      lines += "\r\n";
    } else {
      lines += text[i];
    }
  }
  std::istringstream in(lines);
  return detail::send_pieces(mail, in, true, [&] { return session.send_body(mail); });
}

// Sends a stream to its end as the attachment (send_part_body), after send_part_header. Memory does
// not grow with it. TAV_EML_ERR_PARAM without a part, and for a stream that is not good, such as a
// file that could not be opened; TAV_EML_ERR_UNKNOWN if reading it fails; otherwise TAV_EML_OK or
// the code of the step that failed. After a failure abort the message.
//
// An attachment in base64 may hold anything. Any other part is text: its lines end in CR LF, and
// one of more than 48 KiB is broken in 7bit and 8bit.
inline TAV_EML_RESULT send_stream(tav_eml_smtp_boundary& session, tav_eml_smtp_send_mail& mail,
                                  std::istream& in) {
  if (mail.m_pPart == nullptr) return TAV_EML_ERR_PARAM;
  const bool is_text = mail.m_pPart->m_nTransferEncoding != TAV_EML_TE_BASE64 ||
                       mail.m_pPart->m_nContentDisposition != TAV_EML_CD_ATTACHMENT;
  return detail::send_pieces(*mail.m_pPart, in, is_text,
                             [&] { return session.send_part_body(mail); });
}

// One message over a session: at the end of the scope a message that was begun and not completed is
// aborted, so that the server discards it, and the session's lock is released. For a session that
// threads share, hold a mutex of your own around it.
class abort_guard {
 public:
  // `session` is not owned and must outlive the object.
  explicit abort_guard(tav_eml_smtp_boundary& session) : m_cSession(session), m_nState(kIdle) {}
  abort_guard(const abort_guard&) = delete;
  abort_guard& operator=(const abort_guard&) = delete;
  ~abort_guard() {
    if (m_nState == kRefused) m_cSession.close_mail();  // nothing to close; releases the lock
    if (m_nState == kConnected) m_cSession.abort_mail();
  }

  // connect_mail.
  TAV_EML_RESULT connect() {
    const TAV_EML_RESULT result = m_cSession.connect_mail();
    m_nState = result == TAV_EML_OK ? kConnected : kRefused;
    return result;
  }

  // close_mail(mail): the message was sent if this returns TAV_EML_OK.
  TAV_EML_RESULT close(tav_eml_smtp_send_mail& mail) {
    const TAV_EML_RESULT result = m_cSession.close_mail(mail);
    if (result == TAV_EML_OK) m_nState = kIdle;
    return result;
  }

 private:
  enum state { kIdle, kRefused, kConnected };

  tav_eml_smtp_boundary& m_cSession;
  state m_nState;
};

// ---- Receiving

// Closes the session at the end of the scope; the server deletes then what was marked.
class close_guard {
 public:
  explicit close_guard(tav_eml_pop3_boundary& session) : m_cSession(session) {}
  close_guard(const close_guard&) = delete;
  close_guard& operator=(const close_guard&) = delete;
  ~close_guard() { m_cSession.close_mail(); }

 private:
  tav_eml_pop3_boundary& m_cSession;
};

// Takes a message that for_each_part reads. If an operation throws, the message is not read to its
// end: close the session.
class part_sink {
 public:
  virtual ~part_sink() {}

  // The header was read. False skips the message.
  virtual bool header(tav_eml_pop3_receive_mail&) { return true; }
  // A part begins; a message of a single part is its own part. False skips the part. A hostile
  // message may have any number of parts.
  virtual bool begin(const tav_eml_mlutl_mail_part& part) = 0;
  // The next bytes of the part, decoded. False, as for a full disk, skips the rest of the message.
  virtual bool data(const char* bytes, size_t length) = 0;
  // The part has ended. It is not certain if a block of it was empty or could not be decoded:
  // something may be missing. False skips the rest of the message.
  virtual bool end(bool is_certain) = 0;
};

namespace detail {

// Passes on the data of a part without what does not belong to it.
class part_data {
 public:
  part_data(part_sink& sink, bool is_base64, bool has_delimiter)
      : m_cSink(sink),
        m_bBase64(is_base64),
        m_bHolds(has_delimiter && !is_base64),
        m_bHasData(false),
        m_bHeld(false) {}

  bool add(const char* bytes, size_t length) {
    if (length == 0) return true;
    const bool has_line_end = length >= 2 && bytes[length - 2] == '\r' && bytes[length - 1] == '\n';
    // A base64 part of nothing but a line end is empty; its block is passed on as it is.
    if (m_bBase64 && !m_bHasData && length == 2 && has_line_end) return true;
    m_bHasData = true;
    if (m_bHeld && !m_cSink.data("\r\n", 2)) return false;
    // The line end before a delimiter belongs to the delimiter (RFC 2046 5.1.1): wait for more.
    m_bHeld = m_bHolds && has_line_end;
    if (m_bHeld) length -= 2;
    return length == 0 || m_cSink.data(bytes, length);
  }

 private:
  part_sink& m_cSink;
  const bool m_bBase64;
  const bool m_bHolds;
  bool m_bHasData;
  bool m_bHeld;  // a line end
};

inline bool is_multipart(const tav_eml_mlutl_mail_part& part) {
  return part.m_nContentType == TAV_EML_CT_MULTIPART ||
         part.m_nContentType == TAV_EML_CT_MULTIPART_MIXED ||
         part.m_nContentType == TAV_EML_CT_MULTIPART_REPORT;
}

inline TAV_EML_RESULT skip_rest(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail) {
  return session.skip_mail(mail) == TAV_EML_UTL_OK ? TAV_EML_OK : TAV_EML_ERR_NOT_CONNECTED;
}

// Reads the mail (`part` is the mail itself) or its current part. `is_whole` becomes false if
// something may be missing. TAV_EML_ERR_UNKNOWN: the sink wants no more.
inline TAV_EML_RESULT read_part(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail,
                                tav_eml_mlutl_mail_part& part, part_sink& sink, bool& is_whole) {
  const bool is_mail = &part == &mail;
  if (!sink.begin(part)) return is_mail ? skip_rest(session, mail) : session.skip_part(mail);
  part_data data(sink, part.m_nTransferEncoding == TAV_EML_TE_BASE64, !is_mail);
  bool is_certain = true;
  while (part.m_nComplete == 0 && mail.m_nReceiving != 0) {
    const TAV_EML_RESULT result =
        is_mail ? session.receive_body(mail) : session.receive_part_body(mail);
    const taken_block block(part);
    // A block that is empty or cannot be decoded: the message can be read on. If the connection was
    // lost, the next call says so.
    if (result == TAV_EML_ERR_UNKNOWN) is_certain = false;
    if (result != TAV_EML_OK && result != TAV_EML_ERR_UNKNOWN) return result;
    if (!data.add(block.data(), block.size())) return TAV_EML_ERR_UNKNOWN;
  }
  if (!is_certain || part.m_nComplete == 0) is_whole = false;
  return sink.end(is_certain && part.m_nComplete != 0) ? TAV_EML_OK : TAV_EML_ERR_UNKNOWN;
}

inline TAV_EML_RESULT read_parts(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail,
                                 part_sink& sink, bool& is_whole) {
  if (!sink.header(mail)) return skip_rest(session, mail);
  if (!is_multipart(mail)) return read_part(session, mail, mail, sink, is_whole);
  bool has_part = false;
  while (mail.m_nReceiving != 0) {
    mail.set_part(new tav_eml_pop3_receive_mail_part);
    TAV_EML_RESULT result = session.receive_part_header(mail, 0);
    if (result != TAV_EML_OK) return result;
    tav_eml_mlutl_mail_part& part = *mail.get_part();
    // The trace of a closing delimiter, or of a header that was cut off: it holds nothing.
    if (part.m_nComplete != 0) continue;
    has_part = true;
    result = read_part(session, mail, part, sink, is_whole);
    if (result != TAV_EML_OK) return result;
  }
  if (!has_part) is_whole = false;  // its boundary was not found
  return TAV_EML_OK;
}

}  // namespace detail

// Reads one message from its header to its end, part by part, into `sink`. `mail` is new, with the
// message's number (tav_eml_pop3_mail_info). Results:
// - TAV_EML_OK: the sink has got all that it wanted. Only then delete the message from the server.
// - TAV_EML_ERR_UNKNOWN: the message was read or skipped to its end, but something of it may be
//   missing, or the sink ended it. Go on with the next message.
// - any other code: the connection is lost or of no more use. Close the session.
inline TAV_EML_RESULT for_each_part(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail,
                                    part_sink& sink) {
  bool is_whole = true;
  TAV_EML_RESULT result = session.receive_header(mail, 0);
  if (result == TAV_EML_OK) result = detail::read_parts(session, mail, sink, is_whole);
  if (result == TAV_EML_ERR_UNKNOWN) {
    is_whole = false;
    result = detail::skip_rest(session, mail);  // before the next command
  }
  return result == TAV_EML_OK && !is_whole ? TAV_EML_ERR_UNKNOWN : result;
}

}  // namespace easy
}  // namespace quorvelmida

#endif
