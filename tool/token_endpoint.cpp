#include "token_endpoint.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <nlohmann/json.hpp>

#include "exchange.h"
#include "json_text.h"
#include "problem.h"
#include "received_text.h"
#include "secret_echo.h"
#include "words.h"

namespace tavmail {

namespace {

using json = nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kDeviceGrant[] = "urn:ietf:params:oauth:grant-type:device_code";
constexpr int64_t kLongestConsent = 24 * 60 * 60;  // seconds
constexpr int64_t kLongestInterval = 300;
constexpr int64_t kUsualInterval = 5;  // RFC 8628, 3.2
constexpr int64_t kLongestToken = 10LL * 365 * 24 * 60 * 60;

bool is_secret(const std::string& name) {
  return name == "refresh_token" || name == "device_code" || name == "client_secret";
}

// What the provider says, without the secrets that it may repeat.
std::string shown(const std::string& text, const form_fields& fields) {
  secret_echo secrets;
  for (const auto& [name, value] : fields) {
    if (!is_secret(name)) continue;
    for (const char ch : value) secrets.add(ch);
    secrets.end();
  }
  return presentable(secrets.masked(text)).substr(0, 300);
}

// The variable of the environment, "" when it is not set.
std::string variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

bool is_printable(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](char ch) { return ch > ' ' && ch <= '~'; });
}

// An address that a person is sent to.
bool is_address(const std::string& text) {
  constexpr size_t kLongest = 1000;
  const bool is_web = text.rfind("https://", 0) == 0 || text.rfind("http://", 0) == 0;
  return is_web && is_printable(text) && text.size() <= kLongest;
}

}  // namespace

struct token_endpoint::answer {
  json document;
  long status = 0;
  std::string error;        // of RFC 6749, 5.2; "" for none
  std::string description;  // what the provider says of it

  std::string text(const char* key) const { return text_at(document, key); }
  // Of a number, or a text that is one; `otherwise` for anything else.
  int64_t number(const char* key, int64_t otherwise) const {
    const auto found = document.find(key);
    if (found == document.end()) return otherwise;
    if (found->is_number_integer()) return found->get<int64_t>();
    if (found->is_number()) {
      return static_cast<int64_t>(std::clamp(found->get<double>(), 0.0, 1e12));
    }
    const std::string digits = text(key);
    const bool is_number = !digits.empty() && digits.size() < 12 &&
                           digits.find_first_not_of("0123456789") == digits.npos;
    return is_number ? std::atoll(digits.c_str()) : otherwise;
  }
};

token_endpoint::token_endpoint(const token_provider& provider)
    : m_provider(provider),
      m_host(provider.host()),
      m_caFile(provider.ca_file.empty() ? variable("SSL_CERT_FILE") : provider.ca_file) {
  if (!provider.client_secret_file.empty()) {
    m_clientSecret = read_secret_file(provider.client_secret_file, "client_secret_file");
  }
}

token_endpoint::answer token_endpoint::send(const std::string& url, const form_fields& fields,
                                            milliseconds patience) {
  form_fields all = fields;
  all.emplace_back("client_id", m_provider.client_id);
  if (m_clientSecret) all.emplace_back("client_secret", m_clientSecret->text());
  const web_answer given = send_form(url, all, {m_caFile, patience});
  if (given.date != 0) m_clockError = seconds(given.date - std::time(nullptr));
  answer result;
  result.status = given.status;
  result.document = json::parse(given.text, nullptr, false);
  if (!result.document.is_object()) result.document = json::object();
  result.error = shown(result.text("error"), all);
  result.description = shown(result.text("error_description"), all);
  const bool is_good = given.status >= 200 && given.status < 300;
  if (!is_good && result.error.empty()) {
    result.error = "HTTP status " + std::to_string(given.status);
  }
  return result;
}

void token_endpoint::refuse(const answer& given, const std::string& what) const {
  const std::string said =
      given.error + (given.description.empty() ? "" : ": " + given.description);
  const std::string cause = m_host + " refused " + what + " (" + said + ")";
  const auto is = [&](const char* name) { return given.error == name; };
  const std::string again = "run tavmail authorize " + m_provider.account + " again";
  if (given.status == 429 || given.status >= 500 || is("temporarily_unavailable")) {
    throw problem(EX_TEMPFAIL, cause, "try again later");
  }
  if (is("access_denied") || is("invalid_grant")) throw problem(EX_NOPERM, cause, again);
  if (is("invalid_scope")) throw problem(EX_CONFIG, cause, "check the key scope");
  if (is("invalid_client") || is("unauthorized_client") || is("unsupported_grant_type")) {
    throw problem(EX_CONFIG, cause, "check client_id, and that it may use device codes there");
  }
  throw problem(EX_UNAVAILABLE, cause, "check the endpoints");
}

void token_endpoint::refuse_nonsense(const char* endpoint, const std::string& what) const {
  throw problem(EX_PROTOCOL, m_host + " gave an answer " + what, "check " + std::string(endpoint));
}

consent_request token_endpoint::begin(milliseconds patience) {
  constexpr char kName[] = "device_endpoint";
  const answer given = send(m_provider.device_endpoint, {{"scope", m_provider.scope}}, patience);
  if (!given.error.empty()) refuse(given, "to begin a consent");
  const std::string code = given.text("device_code");
  if (code.empty()) refuse_nonsense(kName, "without a device code");
  consent_request request = {
      token_text(code, "the device code of " + m_host),
      given.text("user_code"),
      given.text("verification_uri"),
      given.text("verification_uri_complete"),
      seconds(std::clamp<int64_t>(given.number("expires_in", 600), 1, kLongestConsent)),
      seconds(std::clamp<int64_t>(given.number("interval", kUsualInterval), 1, kLongestInterval))};
  // The name of drafts, which some still use.
  if (request.address.empty()) request.address = given.text("verification_url");
  if (!is_address(request.address)) refuse_nonsense(kName, "without an address to open");
  if (!is_address(request.full_address)) request.full_address.clear();
  if (!is_printable(request.user_code) || request.user_code.size() > 100) {
    refuse_nonsense(kName, "without a code to enter");
  }
  return request;
}

std::optional<token_grant> token_endpoint::ask(consent_request& request, milliseconds patience) {
  const answer given =
      send(m_provider.token_endpoint,
           {{"grant_type", kDeviceGrant}, {"device_code", request.device_code.text()}}, patience);
  if (given.error == "authorization_pending") return std::nullopt;
  if (given.error == "slow_down") {
    request.interval += seconds(5);  // RFC 8628, 3.5
    return std::nullopt;
  }
  if (given.error == "expired_token") {
    request.lifetime = seconds(0);
    return std::nullopt;
  }
  if (!given.error.empty()) refuse(given, "the consent");
  token_grant grant = grant_of(given);
  if (!grant.refresh) {
    throw problem(EX_CONFIG, m_host +
                                 " gave no refresh token; the scope may lack the word for it, "
                                 "often offline_access");
  }
  return grant;
}

token_grant token_endpoint::refresh(const secret_text& token, milliseconds patience) {
  const answer given =
      send(m_provider.token_endpoint,
           {{"grant_type", "refresh_token"}, {"refresh_token", token.text()}}, patience);
  if (!given.error.empty()) refuse(given, "the refresh token");
  return grant_of(given);
}

token_grant token_endpoint::grant_of(const answer& given) const {
  constexpr char kName[] = "token_endpoint";
  const std::string access = given.text("access_token");
  if (access.empty()) refuse_nonsense(kName, "without a token");
  const std::string kind = lower_case(given.text("token_type"));
  if (!kind.empty() && kind != "bearer") refuse_nonsense(kName, "with a token of another type");
  token_grant grant = {
      token_text(access, "the access token of " + m_host), std::nullopt,
      seconds(std::clamp<int64_t>(given.number("expires_in", 0), 0, kLongestToken)),
      presentable(given.text("scope"))};
  const std::string refresh = given.text("refresh_token");
  if (!refresh.empty()) grant.refresh = token_text(refresh, "the refresh token of " + m_host);
  return grant;
}

}  // namespace tavmail
