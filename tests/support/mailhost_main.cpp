// mailhost_main.cpp - tavmail-host, the mail host of the demonstration: takes mail over SMTP on
// 127.0.0.1, keeps it as files, hands it out over POP3 and ends by itself.

#include <openssl/evp.h>
#include <strings.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "loopback_server.h"
#include "pop3_host.h"
#include "smtp_host.h"
#include "test_certificates.h"

namespace {

using tav_test::smtp_message;

struct options {
  uint16_t port = 0;
  uint16_t tls_port = 0;
  bool implicit_tls = false;
  std::string cert_dir, spool, transcript, port_file;
  long max_seconds = 300;
  size_t max_messages = 100;

  bool pop3 = false;
  bool pop3_implicit_tls = false;
  uint16_t pop3_port = 0;
  uint16_t pop3_tls_port = 0;
  std::vector<std::string> accounts;  // user:password
  std::vector<std::string> add;       // message files
};

// Kept in memory for POP3; more is refused, not lost.
constexpr size_t max_mailbox_bytes = size_t{256} << 20;

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << bytes;
  if (!file.flush()) throw std::runtime_error("cannot write " + path);
}

std::string json_text(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    char escape[8];
    std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(byte));
    // An address is not known to be UTF-8, so its other bytes are written as Latin-1.
    const bool plain = byte >= 0x20 && byte < 0x7f && c != '"' && c != '\\';
    quoted += plain ? std::string(1, c) : std::string(escape);
  }
  return quoted + "\"";
}

std::string json_of(const smtp_message& message) {
  const auto flag = [](bool value) { return value ? "true" : "false"; };
  std::string to;
  for (const std::string& address : message.to) to += (to.empty() ? "" : ", ") + json_text(address);
  return "{\n  \"connection\": " + std::to_string(message.connection) +
         ",\n  \"helo\": " + json_text(message.helo) + ",\n  \"tls\": " + flag(message.tls) +
         ",\n  \"authenticated\": " + flag(message.authenticated) +
         ",\n  \"from\": " + json_text(message.from) + ",\n  \"to\": [" + to +
         "],\n  \"bytes\": " + std::to_string(message.data.size()) + "\n}\n";
}

// The envelope is written last: who waits for it finds the message whole.
bool spool_message(const std::string& directory, size_t number, const smtp_message& message) {
  char name[32];
  std::snprintf(name, sizeof name, "/%03zu", number);
  try {
    write_file(directory + name + ".eml", message.data);
    write_file(directory + name + ".json", json_of(message));
    return true;
  } catch (const std::runtime_error& error) {
    std::cerr << "tavmail-host: " << error.what() << std::endl;
    return false;
  }
}

// The mailbox of the POP3 side. A unique id is never used again, whatever was deleted.
class mailbox {
 public:
  bool has_room_for(const std::string& data) const {
    size_t bytes = data.size();
    for (const auto& message : *m_box) bytes += message->data.size();
    return bytes <= max_mailbox_bytes;
  }
  void add(const std::string& data) {
    const std::string uid = "uid-" + std::to_string(++m_added);
    m_box->push_back(
        std::make_shared<const tav_test::pop3_message>(tav_test::pop3_message{uid, data}));
  }
  std::shared_ptr<tav_test::pop3_mailbox> shared() const { return m_box; }

 private:
  std::shared_ptr<tav_test::pop3_mailbox> m_box = std::make_shared<tav_test::pop3_mailbox>();
  size_t m_added = 0;
};

// With CR LF at the end of every line, however they ended in the file.
std::string message_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file) throw std::runtime_error("cannot read " + path);
  std::string lines;
  for (const char c : bytes) {
    if (c == '\n' && (lines.empty() || lines.back() != '\r')) lines += '\r';
    lines += c;
  }
  return lines;
}

std::string md5_hex(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(text.data(), text.size(), digest, &size, EVP_md5(), nullptr) != 1)
    throw std::runtime_error("no MD5");
  std::string hex;
  for (unsigned int i = 0; i < size; ++i) {
    char pair[3];
    std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned>(digest[i]));
    hex += pair;
  }
  return hex;
}

void set_up_pop3(tav_test::pop3_host& host, const options& given, mailbox& mails) {
  host.stamp("<" + std::to_string(getpid()) + "." + std::to_string(std::time(nullptr)) +
             "@localhost>");
  std::vector<std::string> capabilities = {"USER", "UIDL", "TOP"};
  if (!given.cert_dir.empty()) capabilities.push_back("STLS");
  host.capabilities(capabilities);
  host.share_mailbox(mails.shared());
  for (const std::string& account : given.accounts) {
    const size_t colon = account.find(':');
    const std::string user = account.substr(0, colon), password = account.substr(colon + 1);
    host.account(user, password);
    host.expect_apop(user, md5_hex(host.stamp() + password));
  }
  for (const std::string& file : given.add) mails.add(message_file(file));
}

// The transcript of the POP3 side shows that a message was sent, but not what is in it.
class pop3_transcript {
 public:
  explicit pop3_transcript(std::ostream& out) : m_out(out) {}

  void write(const std::string& line) {
    const bool server = begins(line, "S: ");
    if (!server) {
      m_message = begins(line, "C: RETR ") || begins(line, "C: TOP ");
      m_replies = 0;
    }
    const bool shown = !server || !m_message || m_replies++ == 0 || line == "S: .";
    if (shown) m_out << "POP3 " << line << std::endl;
  }

 private:
  // Commands may come in lower case.
  static bool begins(const std::string& line, const char* head) {
    return strncasecmp(line.c_str(), head, std::strlen(head)) == 0;
  }

  std::ostream& m_out;
  bool m_message = false;
  size_t m_replies = 0;
};

// Renamed into place, so that a script that waits for the file never reads half of it.
void write_ports(const std::string& path, const std::string& text) {
  write_file(path + ".new", text);
  std::filesystem::rename(path + ".new", path);
}

std::string listen(tav_test::loopback_server& server, const options& given,
                   tav_test::smtp_host& smtp, tav_test::pop3_host& pop3) {
  using tav_test::tls_mode;
  std::string ports;
  const auto open = [&](const char* name, tav_test::mail_host& host, tls_mode mode, uint16_t port) {
    ports += name + ("=" + std::to_string(server.listen(host, mode, port)) + "\n");
  };
  open("port", smtp, tls_mode::plain, given.port);
  if (given.implicit_tls) open("tls_port", smtp, tls_mode::implicit, given.tls_port);
  if (given.pop3) open("pop3_port", pop3, tls_mode::plain, given.pop3_port);
  if (given.pop3_implicit_tls) open("pop3_tls_port", pop3, tls_mode::implicit, given.pop3_tls_port);
  return ports;
}

void serve(const options& given) {
  tav_test::certificate_files certificates;
  std::vector<std::string> capabilities = {"SIZE 67108864", "8BITMIME"};
  if (!given.cert_dir.empty()) {
    std::filesystem::create_directories(given.cert_dir);
    certificates = tav_test::make_certificates(given.cert_dir);
    capabilities.push_back("STARTTLS");
  }
  if (!given.spool.empty()) std::filesystem::create_directories(given.spool);

  tav_test::pop3_host pop3;
  mailbox mails;
  if (given.pop3) set_up_pop3(pop3, given, mails);

  tav_test::smtp_host host;
  host.name("localhost");
  host.capabilities(capabilities);
  size_t kept = 0;
  host.on_message([&](const smtp_message& message) {
    if (given.pop3 && !mails.has_room_for(message.data)) return false;
    if (!given.spool.empty() && !spool_message(given.spool, kept + 1, message)) return false;
    if (given.pop3) mails.add(message.data);
    ++kept;
    std::cout << "message " << kept << " of " << message.data.size() << " bytes" << std::endl;
    return true;
  });
  std::ofstream transcript;
  if (!given.transcript.empty()) transcript.open(given.transcript);
  if (!given.transcript.empty() && !transcript)
    throw std::runtime_error("cannot write " + given.transcript);
  host.stream_transcript([&](const std::string& line) { transcript << line << std::endl; });
  pop3_transcript fetched(transcript);
  pop3.stream_transcript([&](const std::string& line) { fetched.write(line); });

  tav_test::loopback_limits limits;
  limits.life = std::chrono::seconds(given.max_seconds);
  tav_test::loopback_server server(certificates, limits);
  const std::string ports = listen(server, given, host, pop3);
  // Who sent the last message may still want to fetch it.
  if (!given.pop3) server.finish_when([&] { return kept >= given.max_messages; });
  server.start();
  std::cout << ports << std::flush;
  if (!given.port_file.empty()) write_ports(given.port_file, ports);
  server.wait();
}

void add_pop3_options(CLI::App& app, options& given, CLI::Option* cert_dir) {
  CLI::Option* const port = app.add_option(
      "--pop3-port", given.pop3_port, "port for POP3, which is served only with it; 0: as above");
  const auto has_colon = [](const std::string& account) {
    const size_t colon = account.find(':');
    return colon == std::string::npos || colon == 0 ? std::string("user:password expected") : "";
  };
  app.add_option("--pop3-tls-port", given.pop3_tls_port, "port for POP3 inside TLS; 0: as above")
      ->needs(port)
      ->needs(cert_dir);
  app.add_option("--account", given.accounts,
                 "user:password for POP3, may be repeated; tavmail:secret without it")
      ->allow_extra_args(false)
      ->check(has_colon)
      ->needs(port);
  app.add_option("--add", given.add, "message files that are in the POP3 mailbox from the start")
      ->check(CLI::ExistingFile)
      ->needs(port);
}

}  // namespace

int main(int argc, char** argv) {
  options given;
  CLI::App app(
      "Takes mail over SMTP on 127.0.0.1 for a demonstration, hands it out over POP3, and ends "
      "by itself.",
      "tavmail-host");
  app.add_option("--port", given.port, "port for SMTP; 0: the system chooses");
  CLI::Option* const tls_port =
      app.add_option("--tls-port", given.tls_port, "port for SMTP inside TLS; 0: as above");
  CLI::Option* const cert_dir = app.add_option(
      "--cert-dir", given.cert_dir,
      "directory for fresh certificates: ca.pem, server.pem, server.key; without it no TLS");
  app.add_option("--spool", given.spool, "directory for messages: NNN.eml and NNN.json");
  app.add_option("--transcript", given.transcript, "file for the dialogue, without credentials");
  app.add_option("--port-file", given.port_file, "file that tells the ports once they are open");
  app.add_option("--max-seconds", given.max_seconds, "ends after so long")
      ->check(CLI::Range(1L, 86400L))
      ->capture_default_str();
  app.add_option("--max-messages", given.max_messages,
                 "ends after so many messages, unless POP3 is served")
      ->check(CLI::Range(1L, 100000L))
      ->capture_default_str();
  tls_port->needs(cert_dir);
  add_pop3_options(app, given, cert_dir);
  CLI11_PARSE(app, argc, argv);
  given.implicit_tls = tls_port->count() != 0;
  given.pop3 = app.count("--pop3-port") != 0;
  given.pop3_implicit_tls = app.count("--pop3-tls-port") != 0;
  if (given.accounts.empty()) given.accounts.push_back("tavmail:secret");
  // The ordinary end of a host that serves POP3. What it wrote is flushed line by line.
  std::signal(SIGTERM, [](int) { _exit(0); });
  try {
    serve(given);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "tavmail-host: " << error.what() << "\n";
    return 1;
  }
}
