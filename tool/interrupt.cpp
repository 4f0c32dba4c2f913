#include "interrupt.h"

#include <csignal>

namespace tavmail {

namespace {

volatile std::sig_atomic_t g_pressed = 0;

}  // namespace

interrupt_guard::interrupt_guard() {
  g_pressed = 0;
  std::signal(SIGINT, [](int) { g_pressed = 1; });
}

interrupt_guard::~interrupt_guard() { std::signal(SIGINT, SIG_DFL); }

bool interrupt_guard::was_pressed() { return g_pressed != 0; }

}  // namespace tavmail
