// Large attachments: what goes out, and in how many writes.

#include "dialogue_fixture.h"

namespace dialogue {
namespace {

class Bulk : public Dialogue {
 protected:
  Bulk() {
    fill(mail);
    attach(mail);
    mail.m_nTransferEncoding = TAV_EML_TE_7BIT;
  }

  // The attachment's text as the server received it, of `data` handed over in pieces.
  std::string send(const std::string& data, size_t piece) {
    EXPECT_EQ(facade().connect_mail(), TAV_EML_OK);
    EXPECT_EQ(facade().send_header(mail), TAV_EML_OK);
    EXPECT_EQ(facade().send_part_header(mail), TAV_EML_OK);
    const size_t before = net.calls({net_call::send}).size();
    for (size_t at = 0; at < data.size(); at += piece) {
      give(*mail.m_pPart, data.substr(at, piece));
      EXPECT_EQ(facade().send_part_body(mail), TAV_EML_OK);
    }
    writes = net.calls({net_call::send}).size() - before;
    EXPECT_EQ(facade().close_mail(mail), TAV_EML_OK);
    const std::string& text = host.messages().back().data;
    const std::string start = "Transfer-Encoding: base64\r\n\r\n";
    const size_t first = text.find(start) + start.size();
    return text.substr(first, text.rfind("\r\n--BB--") - first);
  }

  tav_eml_smtp_send_mail mail;
  size_t writes = 0;
};

std::string encoded(const std::string& data) { return to_base64(data, 64) + "\r\n"; }

TEST_F(Bulk, an_attachment_of_any_size_is_encoded_into_few_large_writes) {
  constexpr size_t kWrite = 2100 * 48;  // bytes that one write carries
  for (const size_t size : {kWrite - 1, kWrite, kWrite + 1, 3 * kWrite + 100}) {
    std::string data(size, '\0');
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 7 + i / 251);
    const size_t whole = size / 3 * 3;
    const std::string last = whole < size ? encoded(data.substr(whole)) : "";
    EXPECT_TRUE(send(data, size) == encoded(data.substr(0, whole)) + last) << size;
    EXPECT_EQ(writes, (whole + kWrite - 1) / kWrite);
    net.send_limit(1000);
    EXPECT_TRUE(send(data, size) == encoded(data.substr(0, whole)) + last) << size;
    net.send_limit(SIZE_MAX);
  }
}

}  // namespace
}  // namespace dialogue
