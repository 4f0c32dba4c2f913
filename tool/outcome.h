// outcome.h - what a failed step means: the cause, what to try, and the exit code.

#ifndef OUTCOME_H
#define OUTCOME_H

#include "dialogue_view.h"
#include "mailbox_options.h"
#include "problem.h"
#include "quorvelmida/tav_eml_result.h"
#include "server_options.h"

namespace tavmail {

// What became of a mail: "delivered"; "refused" by the server; "unknown" when the connection broke
// after all of it was sent; "not sent".
const char* outcome_of(const dialogue_view& view);

// One plain sentence about a result that is not TAV_EML_OK: of sending, and of receiving.
problem explain(quorvelmida::TAV_EML_RESULT result, const dialogue_view& view,
                const server_options& options);
problem explain_mailbox(quorvelmida::TAV_EML_RESULT result, const dialogue_view& view,
                        const mailbox_options& options);

}  // namespace tavmail

#endif
