// The layouts that other programs count on, checked by compiling this file: records that cross the
// interface to the platform, that a caller fills, or that tables are made of. The dump of the ABI
// holds everything; this file holds what the interface promises, above all for the 32-bit target.

#include <cstddef>
#include <type_traits>

#include "cfg_group.h"
#include "chc.h"
#include "quorvelmida/taveml.h"
#include "tav_netsock.h"
#include "tlsw.h"

// The settings have members with constructors; their order is fixed all the same.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace quorvelmida {

// --- On every target ----------------------------------------------------------------------------

template <typename Enumeration>
constexpr bool is_word = std::is_same_v<std::underlying_type_t<Enumeration>, int32_t> &&
                         sizeof(Enumeration) == 4;

static_assert(is_word<TAV_EML_RESULT> && is_word<TAV_EML_UTL_RETCODE>);
static_assert(is_word<TAV_EML_CONTENT_TYPE> && is_word<TAV_EML_TRANSFER_ENCODING>);
static_assert(is_word<TAV_EML_CONTENT_DISPOSITION> && is_word<TAV_EML_CHAR_SET>);
static_assert(is_word<TAV_EML_CONTET_X_CIAJWNETFAX> && is_word<CHC_ENCODE_TYPE>);

static_assert(sizeof(TAV_EML_TLS_INFO) == 16);
static_assert(offsetof(TAV_EML_TLS_INFO, tls_opt0) == 0);
static_assert(offsetof(TAV_EML_TLS_INFO, tls_opt4) == 4);
static_assert(offsetof(TAV_EML_TLS_INFO, tls_ctx) == 8);
static_assert(offsetof(TAV_EML_TLS_INFO, tls_session) == 12);

using address = tav_eml_mlutl_mail_net::TAV_EML_ADDR_INFO;
static_assert(sizeof(address) == 20 && offsetof(address, addr) == 4);

static_assert(sizeof(smtp_ehlo_option) == 20);
static_assert(offsetof(smtp_ehlo_option, cram_md5) == 0);
static_assert(offsetof(smtp_ehlo_option, digest_md5) == 4);
static_assert(offsetof(smtp_ehlo_option, plain) == 8);
static_assert(offsetof(smtp_ehlo_option, login) == 12);
static_assert(offsetof(smtp_ehlo_option, starttls) == 16);

static_assert(sizeof(TAV_EML_ENCODE_TYPE_ROW) == 8);
static_assert(sizeof(tav_eml_mlutl_mail_hash::m_uHashTable) == 64 * 4);
static_assert(SMTP_BUFFER_SIZE == 1024);

// The TLS mode and its five option bytes are copied as six bytes in a row.
static_assert(offsetof(_tav_eml_smtp_setting, tls_opt) ==
              offsetof(_tav_eml_smtp_setting, tlsmode) + 1);
static_assert(offsetof(tav_eml_smtp_settings, tls_opt) ==
              offsetof(tav_eml_smtp_settings, tlsmode) + 1);
static_assert(offsetof(_tav_eml_pop3_setting, ucTLSOption) ==
              offsetof(_tav_eml_pop3_setting, ucTLSMode) + 1);
static_assert(offsetof(tav_eml_pop3_settings, m_ucTLSOption) ==
              offsetof(tav_eml_pop3_settings, m_ucTLSMode) + 1);

static_assert(sizeof(TLSW_CONNECT_PARAM) == 16 && offsetof(TLSW_CONNECT_PARAM, option) == 8);
static_assert(sizeof(tav_netsock_sockaddr_in) == 16 && sizeof(tav_netsock_sockaddr_in6) == 28);
static_assert(sizeof(CFG_EVENT_MAIL) == 228);

// --- On the 32-bit target -----------------------------------------------------------------------
// Records with pointers. Strings are the platform's, so that a sum of members stands where one is
// among them: the members as declared, nothing between and nothing behind them.

constexpr bool is_target = sizeof(void*) == 4 && sizeof(long) == 4;
constexpr size_t kBase = sizeof(UtlObject);
constexpr size_t kString = sizeof(UtlString);
constexpr size_t kAddress = sizeof(tav_eml_mlutl_mail_address);

template <typename Record, size_t expected>
constexpr bool has_size = !is_target || sizeof(Record) == expected;

static_assert(has_size<UtlObject, 4>);
static_assert(has_size<TAV_EML_TYPE_ROW<TAV_EML_CONTENT_TYPE>, 8>);
static_assert(has_size<TAV_EML_ENCODED_STRING, 12>);
static_assert(has_size<CHC_CONVERT_REQUEST, 24>);
static_assert(has_size<ntssmtp_fileptr, 32>);
static_assert(!is_target || offsetof(ntssmtp_fileptr, tls_info) == 16);

static_assert(has_size<tav_eml_mlutl_mail_address, kBase + kString>);
static_assert(has_size<tav_eml_mlutl_mail_exception, 8>);
static_assert(has_size<tav_eml_mlutl_mail_hash, 4 + 16 * 4>);
static_assert(has_size<tav_eml_mlutl_mail_info, kBase + 3 * 4 + kString>);
static_assert(has_size<tav_eml_mlutl_mail_part, kBase + 7 * 4 + 8 * kString>);
static_assert(
    has_size<tav_eml_mlutl_mail, sizeof(tav_eml_mlutl_mail_part) + 6 * kAddress + 5 * kString +
                                     2 * 4 + sizeof(tav_eml_mlutl_mail_info) + 3 * 4>);

static_assert(has_size<_tav_eml_smtp_setting, 4 * kString + 7 * 4 + 8>);
static_assert(has_size<tav_eml_smtp_settings, kBase + 4 * kString + 7 * 4 + 8>);
static_assert(has_size<tav_eml_smtp_command, 4>);
static_assert(has_size<tav_eml_smtp_send_mail_part, sizeof(tav_eml_mlutl_mail_part)>);
static_assert(has_size<tav_eml_smtp_send_mail,
                       sizeof(tav_eml_mlutl_mail_part) + 4 + 7 * kAddress + 6 * kString>);
static_assert(has_size<tav_eml_smtp_boundary, 32>);

static_assert(has_size<_tav_eml_pop3_setting, kAddress + 3 * kString + 4 * 4 + 8>);
static_assert(has_size<tav_eml_pop3_settings, kBase + kAddress + 3 * kString + 4 * 4 + 8>);
static_assert(has_size<tav_eml_pop3_command, 4>);
static_assert(has_size<tav_eml_pop3_mail_info, sizeof(tav_eml_mlutl_mail_info)>);
static_assert(has_size<tav_eml_pop3_mail_info_list, kBase + sizeof(UtlVector) + 4>);
static_assert(has_size<tav_eml_pop3_receive_mail,
                       sizeof(tav_eml_mlutl_mail) + sizeof(tav_eml_pop3_mail_info)>);
static_assert(has_size<tav_eml_pop3_receive_mail_part, sizeof(tav_eml_mlutl_mail_part)>);
static_assert(has_size<tav_eml_pop3_boundary, 32>);

}  // namespace quorvelmida
