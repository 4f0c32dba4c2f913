// The folder of received mails and the list of those that were seen.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>

#include "mail_folder.h"
#include "problem.h"
#include "seen_file.h"
#include "seen_path.h"
#include "temporary_folder.h"

namespace tavmail {
namespace {

// Files of this process stay small while it lives: a full disk.
class full_disk {
 public:
  explicit full_disk(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &m_cBefore);
    m_cSignal = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {bytes, m_cBefore.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~full_disk() {
    setrlimit(RLIMIT_FSIZE, &m_cBefore);
    std::signal(SIGXFSZ, m_cSignal);
  }

 private:
  rlimit m_cBefore;
  void (*m_cSignal)(int);
};

std::string save(const std::string& folder, const std::string& name, const std::string& bytes) {
  saved_file file(folder, name);
  file.write(bytes.data(), bytes.size());
  file.keep();
  return file.name();
}

TEST(SavedFile, overwrites_nothing_and_follows_no_link) {
  const temporary_folder folder;
  folder.write("a.pdf", "mine");
  std::filesystem::create_symlink(folder / "elsewhere", folder / "a-2.pdf");
  std::filesystem::create_directory(folder / "a-3.pdf");
  EXPECT_EQ(save(folder.path(), "a.pdf", "new"), "a-4.pdf");
  EXPECT_EQ(folder.read("a.pdf"), "mine");
  EXPECT_EQ(folder.read("a-4.pdf"), "new");
  EXPECT_FALSE(std::filesystem::exists(folder / "elsewhere"));
  folder.write("noext", "");
  EXPECT_EQ(save(folder.path(), "noext", ""), "noext-2");
  struct stat status;
  ASSERT_EQ(stat((folder / "a-4.pdf").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST(SavedFile, leaves_nothing_that_is_not_complete) {
  const temporary_folder folder;
  {
    saved_file file(folder.path(), "a");
    file.write("half", 4);
  }
  const full_disk disk(1000);
  const std::string sentence =
      sentence_of<problem>([&] { save(folder.path(), "b", std::string(5000, 'x')); });
  EXPECT_NE(sentence.find("cannot write " + (folder / "b")), std::string::npos) << sentence;
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(MailFolder, takes_the_next_free_number) {
  const temporary_folder folder;
  for (const char* name : {"0007", "12", "0099x", "notes.txt"}) {
    std::filesystem::create_directory(folder / name);
  }
  std::filesystem::create_directory(folder / "0011.part");  // of a run that was killed
  mail_folder mails(folder.path());
  folder.write("0012", "a file in the way");
  std::filesystem::create_symlink("/nowhere", folder / "0013");
  std::filesystem::create_symlink(folder.path(), folder / "0014.part");
  const std::string name = mails.begin_mail();
  EXPECT_EQ(name, "0015.part");
  save(mails.path_of(name), "a", "x");
  EXPECT_EQ(mails.finish_mail(name), "0015");
  EXPECT_EQ(folder.read("0015/a"), "x");
  mails.discard(mails.begin_mail());
  EXPECT_FALSE(std::filesystem::exists(folder / "0016.part"));
  mails.begin_mail("a");
  mails.begin_mail("b");
  mails.discard_marked("a");
  EXPECT_FALSE(std::filesystem::exists(folder / "0017.part"));
  EXPECT_EQ(mails.finish_mail("0018.part", "b"), "0018");
  EXPECT_TRUE(std::filesystem::is_empty(folder / "0018"));
  folder.write("file", "");
  EXPECT_THROW(mail_folder(folder / "file"), problem);
  EXPECT_THROW(mail_folder(folder / "file/below"), problem);
}

TEST(SeenFile, keeps_any_unique_id_over_runs) {
  const temporary_folder folder;
  const std::string path = folder / "seen";
  const std::string uids[] = {"plain", "", "a b", "%41", "日本", "#x", "\x01\xff", "0"};
  {
    seen_file seen(path);
    for (const std::string& uid : uids) seen.begin({uid, 1});
    seen.finish({"plain", 1}, true);
    seen.settle({});
  }
  EXPECT_NE(folder.read("seen").find("\n1 %2541\n1 0\n1 a%20b\ndelete plain\n"), std::string::npos);
  const seen_file seen(path);
  for (const std::string& uid : uids)
    EXPECT_EQ(seen.tries({uid, 1}), uid == "plain" ? 0 : 1) << uid;
  EXPECT_TRUE(seen.is_to_go({"plain", 1}));
}

TEST(SeenFile, gives_a_mail_three_tries) {
  const temporary_folder folder;
  for (int run = 0; run < 4; ++run) {
    seen_file seen(folder / "seen");
    EXPECT_EQ(seen.is_given_up({"u", 1}), run == 3) << run;
    if (run < 3) seen.begin({"u", 1});
    seen.begin({"interrupted", 1});
    seen.cancel({"interrupted", 1});
    EXPECT_EQ(seen.tries({"interrupted", 1}), 0);
  }
  seen_file seen(folder / "seen");
  seen.finish({"u", 1}, false);
  EXPECT_TRUE(seen.is_received({"u", 1}) && !seen.is_to_go({"u", 1}));
  seen.keep({});
  EXPECT_FALSE(seen.is_received({"u", 1}));
}

// What a file says about the copies of one unique id, the count on the server, and what it says
// then: no mail is lost because a copy is gone.
TEST(SeenFile, takes_copies_that_are_gone_for_received_ones) {
  const struct {
    const char* before;
    int there;
    const char* after;
  } cases[] = {
      {"0 u\n0 u 2\n", 2, "0 u\n0 u 2\n"},
      {"0 u\n0 u 2\n", 1, "0 u\n"},
      {"0 u\n1 u 2\n", 1, "1 u\n"},
      {"1 u\ndelete u 2\n", 1, "1 u\n"},
      {"0 u\n", 2, "0 u\nnew u 2\n"},
      {"0 u\nnew u 2\n", 1, ""},
      {"", 2, "new u\nnew u 2\n"},
      {"0 u\n1 u\n2 u\n", 1, "2 u\n"},
      {"0 u\n0 v\n", 1, "0 u\n"},
      {"0 u\n0 other-that-was-cut", 1, "0 u\n"},
      {"delete u\n3 u 3\n", 2, "new u\n3 u 2\n"},
  };
  for (const auto& test : cases) {
    const temporary_folder folder;
    folder.write("seen", test.before);
    seen_file(folder / "seen").keep({{"u", test.there}});
    const std::string text = folder.read("seen");
    EXPECT_EQ(text.substr(text[0] == '#' ? text.find('\n') + 1 : 0), test.after) << test.before;
  }
}

TEST(SeenFile, forgets_what_was_deleted) {
  const temporary_folder folder;
  folder.write("seen", "delete u\n1 u 2\ndelete u 3\ndelete v\n");
  seen_file(folder / "seen").settle({{"u", 1}, {"v", 1}, {"u", 3}});
  EXPECT_NE(folder.read("seen").find("copy\n1 u\n"), std::string::npos) << folder.read("seen");
}

TEST(SeenFile, names_the_line_that_is_none) {
  const temporary_folder folder;
  for (const char* line : {"x", "1", "-1 u", "1 u v", "1 u 1", "1 u 2 3", "99999999999 u"}) {
    folder.write("seen", "# title\n\n0 good\n" + std::string(line) + "\n");
    const std::string sentence = sentence_of<problem>([&] { seen_file{folder / "seen"}; });
    EXPECT_NE(sentence.find("seen:4: expected \"STATE UID\""), std::string::npos) << line;
  }
}

TEST(SeenFile, keeps_the_old_file_and_one_process) {
  const temporary_folder folder;
  const std::string path = folder / "seen";
  seen_file seen(path);
  EXPECT_NE(sentence_of<problem>([&] { seen_file{path}; }).find("another"), std::string::npos);
  seen.begin({"old", 1});
  const std::string before = folder.read("seen");
  for (const rlim_t bytes : {40U, static_cast<unsigned int>(before.size()) + 3}) {
    const full_disk disk(bytes);  // not even the title, and half of a line
    EXPECT_THROW(seen.begin({"new", 1}), problem);
    EXPECT_EQ(folder.read("seen"), before);
  }
  seen.finish({"old", 1}, false);
  EXPECT_EQ(folder.read("seen"), before + "0 old\n");
}

// A run writes two lines for each mail. Links of others lead nowhere.
TEST(SeenFile, costs_little_and_follows_no_link) {
  const temporary_folder folder;
  for (const char* name : {"seen.new", "seen.XXXXXX"}) {
    std::filesystem::create_symlink(folder / "elsewhere", folder / name);
  }
  {
    seen_file seen(folder / "seen");
    for (int i = 0; i < 100; ++i) {
      seen.begin({"uid-" + std::to_string(i), 1});
      seen.finish({"uid-" + std::to_string(i), 1}, false);
    }
    struct stat status;
    ASSERT_EQ(stat((folder / "seen").c_str(), &status), 0);
    EXPECT_LT(status.st_size, 100 + 2 * 100 * 9);
  }
  EXPECT_FALSE(std::filesystem::exists(folder / "elsewhere"));
  std::filesystem::create_symlink(folder / "elsewhere", folder / "other.lock");
  EXPECT_THROW(seen_file{folder / "other"}, problem);
  EXPECT_FALSE(std::filesystem::exists(folder / "elsewhere"));
}

TEST(SeenPath, has_a_name_for_every_mailbox) {
  const struct {
    bool is_implicit;
    const char* server;
    int port;
    std::string user;
    std::string key;
  } cases[] = {
      {true, "Mail.Example.com.", 995, "anna@x", "pop3s,mail.example.com,995,anna@x"},
      {false, "mail.example.com", 110, "anna", "pop3,mail.example.com,110,anna"},
      {false, "mail.example.com", 1110, "anna", "pop3,mail.example.com,1110,anna"},
      {false, "::1", 110, "CORP\\anna", "pop3,%3A%3A1,110,CORP%5Canna"},
      {false, "::1", 110, "CORP%5Canna", "pop3,%3A%3A1,110,CORP%255Canna"},
      {false, "h", 110, "../a,~/b", "pop3,h,110,..%2Fa%2C%7E%2Fb"},
      {false, "h", 110, "", "pop3,h,110,"},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(mailbox_key(test.is_implicit, test.server, test.port, test.user), test.key);
  }
  const temporary_folder folder;
  setenv("XDG_STATE_HOME", folder.path().c_str(), 1);
  const auto path = [](const std::string& user) {
    return default_seen_path(mailbox_key(false, "h", 110, user), "h", user);
  };
  const std::string longest(300, 'x');
  EXPECT_LT(path(longest).path.size(), folder.path().size() + 140);
  EXPECT_NE(path(longest).path, path(longest + "x").path);
  EXPECT_EQ(path("anna").old, folder / "tavmail/anna@h.seen");
  EXPECT_EQ(path("CORP\\anna").old, "");
  unsetenv("XDG_STATE_HOME");
}

}  // namespace
}  // namespace tavmail
