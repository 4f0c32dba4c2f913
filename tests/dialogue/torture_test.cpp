// Sending and receiving with every call that can fail failed in turn.

#include "torture.h"

#include "receive_scenarios.h"
#include "send_scenarios.h"

namespace dialogue {
namespace {

TEST(Torture, every_call_of_sending_failed_in_turn) { torture(send_scenarios()); }

TEST(Torture, every_call_of_receiving_failed_in_turn) { torture(receive_scenarios()); }

}  // namespace
}  // namespace dialogue
