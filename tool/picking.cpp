#include "picking.h"

#include <algorithm>
#include <set>

#include "problem.h"

namespace tavmail {

namespace {

constexpr int kMostMails = 1000000;  // of a mailbox that the library takes

template <typename Value>
bool contains(const std::vector<Value>& values, const Value& value) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

[[noreturn]] void refuse(const std::string& which) {
  throw problem(EX_DATAERR, "no mail on the server has the " + which + "; see tavmail list");
}

}  // namespace

void picking::add_to(command_line& command, const std::string& what) {
  command.add("--number", numbers, what + " the mail with this number; repeatable")
      .range(1, kMostMails)
      .value_name("N")
      .repeatable()
      .group("Mail");
  command.add("--uid", uids, what + " the mail with this unique id; repeatable")
      .value_name("ID")
      .repeatable()
      .group("Mail");
}

bool picking::has(const listed_mail& mail) const {
  return contains(numbers, mail.number) || (!mail.uid.empty() && contains(uids, mail.uid));
}

void picking::require_all(const std::vector<listed_mail>& mails) const {
  std::set<std::string> known;
  for (const listed_mail& mail : mails) known.insert(mail.uid);
  known.erase("");
  for (const int number : numbers) {
    if (static_cast<size_t>(number) > mails.size()) refuse("number " + std::to_string(number));
  }
  for (const std::string& uid : uids) {
    if (known.count(uid) == 0) refuse("unique id " + uid);
  }
}

}  // namespace tavmail
