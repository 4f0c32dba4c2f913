// Words for a device that sends mail. Calls:
//
//   abort, judge BYTES
//   header, body TEXT, part-header, part-body TEXT, end     the steps of a mail
//   send TEXT                                               all of them
//
// The mail is short and in UTF-8; "attach TEXT" adds a PDF, "piece N" is how much of body and
// attachment goes into one call, and "field NAME TEXT" changes the mail: from, to, cc, bcc and
// reply-to ("(none)" is no address), subject, date, boundary, encoding, charset; file, which is the
// attachment's name; inline, which makes a text of the attachment. Values:
//
//   mails, to, mail   how many the server has; recipients and text of the latest one
//   text, decoded     what follows its header; the bytes that this is the base64 of
//   answer            the bytes of the line after AUTH, and "" if an empty one does not follow
//   sends             how many calls have sent something

#include <algorithm>

#include "device.h"
#include "text.h"

namespace dialogue {

using std::string;

using type = tav_eml_mlutl_mail_type;

// Without the subject, which goes out as it was given when there is no memory to encode it.
string device::mails_sent() {
  string all;
  for (const auto& mail : host().memory.mails()) {
    if (mail.to.empty()) continue;  // a message of the mailbox
    all += mail.from;
    for (const string& to : mail.to) all += " " + to;
    const size_t subject = mail.data.find("Subject: ");
    all += "\n" + mail.data.substr(0, subject) + mail.data.substr(mail.data.find("\r\n", subject));
  }
  return all;
}

void device::add_sending() {
  m_mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  m_mail.m_nTransferEncoding = TAV_EML_TE_7BIT;
  m_mail.m_nCharSet = TAV_EML_CS_UTF_8;
  m_mail.m_cFrom = "a@b.example";
  m_mail.m_cTo = "c@d.example";
  m_mail.m_cSubject = "Hi";
  m_mail.m_cDate = "Sat, 21 Nov 2026 10:00:00 +0900";
  m_mail.set_message_id("1@b");
  add_fields();
  add_sending_calls();
  add_sent_values();
}

void device::add_fields() {
  const auto into_address = [](tav_eml_mlutl_mail_address& field) {
    return [&field](const string& v) {
      field = v == "(none)" ? tav_eml_mlutl_mail_address() : tav_eml_mlutl_mail_address(v.c_str());
    };
  };
  m_settings.insert({
      {"from", into_address(m_mail.m_cFrom)},
      {"to", into_address(m_mail.m_cTo)},
      {"cc", into_address(m_mail.m_cCc)},
      {"bcc", into_address(m_mail.m_cBcc)},
      {"reply-to", into_address(m_mail.m_cReplyTo)},
      {"subject", into(m_mail.m_cSubject)},
      {"date", into(m_mail.m_cDate)},
      {"boundary", into(m_mail.m_cBoundaryString)},
      {"encoding",
       [this](const string& v) {
         m_mail.m_nTransferEncoding = type::test_transfer_encoding(v.c_str());
       }},
      {"charset", [this](const string& v) { m_mail.m_nCharSet = type::test_char_set(v.c_str()); }},
      {"file", [this](const string& v) { m_mail.m_pPart->m_cFIleName = v.c_str(); }},
  });
  m_settings["inline"] = [this](const string&) {
    m_mail.m_pPart->m_nContentType = TAV_EML_CT_TEXT_PLAIN;
    m_mail.m_pPart->m_nContentDisposition = TAV_EML_CD_INLINE;
  };
  m_setups["attach"] = [this](const string& data) {
    easy::attach(m_mail, TAV_EML_CT_APPLICATION_PDF, "a.pdf");
    m_mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
    m_mail.m_cBoundaryString = "BB";
    m_attachment = expand(data);
  };
  m_setups["piece"] = [this](const string& bytes) { m_piece = std::stoul(bytes); };
}

void device::add_sending_calls() {
  const auto add = [this](const char* verb, auto what) {
    m_calls[verb] = [this, what](const string&) {
      objects& it = made();
      return library([&] { return what(it.outbox, m_mail); });
    };
  };
  add("abort", [](auto& outbox, auto&) { return outbox.abort_mail(); });
  add("header", [](auto& outbox, auto& mail) { return outbox.send_header(mail); });
  add("part-header", [](auto& outbox, auto& mail) { return outbox.send_part_header(mail); });
  add("end", [](auto& outbox, auto& mail) { return outbox.close_mail(mail); });
  m_calls["body"] = [this](const string& what) {
    return send_pieces(m_mail, expand(what), &tav_eml_smtp_boundary::send_body);
  };
  m_calls["part-body"] = [this](const string& what) {
    return send_pieces(*m_mail.m_pPart, expand(what), &tav_eml_smtp_boundary::send_part_body);
  };
  m_calls["send"] = [this](const string& body) { return send(expand(body)); };
  m_calls["judge"] = [this](const string& bytes) {
    return made().outbox.judge_size_of_data(std::stoul(bytes));
  };
}

TAV_EML_RESULT device::send_pieces(
    tav_eml_mlutl_mail_part& part, const string& data,
    TAV_EML_RESULT (tav_eml_smtp_boundary::*step)(tav_eml_smtp_send_mail&)) {
  objects& it = made();
  TAV_EML_RESULT result = TAV_EML_OK;
  size_t at = 0;
  do {
    const string piece = data.substr(at, m_piece);
    easy::give(part, piece.data(), piece.size());
    result = library([&] { return (it.outbox.*step)(m_mail); });
    at += piece.size();
  } while (result == TAV_EML_OK && at < data.size());
  return result;
}

TAV_EML_RESULT device::send(const string& body) {
  TAV_EML_RESULT result = m_calls["connect"]("");
  if (result == TAV_EML_OK) result = m_calls["header"]("");
  if (result == TAV_EML_OK) result = send_pieces(m_mail, body, &tav_eml_smtp_boundary::send_body);
  if (result == TAV_EML_OK && m_mail.m_pPart != nullptr) {
    result = m_calls["part-header"]("");
    if (result == TAV_EML_OK)
      result = send_pieces(*m_mail.m_pPart, m_attachment, &tav_eml_smtp_boundary::send_part_body);
  }
  if (result == TAV_EML_OK) return m_calls["end"]("");
  m_calls["abort"]("");
  return result;
}

void device::add_sent_values() {
  const auto latest = [this] {
    const auto mails = host().memory.mails();
    return mails.empty() ? mailhost::mail() : mails.back();
  };
  const auto body = [=] {
    const string data = latest().data;
    return data.substr(std::min(data.size(), data.find("\r\n\r\n") + 4));
  };
  m_values["mails"] = [this] { return std::to_string(host().memory.mails().size()); };
  m_values["mail"] = [=] { return latest().data; };
  m_values["text"] = body;
  m_values["decoded"] = [=] {
    string encoded;
    for (const string& line : pieces_of(body(), "\r\n")) encoded += line;
    return mailhost::from_base64(encoded).value_or("(no base64)");
  };
  m_values["to"] = [=] {
    string all;
    for (const string& to : latest().to) all += (all.empty() ? "" : ", ") + to;
    return all;
  };
  m_values["answer"] = [this] {
    const string said = host().connection().in_clear;
    const size_t at = said.find("\r\n", said.find("AUTH")) + 2, end = said.find("\r\n", at);
    return said.substr(end, 4) == "\r\n\r\n"
               ? mailhost::from_base64(said.substr(at, end - at)).value_or("")
               : "";
  };
  m_values["sends"] = [this] { return std::to_string(net.calls({"send"}).size()); };
}

}  // namespace dialogue
