// The Python test Collector (tools/collector) as a child process
// on a free loopback port, shared by the Collector benchmarks.
#pragma once

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace corvidine {

struct DevCollector {
    pid_t pid = -1;
    int port = 0;
    std::string trusted;

    DevCollector() {
        char dir[] = "/tmp/collector-bench-XXXXXX";
        if (mkdtemp(dir) == nullptr) return;
        int out[2];
        if (pipe(out) != 0) return;
        pid = fork();
        if (pid == 0) {
            dup2(out[1], 1);
            close(out[0]);
            std::string script = std::string(CORVIDINE_SOURCE_DIR) + "/tools/collector/collector.py";
            execl("/usr/bin/python3", "python3", script.c_str(), "--dir", dir, "--quiet", (char *)nullptr);
            _exit(127);
        }
        close(out[1]);
        // First line: {"port": N, "trusted": "PATH"}
        FILE *f = fdopen(out[0], "r");
        char line[1024] = "";
        if (f && fgets(line, sizeof line, f)) {
            char path[900] = "";
            if (sscanf(line, "{\"port\": %d, \"trusted\": \"%899[^\"]\"}", &port, path) == 2) trusted = path;
        }
        if (f) fclose(f);
    }
    ~DevCollector() {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
    }
};

inline DevCollector &devCollector() {
    static DevCollector c;
    return c;
}

}  // namespace corvidine
