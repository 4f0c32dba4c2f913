// raw.cpp - the baseline: the same dialogue and bytes over a socket in 64 KB pieces, encoded
// before the clock starts, and not decoded at all.

#include <algorithm>
#include <vector>

#include "composed_mail.h"
#include "end_watch.h"
#include "periodic_file.h"
#include "task.h"
#include "wire.h"

namespace bench {

namespace {

constexpr size_t kPiece = 64 * 1024;

// A message: the text before the attachment, its lines, and the text after it.
std::string g_start;
encoded_file g_file;
std::string g_end;

void prepare(const task& work) {
  constexpr size_t kLineBytes = 48;
  if (work.name == "send_big") {
    g_start = big_mail_start();
    g_file = encode_periodic_file(work.file, kLineBytes);
    g_end = kBigMailEnd;
  }
  if (work.name == "send_small") g_start = small_mail(work.size);
}

void write_pieces(wire& peer, std::string_view bytes) {
  while (!bytes.empty()) {
    const size_t piece = std::min(bytes.size(), kPiece);
    peer.write(bytes.substr(0, piece));
    bytes.remove_prefix(piece);
  }
}

void send_mail(const task& work) {
  wire peer(work.port, work.tls);
  peer.open_mail();
  write_pieces(peer, g_start);
  g_file.for_each([&](const std::string& lines) {
    write_pieces(peer, lines);
    return true;
  });
  write_pieces(peer, g_end);
  peer.close_mail();
}

void send_small(const task& work) {
  for (long i = 0; i < work.count; ++i) send_mail(work);
}

void retrieve(wire& peer, long number, receiver& out, std::vector<char>& room) {
  peer.write("RETR " + std::to_string(number) + "\r\n");
  end_watch watch;
  for (;;) {
    const size_t count = peer.read(room.data(), room.size());
    out.take(room.data(), count);
    if (watch.is_end(room.data(), count)) return;
  }
}

void receive_mails(const task& work, receiver& out) {
  std::vector<char> room(kPiece);
  wire peer(work.port, work.tls);
  peer.log_in();
  for (long number = 1; number <= std::max(work.count, 1L); ++number) {
    retrieve(peer, number, out, room);
  }
  peer.command("QUIT\r\n", '+');
}

}  // namespace

const client kClient = {prepare, send_mail, receive_mails, send_small, receive_mails};

}  // namespace bench
