// tavmail authorize.

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <thread>

#include "account_file.h"
#include "authorize_library.h"
#include "commands.h"
#include "exchange.h"
#include "interrupt.h"
#include "problem.h"
#include "provider_tokens.h"
#include "received_text.h"

namespace tavmail {

namespace {

using clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr char kNoConsent[] = "no consent was given";

struct authorize_options {
  account_file account;
  token_provider provider;
};

int columns() {
  winsize size{};
  return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
}

// What the person has to do.
void show(const consent_request& request) {
  std::cout << "Open   " << request.address << "\nenter  " << request.user_code << '\n';
  if (!request.full_address.empty()) {
    std::cout << "or open " << request.full_address << ", which has the code in it\n";
  }
  if (isatty(STDOUT_FILENO) == 1) {
    const std::string& address =
        request.full_address.empty() ? request.address : request.full_address;
    std::cout << '\n' << authorize_library::loaded().qr_code(address, columns());
  }
  std::cout << std::endl;
}

// How long the code holds, on one line of a terminal, which is cleared in the end.
class waiting_line {
 public:
  waiting_line() : m_shown(isatty(STDERR_FILENO) == 1) {}
  waiting_line(const waiting_line&) = delete;
  waiting_line& operator=(const waiting_line&) = delete;
  ~waiting_line() {
    if (m_shown) std::fputs("\r\033[K", stderr);
  }

  void draw(seconds left) {
    if (!m_shown || left == m_drawn) return;
    m_drawn = left;
    const auto count = static_cast<long long>(left.count());
    std::fprintf(stderr, "\r\033[KWaiting for the consent; the code holds for %lld:%02lld",
                 count / 60, count % 60);
    std::fflush(stderr);
  }

 private:
  const bool m_shown;
  seconds m_drawn{-1};
};

void wait(clock::time_point until, clock::time_point end, waiting_line& line) {
  constexpr auto kStep = std::chrono::milliseconds(100);
  for (auto now = clock::now(); now < until; now = clock::now()) {
    interrupt_guard::check(kNoConsent);
    line.draw(std::max(std::chrono::duration_cast<seconds>(end - now), seconds(0)));
    std::this_thread::sleep_for(std::min<clock::duration>(kStep, until - now));
  }
}

// A provider that cannot be reached is asked less often (RFC 8628, 3.5).
std::optional<token_grant> ask(token_endpoint& endpoint, consent_request& request,
                               const token_provider& provider) {
  try {
    return endpoint.ask(request, provider.patience());
  } catch (const problem& cause) {
    if (cause.exit_code() != EX_TEMPFAIL || interrupt_guard::was_pressed()) throw;
    request.interval *= 2;
    return std::nullopt;
  }
}

token_grant await_consent(token_endpoint& endpoint, consent_request& request,
                          const token_provider& provider) {
  const auto end = clock::now() + request.lifetime;
  waiting_line line;
  while (clock::now() < end && request.lifetime > seconds(0)) {
    wait(std::min(clock::now() + request.interval, end), end, line);
    std::optional<token_grant> grant = ask(endpoint, request, provider);
    if (grant) return std::move(*grant);
  }
  throw problem(EX_TEMPFAIL, "the code has run out",
                "run tavmail authorize " + provider.account + " again");
}

int run_authorize(command_line& command, authorize_options& options) {
  token_provider& provider = options.provider;
  options.account.apply_provider(command, *command.parent(), provider);
  provider.complete();
  token_endpoint endpoint(provider);
  const token_store store(provider);
  {
    const token_store::lock lock(store, provider.patience());
    store.reserve();  // before somebody is troubled for nothing
  }
  consent_request request = endpoint.begin(provider.patience());
  show(request);
  const kept_tokens kept = kept_of(await_consent(endpoint, request, provider), nullptr);
  {
    const token_store::lock lock(store, provider.patience());
    store.save(kept, true, provider.patience());
  }
  const std::string missing = kept.scope.empty() ? "" : missing_scope(provider.scope, kept.scope);
  if (!missing.empty()) std::cout << wrapped("not granted: ", missing);
  std::cout << "The consent was given; tavmail doctor -A " << presentable(provider.account)
            << " examines it.\n";
  return EX_OK;
}

}  // namespace

command add_authorize(command_line& tool) {
  command_line& line = tool.add_command("authorize", "get the consent that token logins need");
  const auto options = std::make_shared<authorize_options>();
  options->account.add_positional_to(line);
  options->provider.add_to(line);
  line.add("--max-time", std::function<void(int)>(interrupt_guard::end_after),
           "seconds for all of the run; no limit by default")
      .range(1, 1000000)
      .value_name("N")
      .group("Provider");
  return {&line, [&line, options] {
            try {
              return run_authorize(line, *options);
            } catch (const problem&) {
              interrupt_guard::check(kNoConsent);
              throw;
            }
          }};
}

}  // namespace tavmail
