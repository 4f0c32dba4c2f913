// new_mail - shows the messages that are new since the last run, with their parts.
//
//   NEW_MAIL_PASSWORD=... new_mail HOST PORT USER SEEN_FILE

// [mailbox]
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "quorvelmida/taveml_easy.h"

using namespace quorvelmida;

// [/mailbox]
namespace {

struct lister : easy::part_sink {
  bool header(tav_eml_pop3_receive_mail& mail) override {
    std::cout << easy::one_line(easy::to_utf8(mail.m_cSubject, mail.m_nCharSet)) << '\n';
    return true;
  }
  bool begin(const tav_eml_mlutl_mail_part& part) override {
    const std::string name = easy::to_utf8(part.m_cFIleName, part.m_nCharSet);
    std::cout << "  " << easy::one_line(easy::text_of(part.m_cMediaType)) << " \""
              << easy::one_line(name) << "\" ";
    is_text = part.m_nContentType == TAV_EML_CT_TEXT_PLAIN;
    set = part.m_nCharSet;
    bytes.clear();
    return true;
  }
  bool data(const char* block, size_t length) override {
    bytes.append(block, length);  // a program for large parts would not collect them
    return true;
  }
  bool end(bool is_certain) override {
    std::cout << bytes.size() << " bytes" << (is_certain ? "\n" : " or more\n");
    if (is_text) std::cout << "  " << easy::one_line(easy::to_utf8(bytes, set)) << '\n';
    return true;
  }
  bool is_text = false;
  TAV_EML_CHAR_SET set = TAV_EML_CS_NONE;
  std::string bytes;
};

// [mailbox]
// One entry per line: status, blank, unique id. Unique ids have no blanks and no line ends.
void load(tav_eml_pop3_mail_info_list& seen, const char* path) {
  std::ifstream file(path);
  int status = 0;
  std::string uid;
  while (file >> status >> uid) {
    // The list owns the entry, even if it has no room for it. Number 0: not found yet.
    seen.add_mail_info(new tav_eml_pop3_mail_info(0, uid.c_str(), 0, status), 1);
  }
}

bool save(const tav_eml_pop3_mail_info_list& seen, const std::string& path) {
  const std::string fresh = path + ".new";
  std::ofstream file(fresh);
  for (int i = 0; i < seen.m_MailInfoVector.Count(); ++i) {
    const auto& entry =
        *static_cast<const tav_eml_pop3_mail_info*>(seen.m_MailInfoVector.ElementAt(i));
    if (!entry.m_strUID.IsEmpty()) {
      file << entry.m_nEntryStatus << ' ' << entry.m_strUID.GetString() << '\n';
    }
  }
  file.close();
  return !file.fail() && std::rename(fresh.c_str(), path.c_str()) == 0;
}

TAV_EML_RESULT read_new(const tav_eml_pop3_settings& settings, const char* seen_path,
                        easy::part_sink& sink) {
  tav_eml_pop3_mail_info_list seen(10000);  // more than the mailbox can hold
  load(seen, seen_path);
  tav_eml_pop3_boundary session(settings);
  const easy::close_guard guard(session);
  int count = 0;
  TAV_EML_RESULT result = session.connect_mail();
  if (result == TAV_EML_OK) result = session.stat(count);
  if (result != TAV_EML_OK || count == 0) return result;  // do not list an empty mailbox
  result = session.list(seen, 0);

  tav_eml_pop3_mail_info info;
  while (result == TAV_EML_OK && seen.is_has_next_mail() != 0 && seen.search_next_mail(info) != 0) {
    // Mark and save it before reading: a message that breaks the connection, or the program, must
    // not be read again and again.
    result = session.list_next(seen, info);
    if (result != TAV_EML_OK) return result;
    if (!save(seen, seen_path)) return TAV_EML_ERR_UNKNOWN;
    tav_eml_pop3_receive_mail mail(info);
    result = easy::for_each_part(session, mail, sink);
    if (result == TAV_EML_ERR_UNKNOWN) {
      std::cout << "  something may be missing\n";  // so it stays on the server
      result = TAV_EML_OK;                          // the next message can be read
    }
  }
  return result;
}
// [/mailbox]

}  // namespace

int main(int argc, char** argv) {
  const char* const password = std::getenv("NEW_MAIL_PASSWORD");
  if (argc != 5 || password == nullptr) return 64;
  lister sink;
  const TAV_EML_RESULT result =
      read_new(easy::pop3_account(argv[1], std::atoi(argv[2]), argv[3], password), argv[4], sink);
  std::cerr << easy::result_advice(result) << '\n';
  return result == TAV_EML_OK ? EXIT_SUCCESS : EXIT_FAILURE;
}
