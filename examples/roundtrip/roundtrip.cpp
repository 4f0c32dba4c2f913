// roundtrip - sends a message with a file and receives it again: the shortest correct use of both
// halves of libtaveml.
//
//   ROUNDTRIP_PASSWORD=... roundtrip HOST SMTP_PORT POP3_PORT USER ADDRESS FILE
//
// Both connections are encrypted with STARTTLS or STLS and the server's certificate is checked. The
// headers document what is left out here: quorvelmida/tav_eml_smtp_boundary.h for sending,
// quorvelmida/tav_eml_pop3_boundary.h for receiving.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include "quorvelmida/taveml.h"
#include "utl_os.h"

using namespace quorvelmida;

namespace {

struct account {
  const char* host;
  int smtp_port;
  int pop3_port;
  const char* user;
  const char* password;
  const char* address;
};

constexpr int kTimeout = 30;  // seconds, for each wait
constexpr int kStartTls = 2;

// Every operation of the two interfaces returns TAV_EML_OK or the code of the step that failed
// (tav_eml_result.h).
void require(TAV_EML_RESULT result, const char* step) {
  if (result == TAV_EML_OK) return;
  char text[80];
  std::snprintf(text, sizeof text, "%s failed with 0x%08x", step, static_cast<unsigned>(result));
  throw std::runtime_error(text);
}

// Data crosses the interface in blocks from UtlOS. This one has room for the NUL after the data. If
// set_buffer succeeds, the part owns it.
void give(tav_eml_mlutl_mail_part& part, const char* bytes, size_t count) {
  void* block = UtlOS::MemAllocate(count + 1);
  if (block == nullptr) throw std::bad_alloc();
  std::memcpy(block, bytes, count);
  static_cast<char*>(block)[count] = '\0';
  long length = static_cast<long>(count);
  if (part.set_buffer(block, length) != 0) return;
  UtlOS::MemFree(block);
  throw std::bad_alloc();
}

// The opposite: get_buffer returns the block, and we free it. A length of 0 means everything.
std::string take(tav_eml_mlutl_mail_part& part) {
  void* block = nullptr;
  long length = 0;
  if (part.get_buffer(block, length) == 0) throw std::bad_alloc();
  const std::string bytes(static_cast<const char*>(block), static_cast<size_t>(length));
  UtlOS::MemFree(block);
  return bytes;
}

// --- Sending -----------------------------------------------------------------------------------

// Texts are UTF-8; the library encodes them. Returns the message id.
std::string compose(const account& who, const std::string& file_name,
                    tav_eml_smtp_send_mail& mail) {
  char date[64];
  if (tav_eml_smtp_util::get_date(1, sizeof date, date) == 0) throw std::runtime_error("no date");
  UtlString id;
  mail.m_cFrom = tav_eml_mlutl_mail_address(who.address);
  mail.m_cTo = tav_eml_mlutl_mail_address(who.address);
  if (tav_eml_smtp_send_mail::create_message_id(mail.m_cFrom, id) == 0) {
    throw std::runtime_error("no message id can be made from the address");
  }
  mail.set_message_id(id);
  mail.m_cDate = date;
  mail.m_cSubject = "Round trip 往復";
  mail.m_nCharSet = TAV_EML_CS_UTF_8;
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;  // of the body text

  // With an attachment the message is a multipart. The boundary must occur in neither part: base64
  // has no "_".
  mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  mail.m_cBoundaryString = "_=_roundtrip_=_";

  auto* const part = new tav_eml_smtp_send_mail_part;
  mail.set_part(part);  // the mail owns it now
  part->m_nContentType = TAV_EML_CT_APPLICATION_PDF;
  part->m_nTransferEncoding = TAV_EML_TE_BASE64;
  part->m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
  part->m_cFIleName = file_name.c_str();
  return id.GetString();
}

// The order of the calls is fixed. Body and attachment may be sent in any number of pieces.
void send_steps(tav_eml_smtp_boundary& session, tav_eml_smtp_send_mail& mail,
                const std::string& file) {
  static const std::string kText = "Here is the file.\r\nファイルをお送りします。\r\n";
  constexpr size_t kPiece = 64 * 1024;

  require(session.connect_mail(), "connecting");
  require(session.send_header(mail), "sending the header");
  give(mail, kText.data(), kText.size());
  require(session.send_body(mail), "sending the text");
  require(session.send_part_header(mail), "sending the header of the attachment");
  for (size_t at = 0; at < file.size(); at += kPiece) {
    give(*mail.m_pPart, file.data() + at, std::min(kPiece, file.size() - at));
    require(session.send_part_body(mail), "sending the attachment");
  }
  // Only now has the server accepted the message.
  require(session.close_mail(mail), "completing the mail");
}

std::string send(const account& who, const std::string& file_name, const std::string& file) {
  _tav_eml_smtp_setting record;
  record.server = who.host;
  record.port = who.smtp_port;
  record.timeout = kTimeout;
  record.tlsmode = kStartTls;
  record.tls_opt[0] = 1;  // check the certificate
  record.auth_kind = 0;  // 1: log in with user_id and password, as most servers require on port 587
  record.user_id = who.user;
  record.password = who.password;
  const tav_eml_smtp_settings settings(record);  // outlives the session

  tav_eml_smtp_send_mail mail;
  const std::string id = compose(who, file_name, mail);
  tav_eml_smtp_boundary session(settings);
  try {
    send_steps(session, mail, file);
  } catch (...) {
    session.abort_mail();  // the server discards the message
    throw;
  }
  return id;
}

// --- Receiving ---------------------------------------------------------------------------------

// Reads the current part to its end, block by block. A program that writes a file would do so here,
// so that a large part need not fit into memory.
std::string read_part(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail) {
  std::string bytes;
  while (mail.get_part()->m_nComplete == 0) {
    const TAV_EML_RESULT result = session.receive_part_body(mail);
    const std::string block = take(*mail.get_part());
    // A block without data, such as an empty line after the base64, is not a failure. If the
    // connection was lost, this call or the next one returns another code.
    if (result != TAV_EML_ERR_UNKNOWN || !block.empty()) require(result, "receiving a part");
    bytes += block;
  }
  return bytes;
}

// Returns the attachment's data. Reads the message to its end.
std::string read_attachment(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail) {
  std::string file;
  while (mail.m_nReceiving != 0) {
    mail.set_part(new tav_eml_pop3_receive_mail_part);  // deletes the previous part
    require(session.receive_part_header(mail, 0), "receiving the header of a part");
    const bool is_file = mail.get_part()->m_nContentDisposition == TAV_EML_CD_ATTACHMENT;
    const std::string bytes = read_part(session, mail);
    if (is_file) file = bytes;
  }
  return file;
}

// Searches the new messages for the one with the message id, reads and deletes it. `seen` holds the
// unique ids of those handed out: a device keeps it between connections.
bool receive_steps(tav_eml_pop3_boundary& session, tav_eml_pop3_mail_info_list& seen,
                   const std::string& id, std::string& file) {
  int count = 0;
  require(session.connect_mail(), "connecting to the mailbox");
  require(session.stat(count), "counting the mails");
  if (count == 0) return false;  // do not list an empty mailbox
  require(session.list(seen, 0), "listing the mails");

  tav_eml_pop3_mail_info info;
  while (seen.search_next_mail(info) != 0) {
    require(session.list_next(seen, info), "choosing a mail");
    tav_eml_pop3_receive_mail mail(info);
    require(session.receive_header(mail, 0), "receiving a header");
    const char* const found = mail.m_cMessageId.GetString();
    if (found != nullptr && id == found) {
      file = read_attachment(session, mail);
      require(session.delete_mail(mail), "deleting the mail");
      return true;
    }
    // Read or skip a message to its end before the next command.
    if (session.skip_mail(mail) != TAV_EML_UTL_OK) throw std::runtime_error("skipping failed");
  }
  return false;
}

std::string receive(const account& who, const std::string& id) {
  _tav_eml_pop3_setting record;
  record.strServer = who.host;
  record.nPort = who.pop3_port;
  record.strUserID = who.user;
  record.strPassword = who.password;
  record.nTimeout = kTimeout;
  record.ucTLSMode = kStartTls;
  record.ucTLSOption[0] = 1;  // check the certificate
  const tav_eml_pop3_settings settings(record);

  tav_eml_pop3_mail_info_list seen(1000);
  // Mail may take a while to arrive. A failed step throws, and the destructor closes the
  // connection; deletions take effect only with close_mail.
  for (int attempt = 0; attempt < 10; ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::seconds(1));
    tav_eml_pop3_boundary session(settings);
    std::string file;
    const bool is_found = receive_steps(session, seen, id, file);
    session.close_mail();
    if (is_found) return file;
  }
  throw std::runtime_error("the mail has not arrived");
}

int run(char** arguments) {
  const char* const password = std::getenv("ROUNDTRIP_PASSWORD");
  const account who = {arguments[1],
                       std::atoi(arguments[2]),
                       std::atoi(arguments[3]),
                       arguments[4],
                       password == nullptr ? "" : password,
                       arguments[5]};
  const std::string path = arguments[6];
  std::ifstream input(path, std::ios::binary);
  const std::string file{std::istreambuf_iterator<char>(input), {}};
  // An empty part looks like one that contains a line break.
  if (!input || file.empty()) throw std::runtime_error("cannot read " + path + ", or it is empty");

  const std::string id = send(who, path.substr(path.rfind('/') + 1), file);
  std::cout << "sent " << id << '\n';
  if (receive(who, id) != file) throw std::runtime_error("the attachment came back changed");
  std::cout << "received " << file.size() << " bytes, as they were sent\n";
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
