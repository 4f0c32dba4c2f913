#include "tav_dbglog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "immortal.h"

namespace {

constexpr size_t kUsualLine = 512;
constexpr size_t kLongestLine = 8192;

void to_stderr(void*, const char* module, int level, const char* line) {
  std::fprintf(stderr, "%s[%d] %s\n", module, level, line);
}

void to_syslog(void*, const char* module, int level, const char* line) {
  syslog(level == 0 ? LOG_ERR : LOG_INFO, "%s: %s", module, line);
}

tav_dbglog_sink chosen_sink() {
  const char* choice = std::getenv("TAV_DBGLOG");
  if (choice == nullptr) return nullptr;
  if (std::strcmp(choice, "stderr") == 0) return to_stderr;
  return std::strcmp(choice, "syslog") == 0 ? to_syslog : nullptr;
}

struct log_state {
  std::mutex guard;
  tav_dbglog_sink sink = chosen_sink();
  void* context = nullptr;
  tav_dbglog log;
};

log_state& state() {
  static immortal<log_state> instance;
  return *instance;
}

// Cuts the line feed that ends the line, and makes blanks of all other control characters.
void clean(char* line, size_t length) {
  if (length > 0 && line[length - 1] == '\n') line[--length] = '\0';
  for (size_t i = 0; i < length; ++i) {
    const unsigned char byte = static_cast<unsigned char>(line[i]);
    if (byte < 0x20 || byte == 0x7F) line[i] = ' ';
  }
}

}  // namespace

void tav_dbglog::tracer(const char* module, int level, const char* format, ...) noexcept {
  log_state& log = state();
  {
    const std::lock_guard<std::mutex> lock(log.guard);
    if (log.sink == nullptr) return;
  }
  char usual[kUsualLine];
  va_list arguments;
  va_start(arguments, format);
  const int written = std::vsnprintf(usual, sizeof usual, format, arguments);
  va_end(arguments);
  if (written < 0) return;

  char* line = usual;
  size_t length = static_cast<size_t>(written);
  std::unique_ptr<char[]> longer;
  if (length >= sizeof usual) {
    const size_t size = length < kLongestLine ? length + 1 : kLongestLine;
    longer.reset(new (std::nothrow) char[size]);
    length = sizeof usual - 1;
    if (longer) {
      line = longer.get();
      va_start(arguments, format);
      std::vsnprintf(line, size, format, arguments);
      va_end(arguments);
      length = size - 1;
    }
  }
  clean(line, length);
  const std::lock_guard<std::mutex> lock(log.guard);
  if (log.sink != nullptr) log.sink(log.context, module, level, line);
}

tav_dbglog* tav_dbglog_common::get_instance() noexcept { return &state().log; }

void tav_dbglog_common::set_sink(tav_dbglog_sink sink, void* context) noexcept {
  log_state& log = state();
  const std::lock_guard<std::mutex> lock(log.guard);
  log.sink = sink != nullptr ? sink : chosen_sink();
  log.context = context;
}
