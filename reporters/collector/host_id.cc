#include "host_id.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <chrono>

#include "corvidine/debug_log.h"

namespace corvidine {

#define HOST_LOG(level, ...) VESK_DEBUG_LOG(VESK_DEBUG_MODULE_REPORTER_SSL, level, __VA_ARGS__)

namespace {
constexpr const char *kUninitialized = "uninitialized";
constexpr const char *kDefaultMetadataAddress = "169.254.169.254:80";

int connectWithTimeout(const std::string &address, int timeoutMs) {
    size_t colon = address.rfind(':');
    if (colon == std::string::npos) return -1;
    std::string host = address.substr(0, colon), port = address.substr(colon + 1);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;  // never a name lookup
    addrinfo *found = nullptr;
    if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) return -1;
    int fd = socket(found->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, found->ai_addr, found->ai_addrlen) != 0) {
        pollfd p{fd, POLLOUT, 0};
        int err = 0;
        socklen_t len = sizeof(err);
        if (errno != EINPROGRESS || poll(&p, 1, timeoutMs) != 1 ||
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
            ::close(fd);
            fd = -1;
        }
    }
    freeaddrinfo(found);
    return fd;
}
}  // namespace

const std::string &cloudMetadataAddress() {
    static const std::string address = [] {
        const char *env = getenv("CORVIDINE_CLOUD_METADATA");
        if (env == nullptr) return std::string(kDefaultMetadataAddress);
        if (env[0] == '\0' || strcmp(env, "off") == 0) return std::string();
        return std::string(env);
    }();
    return address;
}

std::string httpGetLines(const std::string &address, const std::string &path, int connectTimeoutMs,
                         int readTimeoutMs) {
    int fd = connectWithTimeout(address, connectTimeoutMs);
    if (fd < 0) return "";
    std::string request = "GET " + path + " HTTP/1.0\r\nHost: " + address.substr(0, address.rfind(':')) +
                          "\r\nConnection: close\r\n\r\n";
    std::string response;
    bool ok = ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size());
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(readTimeoutMs);
    while (ok && response.size() < 65536) {
        int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count());
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) != 1) {
            ok = false;
            break;
        }
        char buf[4096];
        ssize_t n = ::recv(fd, buf, sizeof(buf), 0);
        if (n < 0) ok = false;
        if (n <= 0) break;
        response.append(buf, static_cast<size_t>(n));
    }
    ::close(fd);
    size_t bodyAt = response.find("\r\n\r\n");
    if (!ok || bodyAt == std::string::npos || (response.compare(0, 9, "HTTP/1.0 ") != 0 &&
                                                   response.compare(0, 9, "HTTP/1.1 ") != 0))
        return "";
    if (response.compare(9, 3, "200") != 0) return "";
    std::string out;
    for (char c : response.substr(bodyAt + 4))
        if (c != '\r' && c != '\n') out += c;
    return out;
}

std::string containerIdFromCgroup(const char *path) {
    FILE *f = fopen(path, "r");
    if (f == nullptr) {
        if (errno != 0) HOST_LOG(VESK_DEBUG_MEDIUM, "Failed docker ID retrieval: fopen(): %s", strerror(errno));
        return "";
    }
    char line[300];
    std::string id;
    while (id.empty() && fgets(line, sizeof(line), f) != nullptr) {
        if (!strstr(line, "/docker/") && !strstr(line, "/docker.service/") && !strstr(line, "/ecs/") &&
            !strstr(line, "/kubepods/"))
            continue;
        HOST_LOG(VESK_DEBUG_HIGH, "Container detected");
        line[strcspn(line, "\n")] = '\0';
        char *save = nullptr;
        for (char *tok = strtok_r(line, "/", &save); tok != nullptr; tok = strtok_r(nullptr, "/", &save)) {
            if (strlen(tok) != 64) continue;
            if (strspn(tok, "0123456789abcdefABCDEF") == 64) id = tok;
            break;  // only the first 64-character token of a line counts
        }
    }
    fclose(f);
    return id;
}

int getRefreshHostIdNextInterval() {
    time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    return 60 - utc.tm_sec % 60;
}

std::string HostIdentity::cached(std::mutex &m, std::string &cache, std::string (*lookup)(HostIdentity &)) {
    std::lock_guard<std::mutex> lock(m);
    if (cache == kUninitialized) cache = lookup(*this);
    return cache;
}

std::string HostIdentity::getAWSInstanceId() {
    return cached(ec2IdMutex_, ec2Id_, [](HostIdentity &self) {
        const std::string &address = cloudMetadataAddress();
        std::string id = address.empty() ? "" : httpGetLines(address, "/latest/meta-data/instance-id",
                                                               self.metadataTimeoutMs_, 500);
        HOST_LOG(VESK_DEBUG_HIGH, id.empty() ? "Could not retrieve instance-id" : "Retrieved instance-id");
        return id;
    });
}

std::string HostIdentity::getAWSInstanceZone() {
    return cached(ec2ZoneMutex_, ec2Zone_, [](HostIdentity &self) {
        const std::string &address = cloudMetadataAddress();
        std::string zone = address.empty() ? "" : httpGetLines(address, "/latest/meta-data/placement/availability-zone",
                                                                 self.metadataTimeoutMs_, 500);
        HOST_LOG(VESK_DEBUG_HIGH, zone.empty() ? "Could not retrieve availability-zone" : "Retrieved availability-zone");
        return zone;
    });
}

std::string HostIdentity::getContainerId() {
    return cached(containerMutex_, container_, [](HostIdentity &) { return containerIdFromCgroup("/proc/self/cgroup"); });
}

std::string HostIdentity::getDynoId() {
    return cached(dynoMutex_, dyno_, [](HostIdentity &) {
        const char *v = getenv("DYNO");
        HOST_LOG(VESK_DEBUG_HIGH, v ? "DYNO is set" : "DYNO is not set");
        return std::string(v ? v : "");
    });
}

std::string HostIdentity::getAzureInstanceID() {
    return cached(azureMutex_, azure_, [](HostIdentity &) {
        const char *v = getenv("WEBSITE_INSTANCE_ID");
        HOST_LOG(VESK_DEBUG_HIGH, v ? "WEBSITE_INSTANCE_ID is set" : "WEBSITE_INSTANCE_ID is not set");
        return std::string(v ? v : "");
    });
}

bool HostIdentity::isPhysicalInterface(const std::string &name) {
    std::string link = "/sys/class/net/" + name;
    char target[512];
    ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
    if (n < 0) {
        HOST_LOG(VESK_DEBUG_HIGH, "No such file: %s", link.c_str());
        return false;
    }
    target[n] = '\0';
    if (strstr(target, "/virtual/") != nullptr) {
        HOST_LOG(VESK_DEBUG_HIGH, "Virtual interface: %s", name.c_str());
        return false;
    }
    HOST_LOG(VESK_DEBUG_HIGH, "Physical interface: %s", name.c_str());
    return true;
}

bool HostIdentity::getMACList(std::set<std::string> &macs) {
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        HOST_LOG(VESK_DEBUG_HIGH, "getifaddrs(): %s", strerror(errno));
        return false;
    }
    std::set<std::string> names;
    for (ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || (i->ifa_flags & IFF_LOOPBACK) || (i->ifa_flags & IFF_POINTOPOINT)) continue;
        if (i->ifa_addr->sa_family != AF_INET && i->ifa_addr->sa_family != AF_INET6) continue;
        names.insert(i->ifa_name);
    }
    freeifaddrs(list);
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        HOST_LOG(VESK_DEBUG_HIGH, "socket(): %s", strerror(errno));
        return false;
    }
    for (const std::string &name : names) {
        if (!isPhysicalInterface(name)) continue;
        ifreq req{};
        snprintf(req.ifr_name, sizeof(req.ifr_name), "%s", name.c_str());
        if (ioctl(fd, SIOCGIFHWADDR, &req) != 0) {
            VESK_DEBUG_LOG_USAGE(VESK_DEBUG_MODULE_REPORTER_SSL, VESK_DEBUG_ERROR, "ioctl() on %s: %s", name.c_str(),
                                 strerror(errno));
            continue;
        }
        const unsigned char *b = reinterpret_cast<const unsigned char *>(req.ifr_hwaddr.sa_data);
        char mac[18];
        snprintf(mac, sizeof(mac), "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
        HOST_LOG(VESK_DEBUG_HIGH, "MAC address: %s", mac);
        macs.insert(mac);
    }
    ::close(fd);
    return true;
}

void HostIdentity::refreshHostId() {
    std::lock_guard<std::mutex> lock(hostIdMutex_);
    HOST_LOG(VESK_DEBUG_HIGH, "------ refreshHostId begin ------");
    char name[65] = {0};
    if (gethostname(name, 64) == 0 && name[0] != '\0') hostId_.__set_hostname(name);
    hostId_.__set_pid(static_cast<int32_t>(getpid()));
    std::string v;
    if (!(v = getAWSInstanceId()).empty()) hostId_.__set_ec2InstanceID(v);
    if (!(v = getAWSInstanceZone()).empty()) hostId_.__set_ec2AvailabilityZone(v);
    if (!(v = getContainerId()).empty()) hostId_.__set_dockerContainerID(v);
    if (!(v = getDynoId()).empty()) hostId_.__set_herokuDynoID(v);
    if (!(v = getAzureInstanceID()).empty()) hostId_.__set_azAppServiceInstanceID(v);
    std::set<std::string> macs;
    hostId_.macAddresses.clear();
    if (getMACList(macs)) hostId_.__set_macAddresses(std::vector<std::string>(macs.begin(), macs.end()));
    HOST_LOG(VESK_DEBUG_HIGH, "------ refreshHostId end ------");
}

::collector::thrift::HostID HostIdentity::copy() {
    std::lock_guard<std::mutex> lock(hostIdMutex_);
    return hostId_;
}

}  // namespace corvidine
