// The folder of received mails and the list of those that were seen.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "mail_folder.h"
#include "problem.h"
#include "seen_file.h"
#include "temporary_folder.h"

namespace tavmail {
namespace {

using namespace quorvelmida;

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
    for (const std::string& uid : uids) seen.begin(uid);
    seen.finish("plain");
  }
  EXPECT_NE(folder.read("seen").find("\n0 plain\n1 %\n1 a%20b\n1 %2541\n"), std::string::npos);
  seen_file seen(path);
  EXPECT_EQ(seen.size(), std::size(uids));
  for (const std::string& uid : uids) EXPECT_EQ(seen.tries(uid), uid == "plain" ? 0 : 1) << uid;
}

// Status 1 waits, 2 was handed out.
TEST(SeenFile, gives_a_mail_three_tries) {
  const temporary_folder folder;
  const int expected[] = {1, 1, 2, 2};
  for (int run = 0; run < 4; ++run) {
    seen_file seen(folder / "seen");
    if (run < 3) seen.begin("u");
    seen.begin("interrupted");
    seen.cancel("interrupted");
    tav_eml_pop3_mail_info_list list(10);
    seen.fill(list);
    ASSERT_EQ(list.m_MailInfoVector.Count(), 1);
    const auto* info = static_cast<tav_eml_pop3_mail_info*>(list.m_MailInfoVector.ElementAt(0));
    EXPECT_EQ(info->m_nEntryStatus, expected[run]) << run;
  }
  seen_file seen(folder / "seen");
  seen.finish("u");
  EXPECT_EQ(seen.tries("u"), 0);
  seen.keep(tav_eml_pop3_mail_info_list(1));
  EXPECT_EQ(seen.size(), 0u);
}

TEST(SeenFile, names_the_line_that_is_none) {
  const temporary_folder folder;
  for (const char* line : {"x", "1", "-1 u", "1 u v", "99999999999 u"}) {
    folder.write("seen", "# title\n\n0 good\n" + std::string(line) + "\n");
    const std::string sentence = sentence_of<problem>([&] { seen_file{folder / "seen"}; });
    EXPECT_NE(sentence.find("seen:4: expected \"TRIES UID\""), std::string::npos) << line;
  }
}

TEST(SeenFile, keeps_the_old_file_and_one_process) {
  const temporary_folder folder;
  const std::string path = folder / "seen";
  seen_file seen(path);
  EXPECT_NE(sentence_of<problem>([&] { seen_file{path}; }).find("another"), std::string::npos);
  seen.begin("old");
  const std::string before = folder.read("seen");
  {
    const full_disk disk(40);  // less than the title
    EXPECT_THROW(seen.begin("new"), problem);
  }
  EXPECT_EQ(folder.read("seen"), before);
  EXPECT_FALSE(std::filesystem::exists(path + ".new"));
  folder.write("seen.new", "half of a file that a killed process le");
  seen.finish("old");
  EXPECT_NE(folder.read("seen").find("\n0 old\n1 new\n"), std::string::npos);
}

}  // namespace
}  // namespace tavmail
