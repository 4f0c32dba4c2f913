// etpan.cpp - libetpan, which keeps whole messages in memory.

#include <libetpan/libetpan.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "composed_mail.h"
#include "task.h"

namespace bench {

namespace {

char* copy(const char* text) { return strdup(text); }

mailimf_mailbox_list* mailboxes(const char* address) {
  mailimf_mailbox_list* list = mailimf_mailbox_list_new_empty();
  mailimf_mailbox_list_add_mb(list, nullptr, copy(address));
  return list;
}

mailimf_fields* new_fields() {
  mailimf_address_list* to = mailimf_address_list_new_empty();
  mailimf_address_list_add_mb(to, nullptr, copy(kTo));
  return mailimf_fields_new_with_data(mailboxes(kFrom), nullptr, nullptr, to, nullptr, nullptr,
                                      nullptr, nullptr, copy(kSubject));
}

mailmime* new_text(char* text, size_t length) {
  mailmime_fields* fields = mailmime_fields_new_encoding(MAILMIME_MECHANISM_7BIT);
  mailmime* part = mailmime_new_empty(mailmime_get_content_text(), fields);
  mailmime_set_body_text(part, text, length);
  return part;
}

mailmime* new_attachment(const std::string& path) {
  char type[] = "application/pdf";
  mailmime_fields* fields = mailmime_fields_new_filename(
      MAILMIME_DISPOSITION_TYPE_ATTACHMENT, copy(kFileName), MAILMIME_MECHANISM_BASE64);
  mailmime* part = mailmime_new_empty(mailmime_content_new_with_str(type), fields);
  mailmime_set_body_file(part, copy(path.c_str()));
  return part;
}

MMAPString* write_message(mailmime* content) {
  mailmime* message = mailmime_new_message_data(nullptr);
  mailmime_set_imf_fields(message, new_fields());
  require(mailmime_smart_add_part(message, content) == MAILIMF_NO_ERROR, "message");
  MMAPString* text = mmap_string_new("");
  int column = 0;
  require(mailmime_write_mem(text, &column, message) == MAILIMF_NO_ERROR, "write");
  mailmime_free(message);
  return text;
}

// mailsmtp_quit() does not wait for the reply: one round trip less than the other clients.
void say_goodbye(mailsmtp& smtp) {
  constexpr char kQuit[] = "QUIT\r\n";
  MMAPString* line = mmap_string_new("");
  require(mailstream_write(smtp.stream, kQuit, sizeof kQuit - 1) == sizeof kQuit - 1 &&
              mailstream_flush(smtp.stream) == 0 &&
              mailstream_read_line(smtp.stream, line) != nullptr && line->str[0] == '2',
          "quit");
  mmap_string_free(line);
  mailstream_close(smtp.stream);
  smtp.stream = nullptr;
}

void send_text(const task& work, const MMAPString* text) {
  mailsmtp* smtp = mailsmtp_new(0, nullptr);
  require(mailsmtp_socket_connect(smtp, "127.0.0.1", work.port) == MAILSMTP_NO_ERROR, "connect");
  require(mailesmtp_ehlo(smtp) == MAILSMTP_NO_ERROR, "ehlo");
  require(mailsmtp_mail(smtp, kFrom) == MAILSMTP_NO_ERROR, "mail");
  require(mailsmtp_rcpt(smtp, kTo) == MAILSMTP_NO_ERROR, "rcpt");
  require(mailsmtp_data(smtp) == MAILSMTP_NO_ERROR, "data");
  require(mailsmtp_data_message(smtp, text->str, text->len) == MAILSMTP_NO_ERROR, "message");
  say_goodbye(*smtp);
  mailsmtp_free(smtp);
}

void send_big(const task& work) {
  char body[] = "The file is attached.\r\n";
  mailmime* multipart = mailmime_multiple_new("multipart/mixed");
  mailmime_smart_add_part(multipart, new_text(body, sizeof body - 1));
  mailmime_smart_add_part(multipart, new_attachment(work.file));
  MMAPString* text = write_message(multipart);
  send_text(work, text);
  mmap_string_free(text);
}

void send_small(const task& work) {
  std::string body = mail_text(work.size);
  for (long i = 0; i < work.count; ++i) {
    MMAPString* text = write_message(new_text(body.data(), body.size()));
    send_text(work, text);
    mmap_string_free(text);
  }
}

mailpop3* log_in(const task& work) {
  mailpop3* pop3 = mailpop3_new(0, nullptr);
  require(mailpop3_socket_connect(pop3, "127.0.0.1", work.port) == MAILPOP3_NO_ERROR, "connect");
  require(mailpop3_user(pop3, "bench") == MAILPOP3_NO_ERROR, "user");
  require(mailpop3_pass(pop3, "bench") == MAILPOP3_NO_ERROR, "pass");
  return pop3;
}

void decode_part(mailmime* part, receiver& out) {
  const mailmime_data* body = part->mm_data.mm_single;
  if (body->dt_encoding != MAILMIME_MECHANISM_BASE64) return;
  size_t at = 0;
  char* decoded = nullptr;
  size_t length = 0;
  require(mailmime_part_parse(body->dt_data.dt_text.dt_data, body->dt_data.dt_text.dt_length, &at,
                              body->dt_encoding, &decoded, &length) == MAILIMF_NO_ERROR,
          "decode");
  out.take(decoded, length);
  mailmime_decoded_part_free(decoded);
}

void decode_all(mailmime* part, receiver& out) {
  if (part->mm_type == MAILMIME_SINGLE) decode_part(part, out);
  if (part->mm_type == MAILMIME_MESSAGE) decode_all(part->mm_data.mm_message.mm_msg_mime, out);
  if (part->mm_type != MAILMIME_MULTIPLE) return;
  for (clistiter* at = clist_begin(part->mm_data.mm_multipart.mm_mp_list); at != nullptr;
       at = clist_next(at)) {
    decode_all(static_cast<mailmime*>(clist_content(at)), out);
  }
}

void receive_big(const task& work, receiver& out) {
  mailpop3* pop3 = log_in(work);
  char* mail = nullptr;
  size_t length = 0;
  require(mailpop3_retr(pop3, 1, &mail, &length) == MAILPOP3_NO_ERROR, "retr");
  size_t at = 0;
  mailmime* message = nullptr;
  require(mailmime_parse(mail, length, &at, &message) == MAILIMF_NO_ERROR, "parse");
  decode_all(message, out);
  mailmime_free(message);
  mailpop3_retr_free(mail);
  mailpop3_quit(pop3);
  mailpop3_free(pop3);
}

void receive_small(const task& work, receiver& out) {
  mailpop3* pop3 = log_in(work);
  for (long number = 1; number <= work.count; ++number) {
    char* mail = nullptr;
    size_t length = 0;
    require(
        mailpop3_retr(pop3, static_cast<unsigned int>(number), &mail, &length) == MAILPOP3_NO_ERROR,
        "retr");
    out.take(mail, length);
    mailpop3_retr_free(mail);
  }
  mailpop3_quit(pop3);
  mailpop3_free(pop3);
}

}  // namespace

const client kClient = {nullptr, send_big, receive_big, send_small, receive_small};

}  // namespace bench
