// What is read from mails and what they are made of: addresses, headers, codecs, character sets,
// encoded words, the filter.
//
// Control bytes: which of these (0 to 5), failing allocation (2), operation and kind, and what the
// operation wants. Then text or lines.

#include <vector>

#include "codec/base64_kernel.h"
#include "fuzz_input.h"
#include "plain_base64.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using tav_test::fake_memory;
using tav_test::size_of;
using tav_test::to_utf8;
using codecs = tav_eml_mlutl_mime_utility;
using address = tav_eml_mlutl_mail_address;
using bytes = std::vector<char>;  // a block of its own, so that a read past it is seen

// What a call hands out. Success has text and a NUL behind it, a failure leaves null and 0.
template <typename Pointer = char*, typename Call>
bool made(std::string& out, Call&& call) {
  char garbage = 0;
  Pointer data = &garbage;
  long length = -77;
  const bool succeeded = call(data, length) != 0;
  REQUIRE((data != nullptr) == succeeded && length >= 0 && (succeeded || length == 0));
  if (succeeded) out = tav_test::taken(data, length);
  return succeeded;
}

void read_addresses(const std::string& text) {
  const address list(text.c_str());
  UtlString one, bare;
  for (int pos = 0, before = 0; list.get_address(one, pos, ";,") != 0; before = pos) {
    REQUIRE(pos > before && static_cast<size_t>(pos) <= text.size());
    if (address::get_real_address(bare, one.GetString()) != 0)
      REQUIRE(!bare.IsEmpty() && bare.GetLength() <= one.GetLength());
  }
}

void compose(fuzz::input& in, unsigned kind, TAV_EML_CHAR_SET set) {
  tav_eml_smtp_send_mail mail;
  mail.m_nContentType = static_cast<TAV_EML_CONTENT_TYPE>(kind % (TAV_EML_CT_UNKNOWN + 1));
  mail.m_nContentDisposition = static_cast<TAV_EML_CONTENT_DISPOSITION>(kind % 4);
  mail.m_nCharSet = set;
  mail.set_message_id(in.value().c_str());
  mail.set_in_reply_to(in.value().c_str());
  mail.set_references(in.value().c_str());
  for (UtlString* each :
       {&mail.m_cFrom.m_cAddress, &mail.m_cTo.m_cAddress, &mail.m_cCc.m_cAddress,
        &mail.m_cReplyTo.m_cAddress, &mail.m_cSender.m_cAddress, &mail.m_cBcc.m_cAddress,
        &mail.m_cSubject, &mail.m_cDate, &mail.m_cFIleName, &mail.m_cBoundaryString})
    *each = in.value().c_str();
  tav_eml_mlutl_mail_part part(mail);
  std::string header;
  made(header, [&](char*& out, long& length) { return part.make_header(out, length); });
  made(header, [&](char*& out, long& length) { return mail.make_header(out, length); });
}

void analyse(const std::string& text) {
  tav_eml_mlutl_receive receive;
  tav_eml_mlutl_mail mail;
  mail.set_part(new tav_eml_mlutl_mail_part);
  const size_t split = std::min(text.find("\r\n\r\n"), text.size());
  const std::string rest = text.substr(std::min(split + 4, text.size()));
  mail.m_cHeader1 = mail.m_cHeader2 = text.c_str();
  receive.AnalyzeMailHeader(mail, text.substr(0, split).c_str(), 0);
  receive.AnalyzePartHeader(mail, rest.c_str(), 0);
  REQUIRE(mail.m_nBoundaryLevel <= 100);
  REQUIRE(tav_test::text(mail.m_cSubject).find("\r\n") == std::string::npos);
  for (size_t start = 0, end = 0; start < rest.size(); start = end) {
    end = std::min(rest.find('\n', start), rest.size() - 1) + 1;
    const int before = mail.m_nBoundaryLevel;
    UtlString line(rest.substr(start, end - start).c_str());
    const int delimiter = receive.ChkBoundaryString(line.GetString(), mail);
    REQUIRE(mail.m_nBoundaryLevel == (delimiter == 2 ? before - 1 : before));
    receive.ChkMailEndLine(mail, line, static_cast<long>(line.GetLength()), 100);
  }
}

// Base64 with each kernel of this machine, against its plain definition. A character that is left
// over may stand behind the data.
void base64(const std::string& whole, size_t skipped, int line) {
  const bytes in(whole.begin(), whole.end());
  const std::string text = whole.substr(skipped), plain = tav_test::plain_decode(text);
  const size_t width = line >= 4 ? static_cast<size_t>(line / 4 * 4) : 0;
  std::string out;
  for (const base64_kernel* const kernel : base64_kernels()) {
    if (kernel == nullptr) continue;
    choose_base64_kernel(kernel);
    const char* const start = in.data() + skipped;
    if (made<void*>(out, [&](auto& data, long& length) {
          return codecs::from_b64(start, size_of(text), data, length);
        }))
      REQUIRE(out == plain.substr(0, plain.size() - 1));
    if (made(out, [&](auto& data, long& length) {
          return codecs::to_b64(start, size_of(text), data, length, line);
        }))
      REQUIRE(out == tav_test::plain_encode(text, width));
  }
  choose_base64_kernel(nullptr);
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
  REQUIRE(at >= 0 && at <= size_of(text) && at <= wanted + 5 && mode >= 0 && mode <= 6);
  // In two-byte mode a blank or control character counts as half of a character.
  const auto is_odd = [](unsigned char ch) { return (ch <= ' ' && ch != 033) || ch == 0x7F; };
  if (std::any_of(text.begin(), text.end(), is_odd)) return;
  const auto whole = to_utf8(set, text);
  if ((flags & 4) != 0 || set == TAV_EML_CS_UTF_8 || !whole) return;
  const auto size = static_cast<size_t>(at);
  const auto front = to_utf8(set, text.substr(0, size) + (mode != 0 ? "\033(B" : ""));
  const auto back = to_utf8(set, kReopen[mode] + text.substr(size));
  REQUIRE(memory.failed() || (front && back && *front + *back == *whole));
}

// Every word says something by itself, and together they say the text.
void encode_words(const std::string& text, TAV_EML_CHAR_SET set, int max_line,
                  const fake_memory& memory) {
  const bytes in(text.begin(), text.end());
  std::string words, decoded, all;
  if (!made(words, [&](char*& out, long& length) {
        return codecs::ToMimeEncode(set, in.data(), size_of(text), out, length, max_line);
      }))
    return;
  const bool folded = words.find("\r\n\t") != std::string::npos;
  for (size_t start = 0; start <= words.size();) {
    const size_t end = std::min(words.find("\r\n\t", start), words.size());
    TAV_EML_CHAR_SET found = TAV_EML_CS_NONE;
    const bool is_decoded = made(decoded, [&](char*& out, long& length) {
      return codecs::inline_decode(words.data() + start, static_cast<long>(end - start), out,
                                   length, found, 0);
    });
    const auto utf8 = to_utf8(set, decoded);
    if (memory.failed()) return;  // the word may hold something else, or stand as it is
    const int length = static_cast<int>(end - start) + (end != words.size() ? 2 : 0);
    REQUIRE(is_decoded && utf8 && (!folded || length <= max_line));
    all += *utf8;
    start = end + 3;
  }
  if (set == TAV_EML_CS_UTF_8)
    REQUIRE(folded ? all == text : text.compare(0, all.size(), all) == 0);
}

void filter(fuzz::input& in, const fake_memory& memory) {
  const auto mode = static_cast<unsigned char>(in.number());
  const std::string addresses = in.value(), entry = in.value();
  const char* list[] = {nullptr, entry.c_str()};
  UtlString allowed("before");
  const int some =
      tav_eml_mlutl_domain_filter::check_filter(addresses.c_str(), allowed, mode, list, 2);
  const std::string left = tav_test::text(allowed);
  if (memory.failed() || left.find_first_not_of(" \t\r\n,;") == std::string::npos) return;
  // What is let through is let through again, unless it was nothing but line ends.
  const int again = tav_eml_mlutl_check_filter(left.c_str(), mode, list, 2);
  REQUIRE(some != 0 && (again != 0 || memory.failed()));
}

void run(unsigned what, fuzz::input& in, const fake_memory& memory) {
  if (what == 5) return filter(in, memory);
  const unsigned operation = in.number(), kind = in.number();
  const auto set = static_cast<TAV_EML_CHAR_SET>(kind % (TAV_EML_CS_NONE + 1));
  if (what == 0 && operation == 1) return compose(in, kind, set);
  const int other = static_cast<int>(what == 2 ? kind : what > 2 ? in.number() : 0) - 8;
  if (what == 3) {
    const long wanted = in.number();
    const unsigned flags = in.number();
    return cut(in.rest(), set, wanted, flags, memory);
  }
  std::string text = in.rest(), out;
  const bytes block(text.begin(), text.end());
  if (what == 0) return read_addresses(text);
  if (what == 1) return analyse(text);
  for (size_t skipped = 0; what == 2 && skipped < std::min<size_t>(text.size(), 16); ++skipped)
    base64(text, skipped, other);
  if (what == 4 && operation == 1) return encode_words(text, set, other, memory);
  made<void*>(out, [&](void*& data, long& length) {
    return codecs::from_qp(block.data(), size_of(text), data, length);
  });
  TAV_EML_CHAR_SET found = set;
  made(out, [&](char*& data, long& length) {
    return codecs::inline_decode(block.data(), size_of(text), data, length, found, 0);
  });
  made(out, [&](char*& data, long& length) {
    return codecs::inline_encode(block.data(), size_of(text), data, length, set);
  });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const unsigned what = static_cast<unsigned>(*data ^ '0') % 6;
  return fuzz::try_input(data + 1, size - 1, [&](fuzz::input& in, const fake_memory& memory) {
    run(what, in, memory);
  });
}
