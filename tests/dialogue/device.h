// device.h - a device that plays a case: the library over the scripted platform, the practice mail
// server as the other side, and an application that says what the case says.
//
// What comes first is set up:
//
//   host WHEN WHAT          a deviation in the words of mailhost/script.h. A reply without quotes
//                           is a text: "EHLO 502-no^502 no", "RETR bytes +OK^x"
//   offers WORDS            of tls, and of the methods of AUTH; none of them without it
//   serves WORDS            how the server is reached: implicit-tls, nothing
//   account USER PASSWORD   the server knows it besides "u" and its password
//   bears USER TOKEN        and with this access token, under TLS
//   token TOKEN REFRESHED   the device gives this token, and that one after a refusal; none of
//                           them without it. Every token begins with "toktoktok"
//   set NAME VALUE          a setting of the library: see the tables in the two devices
//   resolve ADDRESSES       of the server's name
//   refuse PORT RESULT      of a connect
//   fail CALL N RESULT      the Nth call of the platform, "N+": and all later ones
//   limit BYTES             that one send or receive moves
//
// Then come calls of the library, each with its result ("-> REPLY" for TAV_EML_ERR_REPLY), and
// values that are checked. "NAME TEXT" is the whole of it, "has NAME TEXT" and "lacks NAME TEXT" a
// part of it, "most NAME N" a limit:
//
//   sent           the client's lines of the latest connection, parted by commas; "(TLS)" stands
//                  where TLS begins. sent1, sent2 and sent3 are those of one connection
//   last           the last of them
//   calls          the platform's calls of the kinds that the text names, and sleeps
//   connections    how many
//   asked          for which tokens the device was asked, and how long those were that it gave
//   lock           held or free
//   lines          of the log, all of them
//
// "log PIECES" is one line at the level of errors for each piece, in this order, that holds it, and
// "starved PIECES" lines that a storm case logs when memory runs out.
//
// What every case is held to whatever it says: no secret in the log, the time-outs of the settings,
// no call of the platform that it does not allow, a line in the log for a failure and none at the
// level of errors without one, and at the end every socket closed and every block freed.

#ifndef DEVICE_H
#define DEVICE_H

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "case_file.h"
#include "fail_new.h"
#include "fake_memory.h"
#include "fake_platform.h"
#include "host_peer.h"
#include "log_capture.h"
#include "values.h"

namespace dialogue {

using namespace quorvelmida;
using namespace tav_test;

constexpr char kServer[] = "mail.example";
constexpr char kAddress[] = "192.0.2.1";
constexpr char kSecret[] = "tanstaaf";  // every password begins so
constexpr int kSeconds = 7;             // every time-out

class device {
  std::unique_ptr<mailhost::mail_host> m_host;  // outlives the sockets of `net`
  std::unique_ptr<host_door> m_smtp, m_pop3;

 public:
  // One that speaks what the case's table is about.
  static std::unique_ptr<device> make(const dialogue_case& what);
  virtual ~device();
  device(const device&) = delete;
  device& operator=(const device&) = delete;

  // Does all that the row says.
  void play(const case_row& row);

  // For whoever disturbs: the row up to its first call; its calls up to the first that fails, and
  // what an application does then; whether a row did what it should when nothing was in its way.
  void set_up(const case_row& row);
  TAV_EML_RESULT run(const case_row& row);
  // What must hold after a run, however it ended.
  virtual void check_order(TAV_EML_RESULT result);
  bool has_logged_errors() const;

  // What has arrived in the latest run, here or there; whether it may be what has arrived of
  // `whole` when something failed; whether a mail in it is the server's now.
  virtual std::string outcome() = 0;
  virtual bool is_part(const std::string& got, const std::string& whole) = 0;
  virtual bool is_taken(const std::string& got) = 0;
  // A new start for the server and the application, with the same objects of the library.
  virtual void forget_outcome() = 0;
  // The application gives up.
  virtual void leave() = 0;

  mailhost::mail_host& host();
  // "bytes ..." of the host's script that says exactly what a text stands for.
  static std::string exact(const std::string& text);

  fake_memory memory;
  fake_platform net;
  log_capture log;
  tampering attack;

 protected:
  using action = std::function<void(const std::string&)>;
  using value = std::function<std::string()>;
  using call = std::function<TAV_EML_RESULT(const std::string&)>;

  device();
  virtual void drop_objects() = 0;
  virtual uint8_t tls_mode_set() const = 0;

  // A call of the library. Only what happens in it is made to fail.
  template <typename Function>
  static auto library(Function&& function) {
    const new_failure_resumed resumed;
    return function();
  }
  // Adds a line to the host's script.
  void script(const std::string& line);
  // Takes a value of a case to where it belongs.
  static action into(UtlString& field) {
    return [&field](const std::string& v) { field = v == "(null)" ? nullptr : v.c_str(); };
  }
  template <typename Number>
  static action into(Number& field) {
    return [&field](const std::string& v) { field = static_cast<Number>(std::stoi(v)); };
  }
  std::map<std::string, action> m_setups, m_settings;
  std::map<std::string, value> m_values;
  std::map<std::string, call> m_calls;
  std::string m_value;  // what the latest call gave besides its result
  mailhost::settings m_hostSettings;
  std::set<int64_t> m_sendTimeouts;

 private:
  void add_setups();
  void add_values();
  void do_call(const statement& one);
  void check(const std::string& verb, std::string rest);
  void check_log(const std::string& rest);
  void check_calls(const std::string& rest);
  void check_timeouts();

  std::string m_script;
  tls_mode m_mode = tls_mode::plain;
  bool m_serves = true, m_isLogChecked = false, m_hasFailed = false;
};

std::unique_ptr<device> make_smtp_device();
std::unique_ptr<device> make_pop3_device();

}  // namespace dialogue

#endif
