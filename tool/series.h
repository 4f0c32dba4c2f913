// series.h - the runs that one command line asks for: one, several because the first failed for
// now, or one for each of several accounts.

#ifndef SERIES_H
#define SERIES_H

namespace tavmail {

// Runs what the command line asks for and reports what goes wrong. Returns the exit code.
int run_series(int argc, const char* const* argv, const char* version);

}  // namespace tavmail

#endif
