// problem.h - what ends the program: one line for a person, and the exit code of sysexits.h.

#ifndef MAILHOST_PROBLEM_H
#define MAILHOST_PROBLEM_H

#include <sysexits.h>

#include <stdexcept>
#include <string>

namespace mailhost {

struct problem : std::runtime_error {
  problem(int code, const std::string& what) : std::runtime_error(what), exit_code(code) {}
  int exit_code;
};

}  // namespace mailhost

#endif
