// tavmail config: what the configuration files say, and what is wrong with them.

#include <algorithm>
#include <iostream>
#include <memory>
#include <set>

#include "account_file.h"
#include "account_login.h"
#include "commands.h"
#include "mailbox_options.h"
#include "received_text.h"
#include "server_options.h"

namespace tavmail {

namespace {

constexpr const char* kSections[] = {"smtp", "pop3", kProviderSection};

bool ends_with(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// What a value looks like in the list. What may hold a password does not show.
std::string shown(const config_value& value) {
  if (value.key == kPasswordKey || ends_with(value.key, "_command")) {
    return "****";
  }
  std::string text;
  for (const std::string& each : value.texts) text += (text.empty() ? "" : ", ") + each;
  return text;
}

// Goes through the files and keeps what is wrong.
class check {
 public:
  explicit check(const configuration& files) : m_files(files) {}

  const std::vector<std::string>& faults() const { return m_faults; }

  void check_files() {
    for (const config_file& file : m_files.files()) {
      for (const problem& fault : misplaced(file)) note("", fault);
      if (const config_value* value = file.find(kDefaultKey)) check_default(*value);
      for (const config_account& account : file.accounts) {
        for (const problem& fault : misplaced(account)) note(account.name, fault);
      }
    }
  }

  // What is told of the account, and what is wrong with it.
  std::string account(const std::string& name) {
    std::string out;
    for (const char* section : kSections) {
      try {
        const std::vector<config_source> sources = m_files.sources(name, section);
        if (sources.empty()) continue;
        out += std::string("  ") + section + "\n" + list(sources);
        check_section(name, section, sources);
      } catch (const problem& cause) {
        note(name, cause);
      }
    }
    return out;
  }

 private:
  void note(const std::string& account, const problem& cause) {
    const std::string text = cause.what() + (account.empty() ? "" : " (account " + account + ")");
    // What an account inherits is wrong once.
    for (const std::string& known : m_faults) {
      if (known.rfind(cause.what(), 0) == 0) return;
    }
    m_faults.push_back(text);
  }

  void check_default(const config_value& value) {
    try {
      if (!value.is_text) throw problem(EX_CONFIG, "expected the name of an account");
      m_files.tables(value.texts[0]);
    } catch (const problem& cause) {
      note("", value.place.fault(value.key + ": " + cause.what()));
    }
  }

  static std::string list(const std::vector<config_source>& sources) {
    std::string out;
    std::set<std::string> settled;
    for (const config_source& source : sources) {
      for (const config_value& value : source.section->values) {
        if (settled.count(value.key) == 0) out += line_of(value);
      }
      settle(*source.section, settled);
    }
    return out;
  }

  static std::string line_of(const config_value& value) {
    constexpr size_t kColumn = 22;
    constexpr size_t kWidth = 80;
    std::string label = "    " + value.key;
    label.resize(std::max(kColumn, label.size()), ' ');
    const std::string first = label + " " + presentable(shown(value));
    const std::string place = presentable(value.place.text());
    const bool is_short = first.size() + place.size() + 2 <= kWidth;
    return first + (is_short ? "  " : "\n" + std::string(kColumn + 1, ' ')) + place + "\n";
  }

  void check_section(const std::string& name, const std::string& section,
                     const std::vector<config_source>& sources) {
    const size_t before = m_faults.size();
    command_line tool;
    const std::vector<command> commands = add_commands(tool);
    for (const config_source& source : sources) {
      for (const config_value& value : source.section->values)
        check_value(source.account, tool, value);
      for (const command_line* command : tool.commands())
        check_exclusions(*command, *source.section);
    }
    // An account for others to inherit from need not be complete.
    if (m_faults.size() > before || is_base(name)) return;
    check_login(sources);
    if (section != kProviderSection) {
      check_refresh_token(sources, m_files.sources(name, kProviderSection));
    }
    try {
      if (section == kProviderSection) {
        provider_of(name, sources, tool).complete();
      } else if (section == kSections[0]) {
        check_endpoint<server_options>(tool, sources);
      } else {
        check_endpoint<mailbox_options>(tool, sources);
      }
    } catch (const problem& cause) {
      note(name, sources[0].section->place.fault(cause.what()));
    }
  }

  bool is_base(const std::string& name) const {
    for (const config_file& file : m_files.files()) {
      for (const config_account& account : file.accounts) {
        const config_value* parent = account.find(kInheritKey);
        if (parent != nullptr && parent->is_text && parent->texts[0] == name) return true;
      }
    }
    return false;
  }

  // Each value by itself, with an option that nothing was given to.
  void check_value(const std::string& name, const command_line& tool, const config_value& value) {
    try {
      if (value.key == kPasswordKey) {
        value.text("a text");
        return;
      }
      check_key(tool, value);
      for (const command_line* command : tool.commands()) {
        const option taker = command->find(option_of(value.key));
        if (!taker) continue;
        taker.forget();
        give(taker, value);
        break;
      }
    } catch (const problem& cause) {
      note(name, cause);
    }
  }

  template <typename Endpoint>
  static void check_endpoint(const command_line& tool, const std::vector<config_source>& sources) {
    Endpoint endpoint;
    command_line own;
    endpoint.add_to(own);
    apply_sources(sources, own, tool, &endpoint);
    endpoint.complete();
    if (!endpoint.password_file.empty()) endpoint.take_password();
  }

  const configuration& m_files;
  std::vector<std::string> m_faults;
};

int run_check(const configuration& files, const std::string& chosen) {
  if (files.files().empty()) throw problem(EX_NOINPUT, "no configuration: " + files.lack());
  check all(files);
  all.check_files();
  const config_value* standard = files.default_account();
  for (const std::string& name : files.names()) {
    const std::string told = all.account(name);
    if (!chosen.empty() && chosen != name) continue;
    const bool is_default = standard != nullptr && standard->is_text && standard->texts[0] == name;
    std::cout << presentable(name) << (is_default ? " (the default)" : "") << "\n" << told << "\n";
  }
  for (const std::string& fault : all.faults())
    std::cout << wrapped("  FAIL  ", presentable(fault));
  if (all.faults().empty()) {
    std::cout << "no fault found in " << files.places() << "\n";
    return EX_OK;
  }
  const size_t count = all.faults().size();
  throw problem(EX_CONFIG, std::to_string(count) + (count == 1 ? " fault in " : " faults in ") +
                               files.places() + "; the lines above name each");
}

int run_config(const std::string& action, const account_file& account, const std::string& name) {
  if (action != "check" && action != "accounts") {
    throw problem(EX_USAGE, "what about the configuration? give check or accounts");
  }
  const configuration files = account.files();
  if (action == "check") {
    if (!name.empty()) files.tables(name);
    return run_check(files, name);
  }
  for (const std::string& each : files.names()) std::cout << presentable(each) << "\n";
  return EX_OK;
}

constexpr char kConfigExamples[] = R"(
"check" lists every account, where each of its values comes from, and what is
wrong, with file and line; passwords do not show. "accounts" prints the names.

Examples:
  tavmail config check
  tavmail config check -A office
)";

}  // namespace

command add_config(command_line& tool) {
  command_line& line = tool.add_command("config", "check the configuration, or list its accounts");
  const auto action = std::make_shared<std::string>();
  const auto account = std::make_shared<account_file>();
  line.add("action", *action, "check or accounts")
      .suggest({"check", "accounts"})
      .value_name("ACTION");
  account->add_to(line);
  line.set_footer(kConfigExamples);
  return {&line, [&line, action, account] {
            const std::vector<std::string> names = line.find("account").values();
            return run_config(*action, *account, names.empty() ? "" : names[0]);
          }};
}

}  // namespace tavmail
