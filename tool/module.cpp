#include "module.h"

#include <dlfcn.h>

#include <filesystem>

#include "problem.h"

namespace tavmail {

namespace {

constexpr char kFolder[] = TAVMAIL_MODULES;  // from the folder of the tool

}  // namespace

const void* load_module(const std::string& name, const std::string& remedy) {
  const std::filesystem::path tool = std::filesystem::read_symlink("/proc/self/exe");
  const std::string path = tool.parent_path() / kFolder / ("tavmail-" + name + ".so");
  // It stays: what it registers with its libraries cannot be taken back.
  void* const module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
  void* const entry = module != nullptr ? dlsym(module, "tavmail_module") : nullptr;
  if (entry != nullptr) return reinterpret_cast<decltype(&tavmail_module)>(entry)();
  // It begins with the name of what is missing: the module, or one of its libraries.
  throw problem(EX_UNAVAILABLE, std::string("cannot load ") + dlerror(), remedy);
}

}  // namespace tavmail
