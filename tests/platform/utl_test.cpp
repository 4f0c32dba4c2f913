#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

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
  EXPECT_EQ(vector.Remove(40), 0);
  EXPECT_EQ(vector.Remove(0), 1);
  EXPECT_EQ(vector.ElementAt(0), &items[38]);
  for (const int out : {39, 40, -1}) EXPECT_EQ(vector.ElementAt(out), nullptr);
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
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
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

}  // namespace
