// scenario.h - what a device does with the library, to be disturbed in all sorts of ways: by calls
// that fail (torture.h) and by hostile peers (hostile.h).

#ifndef SCENARIO_H
#define SCENARIO_H

#include <functional>
#include <memory>
#include <vector>

#include "dialogue_fixture.h"
#include "fail_new.h"
#include "tampered_host.h"

namespace dialogue {

constexpr char kSecret[] = "tanstaaf";  // every password

class scenario {
 public:
  virtual ~scenario() = default;
  scenario(const scenario&) = delete;
  scenario& operator=(const scenario&) = delete;

  // The application's part of the next run, and what the server has for it, made before anything
  // fails. `all_well`: nothing will.
  virtual void get_ready(bool all_well) = 0;
  virtual TAV_EML_RESULT run() = 0;
  // What must hold after a run, whatever happened in it.
  virtual void check(TAV_EML_RESULT result) = 0;
  // What must hold besides when memory ran out and the peer did all it should.
  virtual void check_verdict(TAV_EML_RESULT) {}
  // Lets the objects go.
  virtual void finish() = 0;

  fake_memory memory;
  fake_platform net;
  log_capture log;
  tampering attack;

 protected:
  scenario() { attack.active = false; }

  // Checks what every run must leave behind.
  void check_order(TAV_EML_RESULT result) {
    const bool is_ours = (static_cast<unsigned>(result) & 0xFFFF0000U) == 0x51070000U;
    EXPECT_TRUE(result == TAV_EML_OK || is_ours) << std::hex << static_cast<unsigned>(result);
    EXPECT_EQ(net.leaks(), "");
    EXPECT_FALSE(memory.any_mutex_held());
    EXPECT_FALSE(log.contains(kSecret)) << log.all();
  }
  // Nothing worth stealing goes out before TLS.
  static void check_clear_text(const scripted_host& host) {
    for (size_t i = 1; i <= host.connections(); ++i) {
      const std::string clear = host.client_bytes_in_clear(i);
      for (const char* verb : {"AUTH", "MAIL", "DATA", "USER", "PASS", "APOP", "STAT", "RETR"}) {
        EXPECT_EQ(clear.find(verb), std::string::npos) << clear;
      }
    }
  }
};

// Nothing disturbs any more: the same objects do the same work, and nothing is left behind.
inline void expect_recovery(scenario& s) {
  s.get_ready(true);
  EXPECT_EQ(s.run(), TAV_EML_OK) << "does not work afterwards";
  s.check(TAV_EML_OK);
  s.finish();
  EXPECT_TRUE(s.memory.clean());
  EXPECT_TRUE(s.net.clean());
}

struct scenario_maker {
  const char* name;
  std::function<std::unique_ptr<scenario>()> make;
  bool is_distinct;  // its dialogue is not part of another one's
};

}  // namespace dialogue

#endif
