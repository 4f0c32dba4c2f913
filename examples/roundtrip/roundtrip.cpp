// roundtrip - sends a message with a file, waits until it is in the mailbox, and compares.
//
//   ROUNDTRIP_PASSWORD=... roundtrip HOST SMTP_PORT POP3_PORT USER ADDRESS FILE
//
// Both sessions log in and are encrypted, and the server's certificate is checked
// (quorvelmida/taveml_easy.h). A USER of "" sends without a login, and does not receive.

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

#include "quorvelmida/taveml_easy.h"

using namespace quorvelmida;

namespace {

// Every operation of the two interfaces returns TAV_EML_OK or the code of the step that failed.
void require(TAV_EML_RESULT result, const std::string& step) {
  if (result == TAV_EML_OK) return;
  throw std::runtime_error(step + ": " + easy::result_name(result) + ", " +
                           easy::result_advice(result));
}

// Returns the message id.
std::string send(const tav_eml_smtp_settings& settings, const char* address,
                 const std::string& file_name, std::istream& file) {
  tav_eml_smtp_send_mail mail;
  mail.m_nCharSet = TAV_EML_CS_UTF_8;
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_cFrom = address;
  mail.m_cTo = address;
  mail.m_cSubject = "Round trip 往復";
  mail.m_cDate = easy::date_now().c_str();
  UtlString id;
  if (tav_eml_smtp_send_mail::create_message_id(mail.m_cFrom, id) == 0) {
    throw std::runtime_error("no message id can be made from the address");
  }
  mail.set_message_id(id);
  easy::attach(mail, TAV_EML_CT_APPLICATION_PDF, file_name);

  tav_eml_smtp_boundary session(settings);
  easy::abort_guard guard(session);  // after a failure the server discards the message
  require(guard.connect(), "connecting");
  require(session.send_header(mail), "sending the header");
  require(easy::send_text(session, mail, "Here is the file.\nファイルをお送りします。\n"),
          "sending the text");
  require(session.send_part_header(mail), "sending the header of the attachment");
  require(easy::send_stream(session, mail, file), "sending the attachment");
  // Only now has the server accepted the message.
  require(guard.close(mail), "completing the message");
  return easy::text_of(id);
}

// Takes the attachment of the message with an id and skips everything else.
class attachment_finder : public easy::part_sink {
 public:
  explicit attachment_finder(const std::string& id) : m_cId(id) {}

  bool header(tav_eml_pop3_receive_mail& mail) override {
    m_bIsFound = easy::text_of(mail.m_cMessageId) == m_cId;
    return m_bIsFound;
  }
  bool begin(const tav_eml_mlutl_mail_part& part) override {
    return part.m_nContentDisposition == TAV_EML_CD_ATTACHMENT;
  }
  bool data(const char* bytes, size_t length) override {
    m_cFile.append(bytes, length);
    return true;
  }
  bool end(bool) override { return true; }

  bool is_found() const { return m_bIsFound; }
  const std::string& file() const { return m_cFile; }

 private:
  const std::string m_cId;
  bool m_bIsFound = false;
  std::string m_cFile;
};

// Reads the new messages until the finder has its own, which is deleted. `seen` holds the unique
// ids of those handed out: a device keeps it between connections.
void find(const tav_eml_pop3_settings& settings, tav_eml_pop3_mail_info_list& seen,
          attachment_finder& finder) {
  tav_eml_pop3_boundary session(settings);
  const easy::close_guard guard(session);
  int count = 0;
  require(session.connect_mail(), "connecting to the mailbox");
  require(session.stat(count), "counting the messages");
  if (count == 0) return;  // do not list an empty mailbox
  require(session.list(seen, 0), "listing the messages");

  tav_eml_pop3_mail_info info;
  while (!finder.is_found() && seen.search_next_mail(info) != 0) {
    require(session.list_next(seen, info), "choosing a message");
    tav_eml_pop3_receive_mail mail(info);
    const TAV_EML_RESULT result = easy::for_each_part(session, mail, finder);
    // Another message that cannot be read does not matter.
    if (finder.is_found() || result != TAV_EML_ERR_UNKNOWN) require(result, "reading a message");
    if (finder.is_found()) require(session.delete_mail(mail), "deleting the message");
  }
}

std::string receive(const tav_eml_pop3_settings& settings, const std::string& id) {
  tav_eml_pop3_mail_info_list seen(1000);
  attachment_finder finder(id);
  // A message may take a while to arrive.
  for (int attempt = 0; attempt < 10 && !finder.is_found(); ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::seconds(1));
    find(settings, seen, finder);
  }
  if (!finder.is_found()) throw std::runtime_error("the message has not arrived");
  return finder.file();
}

int run(char** arguments) {
  const char* const variable = std::getenv("ROUNDTRIP_PASSWORD");
  const char* const password = variable != nullptr ? variable : "";
  const char* const host = arguments[1];
  const char* const user = arguments[4];
  const std::string path = arguments[6];
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path);

  const std::string id = send(easy::smtp_account(host, std::atoi(arguments[2]), user, password),
                              arguments[5], path.substr(path.rfind('/') + 1), file);
  std::cout << "sent " << id << '\n';
  if (*user == '\0') return EXIT_SUCCESS;

  const std::string received =
      receive(easy::pop3_account(host, std::atoi(arguments[3]), user, password), id);
  file.clear();
  file.seekg(0);
  if (received != std::string(std::istreambuf_iterator<char>(file), {})) {
    throw std::runtime_error("the attachment came back changed");
  }
  std::cout << "received " << received.size() << " bytes, as they were sent\n";
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 7) {
    std::cerr << "usage: roundtrip HOST SMTP_PORT POP3_PORT USER ADDRESS FILE\n"
                 "the password comes from the variable ROUNDTRIP_PASSWORD\n";
    return EXIT_FAILURE;
  }
  try {
    return run(argv);
  } catch (const std::exception& error) {
    std::cerr << "roundtrip: " << error.what() << " (TAV_DBGLOG=stderr shows the log)\n";
    return EXIT_FAILURE;
  }
}
