#include "mail_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <vector>

#include "disk.h"
#include "mail_folder.h"
#include "spool_file.h"

namespace tavmail {

namespace {

// Mails as files of a folder, which get their names when they are whole.
class file_store : public mail_store {
 public:
  void write(std::string_view text) override { m_file->write(text); }
  void abandon() override { m_file.reset(); }

  std::string finish(const raw_header&) override {
    m_file->sync();
    std::string name = next_name();
    while (!m_file->move_to(m_folder + "/" + name)) name = next_name();
    m_file.reset();
    require_synced(std::filesystem::path(m_folder + "/" + name).parent_path());
    return name;
  }

  void discard_marked(const std::string& mark) const override {
    std::vector<std::filesystem::path> left;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(m_unfinished, error)) {
      if (entry.path().filename().string().rfind(prefix(mark), 0) == 0) left.push_back(entry);
    }
    for (const std::filesystem::path& path : left) unlink(path.c_str());
  }

  void begin(const std::string& mark) override {
    m_file.reset();
    m_file.emplace(m_unfinished, prefix(mark));
  }

 protected:
  file_store(const std::string& folder, const std::string& unfinished)
      : m_folder(folder), m_unfinished(unfinished) {}

  virtual std::string next_name() = 0;

 private:
  static std::string prefix(const std::string& mark) {
    return mark.empty() ? ".tavmail-" : ".tavmail-" + mark + "-";
  }

  const std::string m_folder;
  const std::string m_unfinished;  // the folder of those that are not whole
  std::optional<spool_file> m_file;
};

class eml_folder : public file_store {
 public:
  explicit eml_folder(const std::string& folder)
      : file_store(folder, folder), m_next(next_mail_number(folder)) {}

  wire_text::line_end line_end() const override { return wire_text::line_end::cr_lf; }

 private:
  std::string next_name() override {
    char name[24];
    std::snprintf(name, sizeof name, "%04d.eml", m_next++);
    return name;
  }

  int m_next;
};

// As other programs make the names: the time, what is unique at it, the host.
class maildir : public file_store {
 public:
  explicit maildir(const std::string& folder) : file_store(folder, folder + "/tmp") {
    for (const char* part : {"/tmp", "/new", "/cur"}) make_folder(folder + part);
    require_synced(folder);
    char host[256] = "";
    if (gethostname(host, sizeof host - 1) != 0 || host[0] == '\0') std::strcpy(host, "localhost");
    for (const char* ch = host; *ch != '\0'; ++ch) {
      m_host += *ch == '/' ? "\\057" : *ch == ':' ? "\\072" : std::string(1, *ch);
    }
  }

 private:
  std::string next_name() override {
    using namespace std::chrono;
    const auto now = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    return "new/" + std::to_string(now / 1000000) + ".M" + std::to_string(now % 1000000) + "P" +
           std::to_string(getpid()) + "Q" + std::to_string(++m_count) + "." + m_host;
  }

  std::string m_host;
  int m_count = 0;
};

// A folder with other things in it was meant for something else.
void require_maildir(const std::string& folder) {
  std::error_code error;
  const bool is_one = std::filesystem::is_directory(folder + "/new", error) ||
                      std::filesystem::is_empty(folder, error);
  if (!is_one) {
    throw problem(EX_CANTCREAT, folder + " holds other files and is no Maildir; give another one");
  }
}

}  // namespace

std::unique_ptr<mail_store> make_mail_store(mail_format format, const std::string& folder) {
  if (format == mail_format::mbox) return make_mbox(folder);
  make_folder(folder);
  if (format == mail_format::eml) return std::make_unique<eml_folder>(folder);
  require_maildir(folder);
  return std::make_unique<maildir>(folder);
}

}  // namespace tavmail
