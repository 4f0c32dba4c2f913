// examination.h - the findings of one checkup, stage by stage.

#ifndef EXAMINATION_H
#define EXAMINATION_H

#include <string>
#include <vector>

#include "checkup.h"
#include "dialogue_view.h"
#include "port_probe.h"

namespace tavmail {

class examination {
 public:
  examination(const char* protocol, const endpoint_options& options);

  checkup take() { return std::move(m_result); }

  // Goes to the port of an endpoint: its name, every address, what it speaks. `prefix` stands in
  // front of the stages' names. False when it makes no sense to go on.
  bool check_way(const endpoint_options& options, bool is_pop3, const std::string& prefix,
                 port_look& look);

  // Gets a token for an endpoint that has them. False when there is none.
  bool check_token(const endpoint_options& options, const std::string& prefix);

  // TLS, certificate and greeting of the latest connection of a protocol, as it was.
  void report_connection(const dialogue_view& view, const endpoint_options& options, bool is_pop3,
                         const std::string& prefix);

  // `user` is "" for no login.
  void report_login(const std::string& user, const std::string& prefix);

  void good(const std::string& name, const std::string& text, const std::string& remark = "");
  void fail(const std::string& name, const finding& found);
  // The stage that a failed session ended at, unless another one has told it.
  void fail(const problem& cause, const std::string& prefix);

  bool is_good() const { return m_result.exit_code == 0; }

 private:
  // What ends the run has ended the stage too, if true.
  bool is_over(const std::string& stage);
  bool check_address(const endpoint_options& options, const std::string& prefix,
                     const std::string& address, port_probe& probe);
  bool check_look(const endpoint_options& options, bool is_pop3, const std::string& prefix,
                  const port_look& look);
  void report_certificate(const connection& line, const endpoint_options& options,
                          const std::string& prefix);

  checkup m_result;
};

// The lines of a dialogue on the standard error output, when they are wanted.
dialogue_view::line_sink line_sink(bool verbose);

// The latest reply to a command that was a good one, null for none.
const exchange* last_good(const dialogue_view& view, const char* verb);

// The lines from the second on, without the `cut` bytes that each begins with.
std::string joined_offer(const std::vector<std::string>& lines, size_t cut);

}  // namespace tavmail

#endif
