// Null pointers where no text of a table can stand: refused with a line in the log before anything
// is read, sent or changed.

#include <gtest/gtest.h>

#include <climits>
#include <functional>

#include "fake_memory.h"
#include "fake_platform.h"
#include "log_capture.h"
#include "values.h"

namespace {

using namespace quorvelmida;
using namespace tav_test;
using util = tav_eml_mlutl_mime_utility;
using type = tav_eml_mlutl_mail_type;
using device = tav_eml_smtp_util;
using smtp = tav_eml_smtp_command;
using pop3 = tav_eml_pop3_command;
using call = std::function<long()>;

// `said` is what a line of the log holds.
void refuse(const std::string& said, long failure, const call& what) {
  const log_capture log;
  const fake_platform net;
  const fake_memory memory;
  EXPECT_EQ(what(), failure) << said;
  EXPECT_TRUE(said.empty() || log.contains(said)) << said << "\n" << log.all();
  EXPECT_TRUE(net.calls({"resolve", "socket", "send"}).empty()) << said;
  EXPECT_TRUE(memory.clean()) << said;
}

TEST(NullPointers, are_refused_by_functions) {
  char *none = nullptr, room[64] = "";
  long n = 0;
  int count = 0;
  tav_eml_smtp_send_mail mail;
  UtlString& text = mail.m_cSubject;
  TAV_EML_ENCODED_STRING empty = {TAV_EML_CS_UTF_8, none, 3}, some = {TAV_EML_CS_NONE, room, 8};
  const auto null = [](const std::string& name, long failure, const call& what) {
    refuse("<Error>:" + name + ":[Result]null pointer", failure, what);
  };
  constexpr long kParam = TAV_EML_ERR_PARAM;
  null("ReallocationBuffer", 0, [&] { return util::ReallocationBuffer(none, n, nullptr, 5); });
  null("escape_string_decode", 0, [&] { return util::escape_string_decode(nullptr, 3, room), 0; });
  null("convert_encoded_string", -1,
       [&] { return type::convert_encoded_string(empty, some, count); });
  null("convert_encoded_string", -1,
       [&] { return type::convert_encoded_string(some, empty, count); });
  null("add_buffer", 0, [&] { return mail.add_buffer(none, n, nullptr, 3); });
  null("InsertBuffer", 0, [&] { return mail.InsertBuffer(none, n, nullptr, 3); });
  null("MakeHeaderAddress", 0,
       [&] { return mail.MakeHeaderAddress(mail.m_cTo, nullptr, none, room, n, n); });
  null("make_header_bracket", 0, [&] { return mail.make_header_bracket(text, nullptr, none, n); });
  null("ReplaceMacroStrings", kParam, [&] { return device::make_subject("x", nullptr, &count); });
  null("make_signature", kParam, [&] { return device::make_signature("x", nullptr, &count); });
  null("Automatic64Linefeed", kParam, [&] { return device::Automatic64Linefeed(nullptr, &none); });
  null("Automatic64Linefeed", kParam, [&] { return device::Automatic64Linefeed(room, nullptr); });
  null("get_date", 0, [&] { return device::get_date(1, 64, nullptr) != 0; });
  null("ConvertMacroStr", 0, [&] { return device::ConvertMacroStr(0, none, 0), 0; });
  const tav_eml_mlutl_mail_address list("x@y");
  const auto utf8 = TAV_EML_CS_UTF_8;
  int before = -1, behind = 4;
  long minus = -1;
  TAV_EML_ENCODED_STRING nothing = {utf8, none, 0}, copy = {utf8, room, 8};
  refuse("InsertBuffer() failed to re", 0, [&] { return mail.InsertBuffer(none, minus, "a", 1); });
  refuse("", 0, [&] { return type::convert_encoded_string(nothing, copy, count) + count; });
  refuse("pBuffer is null", 0, [&] { return tav_eml_mlutl_stream(9).WriteStream(none, 1, count); });
  refuse("a NULL", 0, [&] { return util::decode_and_set_escape_string(mail, nullptr), 0; });
  refuse("m_cFIleName is null", 1, [&] { return mail.get_file_extension() == nullptr; });
  refuse("", 0, [&] { return tav_eml_mlutl_check_filter("a@b", 2, nullptr, 1); });
  refuse("", 0, [&] { return tav_eml_mlutl_check_filter("a@b", 2, nullptr, -1); });
  refuse("", 0, [&] { return util::ToMimeEncode(utf8, "a", LONG_MAX, none, n, 75); });
  refuse("no text at", 0, [&] { return list.get_address(text, before, ","); });
  refuse("no text at", 0, [&] { return list.get_address(text, behind, ","); });
  refuse("", 0, [&] { return list.get_address(text, count, nullptr); });
  EXPECT_TRUE(none == nullptr && n == 0 && text.GetString() == nullptr);
}

TEST(NullPointers, are_refused_by_commands) {
  constexpr long kUnknown = TAV_EML_ERR_UNKNOWN;
  const tav_eml_smtp_settings settings{_tav_eml_smtp_setting()};
  char room[SMTP_BUFFER_SIZE] = "";
  ntssmtp_fileptr whole = {1, SMTP_CONNECT, room, room, {}}, no_send = whole, no_receive = whole;
  no_send.send_buffer = no_receive.recv_buffer = nullptr;
  tav_eml_smtp_send_mail mail;
  smtp_ehlo_option option = {};
  smtp it;
  const struct {
    std::string session, buffer;  // what is said without one
    std::function<long(smtp&, const tav_eml_smtp_settings*, ntssmtp_fileptr*)> command;
  } commands[] = {
      {"SendHeloCommand: smtpset", "SendHeloCommand: send_buffer", &smtp::SendHeloCommand},
      {"SendEhloCommand: smtpset", "SendEhloCommand: send_buffer",
       [&](smtp&, auto* s, auto* f) { return it.SendEhloCommand(s, f, option); }},
      {"start_tls: smtpset", "start_tls: send_buffer", &smtp::tav_eml_smtp_start_tls},
      {"_auth : smtpset", "_auth : send_buffer",
       [&](smtp&, auto* s, auto* f) { return it.tav_eml_smtp_auth(s, f, option); }},
      {"md5 : smtpset", "md5 : send_buffer", &smtp::tav_eml_smtp_auth_digest_md5},
      {"pop_auth : smtpset", "pop_auth : Pop3Set", &smtp::tav_eml_smtp_pop_auth},
      {"disconnect : smtpset", "disconnect : send_buffer", &smtp::tav_eml_smtp_disconnect},
      {"envelope : fp", "envelope : send_buff",
       [&](smtp&, auto* s, auto* f) { return it.tav_eml_smtp_send_envelope(s, &mail, f); }},
      {"data_open : smtpset", "data_open : send_buffer", &smtp::tav_eml_smtp_send_data_open},
      {"data_close : smtpset", "data_close : send_buffer", &smtp::tav_eml_smtp_send_data_close},
      {"SendHeloCommand: smtpset", "SendHeloCommand: send_buffer",
       &smtp::tav_eml_smtp_pnon_auth_ehlo},
  };
  for (const auto& each : commands) {
    const std::string session = each.session + " == 0", buffer = each.buffer + " == 0";
    refuse(session, kUnknown, [&] { return each.command(it, nullptr, &whole); });
    refuse(session, kUnknown, [&] { return each.command(it, &settings, nullptr); });
    refuse(buffer, kUnknown, [&] { return each.command(it, &settings, &no_send); });
    refuse(buffer, kUnknown, [&] { return each.command(it, &settings, &no_receive); });
  }
  int sock = 1;
  long n = 4;
  TAV_EML_TLS_INFO tls = {};
  UtlString text;
  ntssmtp_fileptr* session = &whole;
  tav_eml_mlutl_mail_net net;
  const call calls[] = {
      [&] { return it.tav_eml_smtp_connect_only(nullptr, &session); },
      [&] { return it.tav_eml_smtp_connect_start(nullptr, &session); },
      [&] { return it.tav_eml_smtp_connect_start(&settings, nullptr); },
      [&] { return it.tav_eml_smtp_send_data(nullptr, room, 1, &whole); },
      [&] { return it.tav_eml_smtp_send_data(&settings, nullptr, 1, &whole); },
      [&] { return it.tav_eml_smtp_send_data(&settings, room, 1, nullptr); },
      [&] { return it.tav_eml_smtp_send_envelope(&settings, nullptr, &whole); },
      [&] { return it.SendData(1, nullptr, n, 0, 1, tls); },
      [&] { return it.RecvData(1, nullptr, n, 0, 1, tls); },
      [&] { return it.RecvOneLineinFullRcv(1, nullptr, n, 0, 1, tls); },
      [&] { return net.recv_one_line(1, nullptr, n, 0, 1, tls); },
      [&] { return pop3::connect_start(nullptr, sock, tls); },
      [&] { return pop3::noop(nullptr, sock, tls); },
      [&] { return pop3::disconnect(nullptr, sock, tls); },
      [&] { return pop3::delete_mail(nullptr, sock, tls, 1); },
      [&] { return pop3::read_open(nullptr, sock, tls, 1, text); },
      [&] { return pop3::get_uniq_id(nullptr, sock, tls, 1, text); },
      [&] { return pop3::get_size(nullptr, sock, tls, 1, sock); },
      [&] { return pop3::get_stat(nullptr, sock, tls, sock, sock); },
      [&] { return pop3::GetTop(nullptr, sock, tls, 1); },
  };
  for (const call& what : calls) refuse("rror", kUnknown, what);
  constexpr long kParam = TAV_EML_ERR_PARAM;
  refuse("GetIpAddress [NG]", kParam, [&] { return net.connect_mail(&sock, nullptr, 25, 1, 0); });
  std::vector<tav_eml_mlutl_mail_net::TAV_EML_ADDR_INFO> found;
  refuse("getaddrinfo()", kParam, [&] { return net.get_ip_address(nullptr, 0, found); });
  refuse("pSock is null", kParam, [&] { return net.connect_mail(nullptr, "h", 25, 1, 0); });
  EXPECT_EQ(session, nullptr);
}

}  // namespace
