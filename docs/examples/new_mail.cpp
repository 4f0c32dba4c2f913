// new_mail - shows the messages that are new since the last run, with their parts.
//
//   NEW_MAIL_PASSWORD=... new_mail HOST PORT USER SEEN_FILE

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string>

#include "blocks.h"
#include "quorvelmida/taveml.h"

using namespace quorvelmida;

namespace {

// [seen]
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
// [/seen]

// [body]
// Reads the mail (`part` is the mail itself) or its current part to the end. `is_certain` becomes
// false if a block gave no data: it may have been unusable.
TAV_EML_RESULT read_data(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail,
                         tav_eml_mlutl_mail_part& part, std::string& data, bool& is_certain) {
  while (part.m_nComplete == 0) {
    const TAV_EML_RESULT result =
        &part == &mail ? session.receive_body(mail) : session.receive_part_body(mail);
    data += take(part);  // a program that writes a file would do so here, block by block
    if (result == TAV_EML_ERR_UNKNOWN) {
      is_certain = false;  // if the connection was lost, the next call fails
    } else if (result != TAV_EML_OK) {
      return result;
    }
  }
  return TAV_EML_OK;
}
// [/body]

void show(const tav_eml_mlutl_mail_part& part, const std::string& data) {
  std::cout << "  " << text_of(part.m_cMediaType) << " \"" << text_of(part.m_cFIleName) << "\" "
            << data.size() << " bytes\n";
}

// [mail]
bool is_multipart(const tav_eml_mlutl_mail_part& part) {
  return part.m_nContentType == TAV_EML_CT_MULTIPART ||
         part.m_nContentType == TAV_EML_CT_MULTIPART_MIXED ||
         part.m_nContentType == TAV_EML_CT_MULTIPART_REPORT;
}

TAV_EML_RESULT read_mail(tav_eml_pop3_boundary& session, tav_eml_pop3_receive_mail& mail,
                         bool& is_certain) {
  TAV_EML_RESULT result = session.receive_header(mail, 0);
  if (result != TAV_EML_OK) return result;
  std::cout << text_of(mail.m_cSubject) << '\n';

  if (!is_multipart(mail)) {
    std::string data;
    result = read_data(session, mail, mail, data, is_certain);
    if (result == TAV_EML_OK) show(mail, data);
    return result;
  }
  while (mail.m_nReceiving != 0) {
    mail.set_part(new tav_eml_pop3_receive_mail_part);  // deletes the previous part
    result = session.receive_part_header(mail, 0);
    if (result != TAV_EML_OK) return result;
    tav_eml_mlutl_mail_part& part = *mail.get_part();
    if (part.m_nComplete != 0) continue;  // from a closing delimiter: it holds nothing
    std::string data;
    result = read_data(session, mail, part, data, is_certain);
    if (result != TAV_EML_OK) return result;
    show(part, data);
  }
  return TAV_EML_OK;
}
// [/mail]

// [mailbox]
TAV_EML_RESULT read_new(tav_eml_pop3_boundary& session, tav_eml_pop3_mail_info_list& seen,
                        const char* seen_path) {
  TAV_EML_RESULT result = session.connect_mail();
  if (result != TAV_EML_OK) return result;
  int count = 0;
  result = session.stat(count);
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
    bool is_certain = true;
    result = read_mail(session, mail, is_certain);
    if (result == TAV_EML_ERR_UNKNOWN) {
      // The rest must be read before the next command.
      result = session.skip_mail(mail) == TAV_EML_UTL_OK ? TAV_EML_OK : TAV_EML_ERR_NOT_CONNECTED;
      is_certain = false;
    }
    if (!is_certain) std::cout << "  something of it may be missing\n";
  }
  return result;
}
// [/mailbox]

}  // namespace

int main(int argc, char** argv) {
  const char* const password = std::getenv("NEW_MAIL_PASSWORD");
  if (argc != 5 || password == nullptr) return 64;
  // [settings]
  _tav_eml_pop3_setting record;
  record.strServer = argv[1];
  record.nPort = std::atoi(argv[2]);
  record.strUserID = argv[3];
  record.strPassword = password;
  record.nTimeout = 30;
  record.ucTLSMode = 2;       // STLS
  record.ucTLSOption[0] = 1;  // check the server's certificate
  const tav_eml_pop3_settings settings(record);

  tav_eml_pop3_mail_info_list seen(10000);  // more than the mailbox can hold
  load(seen, argv[4]);
  tav_eml_pop3_boundary session(settings);
  const TAV_EML_RESULT result = read_new(session, seen, argv[4]);
  session.close_mail();
  // [/settings]
  return tell("receiving", result);
}
