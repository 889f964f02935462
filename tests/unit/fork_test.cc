// A real fork(): the child notices its new process id at its first event,
// rebuilds the reporter from the kept options, and parent and child keep
// writing, each to its own destination, without losing a document.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "corvidine/event.h"
#include "corvidine/local_reporters.h"
#include "corvidine/metadata.h"
#include "corvidine/startup.h"
#include "support/capture_reporter.h"
#include "support/reporter_helpers.h"

using corvidine_test::decode_bson;
using corvidine_test::list_dir;
using corvidine_test::make_temp_dir;
using corvidine_test::read_file;
using corvidine_test::send_event;
using corvidine_test::UdpListener;

namespace {

constexpr int kPerProcess = 40;

// In the child: send its share and report through the exit status, since
// test assertions do not cross the process boundary.
[[noreturn]] void child_sends(vesk_metadata_t *md) {
    int failures = 0;
    for (int i = 0; i < kPerProcess; ++i)
        if (send_event(md, "child", i) <= 0) ++failures;
    if (vesk_reporter_pid() != getpid()) failures += 100;  // the reporter was not rebuilt here
    _exit(failures == 0 ? 0 : std::min(failures, 120) + 1);
}

void expect_child_ok(pid_t child) {
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status)) << "child failures (100+ = reporter not rebuilt)";
}

// (Layer, Seq) of each decoded event, in order.
std::vector<std::pair<std::string, int>> layers_and_seqs(const std::vector<std::string> &docs) {
    static const std::regex layer("\\[\"Layer\", \\[\"string\", \"([a-z]+)\"\\]\\]");
    static const std::regex seq("\\[\"Seq\", \\[\"int64\", ([0-9]+)\\]\\]");
    std::vector<std::pair<std::string, int>> out;
    for (const std::string &d : docs) {
        std::smatch l, s;
        if (std::regex_search(d, l, layer) && std::regex_search(d, s, seq))
            out.emplace_back(l[1], std::stoi(s[1]));
        else
            out.emplace_back("?", -1);
    }
    return out;
}

std::vector<std::pair<std::string, int>> expected(const std::string &layer, int from, int count) {
    std::vector<std::pair<std::string, int>> out;
    for (int i = from; i < from + count; ++i) out.emplace_back(layer, i);
    return out;
}

class ForkTest : public ::testing::Test {
protected:
    void SetUp() override {
        vesk_metadata_init(&md_);
        vesk_metadata_random(&md_);
        md_.flags = VESK_XTRACE_FLAG_SAMPLED;
    }
    void TearDown() override { vesk_shutdown(); }
    vesk_metadata_t md_;
};

TEST_F(ForkTest, FileReporterParentAndChildWriteTheirOwnFiles) {
    std::string dir = make_temp_dir();
    std::string host = dir + "/trace";  // no extension: each process gets its own file
    vesk_init_options_t o = corvidine_test::init_options("file", host.c_str());
    ASSERT_EQ(0, vesk_init(&o));
    for (int i = 0; i < 5; ++i) ASSERT_GT(send_event(&md_, "parent", i), 0);

    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) child_sends(&md_);
    // Both processes write at the same time from here on.
    for (int i = 5; i < 5 + kPerProcess; ++i) EXPECT_GT(send_event(&md_, "parent", i), 0);
    expect_child_ok(child);

    std::string parent_file = "trace" + std::to_string(getpid());
    std::string child_file = "trace" + std::to_string(child);
    std::vector<std::string> files = {parent_file, child_file};
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, list_dir(dir));
    EXPECT_EQ(expected("parent", 0, 5 + kPerProcess),
              layers_and_seqs(decode_bson(read_file(dir + "/" + parent_file))));
    EXPECT_EQ(expected("child", 0, kPerProcess),
              layers_and_seqs(decode_bson(read_file(dir + "/" + child_file))));

    vesk_shutdown();
    unlink((dir + "/" + parent_file).c_str());
    unlink((dir + "/" + child_file).c_str());
    rmdir(dir.c_str());
}

TEST_F(ForkTest, UdpReporterChildOpensItsOwnSocket) {
    UdpListener listener;
    ASSERT_TRUE(listener.ok());
    std::string target = listener.target();

    vesk_init_options_t o = corvidine_test::init_options("udp", target.c_str());
    ASSERT_EQ(0, vesk_init(&o));
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) child_sends(&md_);
    for (int i = 0; i < kPerProcess; ++i) EXPECT_GT(send_event(&md_, "parent", i), 0);
    expect_child_ok(child);

    // Whole datagrams, one document each, decode as one concatenated stream.
    std::string received;
    int datagrams = 0;
    while (std::optional<std::string> datagram = listener.receive(500)) {
        ASSERT_GT(datagram->size(), 0u);
        received += *datagram;
        ++datagrams;
    }
    EXPECT_EQ(2 * kPerProcess, datagrams);
    std::map<std::string, std::vector<int>> seen;
    for (const auto &ls : layers_and_seqs(decode_bson(received))) seen[ls.first].push_back(ls.second);
    // Datagrams from two senders interleave; each sender's own stay in order.
    EXPECT_EQ(2u, seen.size());
    std::vector<int> all;
    for (int i = 0; i < kPerProcess; ++i) all.push_back(i);
    EXPECT_EQ(all, seen["parent"]);
    EXPECT_EQ(all, seen["child"]);
}

}  // namespace
