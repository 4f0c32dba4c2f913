#include "shell_command.h"

#include <fcntl.h>
#include <paths.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include "interrupt.h"
#include "problem.h"
#include "trust_store.h"

namespace tavmail {

namespace {

constexpr size_t kMostOutput = size_t{1} << 20;
constexpr char kTryIt[] = "try it by itself";

void pause_briefly() { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }

// A socket with the text to be read from it, which need not be: no signal ends who wrote it.
int socket_with(std::string_view text) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return -1;
  const ssize_t count = send(ends[1], text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  close(ends[1]);
  if (count == static_cast<ssize_t>(text.size())) return ends[0];
  close(ends[0]);
  return -1;
}

}  // namespace

shell_command::shell_command(const std::string& line, const settings& given)
    : m_what(given.what), m_end(given.end) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) fail();
  m_output = ends[0];
  m_reader = std::make_unique<input_file>(ends[0], "the output of " + m_what);
  const int input = given.input.empty() ? -1 : socket_with(given.input);
  if (given.input.empty() || input >= 0) start(line, given.variable, input, ends[1]);
  if (input >= 0) close(input);
  close(ends[1]);
  if (m_pid == 0) fail();
  set_timer();
}

shell_command::~shell_command() {
  constexpr int kPatience = 100;
  if (is_running()) kill(m_pid, SIGTERM);
  for (int i = 0; is_running(); ++i) {
    if (i == kPatience) kill(m_pid, SIGKILL);
    pause_briefly();
  }
  if (m_timer >= 0) close(m_timer);
}

void shell_command::start(const std::string& line, const std::string& variable, int input,
                          int output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  if (input >= 0) posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
  std::vector<const char*> variables = environment_of_commands();
  if (!variable.empty()) variables.push_back(variable.c_str());
  variables.push_back(nullptr);
  const char* const words[] = {"sh", "-c", line.c_str(), nullptr};
  if (posix_spawn(&m_pid, _PATH_BSHELL, &actions, nullptr, const_cast<char* const*>(words),
                  const_cast<char* const*>(variables.data())) != 0) {
    m_pid = 0;
  }
  posix_spawn_file_actions_destroy(&actions);
}

void shell_command::set_timer() {
  if (m_end == kNoEnd) return;
  m_timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - clock::now()).count();
  const auto wait = std::max<decltype(left)>(left, 1);
  itimerspec timer{};
  timer.it_value.tv_sec = static_cast<time_t>(wait / 1000);
  timer.it_value.tv_nsec = static_cast<long>(wait % 1000 * 1000000);
  if (m_timer < 0 || timerfd_settime(m_timer, 0, &timer, nullptr) != 0) fail();
}

void shell_command::fail() const { throw problem(EX_OSERR, "cannot run " + m_what); }

void shell_command::fail_late() const {
  throw problem(EX_TEMPFAIL, m_what + " takes too long", "try it by itself, or raise --timeout");
}

size_t shell_command::read_some(char* bytes, size_t size) {
  if (!interrupt_guard::await_input(m_output, m_timer)) fail_late();
  return m_reader->read_some(bytes, size);
}

bool shell_command::is_running() {
  if (m_pid > 0 && waitpid(m_pid, &m_status, WNOHANG) != 0) m_pid = 0;
  return m_pid > 0;
}

void shell_command::finish() {
  // It must not fail for want of a reader.
  char rest[512];
  size_t count = 0;
  while (const size_t got = read_some(rest, sizeof rest)) {
    explicit_bzero(rest, got);
    count += got;
    if (count > kMostOutput) throw problem(EX_CONFIG, m_what + " does not stop printing", kTryIt);
  }
  while (is_running()) {
    interrupt_guard::check();
    if (clock::now() >= m_end) fail_late();
    pause_briefly();
  }
  if (m_status != 0) throw problem(EX_CONFIG, m_what + " failed", kTryIt);
}

}  // namespace tavmail
