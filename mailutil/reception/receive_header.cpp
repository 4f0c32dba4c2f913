// The receive parser: reading the headers of a message and of its parts.

#include <algorithm>
#include <climits>
#include <utility>

#include "clb.h"
#include "codec/encoded_words.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"
#include "reception/received_header.h"

namespace quorvelmida {

namespace {

// More than any mail system passes on. What goes beyond it is an attack on our memory.
constexpr long kMaxHeaderBytes = 256L * 1024;

constexpr std::string_view kEmptyLine = "\r\n";
constexpr std::string_view kContentType = "Content-Type:";
constexpr std::string_view kContentDisposition = "Content-Disposition:";

bool begins_with(std::string_view line, std::string_view name) {
  return line.size() >= name.size() && clb_CompStrCaseN(line.data(), name.data(), name.size()) == 0;
}

std::string_view without_line_end(std::string_view line) {
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return line;
}

TAV_EML_UTL_RETCODE header_failure(const char* operation, const char* text) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): %s\n", operation, text);
  return TAV_EML_UTL_ERROR;
}

TAV_EML_UTL_RETCODE read_line_failure(const char* operation, TAV_EML_UTL_RETCODE code) {
  TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s(): ReadLine() returns [0x%d]\n", operation,
                    static_cast<int>(code));
  return code;
}

TAV_EML_UTL_RETCODE decode_failure(const received_header& header) {
  if (header.is_part) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %d] inline_decode error.\n",
                      header.operation, static_cast<int>(TAV_EML_UTL_ERROR));
  } else {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %08d] inline_decode error.\n",
                      header.operation, static_cast<int>(TAV_EML_UTL_ERROR));
  }
  return TAV_EML_UTL_ERROR;
}

TAV_EML_UTL_RETCODE no_memory(const char* operation) {
  header_failure(operation, "out of memory");
  return TAV_EML_UTL_NO_MEMORY;
}

// Appends a line with the encoded words of its value decoded.
bool decode_line(std::string_view line, std::string& decoded, TAV_EML_CHAR_SET& char_set) {
  const size_t colon = line.find(':');
  const size_t value = is_blank(line.front()) ? 0 : std::min(colon, line.size() - 1) + 1;
  decoded.append(line.substr(0, value));
  utl_buffer words;
  if (!decode_encoded_words(line.substr(value), line_breaks::blanked, words, char_set)) {
    return false;
  }
  decoded.append(words.data(), static_cast<size_t>(words.length()));
  return true;
}

// Gives a part what file names are taken from, and the character set that its header names.
void keep_lines(tav_eml_mlutl_mail_part& part, const received_header& header,
                TAV_EML_CHAR_SET char_set) {
  part.m_nCharSet = char_set;
  store_value(part.m_cHeader1, header.content_type);
  if (header.has_disposition) store_value(part.m_cHeader2, header.content_disposition);
}

}  // namespace

void received_header::note(std::string_view line) {
  ++lines;
  if (is_blank(line.front())) {
    if (continued != nullptr) continued->append(without_line_end(line.substr(1)));
    return;
  }
  continued = nullptr;
  if (begins_with(line, kContentType)) {
    continued = &content_type;
  } else if (begins_with(line, kContentDisposition)) {
    continued = &content_disposition;
    has_disposition = true;
  }
  if (continued != nullptr) *continued = without_line_end(line);
}

// Adds a line to the header that is being read.
TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::collect(received_header& header, std::string_view line) {
  header.bytes += static_cast<long>(line.size());
  if (header.bytes > kMaxHeaderBytes) {
    m_pStream->FreeStream();
    return header_failure(header.operation, "header too long");
  }
  int full = 0;
  if (!m_pStream->append(line.data(), static_cast<long>(line.size()), full)) {
    return header_failure(header.operation, "WriteStream() returns [FALSE]");
  }
  header.note(line);
  return TAV_EML_UTL_OK;
}

// Takes the header that was read out of the stream and decodes it, line by line: a word in the
// place of a field's name stays as it is, and none reaches over the end of its line, so that a word
// cannot forge a header line or swallow one. The result is "" when there is no header.
TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::take_header(const received_header& header,
                                                       std::string& decoded,
                                                       TAV_EML_CHAR_SET& char_set) {
  void* raw = nullptr;
  utl_buffer text;
  if (m_pStream->ReadStream(raw, text.length()) == 0) {
    return header_failure(header.operation, "ReadStream() returns [FALSE]");
  }
  text.data() = static_cast<char*>(raw);
  std::string_view rest(text.data(), static_cast<size_t>(text.length()));
  while (!rest.empty()) {
    const size_t size = std::min(rest.find('\n'), rest.size() - 1) + 1;
    if (!decode_line(rest.substr(0, size), decoded, char_set)) return decode_failure(header);
    rest.remove_prefix(size);
  }
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::read_message_header(tav_eml_mlutl_mail& mail,
                                                               const receive_source& source,
                                                               received_header& header) {
  if (!is_ready()) return no_memory(header.operation);
  m_pStream->FreeStream();
  m_lReceived = 0;
  while (mail.m_nReceiving != 0) {
    std::string_view line;
    TAV_EML_UTL_RETCODE code = read_content_line(mail, source, line);
    if (code != TAV_EML_UTL_OK) return read_line_failure(header.operation, code);
    if (line.empty()) continue;
    if (header.has_body && line == kEmptyLine && header.lines > 0) break;
    code = collect(header, line);
    if (code != TAV_EML_UTL_OK) return code;
  }
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::finish_message_header(tav_eml_mlutl_mail& mail,
                                                                 const received_header& header) {
  if (header.lines == 0) return TAV_EML_UTL_OK;
  std::string decoded;
  TAV_EML_CHAR_SET char_set = mail.m_nCharSet;
  const TAV_EML_UTL_RETCODE code = take_header(header, decoded, char_set);
  if (code != TAV_EML_UTL_OK) return code;
  keep_lines(mail, header, char_set);
  analyze_mail_header(mail, decoded.c_str());
  return TAV_EML_UTL_OK;
}

// `is_nested` becomes true when the header is that of a multipart, which is open then. Its other
// fields are not the part's: that belongs to the leaf that comes.
TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::finish_part_header(tav_eml_mlutl_mail& mail,
                                                              const received_header& header,
                                                              bool& is_nested) {
  tav_eml_mlutl_mail_part& part = *mail.get_part();
  if (part.m_nComplete != 0 && mail.m_nReceiving != 0) {
    // Cut off by a delimiter: it holds nothing, and must not open what can never be closed.
    m_pStream->FreeStream();
    return TAV_EML_UTL_OK;
  }
  if (header.lines == 0) return TAV_EML_UTL_OK;
  std::string decoded;
  TAV_EML_CHAR_SET char_set = part.m_nCharSet;
  const TAV_EML_UTL_RETCODE code = take_header(header, decoded, char_set);
  if (code != TAV_EML_UTL_OK) return code;
  is_nested = enter_multipart(mail, decoded.c_str());
  if (is_nested) return TAV_EML_UTL_OK;
  keep_lines(part, header, char_set);
  analyze_leaf_header(mail, decoded.c_str());
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_header_only(tav_eml_mlutl_mail& mail, int& sock,
                                                               unsigned int timeout,
                                                               TAV_EML_TLS_INFO& tls) {
  received_header header("receive_header_only");
  header.has_body = false;
  if (sock == 0) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %08d] not connected\n",
                      header.operation, static_cast<int>(TAV_EML_UTL_NOT_CONNECTED));
    return TAV_EML_UTL_NOT_CONNECTED;
  }
  if (mail.m_nReceiving == 0) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::%s():[Return %08d] no data.\n",
                      header.operation, static_cast<int>(TAV_EML_UTL_ERROR));
    return TAV_EML_UTL_ERROR;
  }
  return guarded(header.operation, TAV_EML_UTL_NO_MEMORY, [&] {
    const TAV_EML_UTL_RETCODE code = read_message_header(mail, {sock, timeout, tls}, header);
    return code == TAV_EML_UTL_OK ? finish_message_header(mail, header) : code;
  });
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_header(tav_eml_mlutl_mail& mail, int& sock,
                                                          unsigned int timeout,
                                                          unsigned long /*limit*/,
                                                          TAV_EML_TLS_INFO& tls) {
  received_header header("receive_header");
  // Who drives the parser by hand need not have said that a message is being received.
  const int32_t was_receiving = std::exchange(mail.m_nReceiving, 1);
  const TAV_EML_UTL_RETCODE result = guarded(header.operation, TAV_EML_UTL_NO_MEMORY, [&] {
    const TAV_EML_UTL_RETCODE code = read_message_header(mail, {sock, timeout, tls}, header);
    // Whatever ended the reading, for the caller the connection is gone.
    if (code == TAV_EML_UTL_BAD_REPLY || code == TAV_EML_UTL_RECV_ERROR) {
      return TAV_EML_UTL_NOT_CONNECTED;
    }
    return code == TAV_EML_UTL_OK ? finish_message_header(mail, header) : code;
  });
  if (mail.m_nReceiving != 0) mail.m_nReceiving = was_receiving;
  return result;
}

// Reads up to the end of the next part header. Lines in front of a level's first delimiter are a
// preamble, or an epilogue of the level below it, and no header. A later delimiter ends the part
// within its header: what follows belongs to the next part.
TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::read_part_header(tav_eml_mlutl_mail& mail,
                                                            const receive_source& source,
                                                            received_header& header) {
  const tav_eml_mlutl_mail_part& part = *mail.get_part();
  while (mail.m_nReceiving != 0 && part.m_nComplete == 0) {
    std::string_view line;
    TAV_EML_UTL_RETCODE code = read_content_line(mail, source, line);
    if (code != TAV_EML_UTL_OK) return read_line_failure(header.operation, code);
    if (line.empty()) continue;
    if (line == kEmptyLine && mail.m_nBoundarySeen != 0) return TAV_EML_UTL_OK;
    const int delimiter = check_boundary(line, mail);
    if (delimiter < 0) {
      TAV_EML_LOG_ERROR(
          "<Error> tav_eml_mlutl_receive::receive_part_header(): ChkBoundaryString() returns "
          "[%d]\n",
          delimiter);
      return TAV_EML_UTL_ERROR;
    }
    if (delimiter == 0 && mail.m_nBoundarySeen != 0) {
      code = collect(header, line);
      if (code != TAV_EML_UTL_OK) return code;
    }
    // Behind the outermost multipart nothing is a part any more.
    if (delimiter == 2 && mail.m_nBoundaryLevel == 0) return skip_to_end(mail, source);
  }
  return TAV_EML_UTL_OK;
}

TAV_EML_UTL_RETCODE tav_eml_mlutl_receive::receive_part_header(tav_eml_mlutl_mail& mail, int& sock,
                                                               unsigned int timeout,
                                                               TAV_EML_TLS_INFO& tls) {
  const auto refuse = [](TAV_EML_UTL_RETCODE code, const char* text) {
    TAV_EML_LOG_ERROR("<Error> tav_eml_mlutl_receive::receive_part_header():[Return %d]%s\n",
                      static_cast<int>(code), text);
    return code;
  };
  if (sock == 0) return refuse(TAV_EML_UTL_NOT_CONNECTED, " not connected");
  if (mail.m_nReceiving == 0) return refuse(TAV_EML_UTL_ERROR, " no data.");
  tav_eml_mlutl_mail_part* part = mail.get_part();
  if (part == nullptr) return refuse(TAV_EML_UTL_ERROR, "no part.");
  if (part->m_nComplete == 1) return refuse(TAV_EML_UTL_ERROR, "already terminated.");
  constexpr char kName[] = "receive_part_header";
  if (!is_ready()) return no_memory(kName);
  m_pStream->FreeStream();  // what an abandoned body may have left is no header

  return guarded(kName, TAV_EML_UTL_NO_MEMORY, [&] {
    bool is_nested = false;
    do {
      is_nested = false;
      received_header header(kName);
      header.is_part = true;
      TAV_EML_UTL_RETCODE code = read_part_header(mail, {sock, timeout, tls}, header);
      if (code == TAV_EML_UTL_OK) code = finish_part_header(mail, header, is_nested);
      if (code != TAV_EML_UTL_OK) return code;
      // A multipart of which the message ended has no part that could still come.
    } while (is_nested && mail.m_nReceiving != 0);
    return TAV_EML_UTL_OK;
  });
}

}  // namespace quorvelmida
