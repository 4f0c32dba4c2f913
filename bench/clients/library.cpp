// library.cpp - libtaveml, through its exported interface alone.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "mail_text.h"
#include "quorvelmida/tav_eml_pop3_boundary.h"
#include "quorvelmida/tav_eml_smtp_boundary.h"
#include "task.h"
#include "utl_os.h"

namespace bench {

using namespace quorvelmida;

namespace {

// Bytes of the attachment in one piece. A multiple of 48, so that every line of 64 characters is
// full, and as many as the library encodes into one write.
constexpr size_t kPiece = 2100 * 48;
constexpr int kTimeout = 20;  // seconds

void check(TAV_EML_RESULT result, const char* what) {
  if (result == TAV_EML_OK) return;
  char text[64];
  std::snprintf(text, sizeof text, "%s: 0x%08x", what, static_cast<unsigned int>(result));
  fail(text);
}

// A block for the library to take over.
char* new_block(size_t size) {
  void* block = UtlOS::MemAllocate(size + 1);
  require(block != nullptr, "out of memory");
  return static_cast<char*>(block);
}

void give(tav_eml_mlutl_mail_part& part, char* bytes, size_t count) {
  bytes[count] = '\0';
  void* block = bytes;
  long length = static_cast<long>(count);
  require(part.set_buffer(block, length) != 0, "set_buffer");
}

void give_copy(tav_eml_mlutl_mail_part& part, const std::string& text) {
  char* block = new_block(text.size());
  std::memcpy(block, text.data(), text.size());
  give(part, block, text.size());
}

tav_eml_smtp_settings smtp_settings(const task& work) {
  _tav_eml_smtp_setting record;
  record.server = "127.0.0.1";
  record.port = work.port;
  record.timeout = kTimeout;
  record.tlsmode = work.tls ? 1 : 0;
  return tav_eml_smtp_settings(record);
}

void fill(tav_eml_smtp_send_mail& mail, TAV_EML_CONTENT_TYPE type) {
  mail.m_nContentType = type;
  mail.m_nTransferEncoding = TAV_EML_TE_7BIT;
  mail.m_nCharSet = TAV_EML_CS_UTF_8;
  mail.m_cFrom = tav_eml_mlutl_mail_address(kFrom);
  mail.m_cTo = tav_eml_mlutl_mail_address(kTo);
  mail.m_cSubject = kSubject;
  mail.m_cDate = kDate;
}

void send_file(tav_eml_smtp_boundary& boundary, tav_eml_smtp_send_mail& mail,
               const std::string& path) {
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  require(file >= 0, "file");
  for (;;) {
    char* block = new_block(kPiece);
    const ssize_t count = read(file, block, kPiece);
    require(count >= 0, "read");
    if (count == 0) {
      UtlOS::MemFree(block);
      break;
    }
    give(*mail.m_pPart, block, static_cast<size_t>(count));
    check(boundary.send_part_body(mail), "send_part_body");
  }
  close(file);
}

void send_big(const task& work) {
  const tav_eml_smtp_settings settings = smtp_settings(work);
  tav_eml_smtp_boundary boundary(settings);
  tav_eml_smtp_send_mail mail;
  fill(mail, TAV_EML_CT_MULTIPART_MIXED);
  mail.m_cBoundaryString = "=_bench";
  auto* part = new tav_eml_smtp_send_mail_part;
  part->m_nContentType = TAV_EML_CT_APPLICATION_PDF;
  part->m_nTransferEncoding = TAV_EML_TE_BASE64;
  part->m_nContentDisposition = TAV_EML_CD_ATTACHMENT;
  part->m_cFIleName = kFileName;
  mail.set_part(part);
  check(boundary.connect_mail(), "connect_mail");
  check(boundary.send_header(mail), "send_header");
  give_copy(mail, "The file is attached.\r\n");
  check(boundary.send_body(mail), "send_body");
  check(boundary.send_part_header(mail), "send_part_header");
  send_file(boundary, mail, work.file);
  check(boundary.close_mail(mail), "close_mail");
}

void send_small(const task& work) {
  const std::string text = mail_text(work.size);
  const tav_eml_smtp_settings settings = smtp_settings(work);
  tav_eml_smtp_boundary boundary(settings);
  for (long i = 0; i < work.count; ++i) {
    tav_eml_smtp_send_mail mail;
    fill(mail, TAV_EML_CT_TEXT_PLAIN);
    check(boundary.connect_mail(), "connect_mail");
    check(boundary.send_header(mail), "send_header");
    give_copy(mail, text);
    check(boundary.send_body(mail), "send_body");
    check(boundary.close_mail(mail), "close_mail");
  }
}

tav_eml_pop3_settings pop3_settings(const task& work) {
  _tav_eml_pop3_setting record;
  record.strServer = "127.0.0.1";
  record.nPort = work.port;
  record.strUserID = "bench";
  record.strPassword = "bench";
  record.nTimeout = kTimeout;
  record.ucTLSMode = work.tls ? 1 : 0;
  return tav_eml_pop3_settings(record);
}

void take_data(tav_eml_mlutl_mail_part& part, receiver* out) {
  void* data = nullptr;
  long length = 0;
  require(part.get_buffer(data, length) != 0, "get_buffer");
  if (out != nullptr) out->take(data, static_cast<size_t>(length));
  UtlOS::MemFree(data);
}

// Reads the next part; the data of an attachment goes to `out`.
void receive_part(tav_eml_pop3_boundary& boundary, tav_eml_pop3_receive_mail& mail, receiver& out) {
  auto* part = new tav_eml_pop3_receive_mail_part;
  mail.set_part(part);
  check(boundary.receive_part_header(mail, 0), "receive_part_header");
  const bool is_attachment = part->m_nContentDisposition == TAV_EML_CD_ATTACHMENT;
  while (part->m_nComplete == 0) {
    check(boundary.receive_part_body(mail), "receive_part_body");
    take_data(*part, is_attachment ? &out : nullptr);
  }
}

void receive_big(const task& work, receiver& out) {
  const tav_eml_pop3_settings settings = pop3_settings(work);
  tav_eml_pop3_boundary boundary(settings);
  check(boundary.connect_mail(), "connect_mail");
  tav_eml_pop3_mail_info info(1, "u1", 0, 1);
  tav_eml_pop3_receive_mail mail(info);
  check(boundary.receive_header(mail, 0), "receive_header");
  while (mail.m_nReceiving != 0) receive_part(boundary, mail, out);
  check(boundary.close_mail(), "close_mail");
}

void receive_small(const task& work, receiver& out) {
  const tav_eml_pop3_settings settings = pop3_settings(work);
  tav_eml_pop3_boundary boundary(settings);
  check(boundary.connect_mail(), "connect_mail");
  for (int number = 1; number <= static_cast<int>(work.count); ++number) {
    tav_eml_pop3_mail_info info(number, "u", 0, 1);
    tav_eml_pop3_receive_mail mail(info);
    check(boundary.receive_header(mail, 0), "receive_header");
    while (mail.m_nComplete == 0) {
      check(boundary.receive_body(mail), "receive_body");
      take_data(mail, &out);
    }
  }
  check(boundary.close_mail(), "close_mail");
}

}  // namespace

const client kClient = {nullptr, send_big, receive_big, send_small, receive_small};

}  // namespace bench
