// The simulated configuration server: the request queue and transfer area
// (key 14073) and a thread answering every request into SysInfo.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>

#include "lib/sim_status.h"
#include "sysconfig/sys_request.h"

class SimConfigServer {
public:
    // Opens the queue and the transfer area and starts answering requests
    // into the attached SysInfo. false when the objects cannot be had.
    bool Start(SimStatus *status);
    // Stops answering and removes the queue and the transfer area.
    void Stop();

private:
    void Serve();

    SysConfigServer server_{-1, -1};
    SimStatus *status_ = nullptr;
    std::atomic<uint32_t> stop_{0};
    std::thread thread_;
};
