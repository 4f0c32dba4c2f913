// Runs a fuzz target over files and folders without libFuzzer, so that every compiler's build tries
// what fuzzing has found, and each input N times with some bytes changed at random, from a fixed
// seed: corpus_main [--changes=N] FILE|FOLDER...

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
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

// Some bytes changed, dropped or doubled. The first one says what is tried, and stays.
std::string changed(std::string bytes, std::mt19937& random) {
  for (unsigned n = random() % 4 + 1; n > 0 && bytes.size() > 1; --n) {
    const size_t at = random() % (bytes.size() - 1) + 1, length = random() % 8;
    if (random() % 3 == 0) bytes[at] = static_cast<char>(random());
    if (random() % 3 == 0) bytes.erase(at, length);
    if (random() % 3 == 0) bytes.insert(std::min(at, bytes.size()), bytes.substr(0, 3 * length));
  }
  return bytes;
}

void try_file(const fs::path& path, int changes) {
  std::ifstream file(path, std::ios::binary);
  const std::string original{std::istreambuf_iterator<char>(file), {}};
  std::cout << path.filename().string() << std::endl;  // flushed: it tells where a crash was
  std::mt19937 random(static_cast<unsigned>(original.size()));
  for (int n = 0; n <= changes; ++n) {
    // Exactly as large as the input, as libFuzzer hands it over.
    const std::string bytes = n == 0 ? original : changed(original, random);
    const std::vector<uint8_t> data(bytes.begin(), bytes.end());
    LLVMFuzzerTestOneInput(data.data(), data.size());
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<fs::path> files;
  int changes = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::string(argv[i]).rfind("--changes=", 0) == 0)
      changes = std::stoi(argv[i] + 10);
    else
      collect(argv[i], files);
  }
  std::sort(files.begin(), files.end());
  for (const fs::path& path : files) try_file(path, changes);
  std::cout << files.size() << " inputs\n";
  return files.empty() ? 1 : 0;
}
