#include "lib/sim_config_server.h"

#include "ipc/sysv_ipc.h"
#include "sysconfig/sys_info.h"

bool SimConfigServer::Start(SimStatus *status) {
    status_ = status;
    if (SysConfigServerOpen(&server_) != 0) {
        Stop();
        return false;
    }
    thread_ = std::thread(&SimConfigServer::Serve, this);
    return true;
}

void SimConfigServer::Stop() {
    stop_.store(1);
    if (server_.msgId >= 0) IpcMsgQueueRemove(server_.msgId);  // wakes the thread
    if (thread_.joinable()) thread_.join();
    if (server_.shmId >= 0) IpcShareMemRemove(server_.shmId);
    server_ = {-1, -1};
}

void SimConfigServer::Serve() {
    while (stop_.load() == 0) {
        SysConfigServed served{};
        if (SysConfigServeOne(server_, GetSysInfoForWriting(), &served, 0) == 0)
            SimAdd(status_->ConfigRequests, 1);
    }
}
