// Runs a fuzz target over files and folders without libFuzzer, so that every compiler's build tries
// what fuzzing has found: corpus_main FILE|FOLDER...

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz_input.h"

namespace {

namespace fs = std::filesystem;

void collect(const fs::path& path, std::vector<fs::path>& files) {
  if (!fs::is_directory(path)) {
    files.push_back(path);
    return;
  }
  for (const auto& entry : fs::directory_iterator(path))
    if (entry.is_regular_file()) files.push_back(entry.path());
}

void try_file(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(file), {}};
  // Exactly as large as the input, as libFuzzer hands it over.
  const std::vector<uint8_t> data(bytes.begin(), bytes.end());
  std::cout << path.filename().string() << std::endl;  // flushed: it tells where a crash was
  LLVMFuzzerTestOneInput(data.data(), data.size());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) collect(argv[i], files);
  std::sort(files.begin(), files.end());
  for (const fs::path& path : files) try_file(path);
  std::cout << files.size() << " inputs\n";
  return files.empty() ? 1 : 0;
}
