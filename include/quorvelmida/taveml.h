// taveml.h - includes all headers of libtaveml.

#ifndef TAVEML_H
#define TAVEML_H

#include "quorvelmida/tav_eml_mlutl_domain_filter.h"
#include "quorvelmida/tav_eml_mlutl_mail.h"
#include "quorvelmida/tav_eml_mlutl_mail_address.h"
#include "quorvelmida/tav_eml_mlutl_mail_exception.h"
#include "quorvelmida/tav_eml_mlutl_mail_hash.h"
#include "quorvelmida/tav_eml_mlutl_mail_info.h"
#include "quorvelmida/tav_eml_mlutl_mail_net.h"
#include "quorvelmida/tav_eml_mlutl_mail_part.h"
#include "quorvelmida/tav_eml_mlutl_mail_type.h"
#include "quorvelmida/tav_eml_mlutl_mime_utility.h"
#include "quorvelmida/tav_eml_mlutl_receive.h"
#include "quorvelmida/tav_eml_mlutl_stream.h"
#include "quorvelmida/tav_eml_pop3_boundary.h"
#include "quorvelmida/tav_eml_pop3_command.h"
#include "quorvelmida/tav_eml_pop3_mail_info.h"
#include "quorvelmida/tav_eml_pop3_mail_info_list.h"
#include "quorvelmida/tav_eml_pop3_receive_mail.h"
#include "quorvelmida/tav_eml_pop3_settings.h"
#include "quorvelmida/tav_eml_result.h"
#include "quorvelmida/tav_eml_smtp_boundary.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "quorvelmida/tav_eml_smtp_receive_mail_part.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"
#include "quorvelmida/tav_eml_smtp_settings.h"
#include "quorvelmida/tav_eml_smtp_util.h"
#include "quorvelmida/tav_eml_tls_info.h"

#endif
