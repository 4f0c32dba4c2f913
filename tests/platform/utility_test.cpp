#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "cfg_group.h"
#include "clb.h"
#include "osw.h"
#include "tav_dbglog.h"
#include "utl_os.h"
#include "utl_string.h"
#include "utl_vector.h"

namespace {

TEST(StringContract, null_differs_from_empty_and_copies_of_itself_are_safe) {
  UtlString text;
  EXPECT_EQ(text.GetString(), nullptr);
  EXPECT_TRUE(text.IsEmpty());
  text = "";
  EXPECT_STREQ(text.GetString(), "");
  text = "  abcdef\r\n\t ";
  text.CopyString(text);
  text.CopyString(text.GetString() + 1);
  EXPECT_STREQ(text.GetString(), " abcdef\r\n\t ");
  text.TrimTop();
  text.TrimBottom();
  EXPECT_STREQ(text.GetString(), "abcdef");
  EXPECT_EQ(text.GetLength(), 6u);
  text.CopyString(text.GetString() + 2, 3);
  EXPECT_STREQ(text.GetString(), "cde");
  text.CopyString("ab", 10);
  EXPECT_EQ(text.GetLength(), 2u);
  text = " \t ";
  text.TrimBottom();
  EXPECT_STREQ(text.GetString(), "");
  text = static_cast<const char*>(nullptr);
  text.TrimTop();
  EXPECT_EQ(text.GetString(), nullptr);
}

TEST(VectorContract, bounds_are_kept_and_nothing_is_deleted) {
  UtlVector vector(-5);
  int items[40];
  EXPECT_EQ(vector.Add(1, items), 0);
  for (int& item : items) ASSERT_EQ(vector.Add(0, &item), 1);
  EXPECT_EQ(vector.Count(), 40);
  EXPECT_EQ(vector.ElementAt(0), &items[39]);
  for (const int out : {40, -1}) EXPECT_EQ(vector.ElementAt(out), nullptr);
  EXPECT_EQ(vector.Remove(40), 0);
  EXPECT_EQ(vector.Remove(0), 1);
  EXPECT_EQ(vector.ElementAt(0), &items[38]);
}

TEST(MemoryContract, odd_sizes_and_null_blocks) {
  void* block = UtlOS::MemAllocate(0);
  EXPECT_NE(block, nullptr);
  UtlOS::MemFree(block);
  UtlOS::MemFree(nullptr);
  char* grown = static_cast<char*>(UtlOS::MemReallocate(nullptr, 4));
  std::memcpy(grown, "abc", 4);
  grown = static_cast<char*>(UtlOS::MemReallocate(grown, 400));
  EXPECT_STREQ(grown, "abc");
  UtlOS::MemFree(grown);
  osw_OrgFreeMemPart(0, osw_SubAllocMem(10));
  osw_OrgFreeMemPart(0, nullptr);
}

TEST(MutexContract, belongs_to_its_thread_and_does_not_nest) {
  UtlMutex* const mutex = UtlOS::CreateMutex();
  ASSERT_EQ(UtlOS::TakeMutex(mutex), 1);
  ASSERT_EQ(UtlOS::TakeMutex(mutex), 1);
  std::atomic<bool> is_taken{false};
  std::thread other([&] {
    EXPECT_EQ(UtlOS::GiveMutex(mutex), 0) << "given by a thread that does not hold it";
    UtlOS::TakeMutex(mutex);
    is_taken = true;
    UtlOS::GiveMutex(mutex);
  });
  osw_Sleep(50);
  EXPECT_FALSE(is_taken);
  EXPECT_EQ(UtlOS::GiveMutex(mutex), 1);
  other.join();
  EXPECT_TRUE(is_taken);
  EXPECT_EQ(UtlOS::GiveMutex(mutex), 0);
  UtlOS::TakeMutex(mutex);
  UtlOS::DeleteMutex(mutex);
  UtlOS::DeleteMutex(nullptr);
  EXPECT_EQ(UtlOS::TakeMutex(nullptr), 0);
}

TEST(LogContract, one_call_is_one_clean_line) {
  static std::string told;
  tav_dbglog_common::set_sink(
      [](void*, const char*, int, const char* line) { told += std::string(line) + "\n"; }, nullptr);
  tav_dbglog* const log = tav_dbglog_common::get_instance();
  log->tracer("T", 0, "a%sb\n", "\r\nforged\x1b[2J");
  const std::string longer(3000, 'x');
  log->tracer("T", 1, "%s|%d\n", longer.c_str(), 7);
  EXPECT_EQ(told, "a  forged [2Jb\n" + longer + "|7\n");
  log->tracer("T", 0, "%s", std::string(100000, 'y').c_str());
  EXPECT_GT(told.size(), 4000u);
  tav_dbglog_common::set_sink(nullptr, nullptr);
  log->tracer("T", 0, "to nobody\n");
  EXPECT_EQ(told.find("nobody"), std::string::npos);
}

TEST(LogContract, repeated_lines_are_folded_in_the_ports_own_sink) {
  setenv("TAV_DBGLOG", "stderr", 1);
  testing::internal::CaptureStderr();
  tav_dbglog_common::set_sink(nullptr, nullptr);
  unsetenv("TAV_DBGLOG");
  tav_dbglog* const log = tav_dbglog_common::get_instance();
  for (int i = 0; i < 1234; ++i) log->tracer("T", 0, "again\n");
  log->tracer("U", 0, "again\n");
  for (int i = 0; i < 2; ++i) log->tracer("U", 1, "again\n");
  tav_dbglog_common::set_sink(nullptr, nullptr);
  EXPECT_EQ(
      testing::internal::GetCapturedStderr(),
      "T[0] again\nT[0] last line 1234 times\nU[0] again\nU[1] again\nU[1] last line 2 times\n");
}

TEST(CLibraryContract, folds_ascii_only_and_stops_at_the_end) {
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

TEST(SettingsContract, fills_the_record_and_nothing_else) {
  const std::string path = testing::TempDir() + "device.conf";
  std::ofstream(path) << "# device\nprinter_name = aaaaaaaaaaa日本語日本語日本語\n"
                      << "serial_number=SN 1\n equipment_id =\t" << std::string(100, 'e') << "\n";
  setenv("TAV_DEVICE_SETTINGS", path.c_str(), 1);
  unsetenv("TAV_PRINTER_NAME");
  struct {
    CFG_EVENT_MAIL record;
    char guard[8];
  } area;
  std::memset(&area, '#', sizeof area);
  EXPECT_EQ(cfg_group_get_event_mail(&area.record), CFG_OK);
  EXPECT_EQ(std::string(area.guard, 8), "########");
  // 32 bytes are 11 letters and seven of the characters: never half of one.
  EXPECT_STREQ(area.record.printer_name, "aaaaaaaaaaa日本語日本語日");
  EXPECT_STREQ(area.record.serial_number, "SN 1");
  EXPECT_EQ(std::strlen(area.record.equipment_id), 16u);
  EXPECT_GT(std::strlen(area.record.host_name), 0u);

  setenv("TAV_PRINTER_NAME", "MFP1", 1);
  setenv("TAV_DEVICE_SETTINGS", "/none", 1);
  EXPECT_EQ(cfg_group_get_event_mail(&area.record), CFG_OK_PARTIAL);
  EXPECT_STREQ(area.record.printer_name, "MFP1");
  EXPECT_STREQ(area.record.serial_number, "");
  EXPECT_NE(cfg_group_get_event_mail(nullptr), CFG_OK);
}

}  // namespace
