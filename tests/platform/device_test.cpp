#include <cstring>
#include <string>

#include "cfg_group.h"
#include "clb.h"
#include "osw.h"
#include "waits.h"

namespace {

using namespace contract;

TEST(DeviceContract, a_sleep_ends_at_its_time_and_no_signal_shortens_it) {
  expect_timely({{"sleep", [](int32_t limit) { return osw_Sleep(limit), 0; }, 0}});
  const stopwatch watch;
  for (const int32_t none : {0, -1}) osw_Sleep(none);
  EXPECT_LT(watch.elapsed(), 300);
  for (const size_t size : {size_t{10}, size_t{0}}) osw_OrgFreeMemPart(0, osw_SubAllocMem(size));
  osw_OrgFreeMemPart(0, nullptr);
}

TEST(DeviceContract, folds_ascii_only_and_stops_at_the_end) {
  EXPECT_EQ(clb_CompStrCaseN("Text/PLAIN", "text/plain; x", 10), 0);
  EXPECT_NE(clb_CompStrCaseN("text", "tex", 4), 0);
  EXPECT_EQ(clb_CompStrCaseN("abc", "ABC", 100), 0);
  EXPECT_NE(clb_CompStrCaseN("\xe9", "\xc9", 1), 0);
  char text[] = "aZ-\xe9";
  clb_ConvertUpper(text);
  EXPECT_STREQ(text, "AZ-\xe9");
  const uint8_t address[4] = {192, 0, 2, 255};
  char out[16];
  EXPECT_STREQ(inet_ntoa_r(address, out, sizeof out), "192.0.2.255");
  EXPECT_EQ(inet_ntoa_r(address, out, 11), nullptr);
}

TEST(DeviceContract, the_settings_fill_their_fields_and_nothing_else) {
  struct {
    CFG_EVENT_MAIL record;
    char guard[8];
  } area;
  std::memset(&area, '#', sizeof area);
  const int32_t result = cfg_group_get_event_mail(&area.record);
  EXPECT_TRUE(result == CFG_OK || result == CFG_OK_PARTIAL) << result;
  EXPECT_EQ(std::string(area.guard, 8), "########");
  const CFG_EVENT_MAIL& made = area.record;
  const auto is_text = [](const auto& field) {
    return strnlen(field, sizeof field) < sizeof field;
  };
  EXPECT_TRUE(is_text(made.equipment_id) && is_text(made.printer_name));
  EXPECT_TRUE(is_text(made.serial_number) && is_text(made.host_name));
  EXPECT_EQ(made.reserved3[0] + made.reserved4[19], '#' + '#');
  EXPECT_NE(cfg_group_get_event_mail(nullptr), CFG_OK);
}

}  // namespace
