// tavmail send.

#include <iostream>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "composed_mail.h"
#include "envelope.h"
#include "message_text.h"
#include "outgoing_mail.h"
#include "problem_json.h"
#include "progress_bar.h"
#include "quorvelmida/tav_eml_smtp_boundary.h"
#include "quorvelmida/taveml_easy.h"
#include "ready_mail.h"
#include "ready_sending.h"
#include "received_text.h"
#include "send_attempt.h"
#include "send_options.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

// One mail over the facade. What was begun and not completed is aborted, so that the server
// discards it.
class facade_transaction {
 public:
  facade_transaction(const send_attempt& attempt, outgoing& out)
      : m_attempt(attempt), m_out(out), m_boundary(attempt.settings()) {}

  void run(bool is_fax, progress_bar& bar) {
    require(m_boundary.connect_mail());
    require(m_boundary.send_header(m_out.mail));
    send_body();
    try {
      for (const auto& file : m_out.files) send_file(*file, is_fax, bar);
    } catch (const problem& cause) {
      m_boundary.abort_mail();  // without effect when it was the server that failed
      throw;
    }
    const TAV_EML_RESULT closed = m_boundary.close_mail(m_out.mail);
    // A goodbye that failed does not undo an accepted mail.
    if (!m_attempt.was_accepted()) require(closed);
  }

 private:
  // Ends the transaction when a step failed, or the run is to end.
  void require(TAV_EML_RESULT result) {
    if (m_attempt.goes_on(result)) return;
    const problem cause = m_attempt.ending(result);
    m_boundary.abort_mail();
    throw cause;
  }

  void send_body() {
    const std::string& body = *m_out.body;
    for (size_t at = 0; at < body.size();) {
      const size_t end = end_of_piece(body, at);
      require(easy::give(m_out.mail, body.data() + at, end - at));
      require(m_boundary.send_body(m_out.mail));
      at = end;
    }
  }

  void send_file(attachment& file, bool is_fax, progress_bar& bar) {
    m_out.mail.set_part(file.new_part().release());
    m_out.mail.m_pPart->set_content_ciajwnetfax(is_fax ? 1 : 0);
    require(m_boundary.send_part_header(m_out.mail));
    while (const size_t count = file.read_into(*m_out.mail.m_pPart)) {
      require(m_boundary.send_part_body(m_out.mail));
      bar.advance(count);
    }
  }

  const send_attempt& m_attempt;
  outgoing& m_out;
  tav_eml_smtp_boundary m_boundary;
};

bool shows_progress(const send_options& options) { return !options.quiet && !options.verbose; }

void send_composed(const send_options& options, const send_attempt& attempt, outgoing& out,
                   progress_bar& bar) {
  const mime_mail mail =
      as_mime(out, options.internet_fax, [&](size_t bytes) { bar.advance(bytes); });
  if (!out.sender.empty()) out.mail.m_cFrom = tav_eml_mlutl_mail_address(out.sender.c_str());
  raw_transaction transaction(attempt);
  ready_mail ready([&](header_block&) { transaction.connect(out.mail); }, transaction);
  mime_library::loaded().compose(mail, [&](std::string_view bytes) { ready.add(bytes); });
  ready.end();
}

void send_raw(const send_options& options, const send_attempt& attempt, outgoing& out) {
  ready_options ready;
  if (options.envelope_from_option.is_given()) {
    ready.sender = given_sender("--envelope-from", options.envelope_from);
  }
  if (!options.from.empty()) ready.fallback_sender = given_sender("--from", options.from);
  for (const auto& lists : {options.to, options.cc, options.bcc}) {
    ready.recipients.insert(ready.recipients.end(), lists.begin(), lists.end());
  }
  ready.reads_recipients = ready.recipients.empty();
  ready.permit = options.limits.permit;
  ready.deny = options.limits.deny;
  progress_bar bar("Sending", out.ready->size(), shows_progress(options));
  send_ready(*out.ready, ready, attempt, out.mail, [&](size_t bytes) { bar.advance(bytes); });
}

void send_with(const send_options& options, const send_attempt& attempt, outgoing& out) {
  if (out.ready) return send_raw(options, attempt, out);
  uint64_t total = 0;
  for (const auto& file : out.files) total += file->size();
  progress_bar bar("Sending", total, shows_progress(options) && !out.files.empty());
  if (!out.is_for_facade()) return send_composed(options, attempt, out, bar);
  facade_transaction(attempt, out).run(options.internet_fax, bar);
}

std::string outcome_json(const std::string& outcome, const std::string& reply, const outgoing& out,
                         const problem* cause) {
  nlohmann::ordered_json document = {{"outcome", outcome}, {"reply", reply}};
  UtlString id;
  if (out.mail.get_message_id(id) != 0) document["message_id"] = id.GetString();
  if (cause != nullptr) add_problem(document, *cause);
  return json_text(document);
}

int run_send(command_line& command, send_options& options) {
  outgoing out;
  std::string outcome = "not sent";
  try {
    options.check_raw();
    options.account.apply(command, *command.parent(), "smtp", options.server);
    options.server.complete();
    if (options.raw.empty()) {
      prepare(options, options.attachments(command), out);
    } else {
      out.ready = std::make_unique<mail_input>(options.raw, "--raw");
    }
    const send_attempt sending(options.server, options.limits.size_limit, options.verbose);
    try {
      send_with(options, sending, out);
    } catch (const problem&) {
      outcome = sending.outcome();
      throw;
    } catch (const std::bad_alloc&) {
      outcome = sending.outcome();
      throw problem(EX_OSERR, "out of memory");
    }
    if (options.is_json) {
      std::cout << outcome_json("delivered", sending.reply(), out, nullptr);
    } else if (!options.quiet) {
      std::cout << wrapped("sent; ", "the server said: " + sending.reply());
    }
    return EX_OK;
  } catch (const problem& cause) {
    if (options.is_json) std::cout << outcome_json(outcome, cause.reply(), out, &cause);
    throw;
  }
}

constexpr char kSendExamples[] = R"(
Examples:
  tavmail send -s mail.example.com -u anna -f anna@example.com \
      -t bob@example.org -S "Hello" --text "How are you?"
  tavmail send -A office -t bob@example.org -S "Hello" --text-file letter.txt
  tavmail send -s mail.example.com:465 -f scanner@example.com \
      -t bob@example.org -S "Scan" --text "" -a scan.pdf
)";

}  // namespace

command add_send(command_line& tool) {
  command_line& line = tool.add_command("send", "send a mail");
  const auto options = std::make_shared<send_options>();
  options->add_to(line);
  line.set_footer(kSendExamples);
  return {&line, [&line, options] { return run_send(line, *options); }};
}

}  // namespace tavmail
