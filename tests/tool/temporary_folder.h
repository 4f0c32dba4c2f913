// temporary_folder.h - a folder of a test's own.

#ifndef TESTS_TOOL_TEMPORARY_FOLDER_H
#define TESTS_TOOL_TEMPORARY_FOLDER_H

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace tavmail {

class temporary_folder {
 public:
  temporary_folder() {
    std::string path = std::filesystem::temp_directory_path().string() + "/tool_test.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary folder");
    m_cPath = path;
  }
  temporary_folder(const temporary_folder&) = delete;
  temporary_folder& operator=(const temporary_folder&) = delete;
  ~temporary_folder() { std::filesystem::remove_all(m_cPath); }

  std::string operator/(const std::string& name) const { return m_cPath + "/" + name; }
  const std::string& path() const { return m_cPath; }

  void write(const std::string& name, const std::string& text) const {
    std::ofstream(*this / name, std::ios::binary) << text;
  }
  std::string read(const std::string& name) const {
    std::ifstream file(*this / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::string m_cPath;
};

// The sentence of the problem that `step` ends with, "" for none.
template <typename Problem, typename Step>
std::string sentence_of(Step step) {
  try {
    step();
  } catch (const Problem& cause) {
    return cause.what();
  }
  return {};
}

}  // namespace tavmail

#endif
