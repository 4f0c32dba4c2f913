// tav_dbglog.h - the device's debug log (libtavdbglog.so.1).
//
// Contract of a port: logging never throws, never fails the caller and is safe from any thread. A
// line is one call; a line feed at its end is not doubled. Control characters of the finished line
// are written as blanks, so that no argument can forge a second line.

#ifndef TAV_DBGLOG_H
#define TAV_DBGLOG_H

#include "utl_export.h"

class UTL_API tav_dbglog {
 public:
  // Writes one line. `module` names the caller's component, `level` is 0 for errors and higher for
  // information.
  void tracer(const char* module, int level, const char* format, ...) noexcept
      __attribute__((format(printf, 4, 5)));
};

// A place where finished lines go. `line` ends in a NUL and carries no line feed; `context` is what
// was given with the sink. Calls are serialised.
typedef void (*tav_dbglog_sink)(void* context, const char* module, int level, const char* line);

class UTL_API tav_dbglog_common {
 public:
  // The one log of the process; never null.
  static tav_dbglog* get_instance() noexcept;

  // Replaces the sink. The library does not call this; a device's own log can do without.
  //
  // A null sink restores the port's own, which on Linux is chosen by the variable
  // TAV_DBGLOG: "stderr", "syslog", or anything else (and unset) for none. There, a line that comes
  // again and again is written once, and after it "last line 1234 times"; a sink sees every line.
  static void set_sink(tav_dbglog_sink sink, void* context) noexcept;
};

#endif
