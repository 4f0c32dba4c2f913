// tampered_host.h - an attacker between the client and a host of the tests: what the host says is
// cut off, replaced, or followed by something that never ends.

#ifndef TESTS_SUPPORT_TAMPERED_HOST_H
#define TESTS_SUPPORT_TAMPERED_HOST_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "mail_peer.h"

namespace tav_test {

// What is done, counted over all hosts and connections that share the record, and what went by. It
// ends when `active` becomes false: from then on everything passes.
struct tampering {
  static constexpr size_t never = SIZE_MAX;

  size_t cut = never;        // only so many bytes pass; then silence
  bool cut_closes = false;   // or the connection is closed instead
  size_t replaced = never;   // of the things that are said, from 1, this one is replaced
  std::string replacement;   // "" for silence
  std::string endless;       // follows the replacement again and again
  size_t endless_bytes = 0;  // at most so many, then silence
  bool active = true;

  size_t said = 0;   // things said by the host; a greeting or a reply, of however many lines
  size_t bytes = 0;  // of them
};

class tampered_host : public mail_host {
 public:
  tampered_host(mail_host& host, tampering& what) : m_host(host), m_what(what) {}
  std::unique_ptr<mail_peer> accept() override {
    return std::make_unique<peer>(m_host.accept(), m_what);
  }

 private:
  class peer : public mail_peer {
   public:
    peer(std::unique_ptr<mail_peer> inner, tampering& what)
        : m_inner(std::move(inner)), m_what(what) {}

    void connected(bool tls) override {
      m_inner->connected(tls);
      pass_on();
    }
    void received(std::string_view bytes) override {
      m_inner->received(bytes);
      pass_on();
    }
    void tls_started() override {
      m_inner->tls_started();
      pass_on();
    }
    void closed() override { m_inner->closed(); }
    void starved() override {
      if (!m_isEndless || !m_what.active || m_what.endless_bytes < m_what.endless.size()) return;
      m_what.endless_bytes -= m_what.endless.size();
      actions.push_back({peer_action::send, m_what.endless});
    }

   private:
    void pass_on() {
      for (; !m_inner->actions.empty(); m_inner->actions.pop_front()) {
        peer_action& action = m_inner->actions.front();
        if (m_isDead) continue;
        if (m_what.active && action.kind == peer_action::send) {
          tamper(action.bytes);
        } else {
          actions.push_back(std::move(action));
        }
      }
    }

    void tamper(const std::string& bytes) {
      const bool is_replaced = ++m_what.said == m_what.replaced;
      m_what.bytes += bytes.size();
      if (is_replaced) {
        if (!m_what.replacement.empty()) actions.push_back({peer_action::send, m_what.replacement});
        m_isEndless = !m_what.endless.empty();
        m_isDead = m_isEndless || m_what.replacement.empty();
        return;
      }
      const size_t allowed = bytes.size() < m_what.cut ? bytes.size() : m_what.cut;
      if (allowed > 0) actions.push_back({peer_action::send, bytes.substr(0, allowed)});
      if (m_what.cut != tampering::never) m_what.cut -= allowed;
      if (m_what.cut != 0) return;
      m_isDead = true;
      if (m_what.cut_closes) actions.push_back({peer_action::close});
    }

    std::unique_ptr<mail_peer> m_inner;
    tampering& m_what;
    bool m_isDead = false;
    bool m_isEndless = false;
  };

  mail_host& m_host;
  tampering& m_what;
};

}  // namespace tav_test

#endif
