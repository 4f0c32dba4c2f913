// entry_status.h - the status of an entry of the mail info list.

#ifndef ENTRY_STATUS_H
#define ENTRY_STATUS_H

#include <cstdint>

namespace quorvelmida {

enum entry_status : int32_t {
  kWaiting = 1,    // listed, not yet handed to the application
  kHandedOut = 2,  // may be dropped when the list needs room
};

}  // namespace quorvelmida

#endif
