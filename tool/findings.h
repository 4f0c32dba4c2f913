// findings.h - what a failed step means, by protocol. The parts of outcome.h.

#ifndef FINDINGS_H
#define FINDINGS_H

#include <string>

#include "dialogue_view.h"
#include "mailbox_options.h"
#include "problem.h"
#include "quorvelmida/tav_eml_result.h"
#include "server_options.h"

namespace tavmail {

// What the step was, after the command that was last sent: "the greeting".
std::string step_of(const dialogue_view& view);

// True when no reply came, or one that broke off before it said no.
bool is_silent(const exchange* last);

finding explain_sending(quorvelmida::TAV_EML_RESULT result, const dialogue_view& view,
                        const server_options& options);
finding explain_receiving(quorvelmida::TAV_EML_RESULT result, const dialogue_view& view,
                          const mailbox_options& options);

// What is the same for both. `result` is any that they do not know better.
finding explain_connection(quorvelmida::TAV_EML_RESULT result, const dialogue_view& view,
                           const endpoint_options& options);
// The server ended the connection instead of replying.
finding explain_cut(const dialogue_view& view, const endpoint_options& options);
// It replied, but neither yes nor no, or without what belongs to a yes.
finding explain_nonsense(const dialogue_view& view, const endpoint_options& options);
finding without_unique_ids(const mailbox_options& options);
finding explain_refused_login(const exchange* refused, const endpoint_options& options);

}  // namespace tavmail

#endif
