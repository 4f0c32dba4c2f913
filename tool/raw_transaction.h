// raw_transaction.h - sends a mail that is ready over one connection, line by line.

#ifndef RAW_TRANSACTION_H
#define RAW_TRANSACTION_H

#include <string_view>

#include "quorvelmida/tav_eml_smtp_command.h"
#include "send_attempt.h"

namespace tavmail {

// connect, then send any number of times, then finish. All throw a problem. What was begun and not
// finished is ended when it goes, so that the server discards the mail.
class raw_transaction {
 public:
  explicit raw_transaction(const send_attempt& attempt);
  ~raw_transaction();
  raw_transaction(const raw_transaction&) = delete;
  raw_transaction& operator=(const raw_transaction&) = delete;

  // Sender and recipients are those of the envelope.
  void connect(quorvelmida::tav_eml_smtp_send_mail& envelope);
  // Whole lines that end in a line feed.
  void send(std::string_view lines);
  // The last line, without its end: the end of the data brings one.
  void finish(std::string_view last_line);

 private:
  void require(quorvelmida::TAV_EML_RESULT result) const;
  void count(size_t bytes);
  void send_bytes(std::string_view bytes);
  bool is_data_open() const;

  const send_attempt& m_attempt;
  const quorvelmida::tav_eml_smtp_settings* const m_settings;
  quorvelmida::tav_eml_smtp_command m_command;
  quorvelmida::ntssmtp_fileptr* m_session = nullptr;
  uint64_t m_sent = 0;
};

}  // namespace tavmail

#endif
