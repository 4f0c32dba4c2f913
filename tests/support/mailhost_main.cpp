// mailhost_main.cpp - tavmail-host, the mail host of the demonstration: takes mail over SMTP on
// 127.0.0.1, keeps it as files and ends by itself.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>

#include "loopback_server.h"
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
};

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

// Renamed into place, so that a script that waits for the file never reads half of it.
void write_ports(const std::string& path, const std::string& text) {
  write_file(path + ".new", text);
  std::filesystem::rename(path + ".new", path);
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

  tav_test::smtp_host host;
  host.name("localhost");
  host.capabilities(capabilities);
  size_t kept = 0;
  host.on_message([&](const smtp_message& message) {
    if (!given.spool.empty() && !spool_message(given.spool, kept + 1, message)) return false;
    ++kept;
    std::cout << "message " << kept << " of " << message.data.size() << " bytes" << std::endl;
    return true;
  });
  std::ofstream transcript;
  if (!given.transcript.empty()) transcript.open(given.transcript);
  if (!given.transcript.empty() && !transcript)
    throw std::runtime_error("cannot write " + given.transcript);
  host.stream_transcript([&](const std::string& line) { transcript << line << std::endl; });

  tav_test::loopback_limits limits;
  limits.life = std::chrono::seconds(given.max_seconds);
  tav_test::loopback_server server(certificates, limits);
  std::string ports =
      "port=" + std::to_string(server.listen(host, tav_test::tls_mode::plain, given.port)) + "\n";
  if (given.implicit_tls)
    ports += "tls_port=" +
             std::to_string(server.listen(host, tav_test::tls_mode::implicit, given.tls_port)) +
             "\n";
  server.finish_when([&] { return kept >= given.max_messages; });
  server.start();
  std::cout << ports << std::flush;
  if (!given.port_file.empty()) write_ports(given.port_file, ports);
  server.wait();
}

}  // namespace

int main(int argc, char** argv) {
  options given;
  CLI::App app("Takes mail over SMTP on 127.0.0.1 for a demonstration, and ends by itself.",
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
  app.add_option("--max-messages", given.max_messages, "ends after so many messages")
      ->check(CLI::Range(1L, 100000L))
      ->capture_default_str();
  tls_port->needs(cert_dir);
  CLI11_PARSE(app, argc, argv);
  given.implicit_tls = tls_port->count() != 0;
  try {
    serve(given);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "tavmail-host: " << error.what() << "\n";
    return 1;
  }
}
