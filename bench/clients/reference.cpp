// reference.cpp - a client written by hand for these two tasks only: it streams, and encodes and
// decodes base64 with vector instructions where the machine has them.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "composed_mail.h"
#include "end_watch.h"
#include "task.h"
#include "vector_base64.h"
#include "wire.h"

namespace bench {

namespace {

constexpr size_t kPiece = 64 * 1024;

void send_big(const task& work) {
  constexpr size_t kLineBytes = 48;
  constexpr size_t kLineText = 66;
  constexpr size_t kLines = kPiece / kLineText;
  wire peer(work.port, work.tls);
  peer.open_mail();
  peer.write(big_mail_start());
  const int file = open(work.file.c_str(), O_RDONLY | O_CLOEXEC);
  require(file >= 0, "file");
  // The vector code reads and writes a little beyond a line.
  std::vector<uint8_t> bytes(kLines * kLineBytes + 64);
  std::vector<char> text(kLines * kLineText + 64);
  for (;;) {
    const ssize_t count = read(file, bytes.data(), kLines * kLineBytes);
    require(count >= 0, "read");
    if (count == 0) break;
    char* out = text.data();
    for (size_t at = 0; at < static_cast<size_t>(count); at += kLineBytes) {
      const size_t length = std::min(kLineBytes, static_cast<size_t>(count) - at);
      out += encode_line(bytes.data() + at, length, out);
      *out++ = '\r';
      *out++ = '\n';
    }
    peer.write({text.data(), static_cast<size_t>(out - text.data())});
  }
  close(file);
  peer.write(kBigMailEnd);
  peer.close_mail();
}

// Decodes the attachment of a message that arrives in pieces.
class attachment_reader {
 public:
  explicit attachment_reader(receiver& out) : m_cOut(out), m_cDecoded(2 * kPiece) {}

  // Takes whole lines; returns how many bytes it took.
  size_t take(const char* bytes, size_t count) {
    uint8_t* decoded = m_cDecoded.data();
    const char* line = bytes;
    const char* const end = bytes + count;
    while (const void* found = std::memchr(line, '\n', static_cast<size_t>(end - line))) {
      const char* feed = static_cast<const char*>(found);
      take_line(line, static_cast<size_t>(feed - line), decoded);
      line = feed + 1;
    }
    m_cOut.take(m_cDecoded.data(), static_cast<size_t>(decoded - m_cDecoded.data()));
    return static_cast<size_t>(line - bytes);
  }

 private:
  enum class place { elsewhere, header, data };

  void take_line(const char* line, size_t length, uint8_t*& decoded) {
    constexpr std::string_view kBase64 = "Content-Transfer-Encoding: base64";
    if (m_nPlace == place::data) {
      if (line[0] == '-') {
        m_nPlace = place::elsewhere;
      } else {
        decoded += decode_line(line, length - 1, decoded);
      }
    } else if (std::string_view(line, length - 1) == kBase64) {
      m_nPlace = place::header;
    } else if (m_nPlace == place::header && length == 1) {
      m_nPlace = place::data;
    }
  }

  receiver& m_cOut;
  std::vector<uint8_t> m_cDecoded;
  place m_nPlace = place::elsewhere;
};

void receive_big(const task& work, receiver& out) {
  wire peer(work.port, work.tls);
  peer.log_in();
  peer.write("RETR 1\r\n");
  std::vector<char> room(kPiece + 64);
  size_t held = 0;
  end_watch watch;
  attachment_reader reader(out);
  for (bool is_end = false; !is_end;) {
    const size_t count = peer.read(room.data() + held, kPiece - held);
    is_end = watch.is_end(room.data() + held, count);
    held += count;
    const size_t taken = reader.take(room.data(), held);
    held -= taken;
    std::memmove(room.data(), room.data() + taken, held);
  }
  peer.command("QUIT\r\n", '+');
}

}  // namespace

const client kClient = {nullptr, send_big, receive_big, nullptr, nullptr};

}  // namespace bench
