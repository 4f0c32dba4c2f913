#include "interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>

#include "tav_wake.h"

namespace tavmail {

namespace {

using clock = std::chrono::steady_clock;

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGALRM};
constexpr int kMostOvertime = 5;  // seconds
volatile std::sig_atomic_t g_signal = 0;
int g_overtime = 0;
int g_guards = 0;
int g_pipe[2] = {-1, -1};  // becomes readable with the first signal
int g_seconds = 0;
clock::time_point g_start;

// Who does not want to wait for the end asks again. A terminal that goes may tell it twice.
bool ends_at_once_when_repeated(int signal) { return signal == SIGINT || signal == SIGTERM; }

void end_run(int signal) {
  const int error = errno;
  // The signal has its default action by now, which it takes when this handler is left.
  if (g_signal != 0 && ends_at_once_when_repeated(signal)) raise(signal);
  // Nor can a reader who does not take what is written hold the run up.
  if (g_signal != 0 && signal == SIGALRM && ++g_overtime > kMostOvertime) _exit(EX_TEMPFAIL);
  if (g_signal == 0) g_signal = signal;
  tav_wake();
  [[maybe_unused]] const ssize_t count = write(g_pipe[1], "", 1);
  errno = error;
}

// Whoever has started the tool may keep it from all signals, and its time would never be over.
void let_timer_through() {
  sigset_t timer;
  sigemptyset(&timer);
  sigaddset(&timer, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &timer, nullptr);
}

void set_timer(std::chrono::microseconds first) {
  itimerval timer{};
  timer.it_value.tv_sec = static_cast<time_t>(first.count() / 1000000);
  timer.it_value.tv_usec = static_cast<suseconds_t>(first.count() % 1000000);
  // Again and again: one that came just before a wait began would be missed.
  timer.it_interval.tv_sec = first.count() > 0 ? 1 : 0;
  setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace

interrupt_guard::interrupt_guard() {
  if (g_guards++ > 0) return;
  g_start = clock::now();
  g_signal = 0;
  // Without it only the signal that comes in the middle of a wait is noticed.
  if (pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0) g_pipe[0] = g_pipe[1] = -1;
  for (const int signal : kSignals) {
    struct sigaction action {};
    action.sa_handler = end_run;
    action.sa_flags = SA_RESTART;
    if (ends_at_once_when_repeated(signal)) action.sa_flags |= static_cast<int>(SA_RESETHAND);
    struct sigaction before {};
    sigaction(signal, &action, &before);
    // nohup, or a shell that runs it in the background, wants them to have no effect.
    if (before.sa_handler == SIG_IGN && signal != SIGALRM) sigaction(signal, &before, nullptr);
  }
}

interrupt_guard::~interrupt_guard() {
  if (--g_guards > 0) return;
  set_timer(std::chrono::microseconds(0));
  for (const int signal : kSignals) {
    struct sigaction now {};
    sigaction(signal, nullptr, &now);
    if (now.sa_handler == end_run) std::signal(signal, SIG_DFL);
  }
  for (int& fd : g_pipe) {
    if (fd >= 0) close(std::exchange(fd, -1));
  }
  tav_wake_clear();
}

void interrupt_guard::end_after(int seconds) {
  g_seconds = seconds;
  let_timer_through();
  const auto left = g_start + std::chrono::seconds(seconds) - clock::now();
  set_timer(std::max(std::chrono::duration_cast<std::chrono::microseconds>(left),
                     std::chrono::microseconds(1)));
}

bool interrupt_guard::was_pressed() { return g_signal != 0; }

int interrupt_guard::exit_code() { return g_signal == SIGALRM ? EX_TEMPFAIL : 128 + g_signal; }

problem interrupt_guard::cause(const std::string& meaning) {
  const std::string reason = g_signal == SIGALRM
                                 ? "the " + std::to_string(g_seconds) + " s of --max-time are over"
                                 : "interrupted";
  return problem(exit_code(), reason + (meaning.empty() ? "" : "; " + meaning));
}

void interrupt_guard::check(const std::string& meaning) {
  if (was_pressed()) throw cause(meaning);
}

bool interrupt_guard::sleep(std::chrono::milliseconds time) {
  pollfd awaited{g_pipe[0], POLLIN, 0};
  const auto end = clock::now() + time;
  for (auto left = time; left.count() > 0 && !was_pressed();) {
    poll(&awaited, 1, static_cast<int>(left.count()));
    left = std::chrono::duration_cast<std::chrono::milliseconds>(end - clock::now());
  }
  return !was_pressed();
}

bool interrupt_guard::await_input(int fd, int other) {
  pollfd awaited[] = {{fd, POLLIN, 0}, {other, POLLIN, 0}, {g_pipe[0], POLLIN, 0}};
  while (!was_pressed() && poll(awaited, 3, -1) < 0 && errno == EINTR) {
  }
  check();
  return awaited[0].revents != 0;
}

}  // namespace tavmail
