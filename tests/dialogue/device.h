// device.h - a device that plays a case: the library over the scripted platform, the practice mail
// server as the other side, and an application that says what the case says.
//
// What comes first is set up:
//
//   host WHEN WHAT          a deviation in the words of mailhost/script.h. A reply without quotes
//                           is a text: "EHLO 502-no^502 no", "RETR bytes +OK^x"
//   offers WORDS            of tls, and of the methods of AUTH; none of them without it
//   serves WORD             how the server is reached: plain, implicit-tls, nothing
//   account USER PASSWORD   the server knows it besides "u" and its password
//   bears USER TOKEN        and with this access token, under TLS
//   token TOKEN REFRESHED   the device gives this token, and that one after a refusal; none of
//                           them without it. Every token begins with "toktoktok"
//   message UID TEXT        is in the mailbox
//   set NAME VALUE          a setting of the library: server, user, password, tls (0 to 2) of both
//                           protocols; helo, options (five bytes), auth (0 to 3), limit, wait and
//                           pop3-account (none) of SMTP; apop (0 or 1) of POP3
//   resolve ADDRESSES       of the server's name
//   refuse PORT RESULT      of a connect
//   fail CALL N RESULT      the Nth call of the platform, "N+": and all later ones; of "any" calls
//                           together with the RESULT error or timeout, of "memory" without one
//   limit BYTES             that one send or receive moves
//   drop                    the objects of the library
//
// Then come calls of the library, each with its result ("-> REPLY" for TAV_EML_ERR_REPLY, and what
// else it gives, which is nothing after a failure unless the row says so), and values that are
// checked. Both protocols have
//
//   test, connect, close, fresh-test (of an object of its own)
//
// and sending.cpp and receiving.cpp tell theirs. "NAME TEXT" is the whole of a value, "has NAME
// TEXT" and "lacks NAME TEXT" a part of it, "most NAME N" a limit:
//
//   sent           the client's lines of the latest connection, parted by commas; "(TLS)" stands
//                  where TLS begins. sent1, sent2 and sent3 are those of one connection
//   last           the last of them
//   calls          the platform's calls of the kinds that the text names, and sleeps
//   connections    how many
//   asked          for which tokens the device was asked, and how long those were that it gave
//   lock           held or free
//   lines          of the log, all of them
//   live, peak     bytes of memory
//   largest        bytes of the largest block that a call asked for
//
// "log PIECES" is one line at the level of errors for each piece, in this order, that holds it, of
// those since the latest "log"; and "starved PIECES" lines that a storm case logs when memory runs
// out.
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
#include "fake_memory.h"
#include "fake_platform.h"
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
  const new_failure_pause m_pause = {};         // what is not the library's never fails
  std::unique_ptr<mailhost::mail_host> m_host;  // outlives the sockets of `net`

 public:
  // One that receives mail, or sends it.
  explicit device(bool receives);
  ~device();
  device(const device&) = delete;
  device& operator=(const device&) = delete;

  // Does all that the row says.
  void play(const case_row& row);

  // For whoever disturbs: the row up to its first call; its calls up to the first that fails, and
  // then the application gives up.
  void set_up(const case_row& row);
  TAV_EML_RESULT run(const case_row& row);
  TAV_EML_RESULT call(const statement& one);
  void leave();
  // What must hold after a run, however it ended.
  void check_order(TAV_EML_RESULT result);
  bool has_logged_errors() const;

  // Mails that the server has got, and parts of mails that the application has got.
  std::string mails_sent();
  std::string parts_received;
  // A new start for the server and the application, with the same objects of the library.
  void forget();

  mailhost::mail_host& host();
  // Adds a line to the host's script.
  void script(const std::string& line);
  // "bytes ..." of the host's script that says exactly what a text stands for.
  static std::string exact(const std::string& what);

  struct watched_memory : fake_memory {
    ~watched_memory() { EXPECT_TRUE(clean()); }
  } memory;
  fake_platform net;
  log_capture log;

 private:
  using action = std::function<void(const std::string&)>;

  struct objects {
    tav_eml_pop3_settings account;
    tav_eml_smtp_settings settings;
    std::unique_ptr<tav_eml_pop3_mail_info_list> seen;
    tav_eml_smtp_boundary outbox{settings};
    tav_eml_pop3_boundary inbox{account};
  };
  struct received_part {
    std::string type, name, data;
    bool is_trace = true;  // has no header, or is complete straight after it
  };

  // A call of the library. Only what happens in it is made to fail.
  template <typename Function>
  static auto library(Function&& function) {
    const new_failure_resumed resumed;
    return function();
  }
  static void assign(UtlString& field, const std::string& v) {
    field = v == "(null)" ? nullptr : v.c_str();
  }
  template <typename Number>
  static void assign(Number& field, const std::string& v) {
    field = static_cast<Number>(std::stoi(v));
  }
  // Takes a value of a case to where it belongs.
  template <typename... Fields>
  static action into(Fields&... fields) {
    return [&fields...](const std::string& v) { (assign(fields, v), ...); };
  }
  // A call that both protocols have.
  template <typename Call>
  void add_call(const char* verb, Call what) {
    m_calls[verb] = [this, what](const std::string&) {
      objects& it = made();
      return library([&] { return m_receives ? what(it.inbox) : what(it.outbox); });
    };
  }
  // The objects, made of the settings when they are first wanted.
  objects& made();
  void drop();

  // Words of both protocols, and of one.
  void add_setups();
  void add_settings();
  void add_calls();
  void add_values();
  void add_sending();
  void add_fields();
  void add_sending_calls();
  void add_sent_values();
  void add_receiving();
  void add_receiving_calls();
  void add_lists();

  void do_call(const statement& one);
  void check(const std::string& verb, std::string rest);
  void check_log(const std::string& rest);
  void check_calls(const std::string& rest);
  void check_timeouts();

  // sending.cpp
  TAV_EML_RESULT send(const std::string& body);
  TAV_EML_RESULT send_pieces(
      tav_eml_mlutl_mail_part& part, const std::string& data,
      TAV_EML_RESULT (tav_eml_smtp_boundary::*step)(tav_eml_smtp_send_mail&));

  // receiving.cpp
  tav_eml_pop3_receive_mail& mail(bool is_new = false);
  TAV_EML_RESULT read();
  bool goes_on(TAV_EML_RESULT result);
  bool read_part();
  void read_parts();
  void take(tav_eml_mlutl_mail_part& part, received_part& into);
  std::string parts_shown(bool named) const;
  TAV_EML_RESULT run_command(const std::string& line);

  const bool m_receives;
  std::map<std::string, action> m_setups, m_settings;
  std::map<std::string, std::function<std::string()>> m_values;
  std::map<std::string, std::function<TAV_EML_RESULT(const std::string&)>> m_calls;
  std::string m_value;  // what the latest call gave besides its result

  mailhost::settings m_hostSettings;
  std::string m_script;
  tls_mode m_mode = tls_mode::plain;
  bool m_serves = true, m_hasAccount = true, m_hasFailed = false;  // since "log"

  _tav_eml_smtp_setting m_to;
  _tav_eml_pop3_setting m_from;
  std::unique_ptr<objects> m_objects;

  tav_eml_smtp_send_mail m_mail;
  std::string m_attachment;
  size_t m_piece = SIZE_MAX;

  std::vector<std::pair<std::string, std::string>> m_messages;  // of the mailbox
  int m_capacity = 5;
  tav_eml_pop3_mail_info m_info{1, "uid", 100, 1};
  std::unique_ptr<tav_eml_pop3_receive_mail> m_received;
  TAV_EML_RESULT m_result = TAV_EML_OK;  // of the mail that is read
  int m_unusable = 0;
  long m_longest = 0;
  std::vector<received_part> m_parts;
};

}  // namespace dialogue

#endif
