#include "web_form.h"

#include <curl/curl.h>
#include <malloc.h>
#include <openssl/ssl.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "exchange.h"
#include "interrupt.h"
#include "problem.h"

namespace tavmail {

namespace {

constexpr size_t kMostAnswer = 65536;

// Memory that libcurl gives back is wiped: it held secrets.
void give_back(void* block) {
  if (block != nullptr) explicit_bzero(block, malloc_usable_size(block));
  std::free(block);
}

void* take_more(void* block, size_t size) {
  void* const grown = std::malloc(size);
  if (grown == nullptr) return nullptr;
  if (block != nullptr) std::memcpy(grown, block, std::min(size, malloc_usable_size(block)));
  give_back(block);
  return grown;
}

void start_library() {
  static const CURLcode started = curl_global_init_mem(CURL_GLOBAL_DEFAULT, std::malloc, give_back,
                                                       take_more, strdup, std::calloc);
  if (started != CURLE_OK) throw problem(EX_OSERR, "libcurl cannot be started");
}

using url_handle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;
using text_handle = std::unique_ptr<char, decltype(&curl_free)>;

// One part of an address, "" when it has none.
std::string part_of(const std::string& url, CURLUPart part) {
  start_library();
  const url_handle parsed(curl_url(), curl_url_cleanup);
  char* text = nullptr;
  if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
      curl_url_get(parsed.get(), part, &text, 0) != CURLUE_OK) {
    return {};
  }
  return text_handle(text, curl_free).get();
}

bool is_on_this_machine(const std::string& host) {
  return host == "localhost" || host == "127.0.0.1" || host == "[::1]";
}

size_t take_text(char* bytes, size_t, size_t count, void* answer) {
  std::string& text = static_cast<web_answer*>(answer)->text;
  if (text.size() + count > kMostAnswer) return 0;
  text.append(bytes, count);
  return count;
}

size_t take_header(char* bytes, size_t, size_t count, void* answer) {
  constexpr char kDate[] = "date:";
  const std::string line(bytes, std::min<size_t>(count, 100));
  if (strncasecmp(line.c_str(), kDate, sizeof kDate - 1) == 0) {
    static_cast<web_answer*>(answer)->date =
        std::max<std::time_t>(curl_getdate(line.c_str() + sizeof kDate - 1, nullptr), 0);
  }
  return count;
}

// What was read under TLS is wiped, too.
CURLcode cleanse(CURL*, void* context, void*) {
  SSL_CTX_set_options(static_cast<SSL_CTX*>(context), SSL_OP_CLEANSE_PLAINTEXT);
  return CURLE_OK;
}

int is_to_end(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return interrupt_guard::was_pressed() ? 1 : 0;
}

// What went wrong without an answer, for a person.
problem failure(CURLcode code, const std::string& host, const std::string& details) {
  interrupt_guard::check();
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return problem(EX_NOHOST, "cannot find the provider \"" + host + "\"",
                     "check its name and the name service");
    case CURLE_PEER_FAILED_VERIFICATION:
      return problem(EX_PROTOCOL, "the certificate of " + host + " was refused: " + details,
                     says(details, "not yet valid") || says(details, "expired")
                         ? "set this machine's clock"
                         : "trust its issuer with the key ca_file");
    case CURLE_OPERATION_TIMEDOUT:
      return problem(EX_TEMPFAIL, host + " does not answer in time", "try again later");
    case CURLE_WRITE_ERROR:
      return problem(EX_PROTOCOL, host + " gave an answer that is too long", "check the endpoints");
    default:
      return problem(EX_TEMPFAIL, "no answer from " + host + " (" + details + ")",
                     "check the endpoints, or try again later");
  }
}

// A request. What it holds is wiped.
class request {
 public:
  request() : m_handle(curl_easy_init(), curl_easy_cleanup) {
    if (!m_handle) throw problem(EX_OSERR, "out of memory");
  }

  template <typename Value>
  void set(CURLoption option, Value value) {
    if (curl_easy_setopt(m_handle.get(), option, value) != CURLE_OK) {
      throw problem(EX_SOFTWARE, "libcurl lacks what is needed here");
    }
  }

  web_answer send(const std::string& host) {
    // Some give forms to who does not ask for this.
    const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
        curl_slist_append(nullptr, "Accept: application/json"), curl_slist_free_all);
    set(CURLOPT_HTTPHEADER, headers.get());
    web_answer answer;
    char details[CURL_ERROR_SIZE] = "";
    set(CURLOPT_ERRORBUFFER, details);
    set(CURLOPT_WRITEFUNCTION, take_text);
    set(CURLOPT_WRITEDATA, static_cast<void*>(&answer));
    set(CURLOPT_HEADERFUNCTION, take_header);
    set(CURLOPT_HEADERDATA, static_cast<void*>(&answer));
    const CURLcode code = curl_easy_perform(m_handle.get());
    if (code != CURLE_OK) {
      throw failure(code, host, presentable(*details != '\0' ? details : curl_easy_strerror(code)));
    }
    curl_easy_getinfo(m_handle.get(), CURLINFO_RESPONSE_CODE, &answer.status);
    return answer;
  }

  std::string escaped(std::string_view text) {
    const text_handle word(
        curl_easy_escape(m_handle.get(), text.data(), static_cast<int>(text.size())), curl_free);
    if (!word) throw problem(EX_OSERR, "out of memory");
    return word.get();
  }

 private:
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> m_handle;
};

}  // namespace

web_answer send_form(const std::string& url, const form_fields& fields,
                     const web_settings& settings) {
  if (!is_safe_address(url)) throw problem(EX_CONFIG, url + ": expected an address with https");
  const std::string host = host_of(url);
  const auto patience = static_cast<long>(std::max<long long>(settings.patience.count(), 1));
  request post;
  std::string form;
  for (const auto& [name, value] : fields) {
    form += (form.empty() ? "" : "&") + std::string(name) + "=" + post.escaped(value);
  }
  post.set(CURLOPT_URL, url.c_str());
  post.set(CURLOPT_PROTOCOLS_STR, is_on_this_machine(host) ? "https,http" : "https");
  // In clear, nobody else's proxy gets it.
  if (is_on_this_machine(host)) post.set(CURLOPT_NOPROXY, "*");
  post.set(CURLOPT_FOLLOWLOCATION, 0L);
  post.set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  post.set(CURLOPT_SSL_CTX_FUNCTION, cleanse);
  if (!settings.ca_file.empty()) post.set(CURLOPT_CAINFO, settings.ca_file.c_str());
  post.set(CURLOPT_NOSIGNAL, 1L);
  post.set(CURLOPT_TIMEOUT_MS, patience);
  post.set(CURLOPT_NOPROGRESS, 0L);
  post.set(CURLOPT_XFERINFOFUNCTION, is_to_end);
  post.set(CURLOPT_POSTFIELDSIZE, static_cast<long>(form.size()));
  post.set(CURLOPT_POSTFIELDS, form.c_str());
  return post.send(host);
}

bool is_safe_address(const std::string& url) {
  const std::string scheme = part_of(url, CURLUPART_SCHEME);
  const bool has_user = !part_of(url, CURLUPART_USER).empty();
  return !has_user && (scheme == "https" || (scheme == "http" && is_on_this_machine(host_of(url))));
}

std::string host_of(const std::string& url) { return part_of(url, CURLUPART_HOST); }

}  // namespace tavmail
