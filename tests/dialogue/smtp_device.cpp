// A device that sends mail. Settings: server, user, password, helo, tls (0 to 2), options (five
// bytes), auth (0 to 3), limit, wait, and pop3-user, pop3-tls and pop3-account (none)
// for POP-before-SMTP. Calls:
//
//   test, connect, abort, close, fresh-test (of an object of its own), judge BYTES
//   header, body TEXT, part-header, part-body TEXT, end     the steps of a mail
//   send TEXT                                               all of them
//
// The mail is short and in UTF-8; "field NAME TEXT" changes it, "attach TEXT" adds a PDF, "piece N"
// is how much of body and attachment goes into one call, "drop" lets the object of the library go.
// Values:
//
//   mails, to, mail   how many the server has; recipients and text of the latest one
//   text, decoded     what follows its header; the bytes that this is the base64 of
//   answer            the bytes of the line after AUTH, and "" if an empty one does not follow
//   sends             how many calls have sent something

#include <algorithm>

#include "device.h"
#include "text.h"

namespace dialogue {
namespace {

using std::string;

const std::map<string, TAV_EML_TRANSFER_ENCODING> kEncodings = {
    {"7bit", TAV_EML_TE_7BIT},
    {"8bit", TAV_EML_TE_8BIT},
    {"base64", TAV_EML_TE_BASE64},
    {"qp", TAV_EML_TE_QUOTED_PRINTABLE}};
const std::map<string, TAV_EML_CHAR_SET> kCharSets = {{"iso-2022-jp", TAV_EML_CS_ISO_2022_JP},
                                                      {"shift_jis", TAV_EML_CS_SHIFT_JIS},
                                                      {"utf-8", TAV_EML_CS_UTF_8}};

tav_eml_mlutl_mail_address address(const string& text) {
  return text == "(none)" ? tav_eml_mlutl_mail_address() : tav_eml_mlutl_mail_address(text.c_str());
}

class smtp_device : public device {
 public:
  smtp_device();

  // Without the subject, which goes out as it was given when there is no memory to encode it.
  string outcome() override {
    string all;
    for (const auto& mail : host().memory.mails()) {
      all += mail.from;
      for (const string& to : mail.to) all += " " + to;
      const size_t subject = mail.data.find("Subject: ");
      all +=
          "\n" + mail.data.substr(0, subject) + mail.data.substr(mail.data.find("\r\n", subject));
    }
    return all;
  }
  // A mail is sent whole or not at all.
  bool is_part(const string& got, const string& whole) override {
    return got.empty() || got == whole;
  }
  bool is_taken(const string& got) override { return !got.empty(); }
  void check_order(TAV_EML_RESULT result) override {
    device::check_order(result);
    using mailhost::protocol;
    if (m_record.auth_kind > 1 && host().occurrences(protocol::smtp, "greeting") > 0) {
      EXPECT_GT(host().occurrences(protocol::pop3, "greeting"), 0u) << "without the login";
    }
  }
  void forget_outcome() override {
    for (const auto& entry : host().memory.list()) host().memory.remove(entry.uid);
  }
  void leave() override {
    if (!m_boundary) return;
    library([&] { return m_boundary->abort_mail(); });
    library([&] { return m_boundary->close_mail(); });  // gives the lock of a failed connect back
  }

 private:
  void drop_objects() override {
    m_mail.free_buffer();
    m_boundary.reset();
    m_smtp.reset();
    m_pop3.reset();
  }
  uint8_t tls_mode_set() const override { return m_record.tlsmode; }

  tav_eml_smtp_boundary& boundary() {
    if (!m_boundary) {
      make_settings();
      m_boundary = std::make_unique<tav_eml_smtp_boundary>(*m_smtp);
    }
    return *m_boundary;
  }
  void make_settings() {
    m_pop3 = std::make_unique<tav_eml_pop3_settings>(m_account);
    m_record.pop3_settings = m_hasAccount ? m_pop3.get() : nullptr;
    m_smtp = std::make_unique<tav_eml_smtp_settings>(m_record);
  }

  void add_settings();
  void add_fields();
  void add_calls();
  void add_values();
  TAV_EML_RESULT send_pieces(
      tav_eml_mlutl_mail_part& part, const string& text,
      TAV_EML_RESULT (tav_eml_smtp_boundary::*step)(tav_eml_smtp_send_mail&));
  TAV_EML_RESULT send(const string& text);

  _tav_eml_smtp_setting m_record;
  _tav_eml_pop3_setting m_account;
  bool m_hasAccount = true;
  std::unique_ptr<tav_eml_pop3_settings> m_pop3;
  std::unique_ptr<tav_eml_smtp_settings> m_smtp;
  std::unique_ptr<tav_eml_smtp_boundary> m_boundary;
  tav_eml_smtp_send_mail m_mail;
  std::map<string, action> m_fields;
  string m_data;  // of the attachment
  size_t m_piece = SIZE_MAX;
};

smtp_device::smtp_device() {
  m_record.server = kServer;
  m_record.port = 65536 + 25;  // the low 16 bits count
  m_record.timeout = kSeconds;
  m_record.user_id = "u";
  m_record.password = kSecret;
  m_account.strServer = kServer;
  m_account.nPort = 110;
  m_account.strUserID = "u";
  m_account.strPassword = kSecret;
  m_account.nTimeout = kSeconds;
  m_mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  m_mail.m_nTransferEncoding = TAV_EML_TE_7BIT;
  m_mail.m_nCharSet = TAV_EML_CS_UTF_8;
  m_mail.m_cFrom = address("a@b.example");
  m_mail.m_cTo = address("c@d.example");
  m_mail.m_cSubject = "Hi";
  m_mail.m_cDate = "Sat, 21 Nov 2026 10:00:00 +0900";
  m_mail.set_message_id("1@b");
  m_sendTimeouts = {kSeconds * 1000};
  add_settings();
  add_fields();
  add_calls();
  add_values();
}

void smtp_device::add_settings() {
  m_settings = {
      {"server", into(m_record.server)},
      {"user", into(m_record.user_id)},
      {"password", into(m_record.password)},
      {"helo", into(m_record.helo_domain)},
      {"tls", into(m_record.tlsmode)},
      {"options", [this](const string& v) { std::copy_n(v.begin(), 5, m_record.tls_opt); }},
      {"limit", into(m_record.size_limit)},
      {"wait", into(m_record.pop_wait)},
      {"pop3-user", into(m_account.strUserID)},
      {"pop3-tls", into(m_account.ucTLSMode)},
      {"pop3-account", [this](const string&) { m_hasAccount = false; }},
  };
  m_settings["auth"] = [this](const string& v) {
    m_record.auth_kind = stoi(v);
    if (m_record.auth_kind > 1) m_sendTimeouts.insert(0);  // POP3 leaves it to the port
  };
}

void smtp_device::add_fields() {
  const auto into_address = [](tav_eml_mlutl_mail_address& field) {
    return [&field](const string& v) { field = address(v); };
  };
  m_fields = {
      {"from", into_address(m_mail.m_cFrom)},
      {"to", into_address(m_mail.m_cTo)},
      {"cc", into_address(m_mail.m_cCc)},
      {"bcc", into_address(m_mail.m_cBcc)},
      {"reply-to", into_address(m_mail.m_cReplyTo)},
      {"subject", into(m_mail.m_cSubject)},
      {"date", into(m_mail.m_cDate)},
      {"boundary", into(m_mail.m_cBoundaryString)},
      {"encoding", [this](const string& v) { m_mail.m_nTransferEncoding = kEncodings.at(v); }},
      {"charset", [this](const string& v) { m_mail.m_nCharSet = kCharSets.at(v); }},
      {"file", [this](const string& v) { m_mail.m_pPart->m_cFIleName = v.c_str(); }},
  };
  m_fields["inline"] = [this](const string&) {
    m_mail.m_pPart->m_nContentType = TAV_EML_CT_TEXT_PLAIN;
    m_mail.m_pPart->m_nContentDisposition = TAV_EML_CD_INLINE;
  };
  m_setups["field"] = [this](string rest) {
    const string name = word_of(rest);
    m_fields.at(name)(expand(rest));
  };
  m_setups["attach"] = [this](const string& data) {
    m_mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
    m_mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
    m_mail.m_cBoundaryString = "BB";
    auto* const part = new tav_eml_smtp_send_mail_part;
    part->m_nContentType = TAV_EML_CT_APPLICATION_PDF;
    part->m_nTransferEncoding = TAV_EML_TE_BASE64;
    part->m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
    part->m_cFIleName = "a.pdf";
    m_mail.set_part(part);
    m_data = expand(data);
  };
  m_setups["piece"] = [this](const string& bytes) { m_piece = std::stoul(bytes); };
}

void smtp_device::add_calls() {
  const auto add = [this](const char* verb, auto what) {
    m_calls[verb] = [this, what](const string&) {
      tav_eml_smtp_boundary& object = boundary();
      return library([&] { return what(object, m_mail); });
    };
  };
  add("test", [](auto& outbox, auto&) { return outbox.test(); });
  add("connect", [](auto& outbox, auto&) { return outbox.connect_mail(); });
  add("abort", [](auto& outbox, auto&) { return outbox.abort_mail(); });
  add("close", [](auto& outbox, auto&) { return outbox.close_mail(); });
  add("header", [](auto& outbox, auto& mail) { return outbox.send_header(mail); });
  add("part-header", [](auto& outbox, auto& mail) { return outbox.send_part_header(mail); });
  add("end", [](auto& outbox, auto& mail) { return outbox.close_mail(mail); });
  m_calls["body"] = [this](const string& text) {
    return send_pieces(m_mail, expand(text), &tav_eml_smtp_boundary::send_body);
  };
  m_calls["part-body"] = [this](const string& text) {
    return send_pieces(*m_mail.m_pPart, expand(text), &tav_eml_smtp_boundary::send_part_body);
  };
  m_calls["send"] = [this](const string& text) { return send(expand(text)); };
  m_calls["judge"] = [this](const string& bytes) {
    return boundary().judge_size_of_data(std::stoul(bytes));
  };
  m_calls["fresh-test"] = [this](const string&) {
    make_settings();
    return library([&] { return tav_eml_smtp_boundary(*m_smtp).test(); });
  };
  m_setups["drop"] = [this](const string&) { drop_objects(); };
}

TAV_EML_RESULT smtp_device::send_pieces(
    tav_eml_mlutl_mail_part& part, const string& text,
    TAV_EML_RESULT (tav_eml_smtp_boundary::*step)(tav_eml_smtp_send_mail&)) {
  tav_eml_smtp_boundary& object = boundary();
  TAV_EML_RESULT result = TAV_EML_OK;
  size_t at = 0;
  do {
    const string piece = text.substr(at, m_piece);
    if (!piece.empty()) give(part, piece);
    result = library([&] { return (object.*step)(m_mail); });
    at += piece.size();
  } while (result == TAV_EML_OK && at < text.size());
  return result;
}

TAV_EML_RESULT smtp_device::send(const string& text) {
  TAV_EML_RESULT result = m_calls["connect"]("");
  if (result == TAV_EML_OK) result = m_calls["header"]("");
  if (result == TAV_EML_OK) result = send_pieces(m_mail, text, &tav_eml_smtp_boundary::send_body);
  if (result == TAV_EML_OK && m_mail.m_pPart != nullptr) {
    result = m_calls["part-header"]("");
    if (result == TAV_EML_OK)
      result = send_pieces(*m_mail.m_pPart, m_data, &tav_eml_smtp_boundary::send_part_body);
  }
  if (result == TAV_EML_OK) return m_calls["end"]("");
  library([&] { return m_boundary->abort_mail(); });
  return result;
}

void smtp_device::add_values() {
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
  m_values["sends"] = [this] { return std::to_string(net.calls({net_call::send}).size()); };
}

}  // namespace

std::unique_ptr<device> make_smtp_device() { return std::make_unique<smtp_device>(); }

}  // namespace dialogue
