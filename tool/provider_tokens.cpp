#include "provider_tokens.h"

#include <cstring>
#include <sstream>

namespace tavmail {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using clock = std::chrono::steady_clock;

constexpr int64_t kLastSeconds = 60;  // a token must not run out on its way
constexpr seconds kUsualClockError{300};

bool has_run_out(std::time_t expires) { return expires != 0 && std::time(nullptr) >= expires; }

bool is_same(const secret_text& a, const secret_text* b) {
  return b != nullptr && std::strcmp(a.text(), b->text()) == 0;
}

std::string duration(seconds time) {
  const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(time).count();
  if (minutes < 1) return std::to_string(time.count()) + " s";
  return minutes < 120 ? std::to_string(minutes) + " min" : std::to_string(minutes / 60) + " h";
}

class provider_tokens : public token_source {
 public:
  explicit provider_tokens(const token_provider& provider)
      : m_provider(provider), m_endpoint(m_provider), m_store(m_provider) {}

  std::string description() const override {
    std::string text = "of " + m_provider.host();
    if (m_expires != 0) {
      text += ", good for " + duration(seconds(m_expires - std::time(nullptr)));
    }
    const std::string granted = scope();
    if (!granted.empty()) text += ", for " + granted;
    const std::string missing = missing_scope(m_provider.scope, granted);
    return text + (missing.empty() ? "" : "; not granted: " + missing) + clock_text("; ");
  }

  finding advise(const std::string& user) const override {
    const std::string wrong_clock = clock_text("");
    if (!wrong_clock.empty()) return {EX_NOPERM, wrong_clock, "set this machine's clock"};
    return {EX_NOPERM, "",
            "check that " + user +
                " is who gave the consent, and that the key scope is what the "
                "server wants; then run tavmail authorize " +
                m_provider.account + " again"};
  }

  std::string scope() const override { return m_scope.empty() ? m_provider.scope : m_scope; }
  void examine() override { m_isExamined = true; }

 protected:
  bool is_over() const override { return has_run_out(m_expires); }

  secret_text fetch(bool is_refused, milliseconds patience) override {
    const auto end = clock::now() + patience;
    const auto left = [&] {
      return std::max(std::chrono::duration_cast<milliseconds>(end - clock::now()),
                      milliseconds(1));
    };
    const token_store::lock lock(m_store, patience);
    kept_tokens kept = m_store.load(left());
    // Another run may have got a new one in the meantime.
    const bool is_usable = kept.access && !has_run_out(kept.expires) &&
                           !(is_refused && is_same(*kept.access, latest()));
    const bool is_examined = std::exchange(m_isExamined, false);
    if (!is_usable || is_examined) {
      m_store.reserve();
      token_grant grant = m_endpoint.refresh(kept.refresh, left());
      const bool is_new = grant.refresh.has_value();
      kept = kept_of(std::move(grant), &kept);
      m_store.save(kept, is_new, m_provider.patience());
    }
    m_expires = kept.expires;
    m_scope = kept.scope;
    return std::move(*kept.access);
  }

 private:
  // "" when the clocks agree.
  std::string clock_text(const char* before) const {
    const seconds error = m_endpoint.clock_error();
    if (std::chrono::abs(error) <= kUsualClockError) return {};
    return before + ("this machine's clock is " + duration(std::chrono::abs(error))) +
           (error > seconds(0) ? " behind" : " before") + " that of " + m_provider.host();
  }

  const token_provider m_provider;
  token_endpoint m_endpoint;
  token_store m_store;
  std::time_t m_expires = 0;
  std::string m_scope;
  bool m_isExamined = false;
};

}  // namespace

std::shared_ptr<token_source> tokens_of_provider(const token_provider& provider) {
  provider.complete();
  return std::make_shared<provider_tokens>(provider);
}

kept_tokens kept_of(token_grant grant, kept_tokens* before) {
  kept_tokens kept = {grant.refresh ? std::move(*grant.refresh) : std::move(before->refresh),
                      std::move(grant.access), 0, std::move(grant.scope)};
  const int64_t lifetime = grant.lifetime.count();
  if (lifetime > 0) {
    kept.expires = std::time(nullptr) + lifetime - std::min(kLastSeconds, lifetime / 2);
  }
  if (kept.scope.empty() && before != nullptr) kept.scope = before->scope;
  return kept;
}

std::string missing_scope(const std::string& wanted, const std::string& granted) {
  std::istringstream words(wanted);
  std::string missing;
  for (std::string word; words >> word;) {
    if ((" " + granted + " ").find(" " + word + " ") != std::string::npos) continue;
    missing += (missing.empty() ? "" : " ") + word;
  }
  return missing;
}

}  // namespace tavmail
