// What objects own, copy and keep, and what has no place in a table.

#include <gtest/gtest.h>

#include <memory>
#include <new>

#include "fake_memory.h"
#include "fake_platform.h"
#include "log_capture.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using namespace tav_test;

// Memory fails as that of a device may.
void throw_exception() { throw new tav_eml_mlutl_mail_exception("thrown"); }

_tav_eml_pop3_setting account_of(const char* password) {
  _tav_eml_pop3_setting account;
  account.strPassword = password;
  account.ucTLSOption[4] = 7;
  return account;
}

TEST(Settings, own_copies_and_set_what_is_unset) {
  auto pop = std::make_unique<tav_eml_pop3_settings>(account_of("pop"));
  _tav_eml_smtp_setting record;
  tav_eml_smtp_settings other(record);
  EXPECT_EQ(other.pop3_settings, nullptr);
  record.pop3_settings = pop.get();
  record.tls_opt[4] = 9;
  other = tav_eml_smtp_settings(record);
  pop.reset();
  other = static_cast<const tav_eml_smtp_settings&>(other);
  const tav_eml_pop3_settings& account = *other.pop3_settings;
  EXPECT_EQ(text_of(other.helo_domain) + text_of(account.m_strPassword), "localhostpop");
  EXPECT_STREQ(other.server.GetString(), "");
  EXPECT_STREQ(account.m_strServer.GetString(), "");
  EXPECT_STREQ(account.m_MailAddress.m_cAddress.GetString(), "");
  EXPECT_EQ(other.tls_opt[4] * 10 + account.m_ucTLSOption[4], 97);
}

// An assignment fails at each allocation in turn.
template <typename Settings>
void keep_a_password(Settings settings, const Settings& fresh, UtlString Settings::*password) {
  fake_memory memory;
  for (size_t n = 1; text_of(settings.*password) != "new"; ++n) {
    memory.fail(n);
    try {
      settings = fresh;
    } catch (const std::bad_alloc&) {
    }
    ASSERT_TRUE(text_of(settings.*password) == "old" || text_of(settings.*password) == "new") << n;
    ASSERT_LT(n, 20u);
  }
}

TEST(Settings, keep_a_whole_password_when_memory_runs_out) {
  const tav_eml_pop3_settings pop(account_of("new"));
  keep_a_password({account_of("old")}, pop, &tav_eml_pop3_settings::m_strPassword);
  _tav_eml_smtp_setting record, fresh;
  record.password = "old";
  fresh.password = "new";
  keep_a_password({record}, tav_eml_smtp_settings(fresh), &tav_eml_smtp_settings::password);
}

// The sanitizer sees what is deleted twice or never.
template <typename Part, typename Mail>
void hold_a_part(Mail& mail) {
  auto* const part = new Part;
  mail.set_part(part);
  mail.set_part(part);  // held already
  mail.set_part(new Part);
  mail.delete_part();
  EXPECT_EQ(mail.m_pPart, nullptr);
}

TEST(Mails, own_one_part_and_a_copy_of_their_info) {
  tav_eml_pop3_mail_info info(3, "uid", 99, 1);
  EXPECT_EQ(text_of(tav_eml_pop3_mail_info(info).m_strUID), "") << "a copy has no id";
  tav_eml_pop3_receive_mail mail(info);
  EXPECT_EQ(text_of(mail.m_MailInfo.m_strUID) + text_of(mail.m_cMailInfo.m_strUID), "uiduid");
  hold_a_part<tav_eml_pop3_receive_mail_part>(mail);
  tav_eml_smtp_send_mail sent;
  hold_a_part<tav_eml_smtp_send_mail_part>(sent);
}

TEST(Mails, give_back_the_ids_that_were_set) {
  using mail = tav_eml_smtp_send_mail;
  mail sent;
  sent.set_message_id("1@x");
  sent.set_in_reply_to("<2>");
  sent.set_references("<3>");
  UtlString value("none");
  std::string all;
  for (const auto get : {&mail::get_message_id, &mail::get_in_reply_to, &mail::get_references}) {
    EXPECT_EQ((mail().*get)(value), 0);
    all += text_of(value);
    EXPECT_EQ((sent.*get)(value), 1);
  }
  EXPECT_EQ(all + text_of(value), "none<1@x><2><3>");
}

TEST(Boundaries, a_line_is_held_against_the_innermost) {
  const log_capture log;
  tav_eml_mlutl_mail mail;
  tav_eml_mlutl_receive receive;
  EXPECT_EQ(mail.down_boundary_level() + mail.up_boundary_level(nullptr), 0);
  for (const char* boundary : {"outer", "X"}) EXPECT_EQ(mail.up_boundary_level(boundary), 1);
  const std::pair<const char*, int> lines[] = {
      {"X", 0},      {"-X", 0},       {" --X", 0},      {"--Y", 0},      {"--outer", 0},
      {"--X", 1},    {"--X-\r\n", 1}, {"--Xa", 1},      {"--X--", 2},    {"--X", 0},
      {nullptr, -1}, {"--outer", 1},  {"--outer--", 2}, {"--outer", -1}, {"x", 0}};
  for (const auto& [line, result] : lines)
    EXPECT_EQ(receive.ChkBoundaryString(line, mail), result) << (line != nullptr ? line : "null");
  for (const char* said :
       {"down_boundary_level():[Return FALSE]NULL", "up_boundary_level():[Return FALSE]NULL",
        "[Return -1] pBuf is NULL.", "[Return -1] no boundary string", "[Return 0]:unmatched"})
    EXPECT_TRUE(log.contains(said)) << said;
  mail.up_boundary_level("A");
  auto* const list = new UtlVector;
  list->Add(0, new UtlString("B"));
  for (int i = 0; i < 2; ++i) mail.set_boundary_string_list(list);  // at first it is another one
  EXPECT_EQ(text_of(*mail.get_boundary_string()), "B");
  mail.set_boundary_string_list(nullptr);
  EXPECT_EQ(mail.down_boundary_level() + mail.up_boundary_level("x"), 0);
  EXPECT_TRUE(log.contains("m_cBoundaryString is NULL"));
}

// The next bytes of a part or a stream.
std::string next(tav_eml_mlutl_mail_part& part, long length) {
  return result_of<void*>([&](void*& out, long& n) { return n = length, part.get_buffer(out, n); });
}

std::string next(tav_eml_mlutl_stream& stream, long length) {
  return result_of<void*>(
      [&](void*& out, long& n) { return n = length, stream.ReadStream(out, n); });
}

TEST(Parts, hand_their_data_out_in_pieces_and_keep_it_in_a_failure) {
  tav_eml_mlutl_mail_part part;
  fake_memory memory;
  give(part, "0123");
  give(part, "456789");
  void *more = block_of("x"), *nothing = nullptr;
  long length = 1, none = 0;
  memory.fail(1);
  const log_capture log;
  EXPECT_EQ(part.set_buffer(more, length) + part.set_buffer(more, none), 0);
  EXPECT_EQ(part.set_buffer(nothing, length), 0);
  EXPECT_EQ(log.count("set_buffer() "), 3u);
  UtlOS::MemFree(more);
  memory.fail(1);
  EXPECT_EQ(next(part, 4), "(failed)");
  memory.fail_by(throw_exception);
  for (const size_t nth : {1u, 2u}) {  // the block that is handed out, and what stays
    memory.fail(nth);
    EXPECT_EQ(next(part, 4), "(failed)");
  }
  EXPECT_EQ(log.count("get_buffer() failed to allocate") + log.count("get_buffer() thrown"), 3u);
  memory.never_fail();
  EXPECT_EQ(next(part, 1), "0");
  for (const char* piece : {"1234", "5678", "9", ""}) EXPECT_EQ(next(part, 4), piece);
}

TEST(Parts, copy_everything_but_the_fax_value) {
  fake_memory memory;
  tav_eml_mlutl_mail_part part;
  using copied = tav_eml_mlutl_mail_part;
  EXPECT_EQ(copied(part).m_pData, nullptr) << "without data there is no block";
  for (const auto text :
       {&copied::m_cContentType, &copied::m_cMediaType, &copied::m_cHeader1,
        &copied::m_cTransferEncoding, &copied::m_cFileExtension, &copied::m_cHeader2}) {
    part.*text = "kept";
    EXPECT_STREQ((copied(part).*text).GetString(), "kept");
  }
  part.m_nCharSet = TAV_EML_CS_UTF_8;
  part.m_cFIleName = "scan.tif.pdf";
  part.m_nComplete = 1;
  part.set_content_ciajwnetfax(1);
  give(part, "data");
  tav_eml_mlutl_mail_part copy(part);
  const int64_t of_two = memory.state().blocks;
  copy = tav_eml_mlutl_mail_part(part);
  EXPECT_EQ(memory.state().blocks, of_two) << "what it held before is gone";
  copy = static_cast<const tav_eml_mlutl_mail_part&>(copy);
  EXPECT_EQ(copy.get_file_extension() + next(copy, -1), "pdfdata");
  EXPECT_EQ(copy.m_nCharSet * 10 + copy.m_nComplete, 101);
  UtlString value;
  EXPECT_EQ(copy.get_content_ciajwnetfax_source(value), 0);
  EXPECT_EQ(part.get_content_ciajwnetfax_source(value), 1);
  EXPECT_STREQ(value.GetString(), "IGNORE");
  part.set_content_ciajwnetfax(0);
  EXPECT_EQ(part.is_ignore_content_ciajwnetfax(), 0);
  memory.fail_by(throw_exception);
  bool has_failed = true;
  for (size_t n = 1; has_failed; ++n) {
    memory.fail(n);
    copy = part;
    has_failed = memory.state().failed;
    memory.never_fail();
    tav_eml_mlutl_mail_part again(copy);  // of what there is
    EXPECT_EQ(next(again, -1), has_failed ? "" : "data") << n;
  }
}

TEST(Streams, give_back_what_went_in_and_are_empty_after_a_failure) {
  const log_capture log;
  fake_memory memory;
  tav_eml_mlutl_stream stream(10);
  int full = -1;
  const auto write = [&](const std::string& bytes) {
    return stream.WriteStream(block_of(bytes), size_of(bytes), full) != 0 ? full : -1;
  };
  EXPECT_EQ(write("0123456789") * 10 + write("x"), 1);
  for (const char* piece : {"0123", "4567", "89x", ""}) EXPECT_EQ(next(stream, 4), piece);
  for (const size_t nth : {1u, 2u}) {  // the block that is given out, and what stays
    EXPECT_EQ(write("abc"), 0);
    memory.fail(nth);
    EXPECT_EQ(next(stream, 2), "(failed)");
    EXPECT_EQ(stream.SearchBlock(), 0);
  }
  EXPECT_EQ(log.count("ReadStream() Mem"), 2u);
  EXPECT_EQ(write("abc"), 0);
  memory.fail(2);  // behind the block that is written
  EXPECT_EQ(write("d"), -1);
  EXPECT_EQ(next(stream, 0), "");
  EXPECT_TRUE(memory.clean());
}

TEST(Filter, changes_the_entries_of_a_callers_list_and_knows_an_absent_one) {
  using filter = tav_eml_mlutl_domain_filter;
  UtlString absent, empty(""), domain("x.e"), both("a@x.e, b@y.e");
  for (UtlString* entry : {&absent, &empty, &domain}) {
    UtlVector list;
    list.Add(0, entry);
    list.Add(1, nullptr);  // is passed over
    EXPECT_EQ(filter::check_domain(UtlString("local"), 1, list), entry == &empty ? 1 : 0);
    EXPECT_EQ(filter::check_domain(UtlString(), 1, list), entry == &domain ? 0 : 1);
    EXPECT_EQ(filter::check_domain(UtlString("a@X.e"), 1, list), entry == &domain ? 1 : 0);
    EXPECT_EQ(filter::check_filter(tav_eml_mlutl_mail_address(), 0, list), 0);
  }
  EXPECT_STREQ(domain.GetString(), "X.E");
  const log_capture log;
  const char* nothing[] = {nullptr};  // permits nothing, whatever the addresses are
  EXPECT_EQ(tav_eml_mlutl_check_filter("\"open", 1, nothing, 1), 0);
  EXPECT_TRUE(log.lines().empty()) << log.all();
  const char* entries[] = {"Y.e"};  // the result may be the text that was handed in
  EXPECT_EQ(filter::check_filter(both.GetString(), both, 1, entries, 1), 1);
  EXPECT_STREQ(both.GetString(), "b@y.e");
}

// What a session never makes of the list of seen mails.
TEST(MailInfoList, reports_a_hole_and_finds_a_missing_id_first) {
  tav_eml_pop3_mail_info_list list(9);
  tav_eml_pop3_mail_info info;
  EXPECT_EQ(list.get_next_id() + list.clear_id() + list.clear_list() + list.set_all_entry_status(2),
            4);
  for (const auto& [number, size] : {std::pair(3, 7), {5, 7}, {3, 8}})
    EXPECT_EQ(list.add_mail_info(new tav_eml_pop3_mail_info(number, "x", size, 2), 1), 1);
  EXPECT_EQ(list.set_all_entry_status(1) + list.is_has_next_mail() + list.get_next_id(), 8);
  EXPECT_EQ(list.search_mail_info(info)->m_nMailNo, 3);
  tav_eml_pop3_mail_info next;
  EXPECT_EQ(list.search_next_mail(next) * 10 + next.m_lSize, 17) << "the first of equal ones";
  const log_capture log;
  list.m_MailInfoVector.Add(0, nullptr);
  EXPECT_EQ(list.clear_id() + list.clear_list() + list.remove_mail_info(), 0);
  EXPECT_EQ(list.update_mail_info(new tav_eml_pop3_mail_info(1, "a", 0, 1)), 0);
  EXPECT_EQ(list.search_next_mail(info) + list.is_has_next_mail(), 0);
  EXPECT_EQ(list.set_entry_status(info, 1), 0);
  EXPECT_EQ(log.count(" strange list."), 7u);
  info.m_strUID = "y";
  EXPECT_EQ(list.set_all_entry_status(1) + list.get_next_id(), -1);
  EXPECT_EQ(list.search_mail_info(info), nullptr);
  EXPECT_EQ(log.count("(): GetAt() error."), 3u);
}

// Exported operations that lead to what the tables see through others.
TEST(ExportedOperations, follow_the_rules_of_the_tables) {
  tav_eml_mlutl_mail mail;
  tav_eml_mlutl_receive receive;
  UtlString encoding("BASE64"), place("inline"), type("text/html"), blank("\r\n");
  EXPECT_EQ(receive.AnalyzeTransferEncoding(mail, encoding), TAV_EML_TE_BASE64);
  receive.AnalyzeContentDisposition(mail, place);
  receive.AnalyzeContentType(mail, mail, type);
  EXPECT_TRUE(mail.m_nContentType == 1 && mail.m_nContentDisposition == 0);
  EXPECT_TRUE(receive.IsEmptyLine(blank) && !receive.IsEmptyLine(place));
  mail.set_part(new tav_eml_mlutl_mail_part);
  EXPECT_EQ(receive.AnalyzePartHeader(mail, "Content-X-CIAJWNETFAX: x\r\n", 1), 0);
  EXPECT_STREQ(mail.get_part()->m_cContentCiajwnetfax.GetString(), "x");
  EXPECT_EQ(receive.AnalyzePartHeader(mail, nullptr, 1), 0);
  UtlString stuffed("..x\r\n"), end(".\r\n");
  EXPECT_EQ(receive.ChkMailEndLine(mail, stuffed, 5, 8), 0);
  EXPECT_EQ(text_of(stuffed), ".x\r\n");
  for (const long length : {6, 1})  // neither the dot nor two bytes more count
    EXPECT_EQ(receive.ChkMailEndLine(mail, type, length, 8), length == 6 ? 0 : -1);
  EXPECT_EQ(receive.ChkMailEndLine(mail, end, 3, 0), 1);
  EXPECT_EQ(mail.m_nComplete + mail.get_part()->m_nComplete - mail.m_nReceiving, 2);
  const log_capture log;
  EXPECT_EQ(receive.set_recv_buffer(std::string(4096, 'x').c_str()), 0);
  EXPECT_EQ(receive.set_recv_buffer(std::string(4097, 'x').c_str()), 1);
  EXPECT_EQ(log.count("string too large to fit in buffer"), 1u);
  UtlVector lines;
  for (const char* header : {"", "a\r\n b\r\nc\r\n"}) receive.RemoveWSP(header, 0, &lines);
  ASSERT_EQ(lines.Count(), 2);
  for (int i = 0; i < 2; ++i) {
    const std::unique_ptr<UtlString> line(static_cast<UtlString*>(lines.ElementAt(i)));
    EXPECT_STREQ(line->GetString(), i == 0 ? "ab\r\n" : "c\r\n");
  }
  int pos = 0;
  EXPECT_EQ(tav_eml_mlutl_mail_address::SkipUserName("a\"b\"", pos), 0);
  EXPECT_EQ(tav_eml_mlutl_mail_address::SkipUserName("\"a\\\"b\"c", pos) * 10 + pos, 16);
  EXPECT_EQ(tav_eml_mlutl_mail_address::SkipUserName("\"a", pos = 0), 0);
  char bytes[] = "........";
  tav_eml_mlutl_mime_utility::escape_string_decode("a%41bc", 5, bytes);  // no more than five
  tav_eml_mlutl_mime_utility::escape_string_decode("d", 5, bytes + 4);   // nor past the end
  EXPECT_STREQ(bytes, "aAb.d...");
  fake_platform net;
  std::strcpy(net.device_settings.host_name, "host");
  char* cursor = bytes;
  for (const int measure : {1, 0}) tav_eml_smtp_util::ConvertMacroStr(3, cursor, measure);
  EXPECT_TRUE(cursor == bytes + 8 && std::string(bytes) == "aAb.host") << bytes;
  unsigned long digest[4];
  tav_eml_mlutl_mail_hash().GetMD5Digest(nullptr, 9, digest);  // as of no bytes
  EXPECT_EQ(digest[0], 0xd98c1dd4u);
  char* buffer = nullptr;
  long length = 0;
  EXPECT_EQ(mail.add_buffer(buffer, length, "bc", 2), 1);
  EXPECT_EQ(mail.InsertBuffer(buffer, length, "a", 1), 1);
  EXPECT_EQ(taken(buffer, length + 1), std::string("abc", 4));
}

TEST(Easy, a_long_text_is_cut_after_a_line_or_a_character) {
  const std::string line(30000, 'x');
  std::string kana = "x";
  while (kana.size() < 50000) kana += "あ";
  for (const auto& [whole, end] : {std::pair(line + "\n" + line, 30001), std::pair(kana, 49150)}) {
    tav_eml_smtp_send_mail_part part;
    std::istringstream in(whole);
    std::string sent;
    const auto send = [&] { return sent += easy::take(part) + "|", TAV_EML_OK; };
    EXPECT_EQ(easy::detail::send_pieces(part, in, true, send), TAV_EML_OK);
    EXPECT_EQ(sent, std::string(whole).insert(static_cast<size_t>(end), "|") + "|");
  }
}

TEST(Base64, takes_whole_groups_of_pieces_and_carries_the_rest) {
  tav_eml_smtp_boundary outbox{tav_eml_smtp_settings{_tav_eml_smtp_setting()}};
  int32_t carried = 0;
  uint8_t carry[2];
  const auto ready = [&](const std::string& piece) {
    auto* data = static_cast<char*>(block_of(piece));
    long length = size_of(piece);
    EXPECT_EQ(outbox.adjust_buff_len_m3(data, length, carried, carry), TAV_EML_OK);
    return taken(data, length);
  };
  for (const auto& [piece, whole] : {std::pair("abcd", "abc"), {"e", ""}, {"f", "def"}, {"", ""}})
    EXPECT_EQ(ready(piece), whole);
  const log_capture log;
  char* none = nullptr;
  long length = 0;
  for (int32_t count : {0, 1, 2})
    EXPECT_EQ(outbox.adjust_buff_len_m3(none, length, count, carry), TAV_EML_OK);
  EXPECT_TRUE(none == nullptr && length == 0) << "nothing comes of nothing";
  length = 3;
  for (int32_t count : {-1, 3, 0, 1, 2}) {
    if (count == 0) length = -1;
    EXPECT_EQ(outbox.adjust_buff_len_m3(none, length, count, carry), TAV_EML_ERR_UNKNOWN) << count;
  }
  EXPECT_EQ(log.count("ModLen is invalid") + log.count(" <- NG"), 5u);
}

TEST(Codecs, take_a_negative_length_for_none) {
  using util = tav_eml_mlutl_mime_utility;
  for (const auto decode : {util::from_b64, util::from_qp})
    EXPECT_EQ(result_of<void*>([&](auto& out, long& n) { return decode("QUJD", -5, out, n); }), "");
  EXPECT_EQ(result_of([](char*& out, long& n) { return util::to_b64("x", -5, out, n, 64); }), "");
}

TEST(JisCodes, become_shift_jis_or_0) {
  const auto shift_jis = tav_eml_mlutl_mime_utility::CodeConvertJis2Sjis;
  EXPECT_TRUE(shift_jis(0x2422) == 0x82A0 && shift_jis(0x2160) == 0x8180);
  EXPECT_TRUE(shift_jis(0x5E21) == 0x9F9F && shift_jis(0x5F21) == 0xE040);
  EXPECT_EQ(shift_jis(0x2120) + shift_jis(0x2280) + shift_jis(0x2080) + shift_jis(0x7F21), 0);
}

}  // namespace
