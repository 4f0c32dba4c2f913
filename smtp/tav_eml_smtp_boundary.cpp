#include "quorvelmida/tav_eml_smtp_boundary.h"

#include <cstring>
#include <new>

#include "base64_piece.h"
#include "boundary_resources.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_smtp_command.h"
#include "smtp_log.h"
#include "smtp_session.h"

namespace quorvelmida {

namespace {

// Holds the lock until the end of a scope, or longer when told to keep it.
class lock_holder {
 public:
  explicit lock_holder(UtlMutex* lock) : m_pLock(lock), m_bTaken(UtlOS::TakeMutex(lock) != 0) {}
  lock_holder(const lock_holder&) = delete;
  lock_holder& operator=(const lock_holder&) = delete;
  ~lock_holder() {
    if (m_bTaken) UtlOS::GiveMutex(m_pLock);
  }

  bool is_taken() const { return m_bTaken; }
  void keep() { m_bTaken = false; }

 private:
  UtlMutex* const m_pLock;
  bool m_bTaken;
};

void drop(ntssmtp_fileptr*& session) {
  session_owner owner(session);
  session = nullptr;
}

}  // namespace

tav_eml_smtp_boundary::tav_eml_smtp_boundary(const tav_eml_smtp_settings& settings)
    : m_pSMTPSettings(&settings),
      m_pSession(nullptr),
      m_pResources(new (std::nothrow) resources),
      m_nPartCarry(0),
      m_nBodyCarry(0),
      m_aPartCarry{},
      m_aBodyCarry{},
      m_uBytesSent(0) {}

tav_eml_smtp_boundary::~tav_eml_smtp_boundary() {
  drop(m_pSession);
  delete m_pResources;
}

// Null when memory ran out.
UtlMutex* tav_eml_smtp_boundary::lock() const {
  return m_pResources != nullptr ? m_pResources->lock : nullptr;
}

void tav_eml_smtp_boundary::free_block() {
  if (m_pResources != nullptr) m_pResources->free_block();
}

TAV_EML_RESULT tav_eml_smtp_boundary::test() {
  constexpr char kName[] = "test";
  if (m_pSMTPSettings == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s():[Return]:m_pSMTPSettings=NULL\n", kName);
    return TAV_EML_ERR_UNKNOWN;
  }
  const lock_holder holder(lock());
  if (!holder.is_taken()) return boundary_failure(kName, "():no lock", TAV_EML_ERR_NO_MEMORY);
  drop(m_pSession);
  tav_eml_smtp_command command;
  TAV_EML_RESULT result = command.tav_eml_smtp_connect_start(m_pSMTPSettings, &m_pSession);
  if (result != TAV_EML_OK) {
    return boundary_failure(kName, "():[Return]:ConnectStart NG", result);
  }
  result = command.tav_eml_smtp_disconnect(m_pSMTPSettings, m_pSession);
  if (result != TAV_EML_OK) boundary_failure(kName, "():[Return]:Disconnect NG", result);
  drop(m_pSession);
  return result;
}

TAV_EML_RESULT tav_eml_smtp_boundary::connect_mail() {
  constexpr char kName[] = "connect_mail";
  if (m_pSMTPSettings == nullptr) {
    return boundary_failure(kName, " : m_pSMTPSettings == 0", TAV_EML_ERR_UNKNOWN);
  }
  lock_holder holder(lock());
  if (!holder.is_taken()) return boundary_failure(kName, "():no lock", TAV_EML_ERR_NO_MEMORY);
  holder.keep();  // for the whole transaction, also when connecting fails
  drop(m_pSession);
  m_nBodyCarry = 0;  // what an aborted mail left must not begin the next one
  m_nPartCarry = 0;
  const TAV_EML_RESULT result =
      tav_eml_smtp_command().tav_eml_smtp_connect_start(m_pSMTPSettings, &m_pSession);
  return result == TAV_EML_OK ? result : boundary_failure(kName, " : ConnectStart NG", result);
}

TAV_EML_RESULT tav_eml_smtp_boundary::close_mail() {
  if (m_pSMTPSettings == nullptr) {
    return boundary_failure("close_mail", " : SMTPSets == 0", TAV_EML_ERR_UNKNOWN);
  }
  free_block();
  tav_eml_smtp_command command;
  const TAV_EML_RESULT data = command.tav_eml_smtp_send_data_close(m_pSMTPSettings, m_pSession);
  if (data != TAV_EML_OK) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::close_mail : SendDataclose_mail NG[Error: 0x%lx]\n",
                      log_long_code(data));
  }
  const TAV_EML_RESULT quit = command.tav_eml_smtp_disconnect(m_pSMTPSettings, m_pSession);
  if (quit != TAV_EML_OK) {
    TAV_EML_LOG_ERROR(
        "tav_eml_smtp_boundary::close_mail : tav_eml_smtp_disconnect NG[Error: 0x%lx]\n",
        log_long_code(quit));
    if (m_pSession != nullptr) {
      // QUIT did not get through: the connection is of no more use.
      close_connection(*m_pSession);
      m_pSession->status = SMTP_NOT_CONNECT;
    }
  }
  UtlOS::GiveMutex(lock());
  return data != TAV_EML_OK ? data : quit;
}

TAV_EML_RESULT tav_eml_smtp_boundary::abort_mail() {
  if (m_pSMTPSettings == nullptr || m_pSession == nullptr) {
    return boundary_failure("abort_mail", " : m_pSMTPSettings == 0", TAV_EML_OK);
  }
  TAV_EML_RESULT result = TAV_EML_OK;
  switch (m_pSession->status) {
    case SMTP_NOT_CONNECT:
      TAV_EML_LOG_STATUS("tav_eml_smtp_boundary::abort_mail : status = SMTP_NOT_CONNECT\n");
      break;
    case SMTP_CONNECT:
      TAV_EML_LOG_STATUS("tav_eml_smtp_boundary::abort_mail : status = SMTP_CONNECT\n");
      result = tav_eml_smtp_command().tav_eml_smtp_disconnect(m_pSMTPSettings, m_pSession);
      break;
    case SMTP_DATA_SEND:
    case SMTP_PART_SEND:
      // No QUIT in the middle of the data: the server discards the mail.
      TAV_EML_LOG_STATUS("tav_eml_smtp_boundary::abort_mail : status = SMTP_DATA_SEND\n");
      break;
    default:
      result = boundary_failure("abort_mail", " : Illegal status", TAV_EML_ERR_UNKNOWN);
      break;
  }
  close_connection(*m_pSession);
  m_pSession->status = SMTP_NOT_CONNECT;
  free_block();
  UtlOS::GiveMutex(lock());
  return result;
}

TAV_EML_RESULT tav_eml_smtp_boundary::judge_size_of_data(unsigned long bytes) {
  if (m_pSMTPSettings == nullptr) {
    TAV_EML_LOG_ERROR("tav_eml_smtp_boundary::%s(): m_pSMTPSettings is null[Error]\n",
                      "judge_size_of_data");
    return TAV_EML_ERR_UNKNOWN;
  }
  const uint32_t limit = m_pSMTPSettings->size_limit;
  if (limit == 0) return TAV_EML_OK;
  const uint32_t room = UINT32_MAX - m_uBytesSent;
  m_uBytesSent += bytes < room ? static_cast<uint32_t>(bytes) : room;
  return limit > m_uBytesSent ? TAV_EML_OK : TAV_EML_ERR_SIZE_LIMIT;
}

TAV_EML_RESULT tav_eml_smtp_boundary::adjust_buff_len_m3(char*& data, long& length,
                                                         int32_t& carry_count,
                                                         uint8_t* carry_bytes) {
  constexpr char kName[] = "adjust_buff_len_m3";
  if (length == 0) return TAV_EML_OK;
  const long ready = whole_groups(carry_count, length);
  if (ready < 0) return TAV_EML_ERR_UNKNOWN;
  const long carried = carry_count;
  const long rest = carried + length - ready;  // waits for the next piece
  if (carried > 0) {
    utl_buffer joined;
    if (!guarded(kName, false, [&] { return joined.allocate_uncleared(carried + length); })) {
      return boundary_failure(kName, "():AllocError", TAV_EML_ERR_NO_MEMORY);
    }
    std::memcpy(joined.data(), carry_bytes, static_cast<size_t>(carried));
    std::memcpy(joined.data() + carried, data, static_cast<size_t>(length));
    joined.data()[carried + length] = '\0';
    UtlOS::MemFree(data);
    joined.release(data, length);
  }
  std::memcpy(carry_bytes, data + ready, static_cast<size_t>(rest));
  carry_count = static_cast<int32_t>(rest);
  if (rest > 0) data[ready] = '\0';
  length = ready;
  return TAV_EML_OK;
}

}  // namespace quorvelmida
