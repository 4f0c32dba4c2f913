// tavmail send.

#include <cstring>
#include <iostream>
#include <memory>
#include <new>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "dialogue_view.h"
#include "interrupt.h"
#include "outcome.h"
#include "problem_json.h"
#include "progress_bar.h"
#include "quorvelmida/tav_eml_smtp_boundary.h"
#include "quorvelmida/taveml_easy.h"
#include "received_text.h"
#include "send_options.h"

namespace tavmail {

using namespace quorvelmida;

namespace {

constexpr size_t kBodyPiece = 48 * 1024;

// The end of the piece that begins at `at`: after a line if possible, never inside a character.
size_t piece_end(const std::string& text, size_t at) {
  size_t end = at + kBodyPiece;
  if (end >= text.size()) return text.size();
  const size_t feed = text.rfind('\n', end - 1);
  if (feed != std::string::npos && feed > at) return feed + 1;
  while ((static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return end;
}

// One transaction. A mail that was begun and not completed is aborted, so that the server discards
// it.
class transaction {
 public:
  transaction(const send_options& options, outgoing& out)
      : m_options(options),
        m_out(out),
        m_view(options.verbose ? [](const std::string& line) { std::cerr << line << '\n'; }
                               : dialogue_view::line_sink(),
               options.server.kind_of_dialogue()),
        m_tap(m_view),
        m_settings(options.server.settings(options.size_limit)),
        m_boundary(m_settings) {}

  void run() {
    require(m_boundary.connect_mail());
    require(m_boundary.send_header(m_out.mail));
    send_body();
    if (m_out.file) send_attachment();
    const TAV_EML_RESULT closed = m_boundary.close_mail(m_out.mail);
    // A goodbye that failed does not undo an accepted mail.
    if (!m_view.was_accepted()) require(closed);
  }

  std::string reply() const { return reply_text(m_view.decisive()); }
  const char* outcome() const { return outcome_of(m_view); }

 private:
  // Ends the transaction when a step failed, or the run is to end.
  void require(TAV_EML_RESULT result) {
    if (result == TAV_EML_OK && (!interrupt_guard::was_pressed() || m_view.end_was_sent())) return;
    const problem cause = ending(result);
    m_boundary.abort_mail();
    throw cause;
  }

  problem ending(TAV_EML_RESULT result) const {
    const problem known = explain(result, m_view, m_options.server);
    const bool is_verdict = result == TAV_EML_ERR_REPLY || result == TAV_EML_ERR_REPLY_TEMPORARY;
    if (!interrupt_guard::was_pressed() || is_verdict) return known;
    return interrupt_guard::cause(m_view.end_was_sent()
                                      ? "the whole mail was sent and may have been delivered; ask "
                                        "the recipient before sending it again"
                                      : "nothing was delivered")
        .at(known.stage(), known.reply(), known.code());
  }

  void send_body() {
    const std::string& body = m_out.body;
    for (size_t at = 0; at < body.size();) {
      const size_t end = piece_end(body, at);
      require(easy::give(m_out.mail, body.data() + at, end - at));
      require(m_boundary.send_body(m_out.mail));
      at = end;
    }
  }

  void send_attachment() {
    require(m_boundary.send_part_header(m_out.mail));
    progress_bar bar("Sending", m_out.file->size(), !m_options.quiet && !m_options.verbose);
    try {
      while (const size_t count = m_out.file->read_into(*m_out.mail.m_pPart)) {
        require(m_boundary.send_part_body(m_out.mail));
        bar.advance(count);
      }
    } catch (const problem& cause) {
      m_boundary.abort_mail();  // without effect when it was the server that failed
      throw;
    }
  }

  const send_options& m_options;
  outgoing& m_out;
  dialogue_view m_view;
  dialogue_tap m_tap;
  tav_eml_smtp_settings m_settings;
  tav_eml_smtp_boundary m_boundary;
};

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
    options.account.apply(command, *command.parent(), "smtp", options.server);
    options.server.complete();
    prepare(options, out);
    transaction sending(options, out);
    try {
      sending.run();
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

constexpr char kExamples[] = R"(
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
  line.set_footer(kExamples);
  return {&line, [&line, options] { return run_send(line, *options); }};
}

}  // namespace tavmail
