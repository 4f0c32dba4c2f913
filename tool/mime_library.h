// mime_library.h - what is left to a MIME library: mails that the facade does not compose, types of
// files, and addresses of mails that others wrote.
//
// It is a module (module.h).

#ifndef MIME_LIBRARY_H
#define MIME_LIBRARY_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "header_block.h"

namespace tavmail {

// Puts up to `size` bytes to `bytes`; 0 at the end. May throw.
using byte_source = std::function<size_t(char* bytes, size_t size)>;
// Takes the next bytes. May throw.
using byte_sink = std::function<void(std::string_view bytes)>;

struct mime_text {
  std::string subtype;   // "plain", "html"
  std::string bytes;     // in the character set
  std::string char_set;  // its name
};

struct mime_file {
  byte_source read;
  std::string media_type;
  std::string char_set;  // "" for none
  std::string name;      // UTF-8
  bool is_base64;        // otherwise lines of text that go as they are
  bool is_fax_ignored;
};

struct mime_mail {
  std::vector<header_field> header;  // as it goes out, without what tells of the content
  std::vector<header_field> own;     // values in UTF-8, to be encoded and folded
  std::vector<mime_text> texts;      // one, or alternatives with the plainest first
  std::vector<mime_file> files;
};

class mime_library {
 public:
  virtual ~mime_library() = default;

  // The type that the system's table has for a file of that name; application/octet-stream when it
  // has none.
  virtual std::string media_type(const std::string& file_name) const = 0;
  // The bare addresses in the value of a header field (RFC 5322 3.4): without names and comments,
  // those of groups among them.
  virtual std::vector<std::string> addresses(const std::string& value) const = 0;
  // Writes the mail with lines that end in a line feed. Memory does not grow with its files.
  // Throws what a source or the sink throws.
  virtual void compose(const mime_mail& mail, const byte_sink& take) const = 0;

  // Throws a problem when the module cannot be loaded.
  static const mime_library& loaded();
};

}  // namespace tavmail

#endif
