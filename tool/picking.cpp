#include "picking.h"

#include <algorithm>

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

void picking::require_all(const std::vector<const listed_mail*>& mails) const {
  std::vector<int> known_numbers;
  std::vector<std::string> known_uids;
  for (const listed_mail* mail : mails) {
    known_numbers.push_back(mail->number);
    known_uids.push_back(mail->uid);
  }
  std::sort(known_uids.begin(), known_uids.end());
  for (const int number : numbers) {
    if (!std::binary_search(known_numbers.begin(), known_numbers.end(), number)) {
      refuse("number " + std::to_string(number));
    }
  }
  for (const std::string& uid : uids) {
    if (uid.empty() || !std::binary_search(known_uids.begin(), known_uids.end(), uid)) {
      refuse("unique id " + uid);
    }
  }
}

}  // namespace tavmail
