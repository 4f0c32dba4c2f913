// envelope.h - sender and recipients as the server is told them.

#ifndef ENVELOPE_H
#define ENVELOPE_H

#include <set>
#include <string>
#include <vector>

#include "header_block.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"

namespace tavmail {

struct envelope {
  std::string sender;
  std::vector<std::string> recipients;  // added below
  std::set<std::string> known;          // the same

  // One that is there already is not added again.
  void add(const std::string& recipient);
  // Bare addresses of a list as people write it. `what` names it in the problem that is thrown.
  void add_list(const std::string& what, const std::string& list);
  // Those that the header names. Of a mail that was sent on (Resent-To), the latest ones.
  void add_named(const header_block& header);
  void write_to(quorvelmida::tav_eml_smtp_send_mail& mail) const;
};

// The author that the header names, "" for none.
std::string author_of(const header_block& header);

// The address that `option` gives for bounces. Throws a problem: an empty one cannot be sent.
std::string given_sender(const std::string& option, const std::string& address);

// Throws a problem for a recipient that is not on the permit list, or is on the deny list.
void check_recipients(const std::vector<std::string>& lists, const std::vector<std::string>& permit,
                      const std::vector<std::string>& deny);

}  // namespace tavmail

#endif
