// The module over libcurl; qr_code.cpp brings libqrencode.

#include <curl/curl.h>
#include <malloc.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "authorize_library.h"
#include "module.h"
#include "problem.h"
#include "qr_code.h"

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
  const CURLcode started = curl_global_init_mem(CURL_GLOBAL_DEFAULT, std::malloc, give_back,
                                                take_more, strdup, std::calloc);
  if (started != CURLE_OK) throw problem(EX_OSERR, "libcurl cannot be started");
}

using url_handle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;
using text_handle = std::unique_ptr<char, decltype(&curl_free)>;

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

int is_to_end(void* request, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<const web_request*>(request)->is_to_end() ? 1 : 0;
}

web_fault certificate_fault(CURL* handle) {
  long result = X509_V_OK;
  curl_easy_getinfo(handle, CURLINFO_SSL_VERIFYRESULT, &result);
  if (result == X509_V_ERR_CERT_HAS_EXPIRED) return web_fault::expired_certificate;
  if (result == X509_V_ERR_CERT_NOT_YET_VALID) return web_fault::early_certificate;
  return web_fault::bad_certificate;
}

web_fault kind_of(CURLcode code, CURL* handle) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
      return web_fault::no_such_host;
    case CURLE_PEER_FAILED_VERIFICATION:
      return certificate_fault(handle);
    case CURLE_OPERATION_TIMEDOUT:
      return web_fault::too_late;
    case CURLE_WRITE_ERROR:
      return web_fault::too_long;
    default:
      return web_fault::other;
  }
}

CURLUPart part_in_curl(url_part part) {
  switch (part) {
    case url_part::scheme:
      return CURLUPART_SCHEME;
    case url_part::user:
      return CURLUPART_USER;
    default:
      return CURLUPART_HOST;
  }
}

// A request. What it holds is wiped.
class transfer {
 public:
  transfer() : m_handle(curl_easy_init(), curl_easy_cleanup) {
    if (!m_handle) throw problem(EX_OSERR, "out of memory");
  }

  template <typename Value>
  void set(CURLoption option, Value value) {
    if (curl_easy_setopt(m_handle.get(), option, value) != CURLE_OK) {
      throw problem(EX_SOFTWARE, "libcurl lacks what is needed here");
    }
  }

  web_answer send() {
    // Some providers answer with a form unless they are asked for JSON.
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
      throw web_failure{kind_of(code, m_handle.get()),
                        *details != '\0' ? details : curl_easy_strerror(code)};
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

class curl_library : public authorize_library {
 public:
  curl_library() { start_library(); }

  std::string part_of(const std::string& url, url_part part) const override {
    const url_handle parsed(curl_url(), curl_url_cleanup);
    char* text = nullptr;
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
        curl_url_get(parsed.get(), part_in_curl(part), &text, 0) != CURLUE_OK) {
      return {};
    }
    return text_handle(text, curl_free).get();
  }

  web_answer send(const web_request& request) const override {
    const auto patience =
        static_cast<long>(std::max<long long>(request.settings.patience.count(), 1));
    transfer post;
    std::string form;
    for (const auto& [name, value] : request.fields) {
      form += (form.empty() ? "" : "&") + std::string(name) + "=" + post.escaped(value);
    }
    post.set(CURLOPT_URL, request.url.c_str());
    post.set(CURLOPT_PROTOCOLS_STR, request.is_on_this_machine ? "https,http" : "https");
    // In clear, nobody else's proxy gets it.
    if (request.is_on_this_machine) post.set(CURLOPT_NOPROXY, "*");
    post.set(CURLOPT_FOLLOWLOCATION, 0L);
    post.set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    post.set(CURLOPT_SSL_CTX_FUNCTION, cleanse);
    if (!request.settings.ca_file.empty())
      post.set(CURLOPT_CAINFO, request.settings.ca_file.c_str());
    post.set(CURLOPT_NOSIGNAL, 1L);
    post.set(CURLOPT_TIMEOUT_MS, patience);
    post.set(CURLOPT_NOPROGRESS, 0L);
    post.set(CURLOPT_XFERINFOFUNCTION, is_to_end);
    post.set(CURLOPT_XFERINFODATA, static_cast<const void*>(&request));
    post.set(CURLOPT_POSTFIELDSIZE, static_cast<long>(form.size()));
    post.set(CURLOPT_POSTFIELDS, form.c_str());
    return post.send();
  }

  std::string qr_code(const std::string& text, int columns) const override {
    return tavmail::qr_code(text, columns);
  }
};

}  // namespace

}  // namespace tavmail

const void* tavmail_module() {
  static const tavmail::curl_library library;
  return static_cast<const tavmail::authorize_library*>(&library);
}
