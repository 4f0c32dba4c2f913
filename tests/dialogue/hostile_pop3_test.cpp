// Receiving from servers that mean harm.

#include <climits>

#include "hostile.h"
#include "receive_scenarios.h"

namespace dialogue {
namespace {

TEST(HostilePop3, silence_and_the_end_at_every_byte) { cut_everywhere(receive_scenarios()); }
TEST(HostilePop3, slow_peers) { drip_and_choke(receive_scenarios()); }
TEST(HostilePop3, wrong_replies) { wrong_words(receive_scenarios()); }
TEST(HostilePop3, endless_replies) { endless_words(receive_scenarios()); }
TEST(HostilePop3, replies_at_random) { drunken(receive_scenarios(), 100); }

TEST_F(Pop3, bytes_behind_stls_are_never_taken_for_replies_under_tls) {
  record.ucTLSMode = 2;
  host.capabilities({"STLS"});
  for (const char* injected :
       {"+", "\r\n", "+OK\r\n", "+OK\r\n+OK\r\n+OK 1 1\r\n", "\x16\x03\x03"}) {
    host.reply_to("STLS", host.occurrences("STLS") + 1, "+OK\r\n" + std::string(injected));
    EXPECT_EQ(facade().test(), TAV_EML_ERR_UNKNOWN) << injected;
    EXPECT_EQ(host.client_bytes(host.connections()), "CAPA\r\nSTLS\r\n");
    EXPECT_EQ(facade().test(), TAV_EML_OK);
  }
}

// Messages that never end are cut here, by silence, long before the 2 GiB at which the library ends
// them: they show that its memory does not grow with them.
class EndlessMessage : public Pop3 {
 protected:
  // Begins with `first`, and goes on with `then` for so many MiB.
  void begin(const std::string& first, const std::string& then, size_t megabytes) {
    attack = {};
    attack.replaced = 4;  // greeting, USER, PASS, RETR
    attack.replacement = "+OK\r\n" + first;
    attack.endless = repeated(then, 8192 / then.size() + 1);
    attack.endless_bytes = megabytes << 20;
    net.serve(kAddress, 110, front);
    ASSERT_EQ(facade().connect_mail(), TAV_EML_OK);
    mail = std::make_unique<tav_eml_pop3_receive_mail>(info);
    before = memory.live_bytes();
  }
  void next_part() { mail->set_part(new tav_eml_pop3_receive_mail_part); }
  // The call gave what it should, and the memory is as it was.
  void ended(TAV_EML_RESULT result, TAV_EML_RESULT expected, size_t new_bytes) {
    EXPECT_EQ(result, expected) << log.all().substr(0, 1000);
    EXPECT_LE(memory.peak_bytes() + new_bytes, before + (size_t{1} << 20));
    EXPECT_LT(attack.endless_bytes, attack.endless.size());  // all of it was read
    EXPECT_EQ(net.leaks(), "");
    EXPECT_EQ(facade().noop(), TAV_EML_ERR_NOT_CONNECTED);
    mail.reset();
    log.clear();
  }

  tampering attack;
  tampered_host front{host, attack};
  tav_eml_pop3_mail_info info{1, "uid", 1, 1};
  std::unique_ptr<tav_eml_pop3_receive_mail> mail;
  size_t before = 0;
};

TEST_F(EndlessMessage, is_read_and_skipped_in_bounded_memory) {
  const std::string multi = "Content-Type: multipart/mixed; boundary=b\r\n\r\n";
  const std::string line(70, 'x');
  const new_meter meter;
  const auto skip_all = [&] {
    return tav_eml_pop3_boundary::convert_utl_retcode(facade().skip_mail(*mail));
  };

  begin("", "X-" + line + ": y\r\n", 64);  // a header
  EXPECT_EQ(facade().receive_header(*mail, 0), TAV_EML_ERR_UNKNOWN);
  EXPECT_TRUE(log.contains("header too long"));
  ended(skip_all(), TAV_EML_ERR_UNKNOWN, meter.peak_bytes());

  begin(multi, line + "\r\n", 4);  // a preamble
  ASSERT_EQ(facade().receive_header(*mail, 0), TAV_EML_OK);
  next_part();
  ended(facade().receive_part_header(*mail, 0), TAV_EML_ERR_UNKNOWN, meter.peak_bytes());

  begin(multi + "--b\r\n\r\n", "--" + line + "\r\n", 4);  // a part
  ASSERT_EQ(facade().receive_header(*mail, 0), TAV_EML_OK);
  next_part();
  ASSERT_EQ(facade().receive_part_header(*mail, 0), TAV_EML_OK);
  ended(facade().skip_part(*mail), TAV_EML_ERR_UNKNOWN, meter.peak_bytes());

  begin(multi, "--b\r\n\r\n", 1);  // parts
  ASSERT_EQ(facade().receive_header(*mail, 0), TAV_EML_OK);
  TAV_EML_RESULT result = TAV_EML_OK;
  size_t parts = 0;
  for (; result == TAV_EML_OK; ++parts) {
    next_part();
    result = facade().receive_part_header(*mail, 0);
  }
  EXPECT_GT(parts, 50000u);
  ended(result, TAV_EML_ERR_UNKNOWN, meter.peak_bytes());

  begin("Content-Transfer-Encoding: base64\r\n\r\n", repeated("QUJD", 18) + "\r\n", 4);  // a body
  ASSERT_EQ(facade().receive_header(*mail, 0), TAV_EML_OK);
  size_t data = 0;
  while ((result = facade().receive_body(*mail)) == TAV_EML_OK) {
    void* block = nullptr;
    long length = 0;
    ASSERT_EQ(mail->get_buffer(block, length), 1);
    UtlOS::MemFree(block);
    data += static_cast<size_t>(length);
  }
  EXPECT_GT(data, size_t{2} << 20);
  ended(result, TAV_EML_ERR_UNKNOWN, meter.peak_bytes());
}

// The 2 GiB themselves, without moving them: the operation that counts a line's bytes is told of a
// long one.
TEST_F(EndlessMessage, ends_at_two_gibibytes) {
  using step = std::function<TAV_EML_UTL_RETCODE(tav_eml_mlutl_receive&, tav_eml_mlutl_mail&, int&,
                                                 TAV_EML_TLS_INFO&)>;
  const step steps[] = {
      [](auto& r, auto& m, int& sock, auto& tls) { return r.skip_mail(m, 7, sock, tls); },
      [](auto& r, auto& m, int& sock, auto& tls) { return r.skip_part(m, 7, sock, tls); },
      [](auto& r, auto& m, int& sock, auto& tls) { return r.receive_part_header(m, sock, 7, tls); },
  };
  for (const step& read_on : steps) {
    attack = {};
    attack.replaced = 1;
    attack.replacement = "Content-Type: multipart/mixed; boundary=b\r\n\r\n";
    attack.endless = "preamble\r\n";
    attack.endless_bytes = size_t{1} << 20;
    net.serve(kAddress, 110, front);
    int sock = 0;
    TAV_EML_TLS_INFO tls = {};
    ASSERT_EQ(tav_eml_mlutl_mail_net().connect_mail(&sock, kServer, 110, 1000, 0), TAV_EML_OK);
    tav_eml_mlutl_receive receiver;
    tav_eml_mlutl_mail endless;
    endless.set_part(new tav_eml_mlutl_mail_part);
    ASSERT_EQ(receiver.receive_header(endless, sock, 7, 0, tls), TAV_EML_UTL_OK);
    UtlString counted("x\r\n");
    receiver.ChkMailEndLine(endless, counted, INT_MAX - 10000, 0);
    EXPECT_EQ(read_on(receiver, endless, sock, tls), TAV_EML_UTL_BAD_REPLY);
    EXPECT_TRUE(log.contains("message without end"));
    EXPECT_EQ(sock, 0);
    EXPECT_EQ(net.leaks(), "");
    log.clear();
  }
}

}  // namespace
}  // namespace dialogue
