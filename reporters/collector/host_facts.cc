// Host facts carried by the metrics documents: the distribution's name and
// the IP addresses of the physical interfaces.
#include <errno.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "corvidine/debug_log.h"
#include "host_id.h"

namespace corvidine {

#define FACTS_LOG(level, ...) VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, level, __VA_ARGS__)

namespace {

// The first line (up to 99 characters, without its newline), or false when
// the file cannot be opened.
bool firstLine(const std::string &path, std::string &line, FILE **keep = nullptr) {
    FILE *f = fopen(path.c_str(), "r");
    if (f == nullptr) return false;
    char buffer[100] = {0};
    if (fgets(buffer, sizeof(buffer), f) == nullptr) buffer[0] = '\0';
    buffer[strcspn(buffer, "\n")] = '\0';
    line = buffer;
    if (keep != nullptr)
        *keep = f;
    else
        fclose(f);
    return true;
}

std::string amazonCpe(const std::string &line) {
    // cpe:/o:amazon:linux:2 -> the fifth ":"-separated field.
    size_t at = 0;
    for (int field = 0; field < 4; field++) {
        at = line.find(':', at);
        if (at == std::string::npos) return "Amzn Linux unknown";
        at++;
    }
    return "Amzn Linux " + line.substr(at, line.find(':', at) - at);
}

std::string lsbDescription(FILE *f, const std::string &first) {
    std::string line = first, found;
    char buffer[100];
    for (;;) {
        if (line.compare(0, 20, "DISTRIB_DESCRIPTION=") == 0) {
            found = line.substr(20);
            if (found.size() >= 2 && found.front() == '"' && found.back() == '"')
                found = found.substr(1, found.size() - 2);
            break;
        }
        if (fgets(buffer, sizeof(buffer), f) == nullptr) break;
        buffer[strcspn(buffer, "\n")] = '\0';
        line = buffer;
    }
    return found.empty() ? "Ubuntu unknown" : found;
}

}  // namespace

std::string distroFromEtc(const std::string &etc) {
    // (file, prefix); the two with rules of their own are marked by a null prefix.
    static const struct {
        const char *file;
        const char *prefix;
    } kMarkers[] = {{"redhat-release", ""},
                    {"system-release-cpe", nullptr},
                    {"lsb-release", nullptr},
                    {"debian_version", "Debian "},
                    {"SuSE-release", ""},
                    {"slackware-version", ""},
                    {"gentoo-release", ""},
                    {"alpine-release", "Alpine "},
                    {"issue", ""}};
    for (const auto &marker : kMarkers) {
        std::string line, path = etc + "/" + marker.file;
        FILE *f = nullptr;
        if (!firstLine(path, line, &f)) continue;
        std::string distro;
        if (marker.prefix != nullptr)
            distro = marker.prefix + line;
        else if (strcmp(marker.file, "system-release-cpe") == 0)
            distro = amazonCpe(line);
        else
            distro = lsbDescription(f, line);
        fclose(f);
        return distro;
    }
    return "Unknown";
}

std::string HostIdentity::getDistro() {
    std::lock_guard<std::mutex> lock(distroMutex_);
    if (distro_.empty()) {
        distro_ = distroFromEtc("/etc");
        FACTS_LOG(VESK_DEBUG_HIGH, "Distro: %s", distro_.c_str());
    }
    return distro_;
}

bool HostIdentity::getIPAddresses(std::vector<std::string> &addresses) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        FACTS_LOG(VESK_DEBUG_HIGH, "Could not retrieve IP addresses");
        return false;
    }
    for (ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr) {
            FACTS_LOG(VESK_DEBUG_HIGH, "No network address for this interface");
            continue;
        }
        int family = i->ifa_addr->sa_family;
        FACTS_LOG(VESK_DEBUG_HIGH, "Interface detected: %s (family: %d)", i->ifa_name ? i->ifa_name : "",
                  family);
        if (i->ifa_name == nullptr || strcmp(i->ifa_name, "lo") == 0) {
            FACTS_LOG(VESK_DEBUG_HIGH, "Skipping local interface: %s", i->ifa_name ? i->ifa_name : "");
            continue;
        }
        if (family != AF_INET && family != AF_INET6) continue;
        if (!isPhysicalInterface(i->ifa_name)) {
            FACTS_LOG(VESK_DEBUG_HIGH, "Skipping virtual interface: %s", i->ifa_name);
            continue;
        }
        char host[NI_MAXHOST];
        socklen_t length = family == AF_INET ? sizeof(struct sockaddr_in) : sizeof(struct sockaddr_in6);
        if (getnameinfo(i->ifa_addr, length, host, sizeof(host), nullptr, 0, NI_NUMERICHOST) != 0) continue;
        FACTS_LOG(VESK_DEBUG_HIGH,
                  family == AF_INET ? "Valid IPv4 interface: %s" : "Valid IPv6 interface: %s", host);
        addresses.push_back(host);
    }
    freeifaddrs(list);
    return true;
}

}  // namespace corvidine
