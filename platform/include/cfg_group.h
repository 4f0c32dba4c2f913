// cfg_group.h - the device's settings query.
//
// Contract of a port: the record is filled within its 228 bytes, its texts are NUL-terminated
// within their fields and shortened when they do not fit; bytes without a meaning stay as they
// were.

#ifndef CFG_GROUP_H
#define CFG_GROUP_H

#include <cstddef>
#include <cstdint>

#include "utl_export.h"

// What a device-generated mail may tell about its device. Offsets are part of the interface; the
// bytes between the named fields belong to the platform.
struct CFG_EVENT_MAIL {
  char equipment_id[17];    // offset 0
  char printer_name[33];    // offset 17
  char serial_number[17];   // offset 50
  uint8_t mac_address1[6];  // offset 67: first network interface
  uint8_t reserved1[27];
  uint8_t mac_address2[6];  // offset 100: second network interface
  uint8_t reserved2[27];
  char host_name[64];  // offset 133
  uint8_t reserved3[3];
  uint8_t ip_address1[4];  // offset 200: IPv4, network byte order; all 0 when there is none
  uint8_t ip_address2[4];  // offset 204
  uint8_t reserved4[20];
};
static_assert(sizeof(CFG_EVENT_MAIL) == 228, "layout of the settings query");
static_assert(offsetof(CFG_EVENT_MAIL, printer_name) == 17, "layout of the settings query");
static_assert(offsetof(CFG_EVENT_MAIL, serial_number) == 50, "layout of the settings query");
static_assert(offsetof(CFG_EVENT_MAIL, mac_address1) == 67, "layout of the settings query");
static_assert(offsetof(CFG_EVENT_MAIL, mac_address2) == 100, "layout of the settings query");
static_assert(offsetof(CFG_EVENT_MAIL, host_name) == 133, "layout of the settings query");
static_assert(offsetof(CFG_EVENT_MAIL, ip_address1) == 200, "layout of the settings query");
static_assert(offsetof(CFG_EVENT_MAIL, ip_address2) == 204, "layout of the settings query");

enum : int32_t {
  CFG_OK = 0,
  CFG_OK_PARTIAL = 0x5241,  // success too: some values are not set
};

extern "C" UTL_API int32_t cfg_group_get_event_mail(CFG_EVENT_MAIL* record) noexcept;

#endif
