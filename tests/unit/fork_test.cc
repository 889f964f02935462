// A real fork(): the child rebuilds its reporter (own file, tid, ids); both write at once, losing nothing.
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <set>
#include <regex>

#include "corvidine/event.h"
#include "support/harness.h"

using namespace corvidine_test;

namespace {

constexpr int kPerProcess = 40;

std::set<std::string> g_ids;  // every event id seen

// Seq of each decoded event, by layer; and the thread ids seen.
std::map<std::string, std::vector<int>> seqs_by_layer(const std::string &bytes, std::vector<long> *tids = nullptr) {
    static const std::regex fields(
        "\\[\"X-Trace\", \\[\"string\", \"(\\w+)\"\\]\\].*\\[\"Layer\", \\[\"string\", \"([a-z]+)\"\\]\\], "
        "\\[\"Seq\", \\[\"int64\", ([0-9]+)\\]\\], \\[\"TID\", \\[\"int64\", ([0-9]+)\\]\\]");
    std::map<std::string, std::vector<int>> out;
    for (const std::string &d : decode_bson(bytes)) {
        std::smatch m;
        EXPECT_TRUE(std::regex_search(d, m, fields)) << d;
        g_ids.insert(m[1]);
        out[m[2]].push_back(std::stoi(m[3]));
        if (tids) tids->push_back(std::stol(m[4]));
    }
    return out;
}

std::vector<int> range(int from, int count) {
    std::vector<int> out;
    for (int i = from; i < from + count; ++i) out.push_back(i);
    return out;
}

class ForkTest : public ::testing::Test {
protected:
    void TearDown() override { vesk_shutdown(); }
    // Both send kPerProcess events at once; the child's exit status counts failures (100+: not rebuilt).
    pid_t fork_and_send() {
        pid_t child = fork();
        if (child == 0) {
            int failures = 0;
            for (int i = 0; i < kPerProcess; ++i) failures += send_event(&md_, "child", i) <= 0;
            _exit(failures + (vesk_reporter_pid() != getpid() ? 100 : 0));
        }
        for (int i = 0; i < kPerProcess; ++i) EXPECT_GT(send_event(&md_, "parent", i), 0);
        int status = -1;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        return child;
    }
    vesk_metadata_t md_ = sampled_metadata();
};

TEST_F(ForkTest, FileReporterParentAndChildWriteTheirOwnFiles) {
    std::string dir = make_temp_dir(), host = dir + "/trace";  // no extension: one file per process
    vesk_init_options_t o = init_options("file", host.c_str());
    ASSERT_EQ(0, vesk_init(&o));
    ASSERT_GT(send_event(&md_, "before", 0), 0);  // leaves this thread's cached thread id behind
    pid_t child = fork_and_send();
    std::vector<long> tids;
    EXPECT_EQ(range(0, kPerProcess), seqs_by_layer(read_file(host + std::to_string(child)), &tids)["child"]);
    EXPECT_EQ(std::vector<long>(kPerProcess, child), tids) << "the child's thread id, not the parent's";
    auto parent = seqs_by_layer(read_file(host + std::to_string(getpid())));
    EXPECT_EQ(range(0, kPerProcess), parent["parent"]);
    EXPECT_EQ(2u, parent.size());
    EXPECT_EQ(2u * kPerProcess + 1, g_ids.size()) << "the child draws ids of its own, not the parent's again";
    EXPECT_EQ(0, system(("rm -rf '" + dir + "'").c_str()));
}

}  // namespace
