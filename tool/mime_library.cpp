#include "mime_library.h"

#include <dlfcn.h>

#include <filesystem>
#include <string>

#include "problem.h"

namespace tavmail {

namespace {

constexpr char kModule[] = TAVMAIL_MIME_MODULE;  // from the folder of the tool

const mime_library* load() {
  using entry = const mime_library* (*)();
  // It stays: what it registers with its libraries cannot be taken back.
  const std::filesystem::path tool = std::filesystem::read_symlink("/proc/self/exe");
  const std::string path = tool.parent_path() / kModule;
  void* const module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  void* const found = module != nullptr ? dlsym(module, "tavmail_mime") : nullptr;
  return found != nullptr ? reinterpret_cast<entry>(found)() : nullptr;
}

}  // namespace

const mime_library& mime_library::loaded() {
  static const mime_library* const library = load();
  if (library != nullptr) return *library;
  throw problem(EX_SOFTWARE, std::string("cannot load ") + kModule + "; install tavmail again");
}

}  // namespace tavmail
