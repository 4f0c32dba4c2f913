// memory_watch.cpp - for every program that links it: no test may write beyond a block of UtlOS or
// free what is none, whether it looks for that or not.

#include <gtest/gtest.h>

#include "fake_memory.h"

namespace tav_test {
namespace {

class memory_watch : public testing::Environment {
 public:
  void TearDown() override { EXPECT_EQ(fake_memory::faults(), ""); }
};

testing::Environment* const g_watch = testing::AddGlobalTestEnvironment(new memory_watch);

}  // namespace
}  // namespace tav_test
