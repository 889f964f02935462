// Host names of database connections: host descriptions and data sources.
#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "corvidine/db_host.h"

namespace {

const char *const kNone = "(none)";

std::string from_info(const char *info) {
    const char *host = nullptr;
    size_t length = 0;
    return vesk_db_host_from_info(info, &host, &length) == 0 ? std::string(host, length) : kNone;
}

std::string from_dsn(const std::string &dsn) {
    const char *host = nullptr;
    size_t length = 0;
    return vesk_db_host_from_dsn(dsn.data(), dsn.size(), &host, &length) == 0 ? std::string(host, length) : kNone;
}

TEST(DbHost, HostDescriptions) {
    const struct {
        const char *info;
        std::string host;
    } cases[] = {
        {"127.0.0.1 via TCP/IP", "127.0.0.1"},
        {"db.example via TCP/IP", "db.example"},
        {"Localhost via UNIX socket", "localhost"},
        {"Shared memory: MYSQL", "localhost"},
        {"Shared pipe: MySQL via TCP/IP", kNone},
        {"localhost via UNIX socket", kNone},
        {"::1 via TCP/IP", "::1"},
        {"TCP/IP", kNone},
        {" via TCP/IP", kNone},
        {"", kNone},
    };
    for (const auto &c : cases) EXPECT_EQ(c.host, from_info(c.info)) << c.info;
    EXPECT_EQ(kNone, from_info(nullptr));
}

TEST(DbHost, DataSources) {
    const struct {
        std::string dsn;
        std::string host;
    } cases[] = {
        {"host=db1;dbname=x", "db1"},
        {"dbname=x;host=db1", kNone},
        {"dbname=x;host=db1 ", "db1"},
        {"hostname=db2;port=1", "db2"},
        {"dbname=x hostname=db3\tport=1", "db3"},
        {"host=;dbname=x", ""},
        {"dbhost=db4;", "db4"},
        {"hostaddr=1.2.3.4;host=db5;", "db5"},
        {"host=db6\nx;", "db6"},
        {std::string("host=d\0b;", 9), std::string("d\0b", 3)},
        {"dbname=x", kNone},
        {"", kNone},
    };
    for (const auto &c : cases) EXPECT_EQ(c.host, from_dsn(c.dsn)) << c.dsn;
}

}  // namespace
