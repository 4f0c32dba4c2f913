// options.h - the command line of tavmail-host.

#ifndef MAILHOST_OPTIONS_H
#define MAILHOST_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "certificate.h"

namespace mailhost {

struct options {
  uint16_t smtp = 2525, smtps = 2465, pop3 = 2110, pop3s = 2995;
  bool any_port = false;
  std::string listen = "127.0.0.1";
  std::vector<std::string> names;
  std::string ready_file;

  std::string ca_out;
  std::string cert, key;
  certificate_fault fault = certificate_fault::none;

  std::vector<std::string> users;   // NAME:PASSWORD
  std::vector<std::string> tokens;  // NAME:TOKEN
  std::vector<std::string> methods;
  bool login_required = false;
  bool pop_before_smtp = false;

  std::string folder;  // "": a private one for this run
  std::vector<std::string> add;
  std::string script;
  uint64_t size_limit = 67108864;
  long max_seconds = 0;  // 0: runs on
  bool json = false;
};

// Nothing when --help or --version was answered. Throws problem.
std::optional<options> parse(int argc, char** argv);

}  // namespace mailhost

#endif
