// A configuration server on a thread for the tests: answers a given number
// of requests with the same server code the simulator uses, recording what
// it received; gives up after a few seconds so a broken client cannot hang
// the test.
#pragma once

#include <sys/ipc.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "sysconfig/sys_request.h"

class TestConfigServer {
public:
    TestConfigServer(SysInfo *info, int count) : info_(info) {
        SysConfigServerOpen(&server_);
        thread_ = std::thread([this, count] { Serve(count); });
    }
    ~TestConfigServer() { Join(); }
    void Join() {
        if (thread_.joinable()) thread_.join();
    }
    // Valid after Join().
    const std::vector<SysConfigServed> &served() const { return served_; }

private:
    void Serve(int count) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (static_cast<int>(served_.size()) < count && std::chrono::steady_clock::now() < deadline) {
            SysConfigServed one{};
            if (SysConfigServeOne(server_, info_, &one, IPC_NOWAIT) == 0) {
                served_.push_back(one);
            } else {
                usleep(1000);
            }
        }
    }

    SysInfo *info_;
    SysConfigServer server_{-1, -1};
    std::vector<SysConfigServed> served_;
    std::thread thread_;
};
