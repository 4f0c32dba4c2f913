#include "added_mail.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <utility>

#include "maildir.h"
#include "md5.h"
#include "problem.h"
#include "text.h"

namespace mailhost {
namespace {

std::string media_type(const std::string& extension) {
  static constexpr std::pair<const char*, const char*> known[] = {
      {".PDF", "application/pdf"}, {".TXT", "text/plain"},  {".HTML", "text/html"},
      {".JPG", "image/jpeg"},      {".JPEG", "image/jpeg"}, {".PNG", "image/png"},
      {".TIF", "image/tiff"},      {".TIFF", "image/tiff"}, {".ZIP", "application/zip"},
      {".EML", "message/rfc822"}};
  for (const auto& [ending, type] : known)
    if (upper_case(extension) == ending) return type;
  return "application/octet-stream";
}

std::string folded(const std::string& base64) {
  constexpr size_t columns = 76;
  std::string lines;
  for (size_t at = 0; at < base64.size(); at += columns)
    lines += base64.substr(at, columns) + "\r\n";
  return lines;
}

// A parameter in the form of RFC 2231 when it is not plain.
std::string file_name(const std::string& name) {
  const bool is_plain = name == printable(name) && name.find_first_of("\"\\") == std::string::npos;
  if (is_plain) return "filename=\"" + name + "\"";
  std::string coded = "filename*=utf-8''";
  for (const char c : name) coded += "%" + upper_case(hex(std::string(1, c)));
  return coded;
}

std::string date_now() {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  gmtime_r(&now, &parts);
  char text[64];
  std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S +0000", &parts);
  return text;
}

std::string with_attachment(const std::string& text, const std::filesystem::path& path,
                            const std::string& bytes) {
  const std::string id = hex(md5(text + bytes));
  const std::string name = path.filename().string();
  const std::string between = "\r\n--" + id;
  return "Date: " + date_now() +
         "\r\nFrom: tavmail-host <practice@localhost>\r\nTo: practice@localhost\r\n"
         "Subject: =?utf-8?B?" +
         to_base64(name) + "?=\r\nMessage-ID: <" + id +
         "@localhost>\r\nMIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"" + id +
         "\"\r\n" + between +
         "\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Transfer-Encoding: "
         "base64\r\n\r\n" +
         folded(to_base64(with_crlf(text))) + between +
         "\r\nContent-Type: " + media_type(path.extension().string()) +
         "\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: attachment; " +
         file_name(name) + "\r\n\r\n" + folded(to_base64(bytes)) + between + "--\r\n";
}

}  // namespace

std::string added_mail(const std::string& argument) {
  const size_t colon = argument.rfind(':');
  const bool is_mail = std::filesystem::exists(argument) || colon == std::string::npos;
  const std::filesystem::path path = is_mail ? argument : argument.substr(colon + 1);
  const auto bytes = std::filesystem::is_regular_file(path) ? read_file(path) : std::nullopt;
  if (!bytes) {
    throw problem(EX_NOINPUT,
                  "--add " + argument + ": cannot read the file " + path.string() +
                      "; give FILE, a message, or TEXT:FILE, a text and a file to attach");
  }
  return is_mail ? with_crlf(*bytes) : with_attachment(argument.substr(0, colon), path, *bytes);
}

}  // namespace mailhost
