// Which addresses the domain filter lets through.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "quorvelmida/tav_eml_mlutl_domain_filter.h"

namespace {

using namespace quorvelmida;
using filter = tav_eml_mlutl_domain_filter;

constexpr unsigned char kNone = 0, kPermit = 1, kDeny = 2;

struct filter_case {
  const char* name;
  const char* addresses;
  unsigned char mode;
  std::vector<const char*> list;
  int all_allowed;
  const char* allowed;  // those that are, "" for none
};

const filter_case kCases[] = {
    {"no filter", "a@x.example", kNone, {}, 1, "a@x.example"},
    {"no filter, no address", "", kNone, {}, 0, ""},
    {"permitted domain", "a@x.example", kPermit, {"x.example"}, 1, "a@x.example"},
    {"in any case", "A@X.Example", kPermit, {"x.eXAMPLE"}, 1, "A@X.Example"},
    {"permitted address", "a@x.example", kPermit, {"A@x.example"}, 1, "a@x.example"},
    {"another account", "b@x.example", kPermit, {"a@x.example"}, 0, ""},
    {"no domain below", "a@y.x.example", kPermit, {"x.example"}, 0, ""},
    {"no wildcard", "a@x.example", kPermit, {"*"}, 0, ""},
    {"empty permit list", "a@x.example", kPermit, {}, 0, ""},
    {"nulls are skipped", "a@x.example", kPermit, {nullptr, "x.example"}, 1, "a@x.example"},
    {"display name", "\"x, y\" <a@x.example>", kPermit, {"x.example"}, 1, "\"x, y\" <a@x.example>"},
    {"one of two", "a@x.example; b@y.example", kPermit, {"y.example"}, 0, "b@y.example"},
    {"both",
     "a@x.example,b@y.example",
     kPermit,
     {"y.example", "x.example"},
     1,
     "a@x.example, b@y.example"},
    {"denied domain", "a@x.example", kDeny, {"x.example"}, 0, ""},
    {"denied second", "a@x.example; b@y.example", kDeny, {"y.example"}, 0, "a@x.example"},
    {"denied by any other mode", "a@x.example", 255, {"x.example"}, 0, ""},
    {"empty deny list", "a@x.example", kDeny, {}, 1, "a@x.example"},
    {"a line end is an address without text", "\r\n", kNone, {}, 1, ""},
    {"and counts among others", "\r\n,a@x.example", kDeny, {"y.example"}, 1, ", a@x.example"},
    {"null text", nullptr, kNone, {}, 0, ""},
};

TEST(Filter, lets_through_what_it_should) {
  for (const filter_case& c : kCases) {
    SCOPED_TRACE(c.name);
    std::vector<const char*> list = c.list;
    const int count = static_cast<int>(list.size());
    EXPECT_EQ(tav_eml_mlutl_check_filter(c.addresses, c.mode, list.data(), count), c.all_allowed);
    UtlString allowed("before");
    const int any = filter::check_filter(c.addresses, allowed, c.mode, list.data(), count);
    EXPECT_STREQ(allowed.GetString(), c.allowed);
    EXPECT_EQ(any, *c.allowed != '\0' || c.all_allowed != 0 ? 1 : 0);
  }
  const char* entry = "x.example";
  EXPECT_EQ(tav_eml_mlutl_check_filter("a@x.example", kDeny, &entry, -1), 0);
  EXPECT_EQ(tav_eml_mlutl_check_filter("a@x.example", kDeny, nullptr, 1), 0);
}

TEST(Filter, the_result_may_be_the_text_that_was_handed_in) {
  UtlString text("a@x.example, b@y.example");
  const char* list[] = {"Y.example"};
  EXPECT_EQ(filter::check_filter(text.GetString(), text, kPermit, list, 1), 1);
  EXPECT_STREQ(text.GetString(), "b@y.example");
}

TEST(Filter, an_absent_entry_is_no_empty_one) {
  UtlString absent, empty("");
  for (UtlString* entry : {&absent, &empty}) {
    UtlVector list;
    ASSERT_EQ(list.Add(0, entry), 1);
    EXPECT_EQ(filter::check_domain(UtlString("local"), kPermit, list), entry == &empty ? 1 : 0);
    EXPECT_EQ(filter::check_domain(UtlString(), kPermit, list), 1);  // neither text nor domain
  }
}

TEST(Filter, upper_cases_the_entries_of_a_callers_vector) {
  UtlString entry("x.example");
  UtlVector list;
  ASSERT_EQ(list.Add(0, &entry), 1);
  EXPECT_EQ(filter::check_domain(UtlString("a@X.example"), kPermit, list), 1);
  EXPECT_STREQ(entry.GetString(), "X.EXAMPLE");
  EXPECT_EQ(filter::check_filter(tav_eml_mlutl_mail_address(), kNone, list), 0) << "null text";
  EXPECT_EQ(filter::check_filter(tav_eml_mlutl_mail_address("a@y.example"), kDeny, list), 1);
}

}  // namespace
