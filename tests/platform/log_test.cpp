// Needs set_sink(): the log of a maker that has none is looked at instead.

#include <gtest/gtest.h>

#include <algorithm>

#include "tav_dbglog.h"

namespace {

TEST(LogContract, one_call_is_one_clean_line) {
  static std::string told;
  told = "";
  tav_dbglog_common::set_sink(
      [](void*, const char*, int, const char* line) { told += std::string(line) + "\n"; }, nullptr);
  tav_dbglog* const log = tav_dbglog_common::get_instance();
  log->tracer("T", 0, "a%sb\n", "\r\nforged\x1b[2J");
  const std::string longer(3000, 'x');
  log->tracer("T", 1, "%s|%d\n", longer.c_str(), 7);
  EXPECT_EQ(told, "a  forged [2Jb\n" + longer + "|7\n");
  log->tracer("T", 0, "%s", std::string(100000, 'y').c_str());
  EXPECT_GT(told.size(), 4000u);
  EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 3);
  tav_dbglog_common::set_sink(nullptr, nullptr);
  log->tracer("T", 0, "to nobody\n");
  EXPECT_EQ(told.find("nobody"), std::string::npos);
}

}  // namespace
