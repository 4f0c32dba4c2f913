// mail_folder.h - where received mails are saved.

#ifndef MAIL_FOLDER_H
#define MAIL_FOLDER_H

#include <cstdint>
#include <string>

namespace tavmail {

// A file that is being written. It exists only when it was kept: an unfinished one is removed.
class saved_file {
 public:
  // A new file in `folder` with this name, or one like it when it is taken.
  saved_file(const std::string& folder, const std::string& name);
  saved_file(const saved_file&) = delete;
  saved_file& operator=(const saved_file&) = delete;
  ~saved_file();

  void write(const char* bytes, size_t length);  // throws a problem when the disk is full
  void keep();

  const std::string& name() const { return m_name; }
  uint64_t size() const { return m_size; }

 private:
  const std::string m_folder;
  std::string m_name;
  int m_fd = -1;
  uint64_t m_size = 0;
};

// Makes the folder when it does not exist. Throws a problem.
void make_folder(const std::string& path);

// The number after those of the mails "0001", "0002.part", "0003.eml" ... in a folder.
int next_mail_number(const std::string& folder);

// A folder with a sub-folder "0001", "0002" ... for each mail; while the mail is not complete it is
// "0001.part". Nothing is ever overwritten.
class mail_folder {
 public:
  // Makes the folder, as make_folder.
  explicit mail_folder(const std::string& path);

  // Makes the next sub-folder and returns its name; gives it its final name, which is returned.
  // `mark` ("" for none) tells whose it is while it is not finished.
  std::string begin_mail(const std::string& mark = {});
  std::string finish_mail(const std::string& name, const std::string& mark = {}) const;
  std::string path_of(const std::string& name) const { return m_path + "/" + name; }
  // Removes a sub-folder and what is in it.
  void discard(const std::string& name) const;
  // Removes the unfinished sub-folders with a mark.
  void discard_marked(const std::string& mark) const;

 private:
  std::string mark_path(const std::string& name, const std::string& mark) const;

  const std::string m_path;
  int m_next = 1;
};

}  // namespace tavmail

#endif
