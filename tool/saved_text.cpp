#include "saved_text.h"

#include <filesystem>
#include <fstream>
#include <memory>

#include "mail_folder.h"
#include "problem.h"
#include "received_text.h"
#include "text_converter.h"
#include "words.h"

namespace tavmail {

namespace {

constexpr size_t kTextBlock = size_t{64} << 10;
constexpr char kUnfinishedText[] = ".utf-8";  // no part has a name that begins with a dot
constexpr char kMark[] = "\xEF\xBB\xBF";

// Texts of old mail programs name no character set.
std::string set_of(const std::string& named, const std::string& begin) {
  if (!named.empty() && named != "us-ascii") return named;
  return begin.find("\x1B$") != std::string::npos ? "iso-2022-jp" : "";
}

std::string next_block(std::ifstream& in) {
  std::string block(kTextBlock, '\0');
  in.read(block.data(), static_cast<std::streamsize>(block.size()));
  block.resize(static_cast<size_t>(in.gcount()));
  return block;
}

}  // namespace

bool save_as_utf8(const std::string& folder, const std::string& name, const std::string& char_set,
                  bool has_mark) {
  const std::string path = folder + "/" + name;
  std::ifstream in(path, std::ios::binary);
  std::string block = next_block(in);
  const std::unique_ptr<text_converter> converter =
      make_text_converter(set_of(lower_case(char_set), block));
  if (converter == nullptr || block.empty()) return false;
  saved_file out(folder, kUnfinishedText);
  if (has_mark) out.write(kMark, sizeof kMark - 1);
  for (bool is_last = false; !is_last; block = next_block(in)) {
    is_last = block.size() < kTextBlock;
    std::string text;
    if (in.bad() || !converter->convert(block, is_last, text)) return false;
    out.write(text.data(), text.size());
  }
  out.keep();
  std::error_code error;
  std::filesystem::rename(folder + "/" + out.name(), path, error);
  if (error) throw problem(EX_CANTCREAT, "cannot write " + path + ": " + error.message());
  return true;
}

}  // namespace tavmail
