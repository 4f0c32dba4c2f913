// host_peer.h - the practice mail server as a peer of the scripted platform, with an attacker in
// between: what the host says is cut off or replaced.

#ifndef TESTS_SUPPORT_HOST_PEER_H
#define TESTS_SUPPORT_HOST_PEER_H

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "fake_platform.h"
#include "mail_host.h"

namespace tav_test {

// What is done, counted over all connections that share the record, and what went by. It ends when
// `active` becomes false: from then on everything passes.
struct tampering {
  static constexpr size_t never = SIZE_MAX;

  size_t cut = never;       // only so many bytes pass; then silence
  bool cut_closes = false;  // or the connection is closed instead
  size_t replaced = never;  // of the things that are said, from 1, this one is replaced
  std::string replacement;
  bool ends_there = false;  // nothing is said after it
  bool active = false;

  size_t said = 0;   // things said by the host; a greeting or a reply, of however many lines
  size_t bytes = 0;  // of them
};

class host_peer : public mail_peer {
 public:
  host_peer(std::unique_ptr<mailhost::session> session, tampering* attack)
      : m_session(std::move(session)), m_attack(attack) {}

  void connected(bool tls) override {
    m_session->connected(tls);
    pass_on();
  }
  void received(std::string_view bytes) override {
    m_session->received(bytes);
    pass_on();
  }
  void tls_started() override {
    m_session->tls_started();
    pass_on();
  }

 private:
  // Once all is done, the host goes on with bytes that came too early.
  void pass_on() {
    while (!m_session->actions.empty()) {
      for (; !m_session->actions.empty(); m_session->actions.pop_front())
        if (!m_isDead) pass_on(m_session->actions.front());
      m_session->received("");
    }
  }
  void pass_on(const mailhost::action& what) {
    if (what.kind == mailhost::action::wait) return;
    if (what.kind == mailhost::action::start_tls)
      return actions.push_back({peer_action::start_tls});
    if (what.kind != mailhost::action::send) return actions.push_back({peer_action::close});
    if (m_attack != nullptr && m_attack->active) return tamper(what.bytes);
    actions.push_back({peer_action::send, what.bytes});
  }

  void tamper(const std::string& bytes) {
    tampering& attack = *m_attack;
    attack.bytes += bytes.size();
    if (++attack.said == attack.replaced) {
      actions.push_back({peer_action::send, attack.replacement});
      m_isDead = attack.ends_there;
      return;
    }
    const size_t allowed = std::min(bytes.size(), attack.cut);
    actions.push_back({peer_action::send, bytes.substr(0, allowed)});
    if (attack.cut != tampering::never) attack.cut -= allowed;
    if (attack.cut != 0) return;
    m_isDead = true;
    if (attack.cut_closes) actions.push_back({peer_action::close});
  }

  std::unique_ptr<mailhost::session> m_session;
  tampering* m_attack;
  bool m_isDead = false;
};

class host_door : public mail_host {
 public:
  host_door(mailhost::mail_host& host, mailhost::protocol speaks, tampering* attack = nullptr)
      : m_host(host), m_speaks(speaks), m_attack(attack) {}
  std::unique_ptr<mail_peer> accept() override {
    return std::make_unique<host_peer>(m_host.connect(m_speaks), m_attack);
  }

 private:
  mailhost::mail_host& m_host;
  mailhost::protocol m_speaks;
  tampering* m_attack;
};

}  // namespace tav_test

#endif
