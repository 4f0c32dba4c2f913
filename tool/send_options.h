// send_options.h - what `tavmail send` was asked to do.

#ifndef SEND_OPTIONS_H
#define SEND_OPTIONS_H

#include <string>
#include <vector>

#include "account_file.h"
#include "attachment.h"
#include "sending_limits.h"
#include "server_options.h"

namespace tavmail {

struct send_options {
  account_file account;
  server_options server;
  sending_limits limits;
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
  std::vector<std::string> attach;
  std::vector<std::string> attach_name;
  std::vector<std::string> content_type;
  std::string message_id;
  std::string in_reply_to;
  std::string references;
  std::string mdn;
  std::vector<std::string> headers;
  std::string html;
  std::string html_file;
  std::string envelope_from;
  std::string raw;
  bool internet_fax = false;
  bool verbose = false;
  bool quiet = false;
  bool is_json = false;

  option text_option;
  option html_option;
  option envelope_from_option;

  void add_to(command_line& command);

  // Throws a problem for what the command line has beside --raw and does not go with it. To be
  // called before an account adds its own.
  void check_raw() const;
  // The files, each with the name and type that the command line has between it and the next one.
  // What stands in front of the first is for the first. Throws a problem.
  std::vector<attachment_request> attachments(const command_line& command) const;

 private:
  void add_content_to(command_line& command);

  std::vector<option> m_content;  // what a mail that is ready has already
};

}  // namespace tavmail

#endif
