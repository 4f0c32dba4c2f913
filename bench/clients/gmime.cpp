// gmime.cpp - GMime, which has no transport: the dialogue is written by hand. A received message is
// kept in memory and then parsed, as its users do.

#include <fcntl.h>
#include <gmime/gmime.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "composed_mail.h"
#include "end_watch.h"
#include "task.h"
#include "wire.h"

namespace bench {

namespace {

void prepare(const task&) { g_mime_init(); }

GMimeMessage* new_message() {
  GMimeMessage* message = g_mime_message_new(TRUE);
  g_mime_message_add_mailbox(message, GMIME_ADDRESS_TYPE_FROM, nullptr, kFrom);
  g_mime_message_add_mailbox(message, GMIME_ADDRESS_TYPE_TO, nullptr, kTo);
  g_mime_message_set_subject(message, kSubject, "utf-8");
  GDateTime* now = g_date_time_new_now_local();
  g_mime_message_set_date(message, now);
  g_date_time_unref(now);
  return message;
}

GMimeObject* new_text(const std::string& text) {
  GMimeTextPart* part = g_mime_text_part_new_with_subtype("plain");
  g_mime_text_part_set_text(part, text.c_str());
  return GMIME_OBJECT(part);
}

GMimeObject* new_attachment(const std::string& path) {
  GMimePart* part = g_mime_part_new_with_type("application", "pdf");
  GMimeStream* file = g_mime_stream_fs_open(path.c_str(), O_RDONLY, 0, nullptr);
  GMimeDataWrapper* content =
      g_mime_data_wrapper_new_with_stream(file, GMIME_CONTENT_ENCODING_DEFAULT);
  g_mime_part_set_content(part, content);
  g_mime_part_set_filename(part, kFileName);
  g_mime_part_set_content_encoding(part, GMIME_CONTENT_ENCODING_BASE64);
  g_object_unref(content);
  g_object_unref(file);
  return GMIME_OBJECT(part);
}

// Writes the message as the data of a mail: lines end in CR LF, dots are doubled.
void write_message(GMimeMessage* message, int fd) {
  GMimeStream* socket = g_mime_stream_pipe_new(fd);
  g_mime_stream_pipe_set_owner(GMIME_STREAM_PIPE(socket), FALSE);
  GMimeStream* block = g_mime_stream_buffer_new(socket, GMIME_STREAM_BUFFER_BLOCK_WRITE);
  GMimeStream* filtered = g_mime_stream_filter_new(block);
  GMimeFilter* lines = g_mime_filter_unix2dos_new(FALSE);
  GMimeFilter* dots = g_mime_filter_smtp_data_new();
  g_mime_stream_filter_add(GMIME_STREAM_FILTER(filtered), lines);
  g_mime_stream_filter_add(GMIME_STREAM_FILTER(filtered), dots);
  require(g_mime_object_write_to_stream(GMIME_OBJECT(message), nullptr, filtered) > 0, "write");
  require(g_mime_stream_flush(filtered) == 0 && g_mime_stream_flush(block) == 0, "flush");
  g_object_unref(dots);
  g_object_unref(lines);
  g_object_unref(filtered);
  g_object_unref(block);
  g_object_unref(socket);
}

void send_message(const task& work, GMimeMessage* message) {
  wire peer(work.port);
  peer.open_mail();
  write_message(message, peer.fd());
  peer.close_mail();
}

void send_big(const task& work) {
  GMimeMessage* message = new_message();
  GMimeMultipart* multipart = g_mime_multipart_new_with_subtype("mixed");
  GMimeObject* text = new_text("The file is attached.\n");
  GMimeObject* attachment = new_attachment(work.file);
  g_mime_multipart_add(multipart, text);
  g_mime_multipart_add(multipart, attachment);
  g_mime_message_set_mime_part(message, GMIME_OBJECT(multipart));
  send_message(work, message);
  g_object_unref(text);
  g_object_unref(attachment);
  g_object_unref(multipart);
  g_object_unref(message);
}

void send_small(const task& work) {
  const std::string text = mail_text(work.size);
  for (long i = 0; i < work.count; ++i) {
    GMimeMessage* message = new_message();
    GMimeObject* part = new_text(text);
    g_mime_message_set_mime_part(message, part);
    send_message(work, message);
    g_object_unref(part);
    g_object_unref(message);
  }
}

// The mail without its reply line and its end line, dots removed.
GByteArray* retrieve(wire& peer, long number, std::vector<char>& room) {
  GByteArray* mail = g_byte_array_new();
  peer.write("RETR " + std::to_string(number) + "\r\n");
  end_watch watch;
  for (bool is_end = false; !is_end;) {
    const size_t count = peer.read(room.data(), room.size());
    is_end = watch.is_end(room.data(), count);
    g_byte_array_append(mail, reinterpret_cast<guint8*>(room.data()), static_cast<guint>(count));
  }
  const void* feed = std::memchr(mail->data, '\n', mail->len);
  g_byte_array_remove_range(mail, 0,
                            static_cast<guint>(static_cast<const guint8*>(feed) + 1 - mail->data));
  g_byte_array_set_size(mail, mail->len - 3);
  return mail;
}

void write_content(GMimeObject* /*parent*/, GMimeObject* object, gpointer context) {
  if (!GMIME_IS_PART(object) || GMIME_IS_TEXT_PART(object)) return;
  auto& out = *static_cast<receiver*>(context);
  GMimeDataWrapper* content = g_mime_part_get_content(GMIME_PART(object));
  GMimeStream* decoded = out.is_keeping() ? g_mime_stream_mem_new() : g_mime_stream_null_new();
  const ssize_t count = g_mime_data_wrapper_write_to_stream(content, decoded);
  require(count >= 0, "decode");
  if (out.is_keeping()) {
    GByteArray* bytes = g_mime_stream_mem_get_byte_array(GMIME_STREAM_MEM(decoded));
    out.take(bytes->data, bytes->len);
  } else {
    out.count(static_cast<size_t>(count));
  }
  g_object_unref(decoded);
}

void receive_big(const task& work, receiver& out) {
  std::vector<char> room(64 * 1024);
  wire peer(work.port);
  peer.log_in();
  GByteArray* mail = retrieve(peer, 1, room);
  GMimeStream* stream = g_mime_stream_mem_new_with_byte_array(mail);
  GMimeParser* parser = g_mime_parser_new_with_stream(stream);
  GMimeMessage* message = g_mime_parser_construct_message(parser, nullptr);
  require(message != nullptr, "parse");
  g_mime_message_foreach(message, write_content, &out);
  g_object_unref(message);
  g_object_unref(parser);
  g_object_unref(stream);
  peer.command("QUIT\r\n", '+');
}

}  // namespace

const client kClient = {prepare, send_big, receive_big, send_small, nullptr};

}  // namespace bench
