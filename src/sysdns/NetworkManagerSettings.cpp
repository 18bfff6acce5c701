#include "sysdns/NetworkManagerSettings.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <cstring>

#include "sysdns/SystemBus.h"

namespace morvane::sysdns {

namespace {

template <typename Fill>
bool appendEntry(sd_bus_message* m, const char* key, const char* signature, Fill fill) {
    return sd_bus_message_open_container(m, 'e', "sv") >= 0 &&
           sd_bus_message_append(m, "s", key) >= 0 &&
           sd_bus_message_open_container(m, 'v', signature) >= 0 && fill() &&
           sd_bus_message_close_container(m) >= 0 && sd_bus_message_close_container(m) >= 0;
}

bool replaced(const std::string& key, const DnsOverride& dns) {
    return key == "dns" || key == "ignore-auto-dns" || (key == "dns-search" && dns.searches) ||
           (key == "dns-priority" && dns.priority);
}

bool appendDns(sd_bus_message* m, const std::string& setting, const DnsOverride& dns) {
    const bool v4 = setting == "ipv4";
    bool ok = appendEntry(m, "dns", v4 ? "au" : "aay", [&] {
        if (sd_bus_message_open_container(m, 'a', v4 ? "u" : "ay") < 0) {
            return false;
        }
        for (const auto& server : dns.servers) {
            in_addr address{};
            in6_addr address6{};
            if (v4 && ::inet_pton(AF_INET, server.c_str(), &address) == 1) {
                if (sd_bus_message_append(m, "u", address.s_addr) < 0) {
                    return false;
                }
            } else if (!v4 && ::inet_pton(AF_INET6, server.c_str(), &address6) == 1) {
                if (sd_bus_message_append_array(m, 'y', &address6, sizeof address6) < 0) {
                    return false;
                }
            }
        }
        return sd_bus_message_close_container(m) >= 0;
    });
    ok = ok && appendEntry(m, "ignore-auto-dns", "b", [&] {
             return sd_bus_message_append(m, "b", dns.ignoreAutoDns ? 1 : 0) >= 0;
         });
    if (ok && dns.priority) {
        ok = appendEntry(m, "dns-priority", "i",
                         [&] { return sd_bus_message_append(m, "i", *dns.priority) >= 0; });
    }
    if (ok && dns.searches && v4) {
        ok = appendEntry(m, "dns-search", "as", [&] {
            if (sd_bus_message_open_container(m, 'a', "s") < 0) {
                return false;
            }
            for (const auto& search : *dns.searches) {
                if (sd_bus_message_append(m, "s", search.c_str()) < 0) {
                    return false;
                }
            }
            return sd_bus_message_close_container(m) >= 0;
        });
    }
    return ok;
}

}  // namespace

bool copyConnectionWithDns(sd_bus_message* from, sd_bus_message* to, const DnsOverride& dns) {
    if (sd_bus_message_enter_container(from, 'a', "{sa{sv}}") < 0 ||
        sd_bus_message_open_container(to, 'a', "{sa{sv}}") < 0) {
        return false;
    }
    while (sd_bus_message_enter_container(from, 'e', "sa{sv}") > 0) {
        std::string setting;
        if (!readBusText(from, "s", setting) ||
            sd_bus_message_open_container(to, 'e', "sa{sv}") < 0 ||
            sd_bus_message_append(to, "s", setting.c_str()) < 0 ||
            sd_bus_message_open_container(to, 'a', "{sv}") < 0 ||
            sd_bus_message_enter_container(from, 'a', "{sv}") < 0) {
            return false;
        }
        const bool ip = setting == "ipv4" || setting == "ipv6";
        while (sd_bus_message_enter_container(from, 'e', "sv") > 0) {
            std::string key;
            if (!readBusText(from, "s", key)) {
                return false;
            }
            if (ip && replaced(key, dns)) {
                sd_bus_message_skip(from, "v");
            } else if (sd_bus_message_open_container(to, 'e', "sv") < 0 ||
                       sd_bus_message_append(to, "s", key.c_str()) < 0 ||
                       sd_bus_message_copy(to, from, false) < 0 ||
                       sd_bus_message_close_container(to) < 0) {
                return false;
            }
            sd_bus_message_exit_container(from);
        }
        sd_bus_message_exit_container(from);
        if ((ip && !appendDns(to, setting, dns)) || sd_bus_message_close_container(to) < 0 ||
            sd_bus_message_close_container(to) < 0) {
            return false;
        }
        sd_bus_message_exit_container(from);
    }
    return sd_bus_message_exit_container(from) >= 0 && sd_bus_message_close_container(to) >= 0;
}

bool readConnection(sd_bus_message* from, ConnectionSummary& summary) {
    if (sd_bus_message_enter_container(from, 'a', "{sa{sv}}") < 0) {
        return false;
    }
    while (sd_bus_message_enter_container(from, 'e', "sa{sv}") > 0) {
        std::string setting;
        if (!readBusText(from, "s", setting) ||
            sd_bus_message_enter_container(from, 'a', "{sv}") < 0) {
            return false;
        }
        while (sd_bus_message_enter_container(from, 'e', "sv") > 0) {
            std::string key;
            if (!readBusText(from, "s", key)) {
                return false;
            }
            std::string* text = nullptr;
            if (setting == "connection") {
                text = key == "uuid"             ? &summary.uuid
                       : key == "id"             ? &summary.id
                       : key == "type"           ? &summary.type
                       : key == "interface-name" ? &summary.interface
                                                 : nullptr;
            } else if (key == "method") {
                text = setting == "ipv4"   ? &summary.ipv4Method
                       : setting == "ipv6" ? &summary.ipv6Method
                                           : nullptr;
            }
            if (text != nullptr && sd_bus_message_enter_container(from, 'v', "s") > 0) {
                readBusText(from, "s", *text);
                sd_bus_message_exit_container(from);
            } else if (setting == "ipv4" && key == "dns" &&
                       sd_bus_message_enter_container(from, 'v', "au") > 0) {
                const void* data = nullptr;
                std::size_t size = 0;
                sd_bus_message_read_array(from, 'u', &data, &size);
                for (std::size_t i = 0; i + 4 <= size; i += 4) {
                    in_addr address{};
                    std::memcpy(&address.s_addr, static_cast<const char*>(data) + i, 4);
                    char buffer[INET_ADDRSTRLEN] = {};
                    summary.servers.emplace_back(
                        ::inet_ntop(AF_INET, &address, buffer, sizeof buffer));
                }
                sd_bus_message_exit_container(from);
            } else if (setting == "ipv6" && key == "dns" &&
                       sd_bus_message_enter_container(from, 'v', "aay") > 0) {
                sd_bus_message_enter_container(from, 'a', "ay");
                const void* data = nullptr;
                std::size_t size = 0;
                while (sd_bus_message_read_array(from, 'y', &data, &size) > 0) {
                    char buffer[INET6_ADDRSTRLEN] = {};
                    if (size == 16 && ::inet_ntop(AF_INET6, data, buffer, sizeof buffer)) {
                        summary.servers.emplace_back(buffer);
                    }
                }
                sd_bus_message_exit_container(from);
                sd_bus_message_exit_container(from);
            } else if (setting == "ipv4" && key == "dns-search" &&
                       sd_bus_message_enter_container(from, 'v', "as") > 0) {
                sd_bus_message_enter_container(from, 'a', "s");
                const char* search = nullptr;
                while (sd_bus_message_read(from, "s", &search) > 0) {
                    summary.searches.emplace_back(search);
                }
                sd_bus_message_exit_container(from);
                sd_bus_message_exit_container(from);
            } else {
                sd_bus_message_skip(from, "v");
            }
            sd_bus_message_exit_container(from);
        }
        sd_bus_message_exit_container(from);
        sd_bus_message_exit_container(from);
    }
    return sd_bus_message_exit_container(from) >= 0;
}

}  // namespace morvane::sysdns
