// receive_report.h - what was received, for a person and for a script.

#ifndef RECEIVE_REPORT_H
#define RECEIVE_REPORT_H

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "problem.h"
#include "received_mail.h"

namespace tavmail {

// One mail as lines of at most 79 columns, with where its parts are.
std::string mail_lines(const received_mail& mail, const std::string& folder);

// Mails by number, unique id and size.
nlohmann::ordered_json listed_json(const std::vector<listed_mail>& mails);

// All of them as one JSON document, with those of earlier runs that were deleted, with those that
// were too large, and with the problem that ended the command, null for none.
std::string mails_json(const std::vector<received_mail>& mails,
                       const std::vector<listed_mail>& deleted_before,
                       const std::vector<listed_mail>& too_large, const problem* cause);

}  // namespace tavmail

#endif
