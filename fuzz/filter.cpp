// The filter of addresses.
//
// Control bytes: failing allocation (2), mode. Then a line of addresses, then entries, one a line.

#include <vector>

#include "fuzz_input.h"
#include "quorvelmida/tav_eml_mlutl_domain_filter.h"

namespace {

using namespace quorvelmida;
using filter = tav_eml_mlutl_domain_filter;

constexpr unsigned char kPermit = 1;
constexpr unsigned char kDeny = 2;

class entry_list {
 public:
  explicit entry_list(fuzz::input& in) {
    while (in.size() != 0 && m_texts.size() < 16) m_texts.push_back(in.value());
    for (const std::string& text : m_texts) m_pointers.push_back(text.c_str());
    m_pointers.push_back(nullptr);  // is skipped
  }
  const char** texts() { return m_pointers.data(); }
  int count() const { return static_cast<int>(m_pointers.size()); }

 private:
  std::vector<std::string> m_texts;
  std::vector<const char*> m_pointers;
};

bool has_address(const std::string& text) {
  return text.find_first_not_of(" \t\r\n,;") != std::string::npos;
}

// One address is on the list or it is not.
void check_single(const UtlString& address, const UtlVector& entries,
                  const tav_test::fake_memory& memory) {
  const bool permitted = filter::check_domain(address, kPermit, entries) != 0;
  const bool denied = filter::check_domain(address, kDeny, entries) == 0;
  REQUIRE(!permitted || denied || memory.failed());
}

void check_lists(const std::string& addresses, unsigned char mode, entry_list& list,
                 const tav_test::fake_memory& memory) {
  const bool all =
      tav_eml_mlutl_check_filter(addresses.c_str(), mode, list.texts(), list.count()) != 0;
  UtlString allowed("before");
  const bool some =
      filter::check_filter(addresses.c_str(), allowed, mode, list.texts(), list.count()) != 0;
  if (memory.failed()) return;
  REQUIRE(some || !all || !has_address(addresses));
  REQUIRE(some || allowed.IsEmpty());
  // What is let through is let through again, unless it was nothing but line ends.
  const std::string text = fuzz::text_of(allowed);
  if (!has_address(text)) return;
  const bool again =
      tav_eml_mlutl_check_filter(text.c_str(), mode, list.texts(), list.count()) != 0;
  REQUIRE(again || memory.failed());
}

void run(fuzz::input& in, const tav_test::fake_memory& memory) {
  const auto mode = static_cast<unsigned char>(in.number());
  const std::string addresses = in.value();
  entry_list list(in);
  check_lists(addresses, mode, list, memory);
  std::vector<UtlString> entries;
  entries.reserve(16);
  UtlVector vector;
  for (int i = 0; i + 1 < list.count(); ++i) {
    entries.emplace_back(list.texts()[i]);
    vector.Add(i, &entries.back());
  }
  check_single(UtlString(addresses.c_str()), vector, memory);
  filter::check_filter(tav_eml_mlutl_mail_address(addresses.c_str()), mode, vector);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return fuzz::try_input(data, size, run);
}
