// vmime.cpp - vmime.

#include <fstream>
#include <string>
#include <vmime/platforms/posix/posixHandler.hpp>
#include <vmime/vmime.hpp>

#include "mail_text.h"
#include "task.h"

namespace bench {

namespace {

vmime::utility::url url(const char* scheme, const task& work) {
  return vmime::utility::url(std::string(scheme) +
                             "://bench:bench@127.0.0.1:" + std::to_string(work.port));
}

vmime::shared_ptr<vmime::net::session> new_session(const char* scheme) {
  auto session = vmime::net::session::create();
  // A plain login; do not look for another method or TLS.
  for (const char* option :
       {"options.sasl", "options.apop", "options.need-authentication", "connection.tls"}) {
    session->getProperties()[std::string(scheme == std::string("smtp") ? "transport.smtp."
                                                                       : "store.pop3.") +
                             option] = false;
  }
  return session;
}

void fill(vmime::messageBuilder& builder) {
  builder.setSubject(vmime::text(kSubject));
  builder.setExpeditor(vmime::mailbox(kFrom));
  builder.getRecipients().appendAddress(vmime::make_shared<vmime::mailbox>(kTo));
}

void send(const task& work, const vmime::shared_ptr<vmime::message>& message) {
  auto transport = new_session("smtp")->getTransport(
      vmime::utility::url("smtp://127.0.0.1:" + std::to_string(work.port)));
  transport->connect();
  transport->send(message);
  transport->disconnect();
}

void send_big(const task& work) {
  auto file = vmime::make_shared<std::ifstream>(work.file, std::ios::binary);
  auto stream = vmime::make_shared<vmime::utility::inputStreamPointerAdapter>(file.get(), false);
  file->seekg(0, std::ios::end);
  const auto length = static_cast<size_t>(file->tellg());
  file->seekg(0);
  auto attachment = vmime::make_shared<vmime::defaultAttachment>(
      vmime::make_shared<vmime::streamContentHandler>(stream, length),
      vmime::encoding(vmime::encodingTypes::BASE64), vmime::mediaType("application", "pdf"),
      vmime::text(), vmime::word(kFileName));
  vmime::messageBuilder builder;
  fill(builder);
  builder.getTextPart()->setText(
      vmime::make_shared<vmime::stringContentHandler>("The file is attached.\r\n"));
  builder.appendAttachment(attachment);
  send(work, builder.construct());
}

void send_small(const task& work) {
  const std::string text = mail_text(work.size);
  for (long i = 0; i < work.count; ++i) {
    vmime::messageBuilder builder;
    fill(builder);
    builder.getTextPart()->setText(vmime::make_shared<vmime::stringContentHandler>(text));
    send(work, builder.construct());
  }
}

// Passes on what is written to it.
class receiver_stream : public vmime::utility::outputStream {
 public:
  explicit receiver_stream(receiver& out) : m_cOut(out) {}
  void flush() override {}

 protected:
  void writeImpl(const vmime::byte_t* data, const size_t count) override {
    m_cOut.take(data, count);
  }

 private:
  receiver& m_cOut;
};

vmime::shared_ptr<vmime::net::folder> open_mailbox(vmime::net::store& store) {
  auto folder = store.getDefaultFolder();
  folder->open(vmime::net::folder::MODE_READ_WRITE);
  return folder;
}

void receive_big(const task& work, receiver& out) {
  auto store = new_session("pop3")->getStore(url("pop3", work));
  store->connect();
  auto folder = open_mailbox(*store);
  receiver_stream stream(out);
  auto message = folder->getMessage(1)->getParsedMessage();
  vmime::messageParser parser(message);
  for (size_t i = 0; i < parser.getAttachmentCount(); ++i) {
    parser.getAttachmentAt(i)->getData()->extract(stream);
  }
  folder->close(false);
  store->disconnect();
}

void receive_small(const task& work, receiver& out) {
  auto store = new_session("pop3")->getStore(url("pop3", work));
  store->connect();
  auto folder = open_mailbox(*store);
  receiver_stream stream(out);
  for (long number = 1; number <= work.count; ++number) {
    folder->getMessage(static_cast<size_t>(number))->extract(stream);
  }
  folder->close(false);
  store->disconnect();
}

}  // namespace

const client kClient = {nullptr, send_big, receive_big, send_small, receive_small};

}  // namespace bench
