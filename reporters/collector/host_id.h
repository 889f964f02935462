// Who we are, told to the Collector with every call: host name, process id,
// cloud instance ids, container id, MAC addresses.
//
// Each lookup runs once per process and is then cached (an empty value
// means the host does not have that property), so a slow failing lookup
// costs once. The cloud instance ids are fetched over plain HTTP from the
// metadata address: 169.254.169.254:80 unless the environment variable
// CORVIDINE_CLOUD_METADATA says otherwise ("host:port", or "off" for no
// lookup at all). It is read once per process, before any fork.
//
// Threads: refresh runs on the metric sender thread; copy on either sender
// thread. One mutex guards the HostID value.
#ifndef CORVIDINE_COLLECTOR_HOST_ID_H
#define CORVIDINE_COLLECTOR_HOST_ID_H

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "collector_types.h"

namespace corvidine {

// The metadata address in use ("host:port"), empty when the lookup is off.
// The first call reads the environment; call it early (at start-up).
const std::string &cloudMetadataAddress();

// The first 64-hex-digit id in cgroup lines of a container runtime (docker,
// ecs, kubepods), or empty.
std::string containerIdFromCgroup(const char *path);
// The distribution's name from the marker files in `etcDir` ("/etc"): the
// first that exists and opens decides; "Unknown" when none does.
std::string distroFromEtc(const std::string &etcDir);
// Seconds to the next full UTC minute, 1 to 60.
int getRefreshHostIdNextInterval();
// GET `path` from `address` ("host:port") with a connect time-out; the body
// lines joined without their ends, or empty on any failure or a status
// other than 200.
std::string httpGetLines(const std::string &address, const std::string &path, int connectTimeoutMs,
                         int readTimeoutMs);

class HostIdentity {
public:
    explicit HostIdentity(int metadataTimeoutMs) : metadataTimeoutMs_(metadataTimeoutMs) {}
    void refreshHostId();
    ::collector::thrift::HostID copy();

    std::string getAWSInstanceId();
    std::string getAWSInstanceZone();
    std::string getContainerId();
    std::string getDynoId();
    std::string getAzureInstanceID();
    static bool getMACList(std::set<std::string> &macs);
    static bool isPhysicalInterface(const std::string &name);
    // The facts of the metrics documents (host_facts.cc). getDistro looks
    // once per reporter; getIPAddresses lists the addresses of the physical
    // interfaces other than "lo", in interface order (false: getifaddrs failed).
    std::string getDistro();
    static bool getIPAddresses(std::vector<std::string> &addresses);

private:
    std::string cached(std::mutex &m, std::string &cache, std::string (*lookup)(HostIdentity &));

    const int metadataTimeoutMs_;
    std::mutex hostIdMutex_;
    ::collector::thrift::HostID hostId_;
    std::mutex ec2IdMutex_, ec2ZoneMutex_, containerMutex_, dynoMutex_, azureMutex_;
    std::string ec2Id_ = "uninitialized", ec2Zone_ = "uninitialized", container_ = "uninitialized",
                dyno_ = "uninitialized", azure_ = "uninitialized";
    std::mutex distroMutex_;
    std::string distro_;
};

}  // namespace corvidine

#endif
