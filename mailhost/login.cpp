#include "login.h"

#include <algorithm>

#include "md5.h"
#include "text.h"

namespace mailhost {
namespace {

// key "=" ( token | quoted ), parted by commas. Nothing when the text is not that.
std::optional<std::map<std::string, std::string>> directives(std::string_view text) {
  std::map<std::string, std::string> found;
  while (!text.empty()) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    const std::string key(text.substr(0, equals));
    text.remove_prefix(equals + 1);
    const bool is_quoted = begins(text, "\"");
    if (is_quoted) text.remove_prefix(1);
    std::string value;
    size_t at = 0;
    for (; at < text.size() && text[at] != (is_quoted ? '"' : ','); ++at) {
      if (is_quoted && text[at] == '\\' && at + 1 < text.size()) ++at;
      value += text[at];
    }
    if (is_quoted && at++ == text.size()) return std::nullopt;
    if (at < text.size() && text[at] != ',') return std::nullopt;
    text.remove_prefix(std::min(at + 1, text.size()));
    if (!found.emplace(key, value).second) return std::nullopt;  // given twice
  }
  return found;
}

// Names and passwords in UTF-8 that ISO 8859-1 can hold are digested in that (RFC 2831, 2.1.2.1).
std::string for_digest(const std::string& utf8) {
  std::string latin;
  for (size_t i = 0; i < utf8.size(); ++i) {
    const auto byte = static_cast<unsigned char>(utf8[i]);
    if (byte < 0x80) {
      latin += utf8[i];
      continue;
    }
    const bool is_latin = (byte == 0xc2 || byte == 0xc3) && i + 1 < utf8.size();
    if (!is_latin) return utf8;
    latin += static_cast<char>((byte & 3) << 6 | (static_cast<unsigned char>(utf8[++i]) & 0x3f));
  }
  return latin;
}

// The response of the client, or with an empty `verb` that of the host. `secret` is
// user:realm:password.
std::string digest_response(std::map<std::string, std::string>& given, const std::string& secret,
                            const char* verb) {
  std::string a1 = md5(secret) + ":" + given["nonce"] + ":" + given["cnonce"];
  if (given.count("authzid") != 0) a1 += ":" + given["authzid"];
  const std::string a2 = std::string(verb) + ":" + given["digest-uri"];
  return hex(md5(hex(md5(a1)) + ":" + given["nonce"] + ":" + given["nc"] + ":" + given["cnonce"] +
                 ":auth:" + hex(md5(a2))));
}

}  // namespace

const sasl_login::method_entry sasl_login::table[] = {
    {"PLAIN", "", true, &sasl_login::plain},
    {"LOGIN", "Username:", true, &sasl_login::login},
    {"CRAM-MD5", nullptr, false, &sasl_login::cram_md5},
    {"DIGEST-MD5", nullptr, false, &sasl_login::digest_md5},
    {"OAUTHBEARER", "", true, &sasl_login::oauthbearer, true},
    {"XOAUTH2", "", true, &sasl_login::xoauth2, true},
};

const std::vector<std::string>& sasl_login::methods() {
  static const std::vector<std::string> names = {"PLAIN", "LOGIN", "CRAM-MD5", "DIGEST-MD5"};
  return names;
}

const std::vector<std::string>& sasl_login::bearer_methods() {
  static const std::vector<std::string> names = {"OAUTHBEARER", "XOAUTH2"};
  return names;
}

sasl_login::sasl_login(const std::string& method, const user_map& users, const host_words& words)
    : m_users(users), m_words(words), m_method(method) {
  for (const method_entry& entry : table)
    if (method == entry.name) m_entry = &entry;
}

sasl_login::verdict sasl_login::proceed(const std::optional<std::string>& response) {
  if (m_entry == nullptr) return refuse("the method is not known");
  if (m_isOver) return refuse("the login is over");
  verdict result = verdict::refused;
  if (response && !m_entry->takes_initial_response && m_challenge.empty())
    result = refuse("the method takes no initial response");
  else if (response)
    result = (this->*m_entry->check)(*response);
  else if (m_entry->first_challenge != nullptr)
    result = ask(m_entry->first_challenge);
  else if (m_method == "CRAM-MD5")
    result = ask("<" + m_words.nonce + "@" + m_words.realm + ">");
  else
    result = ask("realm=\"" + m_words.realm + "\",nonce=\"" + m_words.nonce +
                 "\",qop=\"auth\",charset=utf-8,algorithm=md5-sess");
  m_isOver = result != verdict::challenge;
  return result;
}

sasl_login::verdict sasl_login::ask(const std::string& challenge) {
  m_challenge = challenge;
  return verdict::challenge;
}

sasl_login::verdict sasl_login::refuse(const char* reason) {
  if (m_reason.empty()) m_reason = reason;
  return verdict::refused;
}

const std::string* sasl_login::password() {
  const auto found = m_users.find(m_user);
  if (found != m_users.end()) return &found->second;
  refuse("there is no such user");
  return nullptr;
}

// [authzid] NUL user NUL password; nobody acts for somebody else here.
sasl_login::verdict sasl_login::plain(const std::string& response) {
  const size_t first = response.find('\0');
  const size_t second = first == std::string::npos ? first : response.find('\0', first + 1);
  if (second == std::string::npos) return refuse("PLAIN is [authzid] NUL user NUL password");
  m_user = response.substr(first + 1, second - first - 1);
  if (first != 0 && response.substr(0, first) != m_user)
    return refuse("nobody may act for another user");
  const std::string* const secret = password();
  return grant_if(secret != nullptr && response.substr(second + 1) == *secret);
}

sasl_login::verdict sasl_login::login(const std::string& response) {
  if (m_answers++ == 0) {
    m_user = response;
    return ask("Password:");
  }
  const std::string* const secret = password();
  return grant_if(secret != nullptr && response == *secret);
}

// user SP digest; the user may hold blanks.
sasl_login::verdict sasl_login::cram_md5(const std::string& response) {
  const size_t blank = response.rfind(' ');
  if (blank == std::string::npos) return refuse("CRAM-MD5 is user SP digest");
  m_user = response.substr(0, blank);
  const std::string* const key = password();
  return grant_if(key != nullptr && response.substr(blank + 1) == hex(hmac_md5(*key, m_challenge)));
}

// The second answer is empty: it follows the proof that the host knows the password as well.
sasl_login::verdict sasl_login::digest_md5(const std::string& response) {
  if (m_answers++ != 0)
    return response.empty() ? verdict::granted : refuse("the answer to rspauth is empty");
  auto given = directives(response);
  if (!given) return refuse("a list of key=value is expected, each key once");
  auto& the = *given;
  m_user = the["username"];
  if (the["realm"] != m_words.realm) return refuse("the realm is another one");
  if (the["nonce"] != m_words.nonce) return refuse("the nonce is another one");
  if (the["nc"] != "00000001") return refuse("nc is 00000001 at first");
  if (the["cnonce"].empty()) return refuse("there is no cnonce");
  if (the.count("qop") != 0 && the["qop"] != "auth") return refuse("qop is auth");
  if (!begins(the["digest-uri"], m_words.service + "/"))
    return refuse("the digest-uri is of another service");
  const std::string* const key = password();
  if (key == nullptr) return verdict::refused;
  const std::string utf8 = m_user + ":" + m_words.realm + ":" + *key;
  const std::string secret =
      for_digest(m_user) + ":" + for_digest(m_words.realm) + ":" + for_digest(*key);
  if (the["response"] == digest_response(the, secret, "AUTHENTICATE"))
    return ask("rspauth=" + digest_response(the, secret, ""));
  return the["response"] == digest_response(the, utf8, "AUTHENTICATE")
             ? refuse("the digest is of UTF-8 where ISO 8859-1 is due (RFC 2831, 2.1.2.1)")
             : grant_if(false);
}

// The name may have "=2C" and "=3D" for "," and "=".
sasl_login::verdict sasl_login::oauthbearer(const std::string& response) {
  const size_t fields = response.find('\1');
  if (m_answers == 0 &&
      (!begins(response, "n,a=") || fields == std::string::npos || response[fields - 1] != ','))
    return refuse("OAUTHBEARER is n,a=user, and fields");
  if (m_answers > 0) return response == "\1" ? refuse("") : refuse("the answer is one byte 1");
  std::string user = response.substr(4, fields - 5);
  for (const auto& [escape, ch] : {std::pair{"=2C", ','}, {"=3D", '='}})
    for (size_t at = 0; (at = user.find(escape, at)) != std::string::npos; ++at)
      user.replace(at, 3, 1, ch);
  return bearer(user, std::string_view(response).substr(fields));
}

sasl_login::verdict sasl_login::xoauth2(const std::string& response) {
  if (m_answers > 0) return response.empty() ? refuse("") : refuse("the answer is empty");
  const size_t fields = response.find('\1');
  if (!begins(response, "user=") || fields == std::string::npos)
    return refuse("XOAUTH2 is user=, and fields");
  return bearer(response.substr(5, fields - 5), std::string_view(response).substr(fields));
}

// A wrong token is told in JSON, and refused after the client's answer.
sasl_login::verdict sasl_login::bearer(const std::string& user, std::string_view fields) {
  constexpr std::string_view kField = "\1auth=Bearer ";
  ++m_answers;
  m_user = user;
  const size_t at = fields.find(kField);
  if (at == fields.npos || fields.size() < 2 || fields.substr(fields.size() - 2) != "\1\1")
    return refuse("there is no field auth=Bearer");
  const std::string_view rest = fields.substr(at + kField.size());
  const std::string* const token = password();
  if (token != nullptr && rest.substr(0, rest.find('\1')) == *token) return verdict::granted;
  if (token != nullptr) refuse("the token is another one");
  return ask("{\"status\":\"invalid_token\"}");
}

}  // namespace mailhost
