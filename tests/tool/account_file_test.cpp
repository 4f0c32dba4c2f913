#include "account_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <iterator>
#include <sstream>

#include "commands.h"
#include "mailbox_options.h"
#include "problem.h"
#include "temporary_folder.h"

namespace tavmail {
namespace {

// What an account makes of a command line.
struct result {
  mailbox_options mailbox;
  std::string password;  // "-" when there is none in the file
  std::string sentence;  // of the problem
};

result apply(const temporary_folder& folder, const std::string& text, const std::string& line,
             mode_t mode = 0600) {
  folder.write("config.toml", text);
  chmod((folder / "config.toml").c_str(), mode);
  command_line tool;
  add_send(tool);
  command_line& command = tool.add_command("take", "");
  result out;
  account_file account;
  account.add_to(command);
  out.mailbox.add_to(command);
  std::istringstream text_of_line("tavmail take --config " + (folder / "config.toml") + " " + line);
  const std::vector<std::string> words{std::istream_iterator<std::string>(text_of_line), {}};
  std::vector<const char*> arguments;
  for (const std::string& word : words) arguments.push_back(word.c_str());
  tool.parse(static_cast<int>(arguments.size()), arguments.data());
  out.sentence = sentence_of<problem>([&] { account.apply(command, tool, "pop3", out.mailbox); });
  out.mailbox.password_command = out.mailbox.password_command.empty() ? "echo -" : "echo other";
  return out;
}

TEST(AccountFile, fills_what_the_command_line_leaves_open) {
  const temporary_folder folder;
  const std::string text =
      "default = \"a\"\n[a.pop3]\nserver = \"s1\"\nport = 1100\ntls = \"none\"\napop = true\n"
      "tls_no_check = false\nattach = \"a key of send\"\n[b.pop3]\nserver = \"s2\"\nuser = "
      "\"~/u\"\n"
      "ca_file = \"~/c\"\npassword_file = \"~root/p\"\n";
  const result chosen = apply(folder, text, "--port 1");
  EXPECT_EQ(chosen.sentence, "");
  EXPECT_EQ(chosen.mailbox.server, "s1");
  EXPECT_EQ(chosen.mailbox.port, 1);
  EXPECT_EQ(chosen.mailbox.tls, tls_mode::none);
  EXPECT_TRUE(chosen.mailbox.apop);
  EXPECT_FALSE(chosen.mailbox.no_check);
  setenv("HOME", "/h", 1);
  const result paths = apply(folder, text, "-A b");
  EXPECT_EQ(paths.mailbox.server, "s2");
  EXPECT_EQ(paths.mailbox.user, "~/u");
  EXPECT_EQ(paths.mailbox.ca_file, "/h/c");
  EXPECT_EQ(paths.mailbox.password_file, "/root/p");
  EXPECT_NE(apply(folder, text, "-A b -s x").sentence.find("exclude"), std::string::npos);
}

// The password of an account is not for another server.
TEST(AccountFile, keeps_the_default_account_from_other_servers) {
  const temporary_folder folder;
  const std::string text =
      "default = \"a\"\n[a.pop3]\nserver = \"s1\"\nuser = \"u\"\npassword = \"geheim\"\n";
  const result other = apply(folder, text, "-s evil.example");
  EXPECT_EQ(other.sentence, "");
  EXPECT_EQ(other.mailbox.server, "evil.example");
  EXPECT_EQ(other.mailbox.user, "");
  EXPECT_STREQ(other.mailbox.take_password()->text(), "-");
  result own = apply(folder, text, "");
  own.mailbox.password_command.clear();
  EXPECT_STREQ(own.mailbox.take_password()->text(), "geheim");
}

TEST(AccountFile, names_the_line_and_what_was_expected) {
  const temporary_folder folder;
  const std::string head = "default = \"a\"\n[a.pop3]\nserver = \"s\"\n";
  const struct {
    std::string text;
    const char* line;
    const char* expected;
  } cases[] = {
      {head + "sever = \"x\"\n", "",
       "config.toml:4: unknown key \"sever\"; did you mean \"server\"?"},
      {head + "nonsense = 1\n", "", "config.toml:4: unknown key \"nonsense\""},
      {head + "port = \"pop\"\n", "", "config.toml:4: "},
      {head + "port = 70000\n", "", "range"},
      {head + "timeout = 1.5\n", "", "config.toml:4: timeout: expected a text, a number"},
      {head + "tls = \"ssl\"\n", "",
       "config.toml:4: --tls: ssl is not one of implicit, none, starttls"},
      {head + "apop = \"yes\"\n", "", "config.toml:4: apop: expected true or false"},
      {head + "user = [1]\n", "", "config.toml:4: user: expected a text"},
      {head + "password = 1\n", "", "config.toml:4: password: expected a text"},
      {head + "user = \"u\n", "", "config.toml:4: "},
      {head + "ca_file = \"~nobody-has-it/c\"\n", "", "~nobody-has-it has no home folder"},
      {"default = 1\n", "", "config.toml:1: default: expected the name of an account"},
      {head, "-A ab", "no account \"ab\" in "},
      {head, "-A ab", "did you mean \"a\"?"},
      {"[a.smtp]\n", "-A a", "config.toml:1: account \"a\" has no table [a.pop3]"},
  };
  for (const auto& test : cases) {
    const std::string sentence = apply(folder, test.text, test.line).sentence;
    EXPECT_NE(sentence.find(test.expected), std::string::npos) << test.text << sentence;
  }
}

TEST(AccountFile, refuses_secrets_that_others_can_read) {
  const temporary_folder folder;
  const std::string text = "[a.pop3]\nserver = \"s\"\n";
  const std::string secret = text + "[b.smtp]\npassword = \"geheim\"\n";
  EXPECT_EQ(apply(folder, text, "-A a", 0644).sentence, "");
  EXPECT_EQ(apply(folder, secret, "-A a", 0600).sentence, "");
  for (const mode_t mode : {mode_t{0640}, mode_t{0604}, mode_t{0620}}) {
    const std::string sentence = apply(folder, secret, "-A a", mode).sentence;
    EXPECT_NE(sentence.find("chmod 600"), std::string::npos) << sentence;
    EXPECT_EQ(sentence.find("geheim"), std::string::npos);
  }
  folder.write("bad.toml", "[a.pop3]\npassword = geheim\n");
  const result unreadable = apply(folder, "[a.pop3]\npassword = geheim\n", "-A a");
  EXPECT_NE(unreadable.sentence.find("config.toml:2: "), std::string::npos);
  EXPECT_EQ(unreadable.sentence.find("geheim"), std::string::npos) << unreadable.sentence;
}

}  // namespace
}  // namespace tavmail
