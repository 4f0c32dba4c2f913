// host_peer.h - the practice mail server as a peer of the scripted platform, with an attacker in
// between: what the host says is cut off, replaced, or followed by something that never ends.
//
//   mailhost::mail_host host;
//   host_door smtp(host, mailhost::protocol::smtp);
//   net.serve("192.0.2.1", 25, smtp);

#ifndef TESTS_SUPPORT_HOST_PEER_H
#define TESTS_SUPPORT_HOST_PEER_H

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "mail_host.h"
#include "mail_peer.h"

namespace tav_test {

// What is done, counted over all connections that share the record, and what went by. It ends when
// `active` becomes false: from then on everything passes.
struct tampering {
  static constexpr size_t never = SIZE_MAX;

  size_t cut = never;        // only so many bytes pass; then silence
  bool cut_closes = false;   // or the connection is closed instead
  size_t replaced = never;   // of the things that are said, from 1, this one is replaced
  std::string replacement;   // "" for silence
  std::string endless;       // follows the replacement again and again
  size_t endless_bytes = 0;  // at most so many, then silence
  bool active = false;

  size_t said = 0;   // things said by the host; a greeting or a reply, of however many lines
  size_t bytes = 0;  // of them
};

class host_door : public mail_host {
 public:
  host_door(mailhost::mail_host& host, mailhost::protocol speaks, tampering* attack = nullptr)
      : m_host(host), m_speaks(speaks), m_attack(attack) {}
  std::unique_ptr<mail_peer> accept() override {
    return std::make_unique<peer>(m_host.connect(m_speaks), m_attack);
  }

 private:
  class peer : public mail_peer {
   public:
    peer(std::unique_ptr<mailhost::session> session, tampering* attack)
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
    void closed() override { m_session->closed(); }
    void starved() override {
      if (!m_isEndless || !m_attack->active) return;
      if (m_attack->endless_bytes < m_attack->endless.size()) return;
      m_attack->endless_bytes -= m_attack->endless.size();
      actions.push_back({peer_action::send, m_attack->endless});
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
    void pass_on(mailhost::action& action) {
      switch (action.kind) {
        case mailhost::action::send:
          if (m_attack != nullptr && m_attack->active) return tamper(action.bytes);
          return actions.push_back({peer_action::send, std::move(action.bytes)});
        case mailhost::action::wait:
          return;
        case mailhost::action::start_tls:
          return actions.push_back({peer_action::start_tls});
        default:
          return actions.push_back({peer_action::close});
      }
    }

    void tamper(const std::string& bytes) {
      tampering& attack = *m_attack;
      attack.bytes += bytes.size();
      if (++attack.said == attack.replaced) {
        if (!attack.replacement.empty()) actions.push_back({peer_action::send, attack.replacement});
        m_isEndless = !attack.endless.empty();
        m_isDead = m_isEndless || attack.replacement.empty();
        return;
      }
      const size_t allowed = std::min(bytes.size(), attack.cut);
      if (allowed > 0) actions.push_back({peer_action::send, bytes.substr(0, allowed)});
      if (attack.cut != tampering::never) attack.cut -= allowed;
      if (attack.cut != 0) return;
      m_isDead = true;
      if (attack.cut_closes) actions.push_back({peer_action::close});
    }

    std::unique_ptr<mailhost::session> m_session;
    tampering* m_attack;
    bool m_isDead = false;
    bool m_isEndless = false;
  };

  mailhost::mail_host& m_host;
  mailhost::protocol m_speaks;
  tampering* m_attack;
};

}  // namespace tav_test

#endif
