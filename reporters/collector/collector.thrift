// The Collector service: what the agent posts (events, metrics, status) and
// the settings it pulls. The agent is always the client. Every field has the
// default requiredness: written always, never required when read.

namespace cpp collector.thrift
namespace py collector_thrift

enum ResultCode {
  OK = 0,
  TRY_LATER = 1,
  INVALID_API_KEY = 2,
  LIMIT_EXCEEDED = 3,
  REDIRECT = 4
}

enum EncodingType {
  BSON = 1,
  PROTOBUF = 2
}

// The first value is 2.
enum VeskSettingType {
  DEFAULT_SAMPLE_RATE = 2,
  LAYER_SAMPLE_RATE = 3,
  LAYER_APP_SAMPLE_RATE = 4,
  LAYER_HTTPHOST_SAMPLE_RATE = 5,
  CONFIG_STRING = 6,
  CONFIG_INT = 7
}

// Result codes and setting types travel as plain i32 fields (the same bytes
// as the enums): a Collector may send a value outside the enum, and the
// client must carry it unchanged, not as an invalid enum value.

struct ResultMessage {
  1: i32 result,  // ResultCode
  // For REDIRECT: the new target as "host:port".
  2: string arg
}

// Who sends: filled by the host identification.
struct HostID {
  1: string hostname,
  2: list<string> OBSOLETE_ip_addresses,
  3: string OBSOLETE_uuid,
  4: i32 pid,
  5: string ec2InstanceID,
  6: string ec2AvailabilityZone,
  7: string dockerContainerID,
  8: list<string> macAddresses,
  9: string herokuDynoID,
  10: string azAppServiceInstanceID
}

// One remote setting. There is no field 6.
struct VeskSetting {
  1: i32 type,  // VeskSettingType
  2: string flags,
  3: i64 timestamp,
  4: i64 value,
  5: string layer,
  7: map<string, binary> arguments,
  8: i64 ttl
}

struct SettingsResult {
  1: i32 result,  // ResultCode
  2: string arg,
  3: list<VeskSetting> settings
}

service Collector {
  ResultMessage postEvents(1: string apiKey, 2: list<binary> messages, 3: EncodingType enc, 4: HostID identity),
  ResultMessage postMetrics(1: string apiKey, 2: list<binary> messages, 3: EncodingType enc, 4: HostID identity),
  ResultMessage postStatus(1: string apiKey, 2: list<binary> messages, 3: EncodingType enc, 4: HostID identity),
  ResultMessage ping(1: string apiKey),
  SettingsResult getSettings(1: string apiKey, 2: HostID identity, 3: string ferntapperVersion)
}
