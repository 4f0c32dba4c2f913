// Runs a fuzz target over the files of a folder without libFuzzer, so that every compiler's build
// tries what fuzzing has found, and each input N times with some bytes changed at random, from a
// fixed seed: corpus_main FOLDER [N]

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

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

}  // namespace

int main(int argc, char** argv) {
  const int changes = argc > 2 ? std::stoi(argv[2]) : 0;
  int inputs = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string original{std::istreambuf_iterator<char>(file), {}};
    std::cout << entry.path().filename() << std::endl;  // flushed: it tells where a crash was
    std::mt19937 random(static_cast<unsigned>(original.size()));
    for (int n = 0; n <= changes; ++n) {
      // Exactly as large as the input, as libFuzzer hands it over.
      const std::string bytes = n == 0 ? original : changed(original, random);
      const std::vector<uint8_t> data(bytes.begin(), bytes.end());
      LLVMFuzzerTestOneInput(data.data(), data.size());
    }
    ++inputs;
  }
  std::cout << inputs << " inputs\n";
  return inputs > 0 ? 0 : 1;
}
