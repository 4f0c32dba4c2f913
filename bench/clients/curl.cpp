// curl.cpp - libcurl: its mime API for sending; its POP3 and a decoder by table for receiving.

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "composed_mail.h"
#include "task.h"
#include "vector_base64.h"

namespace bench {

namespace {

constexpr long kBuffer = 256 * 1024;

void prepare(const task&) { curl_global_init(CURL_GLOBAL_NOTHING); }

void check(CURLcode code) {
  if (code != CURLE_OK) fail(curl_easy_strerror(code));
}

std::string url(const char* scheme, const task& work, const std::string& path) {
  return std::string(scheme) + "://127.0.0.1:" + std::to_string(work.port) + "/" + path;
}

curl_slist* envelope(CURL* curl, const task& work) {
  curl_easy_setopt(curl, CURLOPT_URL, url("smtp", work, "localhost").c_str());
  curl_easy_setopt(curl, CURLOPT_MAIL_FROM, kFrom);
  curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, kBuffer);
  curl_slist* recipients = curl_slist_append(nullptr, kTo);
  curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, recipients);
  return recipients;
}

void send_big(const task& work) {
  CURL* curl = curl_easy_init();
  curl_slist* recipients = envelope(curl, work);
  curl_slist* fields = nullptr;
  for (const auto& field : {std::string("Date: ") + kDate, std::string("From: ") + kFrom,
                            std::string("To: ") + kTo, std::string("Subject: ") + kSubject}) {
    fields = curl_slist_append(fields, field.c_str());
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, fields);
  curl_mime* mail = curl_mime_init(curl);
  curl_mimepart* text = curl_mime_addpart(mail);
  curl_mime_data(text, "The file is attached.\r\n", CURL_ZERO_TERMINATED);
  curl_mimepart* part = curl_mime_addpart(mail);
  curl_mime_filedata(part, work.file.c_str());
  curl_mime_filename(part, kFileName);
  curl_mime_type(part, "application/pdf");
  curl_mime_encoder(part, "base64");
  curl_easy_setopt(curl, CURLOPT_MIMEPOST, mail);
  check(curl_easy_perform(curl));
  curl_slist_free_all(recipients);
  curl_slist_free_all(fields);
  curl_easy_cleanup(curl);
  curl_mime_free(mail);
}

size_t read_mail(char* room, size_t size, size_t count, void* context) {
  auto& rest = *static_cast<std::string_view*>(context);
  const size_t taken = std::min(size * count, rest.size());
  std::memcpy(room, rest.data(), taken);
  rest.remove_prefix(taken);
  return taken;
}

void send_small(const task& work) {
  const std::string mail = small_mail(work.size);
  std::string_view rest;
  CURL* curl = curl_easy_init();
  curl_slist* recipients = envelope(curl, work);
  curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
  curl_easy_setopt(curl, CURLOPT_READFUNCTION, read_mail);
  curl_easy_setopt(curl, CURLOPT_READDATA, &rest);
  curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
  for (long i = 0; i < work.count; ++i) {
    rest = mail;
    check(curl_easy_perform(curl));
  }
  curl_slist_free_all(recipients);
  curl_easy_cleanup(curl);
}

// Finds the attachment in the lines of a mail and decodes it.
class attachment_reader {
 public:
  explicit attachment_reader(receiver& out) : m_cOut(out) {}

  void take(const char* bytes, size_t count) {
    m_cHeld.append(bytes, count);
    m_cDecoded.resize(m_cHeld.size());
    uint8_t* decoded = m_cDecoded.data();
    size_t line = 0;
    for (size_t feed; (feed = m_cHeld.find('\n', line)) != std::string::npos; line = feed + 1) {
      take_line({m_cHeld.data() + line, feed - line - 1}, decoded);
    }
    m_cOut.take(m_cDecoded.data(), static_cast<size_t>(decoded - m_cDecoded.data()));
    m_cHeld.erase(0, line);
  }

 private:
  enum class place { elsewhere, header, data };

  void take_line(std::string_view line, uint8_t*& decoded) {
    if (m_nPlace == place::data && line.substr(0, 1) == "-") {
      m_nPlace = place::elsewhere;
    } else if (m_nPlace == place::data) {
      decoded += decode_line_by_table(line.data(), line.size(), decoded);
    } else if (line == "Content-Transfer-Encoding: base64") {
      m_nPlace = place::header;
    } else if (m_nPlace == place::header && line.empty()) {
      m_nPlace = place::data;
    }
  }

  receiver& m_cOut;
  std::string m_cHeld;
  std::vector<uint8_t> m_cDecoded;
  place m_nPlace = place::elsewhere;
};

size_t write_attachment(char* bytes, size_t size, size_t count, void* context) {
  static_cast<attachment_reader*>(context)->take(bytes, size * count);
  return size * count;
}

size_t write_mail(char* bytes, size_t size, size_t count, void* context) {
  static_cast<receiver*>(context)->take(bytes, size * count);
  return size * count;
}

CURL* log_in() {
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_USERNAME, "bench");
  curl_easy_setopt(curl, CURLOPT_PASSWORD, "bench");
  curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, kBuffer);
  return curl;
}

void receive_big(const task& work, receiver& out) {
  attachment_reader reader(out);
  CURL* curl = log_in();
  curl_easy_setopt(curl, CURLOPT_URL, url("pop3", work, "1").c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write_attachment);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &reader);
  check(curl_easy_perform(curl));
  curl_easy_cleanup(curl);
}

void receive_small(const task& work, receiver& out) {
  CURL* curl = log_in();
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write_mail);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &out);
  for (long number = 1; number <= work.count; ++number) {
    curl_easy_setopt(curl, CURLOPT_URL, url("pop3", work, std::to_string(number)).c_str());
    check(curl_easy_perform(curl));
  }
  curl_easy_cleanup(curl);
}

}  // namespace

const client kClient = {prepare, send_big, receive_big, send_small, receive_small};

}  // namespace bench
