// send_options.h - what `tavmail send` was asked to do.

#ifndef SEND_OPTIONS_H
#define SEND_OPTIONS_H

#include <memory>
#include <string>
#include <vector>

#include "account_file.h"
#include "attachment.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"
#include "server_options.h"

namespace tavmail {

struct send_options {
  account_file account;
  server_options server;
  std::vector<std::string> permit;  // domains and addresses that mail may go to
  std::vector<std::string> deny;    // and those that it may not
  std::string from;
  std::vector<std::string> to;
  std::vector<std::string> cc;
  std::vector<std::string> bcc;
  std::vector<std::string> reply_to;
  std::string sender;
  std::string subject;
  std::string text;
  std::string text_file;
  std::string char_set_name = "utf-8";
  std::string attach;
  std::string attach_name;
  std::string content_type;
  std::string message_id;
  std::string in_reply_to;
  std::string references;
  std::string mdn;
  std::vector<std::string> headers;
  std::string html;
  std::string html_file;
  std::string envelope_from;
  std::string raw;
  uint32_t size_limit = 0;
  bool internet_fax = false;
  bool verbose = false;
  bool quiet = false;
  bool is_json = false;

  option text_option;

  void add_to(command_line& command);
};

// A mail that is ready to be sent, apart from the data of its attachment.
struct outgoing {
  quorvelmida::tav_eml_smtp_send_mail mail;
  std::string body;  // UTF-8, canonical lines
  std::unique_ptr<attachment> file;
};

// Checks every value and fills the mail; nothing has been sent when a problem is thrown.
void prepare(const send_options& options, outgoing& out);

}  // namespace tavmail

#endif
