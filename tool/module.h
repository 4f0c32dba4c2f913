// module.h - parts of the tool that are loaded on first use, because their libraries take longer to
// load than a plain mail to send.

#ifndef MODULE_H
#define MODULE_H

#include <string>

namespace tavmail {

// The interface of tavmail-NAME.so; it stays loaded. `remedy` tells a person what to install.
// Throws a problem when it cannot be loaded.
const void* load_module(const std::string& name, const std::string& remedy);

}  // namespace tavmail

// What a module exports: it gives its interface.
extern "C" __attribute__((visibility("default"))) const void* tavmail_module();

#endif
