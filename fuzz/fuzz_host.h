// fuzz_host.h - a mail server that says what the input says, and the platform that it lives on.
//
// The script of the server is text with marks: 0x1E waits for the next line of the client, 0x1D
// starts TLS, 0x1C closes the connection, 0x1F sends what follows up to the next mark as base64
// with CR LF. A new connection goes on where the last one was. Behind its end the server is silent,
// or agrees to everything.

#ifndef FUZZ_HOST_H
#define FUZZ_HOST_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "fake_platform.h"
#include "fuzz_input.h"
#include "mail_peer.h"
#include "quorvelmida/taveml.h"

namespace fuzz {

constexpr char kNextLine = '\x1e';
constexpr char kStartTls = '\x1d';
constexpr char kClose = '\x1c';
constexpr char kBase64 = '\x1f';

enum class protocol { smtp, pop3 };

// How the platform behaves, from six control bytes: bytes per receive and per send (0: all), the
// network call that fails, flags (1: all later ones fail too, 2: with a time-out, 4: the server
// agrees to everything at its end), TLS mode, time-out.
struct conditions {
  explicit conditions(input& in);
  // The same without anything that may change what is read and sent.
  conditions in_one_piece() const;
  bool fails() const { return failing_call != 0; }
  void apply(tav_test::fake_platform& net) const;

  size_t recv_limit, send_limit, failing_call;
  bool all_from, times_out, agrees;
  uint8_t tls_mode;
  int32_t timeout;
};

class host : public tav_test::mail_host {
 public:
  host(protocol kind, std::string script, const conditions& how)
      : m_kind(kind), m_script(std::move(script)), m_agrees(how.agrees), m_isStrict(!how.fails()) {}

  std::unique_ptr<tav_test::mail_peer> accept() override;
  // Everything that clients said.
  const std::string& heard() const { return m_heard; }

 private:
  friend class peer;

  protocol m_kind;
  std::string m_script;
  bool m_agrees;
  bool m_isStrict;    // a client whose calls fail may stop inside a line
  size_t m_next = 0;  // of the script
  std::string m_heard;
};

// Names and addresses of a run. At its end nothing may be open and the count of network calls must
// be in proportion to what there was to read and to send.
class network {
 public:
  network(const conditions& how, host& server, size_t input_size);
  ~network();

  static constexpr char server_name[] = "mail.example";
  static constexpr uint16_t smtp_port = 25;
  static constexpr uint16_t pop3_port = 110;
  // An account whose texts must never reach the log.
  static constexpr char user[] = "tim.tam@mail.example";
  static constexpr char password[] = "tanstaaf-tanstaaf";

 private:
  tav_test::fake_platform m_net;
  size_t m_inputSize;
};

// An account on it, under these conditions.
quorvelmida::_tav_eml_smtp_setting smtp_record(const conditions& how);
quorvelmida::_tav_eml_pop3_setting pop3_record(const conditions& how);

}  // namespace fuzz

#endif
