// wiretap.h - the port's side of tav_wiretap.h.

#ifndef WIRETAP_H
#define WIRETAP_H

#include <string_view>

#include "tav_wiretap.h"

// Tells the observer, if there is one.
void wiretap(TAV_WIRETAP_EVENT event, std::string_view bytes = {}) noexcept;
bool has_wiretap();

#endif
