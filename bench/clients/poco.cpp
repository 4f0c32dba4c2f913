// poco.cpp - Poco::Net.

#include <Poco/Net/FilePartSource.h>
#include <Poco/Net/MailMessage.h>
#include <Poco/Net/MailRecipient.h>
#include <Poco/Net/MessageHeader.h>
#include <Poco/Net/POP3ClientSession.h>
#include <Poco/Net/PartHandler.h>
#include <Poco/Net/SMTPClientSession.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StringPartSource.h>
#include <Poco/Timestamp.h>

#include <vector>

#include "mail_text.h"
#include "task.h"

namespace bench {

namespace {

constexpr char kHost[] = "127.0.0.1";

void fill(Poco::Net::MailMessage& message) {
  message.setSender(kFrom);
  message.addRecipient({Poco::Net::MailRecipient::PRIMARY_RECIPIENT, kTo});
  message.setSubject(kSubject);
  message.setDate(Poco::Timestamp());
}

// Like the others, without waiting for acknowledgements of small packets.
Poco::Net::StreamSocket connected(uint16_t port) {
  Poco::Net::StreamSocket socket(Poco::Net::SocketAddress(kHost, port));
  socket.setNoDelay(true);
  return socket;
}

void send(const task& work, const Poco::Net::MailMessage& message) {
  Poco::Net::SMTPClientSession session(connected(work.port));
  session.login("localhost");
  session.sendMessage(message);
  session.close();
}

void send_big(const task& work) {
  Poco::Net::MailMessage message;
  fill(message);
  message.addContent(new Poco::Net::StringPartSource("The file is attached.\r\n"));
  message.addAttachment(kFileName,
                        new Poco::Net::FilePartSource(work.file, kFileName, "application/pdf"));
  send(work, message);
}

void send_small(const task& work) {
  const std::string text = mail_text(work.size);
  for (long i = 0; i < work.count; ++i) {
    Poco::Net::MailMessage message;
    fill(message);
    message.setContentType("text/plain; charset=utf-8");
    message.setContent(text, Poco::Net::MailMessage::ENCODING_7BIT);
    send(work, message);
  }
}

// Takes the decoded attachment piece by piece.
class attachment_handler : public Poco::Net::PartHandler {
 public:
  explicit attachment_handler(receiver& out) : m_cOut(out), m_cRoom(64 * 1024) {}

  void handlePart(const Poco::Net::MessageHeader& header, std::istream& data) override {
    const bool is_wanted = header.get("Content-Disposition", "").find("attachment") == 0;
    while (data.good()) {
      data.read(m_cRoom.data(), static_cast<std::streamsize>(m_cRoom.size()));
      if (is_wanted) m_cOut.take(m_cRoom.data(), static_cast<size_t>(data.gcount()));
    }
  }

 private:
  receiver& m_cOut;
  std::vector<char> m_cRoom;
};

// A stream that passes on what is written to it.
class receiver_buffer : public std::streambuf {
 public:
  explicit receiver_buffer(receiver& out) : m_cOut(out) {}

 protected:
  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    m_cOut.take(bytes, static_cast<size_t>(count));
    return count;
  }
  int overflow(int ch) override {
    const char byte = static_cast<char>(ch);
    m_cOut.take(&byte, 1);
    return ch;
  }

 private:
  receiver& m_cOut;
};

void receive_big(const task& work, receiver& out) {
  Poco::Net::POP3ClientSession session(connected(work.port));
  session.login("bench", "bench");
  attachment_handler handler(out);
  Poco::Net::MailMessage message;
  session.retrieveMessage(1, message, handler);
  session.close();
}

void receive_small(const task& work, receiver& out) {
  Poco::Net::POP3ClientSession session(connected(work.port));
  session.login("bench", "bench");
  receiver_buffer buffer(out);
  std::ostream stream(&buffer);
  for (long number = 1; number <= work.count; ++number) {
    session.retrieveMessage(static_cast<int>(number), stream);
  }
  session.close();
}

}  // namespace

const client kClient = {nullptr, send_big, receive_big, send_small, receive_small};

}  // namespace bench
