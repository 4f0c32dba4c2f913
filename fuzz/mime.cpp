// What is read from mails and what they are made of: addresses, headers, codecs, character sets,
// encoded words.
//
// Control bytes: which of these (0 to 4); the allocation that fails (0: none), and whether all
// later ones do; operation and kind, and what the operation wants. Then text.

#include <algorithm>
#include <cctype>
#include <functional>
#include <optional>
#include <vector>

#include "codec/base64_kernel.h"
#include "fake_memory.h"
#include "text.h"
#include "values.h"

#undef NDEBUG  // what must hold is checked in every build
#include <cassert>

namespace {

using namespace quorvelmida;
using namespace std::placeholders;
using tav_test::fake_memory;
using tav_test::size_of;
using codecs = tav_eml_mlutl_mime_utility;
using address = tav_eml_mlutl_mail_address;
using bytes = std::vector<char>;  // a block of its own, so that a read past it is seen

// "0" is the control byte 0, "1" is 1 and so on, so that seeds are written with an editor.
unsigned control(const std::string& in, size_t i) {
  return i < in.size() ? static_cast<unsigned char>(in[i]) ^ unsigned { '0' } : 0;
}

// Whether a call hands something out. One that fails leaves null and 0.
template <typename Pointer = char*, typename Call>
bool made(std::string& out, Call&& call) {
  out = tav_test::result_of<Pointer>(call);
  assert(out.find("(failed, and") != 0);
  return out != "(failed)";
}

void read_addresses(const std::string& text) {
  const address list(text.c_str());
  UtlString one, bare;
  for (int pos = 0, before = 0; list.get_address(one, pos, ";,") != 0; before = pos) {
    assert(pos > before && static_cast<size_t>(pos) <= text.size());
    if (address::get_real_address(bare, one.GetString()) != 0)
      assert(!bare.IsEmpty() && bare.GetLength() <= one.GetLength());
  }
}

void analyse(const std::string& text) {
  tav_eml_mlutl_receive receive;
  tav_eml_mlutl_mail mail;
  mail.set_part(new tav_eml_mlutl_mail_part);
  const size_t part = std::min(text.find("\r\n\r\n"), text.size());
  mail.m_cHeader1 = mail.m_cHeader2 = text.c_str();
  receive.AnalyzeMailHeader(mail, text.substr(0, part).c_str(), 0);
  receive.AnalyzePartHeader(mail, text.substr(std::min(part + 4, text.size())).c_str(), 0);
  assert(mail.m_nBoundaryLevel <= 100);
  assert(easy::text_of(mail.m_cSubject).find("\r\n") == std::string::npos);
}

// What the practice mail server makes of base64, once nothing else is in it. The library takes a
// NUL for an A. A character that is left over says nothing.
std::string plain_decoded(const std::string& text) {
  std::string digits;
  for (char c : text) {
    if (c == '\0') c = 'A';
    if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '+' || c == '/') digits += c;
  }
  if (digits.size() % 4 == 1) digits.pop_back();
  while (digits.size() % 4 != 0) digits += '=';
  return mailhost::from_base64(digits).value();
}

// Base64 with each kernel of this machine, against the server's plain one.
void base64(const std::string& whole, size_t skipped, int line) {
  const bytes in(whole.begin(), whole.end());
  const std::string text = whole.substr(skipped), decoded = plain_decoded(text);
  const size_t width = line >= 4 ? static_cast<size_t>(line / 4 * 4) : SIZE_MAX / 2;
  std::string encoded = mailhost::to_base64(text);
  for (size_t at = width; at < encoded.size(); at += width + 2) encoded.insert(at, "\r\n");
  std::string out;
  for (const base64_kernel* const kernel : base64_kernels()) {
    if (kernel == nullptr) continue;
    choose_base64_kernel(kernel);
    const char* const start = in.data() + skipped;
    if (made<void*>(out, std::bind(codecs::from_b64, start, size_of(text), _1, _2)))
      assert(out == decoded);
    if (made(out, std::bind(codecs::to_b64, start, size_of(text), _1, _2, line)))
      assert(out == encoded);
  }
  choose_base64_kernel(nullptr);
}

std::optional<std::string> to_utf8(TAV_EML_CHAR_SET set, const std::string& text) {
  std::string utf8;
  return easy::detail::convert(text, set, utf8) ? std::optional(utf8) : std::nullopt;
}

// A cut leaves two texts that say together what the whole said.
void cut(const std::string& raw, TAV_EML_CHAR_SET set, long wanted, unsigned flags,
         const fake_memory& memory) {
  static const char* const kReopen[] = {"",       "\033(J",       "\033(I", "\033$@",
                                        "\033$B", "\033&@\033$B", "\033$(D"};
  const std::string text = raw.c_str();
  tav_eml_mlutl_mail_part part;
  part.m_nCharSet = set;
  part.m_nComplete = flags & 1;
  part.m_nContentType = (flags & 2) != 0 ? TAV_EML_CT_APPLICATION_PDF : TAV_EML_CT_TEXT_PLAIN;
  long at = std::min(wanted, size_of(text));
  const int mode = part.AdjustMultiByteCode(text.c_str(), at, (flags & 4) != 0 ? 1 : 0);
  assert(at >= 0 && at <= size_of(text) && at <= wanted + 5 && mode >= 0 && mode <= 6);
  // In two-byte mode a blank or control character counts as half of a character.
  const auto is_odd = [](unsigned char ch) { return (ch <= ' ' && ch != 033) || ch == 0x7F; };
  if (std::any_of(text.begin(), text.end(), is_odd)) return;
  const auto whole = to_utf8(set, text);
  if ((flags & 4) != 0 || set == TAV_EML_CS_UTF_8 || !whole) return;
  const auto size = static_cast<size_t>(at);
  const auto front = to_utf8(set, text.substr(0, size) + (mode != 0 ? "\033(B" : ""));
  const auto back = to_utf8(set, kReopen[mode] + text.substr(size));
  assert(memory.state().failed || (front && back && *front + *back == *whole));
}

// Every word says something by itself, and together they say the text.
void encode_words(const std::string& text, TAV_EML_CHAR_SET set, int max_line,
                  const fake_memory& memory) {
  const bytes in(text.begin(), text.end());
  std::string words, decoded, all;
  if (!made(words,
            std::bind(codecs::ToMimeEncode, set, in.data(), size_of(text), _1, _2, max_line)))
    return;
  const bool folded = words.find("\r\n\t") != std::string::npos;
  for (size_t start = 0; start <= words.size();) {
    const size_t end = std::min(words.find("\r\n\t", start), words.size());
    TAV_EML_CHAR_SET found = TAV_EML_CS_NONE;
    const bool is_decoded = made(decoded, std::bind(codecs::inline_decode, words.data() + start,
                                                    end - start, _1, _2, std::ref(found), 0));
    const auto utf8 = to_utf8(set, decoded);
    if (memory.state().failed) return;  // the word may hold something else, or stand as it is
    const int length = static_cast<int>(end - start) + (end != words.size() ? 2 : 0);
    assert(is_decoded && utf8 && (!folded || length <= max_line));
    all += *utf8;
    start = end + 3;
  }
  if (set == TAV_EML_CS_UTF_8) assert(folded ? all == text : text.compare(0, all.size(), all) == 0);
}

void run(unsigned what, const std::string& in, const fake_memory& memory) {
  const unsigned operation = control(in, 3), kind = control(in, 4);
  const auto set = static_cast<TAV_EML_CHAR_SET>(kind % (TAV_EML_CS_NONE + 1));
  const int other = static_cast<int>(what == 2 ? kind : what > 2 ? control(in, 5) : 0) - 8;
  const unsigned wanted = control(in, 6), flags = control(in, 7);  // of a cut
  const size_t controls = what == 3 ? 8 : what == 4 ? 6 : 5;
  const std::string text = in.substr(std::min(controls, in.size()));
  if (what == 0) return read_addresses(text);
  if (what == 1) return analyse(text);
  if (what == 3) return cut(text, set, wanted, flags, memory);
  for (size_t skipped = 0; what == 2 && skipped < std::min<size_t>(text.size(), 16); ++skipped)
    base64(text, skipped, other);
  if (what == 4 && operation == 1) return encode_words(text, set, other, memory);
  const bytes block(text.begin(), text.end());
  const char* const data = block.data();
  const long size = size_of(text);
  TAV_EML_CHAR_SET found = set;
  std::string out;
  made<void*>(out, std::bind(codecs::from_qp, data, size, _1, _2));
  made(out, std::bind(codecs::inline_decode, data, size, _1, _2, std::ref(found), 0));
  made(out, std::bind(codecs::inline_encode, data, size, _1, _2, set));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string in(data, data + size);
  const unsigned what = control(in, 0) % 5;
  fake_memory memory;
  memory.fail(control(in, 1), (control(in, 2) & 1) != 0);
  try {
    run(what, in, memory);
  } catch (const std::bad_alloc&) {
  }
  assert(memory.clean());
  return 0;
}
