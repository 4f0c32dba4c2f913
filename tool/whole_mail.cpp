#include "whole_mail.h"

#include <climits>
#include <vector>

#include "dialogue_view.h"
#include "header_value.h"
#include "words.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr size_t kMailBlock = size_t{64} << 10;
constexpr uint64_t kLargestHeader = uint64_t{1} << 20;
constexpr uint64_t kLargestMail = INT_MAX;  // as the library takes it in parts

void describe(const listed_mail& listed, const raw_header& header, received_mail& out) {
  const std::string type = header.value("content-type").value_or("");
  const std::string set = parameter_of(type, "charset=");
  const auto text = [&](const char* name) {
    return presentable(header_value(header.value(name).value_or(""), set));
  };
  out.number = listed.number;
  out.uid = listed.uid;
  out.size = listed.size;
  out.from = text("from");
  out.to = text("to");
  out.cc = text("cc");
  out.reply_to = text("reply-to");
  out.subject = text("subject");
  out.date = text("date");
  out.message_id = text("message-id");
  out.content_type = presentable(trimmed(type.substr(0, type.find(';'))));
}

}  // namespace

TAV_EML_RESULT whole_mail_reader::read_header(const listed_mail& listed, received_mail& out) {
  m_header.begin();
  std::string received;
  TAV_EML_RESULT result = m_session.begin_header(listed.number, received);
  wire_text dropped(wire_text::line_end::cr_lf, [](std::string_view) {});
  if (result == TAV_EML_OK) result = read_to_end(received, dropped, kLargestHeader);
  describe(listed, m_header, out);
  return result;
}

TAV_EML_RESULT whole_mail_reader::read(const listed_mail& listed, wire_text& text,
                                       received_mail& out) {
  m_header.begin();
  std::string received;
  TAV_EML_RESULT result = m_session.begin_mail(listed.number, received);
  if (result == TAV_EML_OK) result = read_to_end(received, text, kLargestMail);
  describe(listed, m_header, out);
  return result;
}

TAV_EML_RESULT whole_mail_reader::read_to_end(const std::string& received, wire_text& text,
                                              uint64_t most) {
  m_endless = false;
  text.take(received);
  std::vector<char> block(kMailBlock);
  for (uint64_t bytes = received.size(); !text.has_ended();) {
    m_progress();
    size_t length = block.size();
    const TAV_EML_RESULT result = m_session.read_some(block.data(), length);
    if (result != TAV_EML_OK) return result;
    text.take({block.data(), length});
    bytes += length;
    m_endless = bytes > most && !text.has_ended();
    if (m_endless) {
      m_session.drop();  // what is left of it must not answer the next command
      return TAV_EML_ERR_REPLY;
    }
  }
  return TAV_EML_OK;
}

problem endless_header(int number) {
  return problem(EX_DATAERR, "the header of mail " + std::to_string(number) +
                                 " is longer than 1 MiB, or without end");
}

}  // namespace tavmail
