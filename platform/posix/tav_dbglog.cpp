#include "tav_dbglog.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>

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

// Writes a line once and then how often it came: a mail of a megabyte can make a quarter of a
// million equal ones. Long ones are not compared.
class folded_log {
 public:
  explicit folded_log(tav_dbglog_sink writer) : m_pWriter(writer) {}

  void write(const char* module, int level, const char* line) {
    if (m_nTimes > 0 && level == m_nLevel && std::strcmp(module, m_aModule) == 0 &&
        std::strcmp(line, m_aLine) == 0) {
      ++m_nTimes;
      return;
    }
    finish();
    m_pWriter(nullptr, module, level, line);
    if (!keep(m_aModule, module) || !keep(m_aLine, line)) return;
    m_nLevel = level;
    m_nTimes = 1;
  }

  // Tells what was not written.
  void finish() {
    if (m_nTimes > 1) {
      char line[64];
      std::snprintf(line, sizeof line, "last line %llu times", m_nTimes);
      m_pWriter(nullptr, m_aModule, m_nLevel, line);
    }
    m_nTimes = 0;
  }

 private:
  template <size_t size>
  static bool keep(char (&room)[size], const char* text) {
    const size_t length = std::strlen(text);
    if (length >= size) return false;
    std::memcpy(room, text, length + 1);
    return true;
  }

  const tav_dbglog_sink m_pWriter;
  char m_aModule[32];
  char m_aLine[kUsualLine];
  int m_nLevel = 0;
  unsigned long long m_nTimes = 0;  // that the line came; 0 when there is none to compare with
};

void to_folded(void* log, const char* module, int level, const char* line) {
  static_cast<folded_log*>(log)->write(module, level, line);
}

struct log_state {
  log_state() { choose(); }

  // The port's own sink.
  void choose() {
    const char* const choice = std::getenv("TAV_DBGLOG");
    const std::string_view name = choice != nullptr ? choice : "";
    context = name == "stderr" ? &on_stderr : name == "syslog" ? &on_syslog : nullptr;
    sink = context != nullptr ? to_folded : nullptr;
  }
  void finish() {
    on_stderr.finish();
    on_syslog.finish();
  }

  std::mutex guard;
  folded_log on_stderr{to_stderr};
  folded_log on_syslog{to_syslog};
  tav_dbglog_sink sink = nullptr;
  void* context = nullptr;
  tav_dbglog log;
};

void finish_at_exit();

log_state& state() {
  static immortal<log_state> instance;
  static const int registered = std::atexit(finish_at_exit);
  static_cast<void>(registered);
  return *instance;
}

void finish_at_exit() {
  log_state& log = state();
  const std::lock_guard<std::mutex> lock(log.guard);
  log.finish();
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
  log.finish();
  log.sink = sink;
  log.context = context;
  if (sink == nullptr) log.choose();
}
