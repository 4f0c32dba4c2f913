// tls_advice.h - what helps where TLS fails.

#ifndef TLS_ADVICE_H
#define TLS_ADVICE_H

#include <string>

#include "dialogue_view.h"
#include "endpoint_options.h"
#include "problem.h"

namespace tavmail {

constexpr char kUseTls[] = "use --tls starttls, or --tls implicit with its port";

// What helps against a refused certificate: `refused` is one of TAV_TLS_REFUSED_...
std::string certificate_advice(const std::string& refused);

// A handshake that did not end well on the latest connection.
finding explain_tls(const dialogue_view& view, const endpoint_options& options);

// What a server that is silent or cuts the connection may expect.
std::string mode_advice(const endpoint_options& options);

// True when the server ended the connection before it said anything under TLS. That is how a client
// without a certificate learns that one is wanted.
bool is_cut_after_handshake(const dialogue_view& view);

// True when a refusal in clear text is for the want of TLS.
bool wants_tls(const exchange& entry);

}  // namespace tavmail

#endif
