// The settings query: the machine tells its names and addresses, a file or variables the rest.

#include "cfg_group.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <new>
#include <string>

namespace {

constexpr char kSettingsFile[] = "/etc/taveml/device.conf";

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// Lines "key = value"; "#" begins a comment line.
std::map<std::string, std::string> read_settings() {
  const char* path = std::getenv("TAV_DEVICE_SETTINGS");
  std::ifstream file(path != nullptr ? path : kSettingsFile);
  std::map<std::string, std::string> settings;
  for (std::string line; std::getline(file, line);) {
    const auto equals = line.find('=');
    const std::string key = trimmed(line.substr(0, equals));
    if (key.empty() || key[0] == '#' || equals == std::string::npos) continue;
    settings[key] = trimmed(line.substr(equals + 1));
  }
  return settings;
}

// Copies what fits, never half a UTF-8 character. True when there was something to copy.
template <size_t Size>
bool store(const std::string& value, char (&field)[Size]) {
  size_t length = std::min(value.size(), Size - 1);
  if (length < value.size()) {
    while (length > 0 && (static_cast<unsigned char>(value[length]) & 0xC0) == 0x80) --length;
  }
  std::memcpy(field, value.data(), length);
  field[length] = '\0';
  return length > 0;
}

// A variable goes before the settings file.
template <size_t Size>
bool store_setting(const std::map<std::string, std::string>& settings, const char* variable,
                   const char* key, char (&field)[Size]) {
  const char* value = std::getenv(variable);
  if (value != nullptr) return store(value, field);
  const auto found = settings.find(key);
  return store(found != settings.end() ? found->second : std::string(), field);
}

struct network_interface {
  uint8_t mac[6] = {};
  uint8_t address[4] = {};
};

// The interfaces that can carry mail, by index.
std::map<unsigned int, network_interface> find_interfaces() {
  std::map<unsigned int, network_interface> found;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return found;
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, freeifaddrs);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || (entry->ifa_flags & IFF_LOOPBACK) != 0) continue;
    network_interface& known = found[if_nametoindex(entry->ifa_name)];
    if (entry->ifa_addr->sa_family == AF_PACKET) {
      sockaddr_ll link;
      std::memcpy(&link, entry->ifa_addr, sizeof link);
      if (link.sll_halen == sizeof known.mac)
        std::memcpy(known.mac, link.sll_addr, sizeof known.mac);
    } else if (entry->ifa_addr->sa_family == AF_INET) {
      sockaddr_in internet;
      std::memcpy(&internet, entry->ifa_addr, sizeof internet);
      std::memcpy(known.address, &internet.sin_addr, sizeof known.address);
    }
  }
  return found;
}

void store_interfaces(CFG_EVENT_MAIL& record) {
  int count = 0;
  for (const auto& [index, known] : find_interfaces()) {
    std::memcpy(count == 0 ? record.mac_address1 : record.mac_address2, known.mac,
                sizeof known.mac);
    std::memcpy(count == 0 ? record.ip_address1 : record.ip_address2, known.address,
                sizeof known.address);
    if (++count == 2) return;
  }
}

bool fill(CFG_EVENT_MAIL& record) {
  const auto settings = read_settings();
  bool complete = store_setting(settings, "TAV_PRINTER_NAME", "printer_name", record.printer_name);
  complete &= store_setting(settings, "TAV_SERIAL_NUMBER", "serial_number", record.serial_number);
  complete &= store_setting(settings, "TAV_EQUIPMENT_ID", "equipment_id", record.equipment_id);
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  complete &= store(host, record.host_name);
  store_interfaces(record);
  return complete;
}

}  // namespace

int32_t cfg_group_get_event_mail(CFG_EVENT_MAIL* record) noexcept {
  if (record == nullptr) return -1;
  try {
    return fill(*record) ? CFG_OK : CFG_OK_PARTIAL;
  } catch (const std::bad_alloc&) {
    return -1;
  }
}
