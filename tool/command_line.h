// command_line.h - the commands of the tool and their options. CLI11 reads them; it takes seconds
// to compile, so that only command_line.cpp includes it.

#ifndef COMMAND_LINE_H
#define COMMAND_LINE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tavmail {

// What was said cannot be understood.
class usage_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One option of a command; a flag is an option without a value. A handle: copies are the same
// option, and it is there as long as its command.
class option {
 public:
  explicit option(CLI::Option* it = nullptr) : m_option(it) {}
  explicit operator bool() const { return m_option != nullptr; }

  // How the help shows it: the name of its value, the heading that it stands under.
  option value_name(const char* name) const;
  option group(const std::string& heading) const;
  option shows_default() const;

  option range(int least, int most) const;
  option one_of(const std::vector<std::string>& words) const;
  option suggest(const std::vector<std::string>& words) const;  // for completion, unchecked
  option excludes(const option& other) const;
  option repeatable() const;    // with one value each time
  option first_counts() const;  // when it is given more than once
  option as_size() const;       // a number of bytes: 500000, 500K, 5M, 1G; K is 1024

  bool is_given() const;
  bool is_excluded() const;  // by one that is given
  bool is_excluded_by(const option& other) const;
  std::vector<std::string> values() const;
  // As if the command line had them. Throws a usage_error.
  void give(const std::vector<std::string>& values) const;
  // As if nobody had given it. What it has filled stays.
  void forget() const;

  std::string name() const;  // without the dashes, "" when it has only a letter
  std::string letter() const;
  std::string value_name() const;
  std::string description() const;
  bool is_flag() const;
  // The words that the value may be, as far as they are known.
  std::vector<std::string> suggestions() const;

 private:
  CLI::Option* m_option;
};

// The tool, or one of its commands. What options fill lives as long as it does.
class command_line {
 public:
  explicit command_line(const std::string& description = "", const std::string& name = "");
  ~command_line();
  command_line(const command_line&) = delete;
  command_line& operator=(const command_line&) = delete;

  // "-s,--server" or one of the two. The texts stand in the help.
  option add(const std::string& names, std::string& value, const std::string& help);
  option add(const std::string& names, std::vector<std::string>& values, const std::string& help);
  option add(const std::string& names, int& value, const std::string& help);
  option add(const std::string& names, std::vector<int>& values, const std::string& help);
  option add(const std::string& names, uint32_t& value, const std::string& help);
  option add(const std::string& names, uint64_t& value, const std::string& help);
  option add(const std::string& names, std::function<void(int)> take, const std::string& help);
  option add_flag(const std::string& names, bool& value, const std::string& help);
  // One of the words, in any case.
  template <typename Enum>
  option add(const std::string& names, Enum& value, const std::map<std::string, Enum>& words,
             const std::string& help) {
    std::map<std::string, int> numbers;
    for (const auto& [word, meaning] : words) numbers[word] = static_cast<int>(meaning);
    const auto take = [&value](int number) { value = static_cast<Enum>(number); };
    return add_word(names, take, numbers, help);
  }
  command_line& add_command(const std::string& name, const std::string& description);
  void set_version(const std::string& text);
  void set_footer(const std::string& text);

  // False when it has been answered: the help or the version was asked for. Throws a usage_error.
  bool parse(int argc, const char* const* argv);
  bool is_chosen() const;
  std::vector<std::string> unknown_words() const;

  const std::string& name() const;
  std::string description() const;
  const command_line* parent() const { return m_parent; }
  std::vector<const command_line*> commands() const;
  std::vector<option> options() const;
  // What was given of the options with these long names, as name and value: in the order of the
  // command line, then what came from elsewhere.
  std::vector<std::pair<std::string, std::string>> in_order(
      const std::vector<std::string>& names) const;
  // Of this long name, without the dashes; an empty one when there is none.
  option find(const std::string& name) const;

 private:
  command_line(CLI::App* app, const command_line* parent);
  option add_word(const std::string& names, std::function<void(int)> take,
                  const std::map<std::string, int>& words, const std::string& help);

  std::unique_ptr<CLI::App> m_owned;  // of the tool
  CLI::App* m_app;
  const command_line* m_parent = nullptr;
  std::vector<std::unique_ptr<command_line>> m_commands;
};

}  // namespace tavmail

#endif
