#include "token_source.h"

#include <cstring>
#include <map>

#include "tav_bearer_source.h"

namespace tavmail {

namespace {

class command_tokens : public token_source {
 public:
  command_tokens(const std::string& command, const std::string& option)
      : m_command(command), m_option(option) {}

  std::string description() const override { return m_option + " has printed a token"; }
  finding advise(const std::string&) const override {
    return {EX_NOPERM, "", "check that what " + m_option + " prints is for this user and server"};
  }

 protected:
  bool is_over() const override { return false; }
  secret_text fetch(bool is_refused, std::chrono::milliseconds patience) override {
    shell_command::settings how;
    how.what = m_option;
    how.variable = is_refused ? "TAVMAIL_TOKEN_REFUSED=1" : "";
    how.end = shell_command::clock::now() + patience;
    return read_token(m_command, how);
  }

 private:
  const std::string m_command;
  const std::string m_option;
};

struct offer {
  std::shared_ptr<token_source> source;
  std::optional<problem> trouble;
};

using offers = std::map<int32_t, offer>;

// A token that has run out is offered all the same when there is no other one: the library would
// log in with a password instead, and there may be none.
const secret_text* token_for(offer& offered, const tav_bearer_request& request) {
  offered.trouble.reset();
  try {
    return &offered.source->token(request.is_refused != 0,
                                  std::chrono::milliseconds(request.timeout_ms));
  } catch (const problem& cause) {
    offered.trouble = cause;
  }
  return request.is_refused != 0 ? nullptr : offered.source->latest();
}

int32_t answer(void* context, const tav_bearer_request* request, char* token, int32_t size) {
  offers& all = *static_cast<offers*>(context);
  const auto found = all.find(request->service);
  if (found == all.end()) return 0;
  const secret_text* const given = token_for(found->second, *request);
  const size_t length = given == nullptr ? 0 : std::strlen(given->text());
  if (length > static_cast<size_t>(size)) return 0;
  if (length > 0) std::memcpy(token, given->text(), length);
  return static_cast<int32_t>(length);
}

offers& all_offers() {
  static offers all;
  return all;
}

}  // namespace

const secret_text& token_source::token(bool is_refused, std::chrono::milliseconds patience) {
  if (!m_token || is_refused || is_over()) m_token = fetch(is_refused, patience);
  return *m_token;
}

std::shared_ptr<token_source> tokens_of_command(const std::string& command,
                                                const std::string& option) {
  return std::make_shared<command_tokens>(command, option);
}

void offer_tokens(int32_t service, const std::shared_ptr<token_source>& source) {
  all_offers()[service] = {source, std::nullopt};
  tav_bearer_source_set(answer, &all_offers());
}

void withdraw_tokens() { all_offers().clear(); }

const problem* token_problem(int32_t service) {
  const auto found = all_offers().find(service);
  return found == all_offers().end() || !found->second.trouble ? nullptr : &*found->second.trouble;
}

}  // namespace tavmail
