// This program is a device without access tokens: nothing here calls fake_platform::bear(), so the
// function is missing.

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "quorvelmida/taveml.h"
#include "tav_bearer.h"

#pragma weak tav_bearer_get

namespace {

using namespace quorvelmida;

TEST(Bearer, a_device_without_the_function_logs_in_with_its_password) {
  ASSERT_TRUE(&tav_bearer_get == nullptr);
  mailhost::settings given;
  given.users = {{"u", "p"}};
  given.tokens = {{"u", "t"}};
  given.methods = {"PLAIN"};
  mailhost::mail_host host(given);
  tav_test::fake_platform net;
  net.serve("192.0.2.1", host, tav_test::tls_mode::implicit);

  _tav_eml_pop3_setting from;
  _tav_eml_smtp_setting to;
  from.strServer = to.server = "192.0.2.1";
  from.strUserID = to.user_id = "u";
  from.strPassword = to.password = "p";
  from.nPort = 110;
  to.port = 25;
  to.auth_kind = 1;
  from.ucTLSMode = to.tlsmode = 1;
  const tav_eml_pop3_settings pop3(from);
  const tav_eml_smtp_settings smtp(to);
  EXPECT_EQ(tav_eml_pop3_boundary(pop3).test(), TAV_EML_OK);
  EXPECT_EQ(tav_eml_smtp_boundary(smtp).test(), TAV_EML_OK);
  EXPECT_EQ(host.connection(1).under_tls, "USER u\r\nPASS p\r\nQUIT\r\n");
  EXPECT_EQ(host.connection(2).under_tls, "EHLO localhost\r\nAUTH PLAIN AHUAcA==\r\nQUIT\r\n");
}

}  // namespace
