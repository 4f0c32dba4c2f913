#include "interrupt.h"

#include <csignal>

namespace tavmail {

namespace {

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
volatile std::sig_atomic_t g_signal = 0;

}  // namespace

interrupt_guard::interrupt_guard() {
  g_signal = 0;
  struct sigaction action {};
  action.sa_handler = [](int signal) { g_signal = signal; };
  // Who does not want to wait for the server presses again.
  action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
  for (const int signal : kSignals) sigaction(signal, &action, nullptr);
}

interrupt_guard::~interrupt_guard() {
  for (const int signal : kSignals) std::signal(signal, SIG_DFL);
}

bool interrupt_guard::was_pressed() { return g_signal != 0; }

int interrupt_guard::exit_code() { return 128 + g_signal; }

}  // namespace tavmail
