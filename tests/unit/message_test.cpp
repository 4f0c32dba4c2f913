// Addresses, outgoing headers, settings, digests and the texts of the device.

#include <gtest/gtest.h>

#include <clocale>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "fake_memory.h"
#include "fake_platform.h"
#include "log_capture.h"
#include "values.h"

namespace {

bool clock_fails = false;

}  // namespace

extern "C" {
std::time_t __real_time(std::time_t*);
std::time_t __wrap_time(std::time_t* out) { return clock_fails ? -1 : __real_time(out); }
}

namespace {

using namespace quorvelmida;
using namespace tav_test;
using address = tav_eml_mlutl_mail_address;
using texts = std::vector<std::string>;

TEST(Address, lists_are_cut_outside_quotes) {
  const struct {
    const char* list;
    texts expected;
  } cases[] = {
      {"\"Doe, Jane\" <j@d.e>, x@y.z", {"\"Doe, Jane\" <j@d.e>", "x@y.z"}},
      {" ;, a@b ;; c@d\t,", {"a@b", "c@d"}},
      {"\"a\\\",b\" <c@d>;e@f", {"\"a\\\",b\" <c@d>", "e@f"}},
      {"\"never closed, a@b", {"\"never closed, a@b"}},
      {"\"backslash\\", {"\"backslash\\"}},
      {"", {}},
      {" ,; ", {}},
  };
  for (const auto& test : cases) {
    const address list(test.list);
    texts found;
    UtlString one;
    for (int pos = 0; list.get_address(one, pos, ";,") != 0;) found.push_back(one.GetString());
    EXPECT_EQ(found, test.expected) << test.list;
    EXPECT_EQ(one.GetString(), nullptr);
  }
}

TEST(Address, nothing_is_read_where_there_is_no_text) {
  const struct {
    const char* list;
    int pos;
    const char* delimiters;
  } cases[] = {{nullptr, 0, ","}, {"x@y", -1, ","}, {"x@y", 4, ","}, {"x@y", 0, nullptr}};
  for (const auto& test : cases) {
    UtlString one("before");
    int pos = test.pos;
    EXPECT_EQ(address(test.list).get_address(one, pos, test.delimiters), 0);
    EXPECT_EQ(one.GetString(), nullptr);
    EXPECT_EQ(address::SkipUserName(test.list, pos), 0);
    EXPECT_EQ(pos, test.pos);
  }
}

TEST(Address, is_reduced_and_split) {
  const struct {
    const char* in;
    const char* bare;  // null: fails
    const char* account;
    const char* domain;
  } cases[] = {
      {"a@b", "a@b", "a", "b"},
      {"\"x <y@z>\" <a@b>", "a@b", "a", "b"},
      {"<a@b>", "a@b", "a", "b"},
      {"N <a@b@c>", "a@b@c", "a", "b@c"},
      {"Name <>", "Name", nullptr, nullptr},
      {"<>", nullptr, nullptr, nullptr},
      {"a@b> c", "a@b", "a", "b"},
      {"x <a@b> <c@d>", "c@d", "c", "d"},
      {" < a @ b > ", "a @ b", "a", "b"},
      {"x > y", "x", nullptr, nullptr},
      {"@b", "@b", nullptr, nullptr},
      {nullptr, nullptr, nullptr, nullptr},
  };
  for (const auto& test : cases) {
    UtlString bare;
    EXPECT_EQ(address::get_real_address(bare, test.in), test.bare != nullptr ? 1 : 0);
    if (test.bare == nullptr) continue;
    EXPECT_STREQ(bare.GetString(), test.bare);
    UtlString account;
    UtlString domain;
    EXPECT_EQ(address::split_address(account, domain, bare.GetString()),
              test.account != nullptr ? 1 : 0);
    if (test.account == nullptr) continue;
    EXPECT_STREQ(account.GetString(), test.account);
    EXPECT_STREQ(domain.GetString(), test.domain);
  }
}

void fill(tav_eml_smtp_send_mail& mail) {
  mail.m_nContentType = TAV_EML_CT_TEXT_PLAIN;
  mail.m_nCharSet = TAV_EML_CS_UTF_8;
  mail.m_cFrom = address("Dev <dev@x.y>");
  mail.m_cTo = address("a@b, \"C, c\" <c@d>; e@f");
  mail.m_cSubject = "";
  mail.m_cDate = "D";
  mail.set_message_id("id@x");
}

std::string header_of(tav_eml_smtp_send_mail& mail) {
  return result_of([&](char*& text, long& length) { return mail.make_header(text, length); });
}

TEST(OutgoingHeader, stands_in_its_fixed_order) {
  tav_eml_smtp_send_mail mail;
  fill(mail);
  mail.m_cCc = address("g@h");
  mail.m_cBcc = address("secret@h");
  mail.m_cReplyTo = address("r@h");
  mail.m_cSender = address("s@h");
  mail.set_mdn_address("n@h");
  mail.set_in_reply_to(" <1@x>  <2@x> ");
  mail.set_references("<0@x><1@x>");
  mail.m_nTransferEncoding = TAV_EML_TE_BASE64;
  mail.m_nContentType = TAV_EML_CT_MULTIPART_REPORT;
  mail.m_cBoundaryString = "B";
  mail.set_content_ciajwnetfax("ignore");
  EXPECT_EQ(header_of(mail),
            "Date: D\r\nFrom: Dev <dev@x.y>\r\nSubject: \r\n"
            "To: a@b,\r\n\t\"C, c\" <c@d>,\r\n\te@f\r\nCc: g@h\r\nReply-To: r@h\r\nSender: s@h\r\n"
            "Disposition-Notification-To: n@h\r\nMessage-Id: <id@x>\r\n"
            "In-Reply-To: <1@x>\r\n\t<2@x>\r\nReferences: <0@x>\r\n\t<1@x>\r\n"
            "Mime-Version: 1.0\r\n"
            "Content-Type: multipart/report;\r\n\treport-type=disposition-notification;\r\n"
            "\tboundary=\"B\"\r\nContent-Transfer-Encoding: 8bit\r\n\r\n"
            "--B\r\nContent-Type: text/plain; charset=\"utf-8\"\r\n"
            "Content-Transfer-Encoding: base64\r\nContent-X-CIAJWNETFAX: IGNORE\r\n\r\n");
}

TEST(OutgoingHeader, is_whole_or_not_there) {
  using mail_ref = tav_eml_smtp_send_mail&;
  const auto composed = [](auto&& change) {
    tav_eml_smtp_send_mail mail;
    fill(mail);
    change(mail);
    return header_of(mail);
  };
  EXPECT_EQ(composed([](mail_ref m) { m.m_nCharSet = TAV_EML_CS_NONE; }), "(failed)");
  EXPECT_EQ(composed([](mail_ref m) { m.m_cDate = UtlString(); }), "(failed)");
  EXPECT_EQ(composed([](mail_ref m) { m.m_cFrom = address(); }), "(failed)");
  EXPECT_EQ(composed([](mail_ref m) { m.m_cSubject = UtlString(); }), "(failed)");
  EXPECT_EQ(composed([](mail_ref m) { m.m_cTo = address(); }), "(failed)");
  EXPECT_EQ(composed([](mail_ref m) { m.m_cSender = address("a@b,c@d"); }), "(failed)");
  EXPECT_EQ(composed([](mail_ref m) { m.set_in_reply_to("no brackets"); }), "(failed)");
  EXPECT_EQ(composed([](mail_ref m) { m.m_nContentType = TAV_EML_CT_APPLICATION_PDF; }),
            "(failed)");
  EXPECT_EQ(composed([](mail_ref m) { m.m_nContentType = TAV_EML_CT_MULTIPART; }), "(failed)");
  EXPECT_EQ(composed([](mail_ref m) { m.m_cSubject = "a\r\nb"; }), "(failed)");
  const std::string bcc = composed([](mail_ref m) {
    m.m_cTo = address();
    m.m_cBcc = address("x@y");
  });
  EXPECT_EQ(bcc.find("To:"), std::string::npos);
  EXPECT_NE(bcc, "(failed)");
  // No id can be made of this author: there is no such line then.
  EXPECT_EQ(composed([](mail_ref m) {
              m.m_cFrom = address("<>");
              m.set_message_id("");
            }).find("Message-Id"),
            std::string::npos);
}

TEST(OutgoingHeader, keeps_every_line_below_its_limit) {
  using mail_ref = tav_eml_smtp_send_mail&;
  constexpr size_t kLongest = 1023;  // CR LF included
  const auto of = [](size_t length) { return std::string(length, 'x'); };
  // Values that make a line of `length` bytes.
  const std::function<void(mail_ref, size_t)> fields[] = {
      [&](mail_ref m, size_t length) { m.m_cDate = of(length - 8).c_str(); },
      [&](mail_ref m, size_t length) { m.m_cFrom = address(of(length - 8).c_str()); },
      [&](mail_ref m, size_t length) { m.m_cSubject = of(length - 11).c_str(); },
      [&](mail_ref m, size_t length) { m.m_cTo = address(of(length - 6).c_str()); },
      [&](mail_ref m, size_t length) { m.m_cCc = address((of(length - 7) + ", a@b").c_str()); },
      [&](mail_ref m, size_t length) { m.m_cReplyTo = address(("a;" + of(length - 3)).c_str()); },
      [&](mail_ref m, size_t length) { m.m_cSender = address(of(length - 10).c_str()); },
      [&](mail_ref m, size_t length) { m.set_mdn_address(of(length - 31).c_str()); },
      [&](mail_ref m, size_t length) { m.set_message_id(of(length - 16).c_str()); },
      [&](mail_ref m, size_t length) {
        m.set_references(("<1> <" + of(length - 5) + ">").c_str());
      },
  };
  for (size_t field = 0; field < std::size(fields); ++field) {
    for (const size_t length : {kLongest, kLongest + 1}) {
      tav_eml_smtp_send_mail mail;
      fill(mail);
      fields[field](mail, length);
      const std::string header = header_of(mail);
      EXPECT_EQ(header != "(failed)", length == kLongest) << field;
      if (length == kLongest) {
        EXPECT_NE(header.find(of(length - 31)), std::string::npos);
      }
    }
  }
  tav_eml_smtp_send_mail mail;
  char* text = nullptr;
  long length = 0;
  long count = 0;
  const std::string name = of(1020);
  EXPECT_EQ(mail.MakeHeaderAddress(address(name.c_str()), "X:", text, nullptr, count, length), 0);
  EXPECT_EQ(mail.make_header_bracket(("<" + name + ">").c_str(), "X:", text, length), 0);
  EXPECT_EQ(text, nullptr);
}

TEST(OutgoingHeader, survives_every_failed_allocation) {
  tav_eml_smtp_send_mail mail;
  fill(mail);
  mail.m_nContentType = TAV_EML_CT_MULTIPART_MIXED;
  mail.m_cBoundaryString = "B";
  fake_memory memory;
  size_t n = 1;
  for (std::string made = "(failed)"; made == "(failed)"; ++n) {
    ASSERT_LT(n, 500u);
    memory.fail(n);
    made = header_of(mail);
  }
  const log_capture log;
  memory.fail_by([] { throw new tav_eml_mlutl_mail_exception("thrown"); });
  memory.fail(1);
  EXPECT_EQ(header_of(mail), "(failed)");
  EXPECT_TRUE(log.contains("MakeHeader : Exception occured."));
  memory.never_fail();
  EXPECT_GT(n, 10u);
  EXPECT_TRUE(memory.clean());
}

TEST(OutgoingMail, keeps_ids_in_brackets_and_the_end_of_a_thread) {
  tav_eml_smtp_send_mail mail;
  UtlString value;
  EXPECT_EQ(mail.get_message_id(value), 0);
  for (const char* id : {"abc@x", "<abc@x", "abc@x>", " <abc@x> "}) {
    mail.set_message_id(id);
    ASSERT_EQ(mail.get_message_id(value), 1);
    EXPECT_STREQ(value.GetString(), "<abc@x>");
  }
  std::string thread;
  std::string last;
  for (int i = 0; i < 25; ++i) {
    const std::string id = "<" + std::to_string(i) + "@x> ";
    thread += id;
    if (i >= 5) last += id;
  }
  last.pop_back();
  mail.set_references(thread.c_str());
  ASSERT_EQ(mail.get_references(value), 1);
  EXPECT_EQ(value.GetString(), last);
  for (const char* odd : {"", "no id", "1@x>", static_cast<const char*>(nullptr)}) {
    mail.set_references(odd);
    EXPECT_EQ(mail.get_references(value), 0);
  }
  auto* part = new tav_eml_smtp_send_mail_part;
  mail.set_part(part);
  mail.set_part(part);
  EXPECT_EQ(mail.m_pPart, part);
  mail.delete_part();
  EXPECT_EQ(mail.m_pPart, nullptr);
}

TEST(OutgoingMail, makes_message_ids_from_the_time_and_the_author) {
  UtlString id;
  ASSERT_EQ(tav_eml_smtp_send_mail::create_message_id(address("N <anna.b@Dom.x>"), id), 1);
  const std::string text = id.GetString();
  EXPECT_EQ(text.size(), 1 + 14 + 8 + 1 + std::strlen("ANNA.B@Dom.x>"));
  EXPECT_EQ(text.substr(text.find('.')), ".ANNA.B@Dom.x>");
  ASSERT_EQ(tav_eml_smtp_send_mail::create_message_id(address("local"), id), 1);
  EXPECT_NE(std::string(id.GetString()).find(".LOCAL>"), std::string::npos);
  EXPECT_EQ(tav_eml_smtp_send_mail::create_message_id(address(), id), 0);
  EXPECT_STREQ(id.GetString(), "");
  std::string original;
  EXPECT_EQ(tav_eml_smtp_util::create_original_message_id("a@b", original), TAV_EML_OK);
  EXPECT_EQ(original.substr(original.find('.')), ".A@b>");
  EXPECT_EQ(tav_eml_smtp_util::create_original_message_id("", original), TAV_EML_ERR_UNKNOWN);
}

TEST(Settings, own_what_they_were_given) {
  _tav_eml_pop3_setting pop_record;
  pop_record.strUserID = "pop";
  auto pop = std::make_unique<tav_eml_pop3_settings>(pop_record);
  _tav_eml_smtp_setting record;
  record.pop3_settings = pop.get();
  record.tls_opt[4] = 9;
  const tav_eml_smtp_settings settings(record);
  pop.reset();
  EXPECT_STREQ(settings.helo_domain.GetString(), "localhost");
  EXPECT_STREQ(settings.server.GetString(), "");
  EXPECT_STREQ(settings.pop3_settings->m_strUserID.GetString(), "pop");
  EXPECT_STREQ(settings.pop3_settings->m_MailAddress.m_cAddress.GetString(), "");
  tav_eml_smtp_settings other{_tav_eml_smtp_setting()};
  EXPECT_EQ(other.pop3_settings, nullptr);
  other = settings;
  tav_eml_smtp_settings& same = other;
  other = same;
  EXPECT_NE(other.pop3_settings, settings.pop3_settings);
  EXPECT_STREQ(other.pop3_settings->m_strUserID.GetString(), "pop");
  EXPECT_EQ(other.tls_opt[4], 9);
}

TEST(Settings, keep_their_password_when_memory_runs_out) {
  _tav_eml_pop3_setting pop_record;
  pop_record.strPassword = "old";
  tav_eml_pop3_settings pop(pop_record);
  pop_record.strPassword = "new";
  const tav_eml_pop3_settings new_pop(pop_record);
  _tav_eml_smtp_setting record;
  record.password = "old";
  tav_eml_smtp_settings settings(record);
  record.password = "new";
  const tav_eml_smtp_settings new_settings(record);
  fake_memory memory;
  const auto assigned = [&](size_t n, auto& target, const auto& source, const UtlString& password) {
    memory.fail(n);
    try {
      target = source;
      return true;
    } catch (const std::bad_alloc&) {
      const std::string text = password.GetString();
      EXPECT_TRUE(text == "old" || text == "new") << n;
      return false;
    }
  };
  size_t n = 1;
  while (!assigned(n, settings, new_settings, settings.password)) ASSERT_LT(++n, 20u);
  for (n = 1; !assigned(n, pop, new_pop, pop.m_strPassword);) ASSERT_LT(++n, 20u);
  memory.never_fail();
  EXPECT_STREQ(settings.password.GetString(), "new");
  EXPECT_STREQ(pop.m_strPassword.GetString(), "new");
}

// RFC 1321 and RFC 2202.
TEST(Digests, match_their_standards) {
  tav_eml_mlutl_mail_hash hash;
  char digits[33];
  const struct {
    std::string text;
    const char* digest;
  } digests[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {std::string(55, 'a'), "ef1772b6dff9a122358552954ad0df65"},
      {std::string(56, 'a'), "3b0c8ac703f828b04c6c197006d17218"},
      {std::string(63, 'a'), "b06521f39153d618550606be297466d5"},
      {std::string(64, 'a'), "014842d480b571495a4a0363793f7367"},
      {std::string(65, 'a'), "c743a45e0d2e6a95cb859adae0248435"},
  };
  for (const auto& test : digests) {
    hash.GetMD5Hash(test.text.c_str(), digits);
    EXPECT_STREQ(digits, test.digest) << test.text.size();
  }
  const struct {
    std::string key, text;
    const char* digest;
  } macs[] = {
      {std::string(16, '\x0b'), "Hi There", "9294727a3638bb1c13f48ef8158bfc9d"},
      {"Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738"},
      {std::string(16, '\xaa'), std::string(50, '\xdd'), "56be34521d144c88dbb8c733f0e8b3f6"},
      {std::string(80, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
       "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
      {std::string(64, 'k'), "", "114eeb1da42af605666663c84c40d185"},
  };
  for (const auto& test : macs) {
    hash.GetHMACMD5Hash(test.text.c_str(), test.key.c_str(), digits);
    EXPECT_STREQ(digits, test.digest);
  }
  unsigned long state[4];
  hash.GetMD5Digest("abc", 3, state);
  EXPECT_EQ(state[0], 0x98500190u);
  EXPECT_EQ(state[3], 0x727fe128u);
}

std::string expand(const char* text) {
  char* result = nullptr;
  int length = 0;
  EXPECT_EQ(tav_eml_smtp_util::make_subject(text, &result, &length), TAV_EML_OK);
  const std::string expanded(result, static_cast<size_t>(length));
  tav_eml_smtp_util::free_buffer(result);
  return expanded;
}

TEST(DeviceTexts, macros_stand_for_the_devices_values) {
  fake_platform net;
  CFG_EVENT_MAIL device = {};
  std::strcpy(device.printer_name, "MFP1");
  std::strcpy(device.serial_number, "SN9");
  std::strcpy(device.host_name, "host");
  std::memset(device.equipment_id, 'E', sizeof device.equipment_id);  // no NUL of its own
  const uint8_t macs[2][6] = {{0, 0x9a, 0xff, 1, 2, 3}, {0x80, 4, 5, 6, 7, 8}};
  std::memcpy(device.mac_address1, macs[0], 6);
  std::memcpy(device.mac_address2, macs[1], 6);
  const uint8_t ip[4] = {10, 0, 0, 5};
  std::memcpy(device.ip_address1, ip, 4);
  net.device_settings(device, CFG_OK_PARTIAL);
  const struct {
    const char* in;
    std::string out;
  } cases[] = {{"Scan from %printer at %ip", "Scan from MFP1 at 10.0.0.5"},
               {"100%", "100%"},
               {"%foo %% %PRINTER", "%foo %% %PRINTER"},
               {"%hostname", "hostname"},
               {"%printer%serial", "MFP1SN9"},
               {"%etheraddr", "00:9a:ff:01:02:03"},
               {"%equipid|", std::string(17, 'E') + "|"},
               {"", ""}};
  for (const auto& test : cases) EXPECT_EQ(expand(test.in), test.out) << test.in;
  std::memset(device.ip_address1, 0, 4);
  std::memcpy(device.ip_address2, ip, 4);
  net.device_settings(device);
  EXPECT_EQ(expand("%etheraddr %ip"), "80:04:05:06:07:08 10.0.0.5");
  char area[80] = "";
  char* cursor = area;
  tav_eml_smtp_util::ConvertMacroStr(0, cursor, 1);
  EXPECT_EQ(cursor - area, 4);
  tav_eml_smtp_util::ConvertMacroStr(99, cursor, 0);
  EXPECT_EQ(std::string(area + 4), std::string(17, 'E'));
  net.device_settings(device, 5);
  EXPECT_EQ(expand("a%printer-b"), "a-b");
  fake_memory memory;
  for (const auto make : {tav_eml_smtp_util::make_subject, tav_eml_smtp_util::make_signature}) {
    char* result = area;
    int length = 9;
    memory.fail(1);
    EXPECT_EQ(make("text", &result, &length), TAV_EML_ERR_NO_MEMORY);
    EXPECT_EQ(result, nullptr);
    EXPECT_EQ(length, 0);
  }
  memory.never_fail();
}

std::string broken(const std::string& text) {
  char* block = static_cast<char*>(block_of(text));
  char* result = nullptr;
  EXPECT_EQ(tav_eml_smtp_util::Automatic64Linefeed(block, &result), TAV_EML_OK);
  const std::string lines = result;
  tav_eml_smtp_util::free_buffer(result);
  return lines;
}

TEST(DeviceTexts, signatures_have_lines_of_64_characters) {
  const std::string row(64, 'x');
  std::string kanji;
  for (int i = 0; i < 70; ++i) kanji += "日";
  const struct {
    std::string in, out;
  } cases[] = {{row + row + "yy", row + "\r\n" + row + "\r\nyy"},
               {"a\nb", "a\r\nb"},
               {"a\r\nb\rc", "a\r\nb\r\nc"},
               {"a\n\nb\n\n\nc", "a\r\nb\r\n\r\nc"},
               {row + "\nz", row + "\r\n\r\nz"},
               {row, row + "\r\n"},
               {kanji, kanji.substr(0, 192) + "\r\n" + kanji.substr(192)},
               {"", ""}};
  for (const auto& test : cases) EXPECT_EQ(broken(test.in), test.out) << test.in;
  const std::string many(500, '\n');
  EXPECT_EQ(broken("x" + many).size(), 1 + 500u);
  fake_memory memory;
  char* text = static_cast<char*>(block_of("\n"));
  char* result = nullptr;
  memory.fail(1);
  EXPECT_EQ(tav_eml_smtp_util::Automatic64Linefeed(text, &result), TAV_EML_OK);
  EXPECT_EQ(result, text);
  memory.never_fail();
  UtlOS::MemFree(text);
}

TEST(DeviceTexts, dates_are_english_whatever_the_locale) {
  setlocale(LC_ALL, "");
  char date[64];
  const size_t with_zone = tav_eml_smtp_util::get_date(1, sizeof date, date);
  ASSERT_EQ(with_zone, 31u);
  EXPECT_NE(std::string("SunMonTueWedThuFriSat").find(std::string(date, 3)), std::string::npos);
  EXPECT_TRUE(date[26] == '+' || date[26] == '-');
  EXPECT_EQ(tav_eml_smtp_util::get_date(0, sizeof date, date), 25u);
  EXPECT_EQ(tav_eml_smtp_util::get_date(1, 31, date), 0u);
  clock_fails = true;
  EXPECT_EQ(tav_eml_smtp_util::get_date(1, sizeof date, date), 0u);
  clock_fails = false;
}

}  // namespace
