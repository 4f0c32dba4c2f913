#include "quorvelmida/tav_eml_smtp_util.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "cfg_group.h"
#include "clb.h"
#include "common/guard.h"
#include "common/log.h"
#include "common/text.h"
#include "common/utl_buffer.h"
#include "quorvelmida/tav_eml_smtp_send_mail.h"
#include "utl_os.h"

namespace quorvelmida {

namespace {

enum macro_kind { kPrinter, kSerial, kEtherAddress, kHost, kIp, kEquipmentId };

// The names after the "%", by kind. The first that matches counts.
constexpr const char* kMacroNames[] = {"printer", "serial", "etheraddr", "host", "ip", "equipid"};

bool is_unset(const uint8_t (&address)[4]) {
  return (address[0] | address[1] | address[2] | address[3]) == 0;
}

// The text of a field, as far as the field goes.
template <size_t Size>
std::string field_text(const char (&field)[Size]) {
  return {field, strnlen(field, Size)};
}

std::string ether_address(const CFG_EVENT_MAIL& device) {
  const bool is_second = is_unset(device.ip_address1) && !is_unset(device.ip_address2);
  const uint8_t* mac = is_second ? device.mac_address2 : device.mac_address1;
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
  return text;
}

std::string ip_address(const CFG_EVENT_MAIL& device) {
  char text[16] = "";
  inet_ntoa_r(is_unset(device.ip_address1) ? device.ip_address2 : device.ip_address1, text,
              sizeof text);
  return text;
}

void log_missing_settings(const char* operation, unsigned long code) {
  TAV_EML_LOG_ERROR(
      "[Error] tav_eml_smtp_util::%s(): cfg_group_get_event_mail() returns [0x%08lx]\n", operation,
      code);
}

std::string text_of_macro(int kind, const CFG_EVENT_MAIL& device) {
  switch (kind) {
    case kPrinter:
      return field_text(device.printer_name);
    case kSerial:
      return field_text(device.serial_number);
    case kEtherAddress:
      return ether_address(device);
    case kHost:
      return field_text(device.host_name);
    case kIp:
      return ip_address(device);
    default:
      return field_text(device.equipment_id);
  }
}

// The value of a macro; false if the device does not give its settings.
bool macro_value(int kind, std::string& value) {
  CFG_EVENT_MAIL device = {};
  const int32_t result = cfg_group_get_event_mail(&device);
  if (result != CFG_OK && result != CFG_OK_PARTIAL) {
    log_missing_settings("ConvertMacroStr", log_long_code(result));
    return false;
  }
  value = text_of_macro(kind, device);
  return true;
}

// The kind of the macro whose name begins `text`, and the length of the name; -1 for none.
int find_macro(const char* text, size_t& name_length) {
  for (int kind = kPrinter; kind <= kEquipmentId; ++kind) {
    name_length = std::strlen(kMacroNames[kind]);
    if (std::strncmp(text, kMacroNames[kind], name_length) == 0) return kind;
  }
  return -1;
}

// In one pass, because the settings may be others at the next query.
std::string expand(const char* text) {
  std::string expanded;
  std::string value;
  while (const char* percent = std::strchr(text, '%')) {
    expanded.append(text, percent);
    text = percent + 1;
    size_t name_length = 0;
    const int kind = find_macro(text, name_length);
    if (kind < 0) {
      expanded += '%';
      continue;
    }
    if (macro_value(kind, value)) expanded += value;
    text += name_length;
  }
  return expanded + text;
}

// How many bytes continue the UTF-8 character that begins with `byte`.
int continuation_bytes(unsigned char byte) {
  if (byte >= 0xC2 && byte <= 0xDF) return 1;
  if (byte >= 0xE0 && byte <= 0xEF) return 2;
  return byte >= 0xF0 && byte <= 0xF4 ? 3 : 0;
}

// Length of the character at `text`, which is not at its end.
size_t character_length(const char* text) {
  size_t length = 1;
  for (int rest = continuation_bytes(static_cast<unsigned char>(text[0]));
       rest > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80; --rest) {
    ++length;
  }
  return length;
}

// Writes the text with its line breaks to `out`, or only measures it when that is null.
size_t break_lines(const char* text, char* out) {
  constexpr int kLine = 64;
  size_t written = 0;
  const auto put = [&](const char* bytes, size_t count) {
    if (out != nullptr) std::memcpy(out + written, bytes, count);
    written += count;
  };
  int rest = kLine;
  while (*text != '\0') {
    if (*text == '\r' || *text == '\n') {
      put("\r\n", 2);
      rest = kLine;
      ++text;
      if (*text == '\n') ++text;
      continue;
    }
    const size_t length = character_length(text);
    put(text, length);
    text += length;
    if (--rest == 0) {
      put("\r\n", 2);
      rest = kLine;
    }
  }
  return written;
}

void store_length(size_t value, int* length) {
  if (length != nullptr) *length = static_cast<int>(value);
}

}  // namespace

void tav_eml_smtp_util::ConvertMacroStr(int kind, char*& cursor, int measure) {
  if (measure == 0 && !is_readable("ConvertMacroStr", cursor, 1)) return;
  guarded("ConvertMacroStr", [&] {
    std::string value;
    if (!macro_value(kind, value)) return;
    if (measure == 0) std::memcpy(cursor, value.c_str(), value.size() + 1);
    cursor += value.size();
  });
}

TAV_EML_RESULT tav_eml_smtp_util::ReplaceMacroStrings(const char* text, char** result) {
  if (!is_readable("ReplaceMacroStrings", result, 1)) return TAV_EML_ERR_PARAM;
  *result = nullptr;
  if (!is_readable("ReplaceMacroStrings", text, 1)) return TAV_EML_ERR_PARAM;
  return guarded("ReplaceMacroStrings", [&]() -> TAV_EML_RESULT {
    const std::string expanded = expand(text);
    utl_buffer buffer;
    if (!buffer.assign(expanded.data(), static_cast<long>(expanded.size()))) {
      TAV_EML_LOG_ERROR("[Error] tav_eml_smtp_util::%s(): failed to allocate memory\n",
                        "ReplaceMacroStrings");
      return TAV_EML_ERR_NO_MEMORY;
    }
    long length = 0;
    buffer.release(*result, length);
    return TAV_EML_OK;
  });
}

TAV_EML_RESULT tav_eml_smtp_util::make_subject(const char* text, char** result, int* length) {
  store_length(0, length);
  const TAV_EML_RESULT code = ReplaceMacroStrings(text, result);
  if (code == TAV_EML_OK) store_length(std::strlen(*result), length);
  return code;
}

TAV_EML_RESULT tav_eml_smtp_util::make_signature(const char* text, char** result, int* length) {
  char* expanded = nullptr;
  store_length(0, length);
  if (!is_readable("make_signature", result, 1)) return TAV_EML_ERR_PARAM;
  *result = nullptr;
  TAV_EML_RESULT code = ReplaceMacroStrings(text, &expanded);
  if (code != TAV_EML_OK) {
    log_missing_settings("make_signature", log_long_code(code));
    return code;
  }
  code = Automatic64Linefeed(expanded, result);
  if (code == TAV_EML_OK) store_length(std::strlen(*result), length);
  return code;
}

TAV_EML_RESULT tav_eml_smtp_util::Automatic64Linefeed(char* text, char** result) {
  if (!is_readable("Automatic64Linefeed", result, 1)) return TAV_EML_ERR_PARAM;
  *result = nullptr;
  if (!is_readable("Automatic64Linefeed", text, 1)) return TAV_EML_ERR_PARAM;
  const size_t length = break_lines(text, nullptr);
  utl_buffer broken;
  if (!guarded("Automatic64Linefeed", false,
               [&] { return broken.allocate(static_cast<long>(length)); })) {
    *result = text;
    return TAV_EML_OK;
  }
  break_lines(text, broken.data());
  UtlOS::MemFree(text);
  long ignored = 0;
  broken.release(*result, ignored);
  return TAV_EML_OK;
}

size_t tav_eml_smtp_util::get_date(int with_zone, size_t size, char* out) {
  static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  if (!is_readable("get_date", out, 1)) return 0;
  const std::time_t now = std::time(nullptr);
  if (now == static_cast<std::time_t>(-1)) {
    TAV_EML_LOG_ERROR("[Error] tav_eml_smtp_util::%s(): time() failed\n", "get_date");
    return 0;
  }
  std::tm local = {};
  if (clb_LocalTime_r(&now, &local) == nullptr) {
    TAV_EML_LOG_ERROR("[Error] tav_eml_smtp_util::%s(): clb_LocalTime_r() failed\n", "get_date");
    return 0;
  }
  char zone[8] = "";
  if (with_zone == 1) std::strftime(zone, sizeof zone, " %z", &local);
  char text[80];
  const int length = std::snprintf(
      text, sizeof text, "%s, %02d %s %d %02d:%02d:%02d%s", kDays[local.tm_wday], local.tm_mday,
      kMonths[local.tm_mon], local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec, zone);
  if (length < 0 || static_cast<size_t>(length) >= size) return 0;
  std::memcpy(out, text, static_cast<size_t>(length) + 1);
  return static_cast<size_t>(length);
}

TAV_EML_RESULT tav_eml_smtp_util::create_original_message_id(const std::string& address,
                                                             std::string& id) {
  if (address.empty()) {
    TAV_EML_LOG_ERROR("<Warning>tav_eml_smtp_util::%s:[none source address]\n",
                      "create_original_message_id");
    return TAV_EML_ERR_UNKNOWN;
  }
  return guarded("create_original_message_id", TAV_EML_ERR_UNKNOWN, [&]() -> TAV_EML_RESULT {
    const tav_eml_mlutl_mail_address source(address.c_str());
    UtlString created;
    if (tav_eml_smtp_send_mail::create_message_id(source, created) == 0) {
      TAV_EML_LOG_ERROR(
          "[Error] tav_eml_smtp_util::create_original_message_id(): CreateMessageID() returns "
          "[FALSE]\n");
      return TAV_EML_ERR_UNKNOWN;
    }
    id = created.GetString();
    return TAV_EML_OK;
  });
}

void tav_eml_smtp_util::free_buffer(char* buffer) { UtlOS::MemFree(buffer); }

}  // namespace quorvelmida
