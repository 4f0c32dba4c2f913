#include "command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <set>
#include <utility>

namespace tavmail {

namespace {

// Names and help are ours: a check does not describe itself there.
template <typename Check>
CLI::Option* checked(CLI::Option* option, const Check& check) {
  return option->check(CLI::Validator(check).description(""));
}

// CLI11 tells what is wrong; how the tool ends is the tool's.
template <typename Read>
void read_with(Read read) {
  try {
    read();
  } catch (const CLI::Success&) {
    throw;
  } catch (const CLI::Error& error) {
    throw usage_error(error.what());
  }
}

}  // namespace

option option::value_name(const char* name) const { return option(m_option->type_name(name)); }

option option::group(const std::string& heading) const { return option(m_option->group(heading)); }

option option::shows_default() const { return option(m_option->capture_default_str()); }

option option::range(int least, int most) const {
  return option(checked(m_option, CLI::Range(least, most)));
}

option option::one_of(const std::vector<std::string>& words) const {
  return option(checked(m_option, CLI::IsMember(words))).suggest(words);
}

// CLI11 keeps no suggestions, so they become the name of a check that accepts everything.
option option::suggest(const std::vector<std::string>& words) const {
  const auto accept = [](std::string&) { return std::string(); };
  return option(m_option->check(CLI::Validator(accept, "", CLI::detail::join(words, " "))));
}

std::vector<std::string> option::suggestions() const {
  std::string words;
  try {
    for (int i = 0; words.empty(); ++i) words = m_option->get_validator(i)->get_name();
  } catch (const CLI::OptionNotFound&) {
    return {};
  }
  return CLI::detail::split(words, ' ');
}

option option::excludes(const option& other) const {
  return option(m_option->excludes(other.m_option));
}

option option::repeatable() const { return option(m_option->allow_extra_args(false)); }

option option::first_counts() const { return option(m_option->take_first()); }

option option::as_size() const {
  const auto to_number = [](std::string& value) {
    const std::string given = value;
    try {
      return CLI::AsSizeValue(false)(value);
    } catch (const CLI::ValidationError&) {
      return given + " is no size; expected a number such as 500000, 500K or 5M";
    }
  };
  return option(m_option->transform(CLI::Validator(to_number, "")));
}

bool option::is_given() const { return m_option->count() > 0; }

bool option::is_excluded() const {
  const std::set<CLI::Option*> others = m_option->get_excludes();
  return std::any_of(others.begin(), others.end(), [](auto* other) { return other->count() > 0; });
}

bool option::is_excluded_by(const option& other) const {
  return m_option->get_excludes().count(other.m_option) > 0;
}

void option::forget() const { m_option->clear(); }

std::vector<std::string> option::values() const { return m_option->results(); }

void option::give(const std::vector<std::string>& values) const {
  read_with([&] {
    for (const std::string& value : values) m_option->add_result(value);
    m_option->run_callback();
  });
}

std::string option::name() const {
  return m_option->get_lnames().empty() ? "" : m_option->get_lnames()[0];
}

std::string option::letter() const {
  return m_option->get_snames().empty() ? "" : m_option->get_snames()[0];
}

std::string option::value_name() const { return m_option->get_type_name(); }

std::string option::description() const { return m_option->get_description(); }

bool option::is_flag() const { return m_option->get_expected_max() == 0; }

command_line::command_line(const std::string& description, const std::string& name)
    : m_owned(std::make_unique<CLI::App>(description, name)), m_app(m_owned.get()) {
  m_app->require_subcommand(0, 1);
  m_app->allow_extras();
  m_app->get_formatter()->column_width(32);
}

command_line::command_line(CLI::App* app, const command_line* parent)
    : m_app(app), m_parent(parent) {}

command_line::~command_line() = default;

option command_line::add(const std::string& names, std::string& value, const std::string& help) {
  return option(m_app->add_option(names, value, help));
}

option command_line::add(const std::string& names, std::vector<std::string>& values,
                         const std::string& help) {
  return option(m_app->add_option(names, values, help));
}

option command_line::add(const std::string& names, int& value, const std::string& help) {
  return option(m_app->add_option(names, value, help));
}

option command_line::add(const std::string& names, std::vector<int>& values,
                         const std::string& help) {
  return option(m_app->add_option(names, values, help));
}

option command_line::add(const std::string& names, uint32_t& value, const std::string& help) {
  return option(m_app->add_option(names, value, help));
}

option command_line::add(const std::string& names, uint64_t& value, const std::string& help) {
  return option(m_app->add_option(names, value, help));
}

option command_line::add(const std::string& names, std::function<void(int)> take,
                         const std::string& help) {
  return option(m_app->add_option_function<int>(names, std::move(take), help));
}

option command_line::add_flag(const std::string& names, bool& value, const std::string& help) {
  return option(m_app->add_flag(names, value, help));
}

// Takes a number as well: a value that was taken before is handed over to another command so.
option command_line::add_word(const std::string& names, std::function<void(int)> take,
                              const std::map<std::string, int>& words, const std::string& help) {
  const auto to_number = [words](std::string& value) {
    std::string known;
    for (const auto& [word, meaning] : words) {
      const std::string number = std::to_string(meaning);
      if (CLI::detail::to_lower(value) == word || value == number) {
        value = number;
        return std::string();
      }
      known += (known.empty() ? "" : ", ") + word;
    }
    return value + " is not one of " + known;
  };
  CLI::Option* const added = m_app->add_option_function<int>(names, std::move(take), help);
  std::vector<std::string> known;
  for (const auto& [word, meaning] : words) known.push_back(word);
  return option(added->transform(CLI::Validator(to_number, ""))).suggest(known);
}

command_line& command_line::add_command(const std::string& name, const std::string& description) {
  CLI::App* const app = m_app->add_subcommand(name, description);
  app->allow_extras();
  m_commands.emplace_back(new command_line(app, this));
  return *m_commands.back();
}

void command_line::set_version(const std::string& text) {
  m_app->set_version_flag("--version", text);
}

void command_line::set_footer(const std::string& text) { m_app->footer(text); }

bool command_line::parse(int argc, const char* const* argv) {
  try {
    read_with([&] { m_app->parse(argc, argv); });
    return true;
  } catch (const CLI::Success& answer) {
    m_app->exit(answer);
    return false;
  }
}

bool command_line::is_chosen() const { return m_app->parsed(); }

std::vector<std::string> command_line::unknown_words() const { return m_app->remaining(); }

const std::string& command_line::name() const { return m_app->get_name(); }

std::string command_line::description() const { return m_app->get_description(); }

std::vector<const command_line*> command_line::commands() const {
  std::vector<const command_line*> all;
  for (const auto& command : m_commands) all.push_back(command.get());
  return all;
}

std::vector<option> command_line::options() const {
  std::vector<option> all;
  for (CLI::Option* const each : m_app->get_options()) all.emplace_back(each);
  return all;
}

std::vector<std::pair<std::string, std::string>> command_line::in_order(
    const std::vector<std::string>& names) const {
  std::vector<std::pair<std::string, std::string>> all;
  std::map<std::string, size_t> taken;
  const auto take = [&](const std::string& name) {
    const std::vector<std::string> values = find(name).values();
    size_t& next = taken[name];
    if (next == values.size()) return false;
    all.emplace_back(name, values[next++]);
    return true;
  };
  for (const CLI::Option* each : m_app->parse_order()) {
    for (const std::string& name : names) {
      if (each->check_lname(name)) take(name);
    }
  }
  for (const std::string& name : names) {
    while (take(name)) {
    }
  }
  return all;
}

option command_line::find(const std::string& name) const {
  return option(m_app->get_option_no_throw("--" + name));
}

}  // namespace tavmail
