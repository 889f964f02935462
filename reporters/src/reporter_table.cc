// The reporters every build has. The Collector reporter is not listed here:
// it lives in reporters/collector with its Thrift and TLS dependencies and
// registers itself (vesk_reporter_register_ssl) where it is linked in.
#include "corvidine/local_reporters.h"

extern "C" const vesk_reporter_entry_t vesk_builtin_reporters[] = {
    {"file", vesk_reporter_init_file},
    {"udp", vesk_reporter_init_udp},
    {"null", vesk_reporter_init_null},
    {nullptr, nullptr},
};
