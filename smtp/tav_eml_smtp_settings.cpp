#include "quorvelmida/tav_eml_smtp_settings.h"

#include <cstring>
#include <memory>

#include "common/secret.h"
#include "common/text.h"

namespace quorvelmida {

namespace {

constexpr char kDefaultHeloDomain[] = "localhost";

// A deep copy; null for null.
std::unique_ptr<tav_eml_pop3_settings> copy_pop3(const tav_eml_pop3_settings* source) {
  if (source == nullptr) return nullptr;
  auto copy = std::make_unique<tav_eml_pop3_settings>(_tav_eml_pop3_setting());
  *copy = *source;
  return copy;
}

}  // namespace

tav_eml_smtp_settings::tav_eml_smtp_settings(const _tav_eml_smtp_setting& setting)
    : auth_kind(setting.auth_kind),
      server(text_of(setting.server)),
      port(setting.port),
      timeout(setting.timeout),
      pop3_settings(nullptr),
      user_id(text_of(setting.user_id)),
      password(text_of(setting.password)),
      helo_domain(setting.helo_domain.IsEmpty() ? kDefaultHeloDomain
                                                : setting.helo_domain.GetString()),
      size_limit(setting.size_limit),
      pop_wait(setting.pop_wait),
      addr_selector(setting.addr_selector),
      tlsmode(setting.tlsmode) {
  std::memcpy(tls_opt, setting.tls_opt, sizeof tls_opt);
  pop3_settings = copy_pop3(setting.pop3_settings).release();
}

tav_eml_smtp_settings::tav_eml_smtp_settings(const tav_eml_smtp_settings& other)
    : tav_eml_smtp_settings(_tav_eml_smtp_setting()) {
  *this = other;
}

tav_eml_smtp_settings& tav_eml_smtp_settings::operator=(const tav_eml_smtp_settings& other) {
  if (this == &other) return *this;
  auth_kind = other.auth_kind;
  server.CopyString(other.server);
  port = other.port;
  timeout = other.timeout;
  // The object held before is not deleted: the application may have kept its address.
  pop3_settings = copy_pop3(other.pop3_settings).release();
  user_id = other.user_id;
  replace_text(password, other.password);
  helo_domain = other.helo_domain;
  size_limit = other.size_limit;
  pop_wait = other.pop_wait;
  addr_selector = other.addr_selector;
  tlsmode = other.tlsmode;
  std::memcpy(tls_opt, other.tls_opt, sizeof tls_opt);
  return *this;
}

tav_eml_smtp_settings::~tav_eml_smtp_settings() {
  wipe_text(password);
  delete pop3_settings;
}

}  // namespace quorvelmida
