// Notifications to a real datagram socket, named by a path or an abstract
// name, read and then left full.

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "service_manager.h"
#include "support.h"

using namespace ipcd_test;

namespace {

TEST(ServiceManager, EachNotificationArrivesAndAFullQueueDropsInsteadOfWaiting) {
    TempDir dir;
    for (const std::string& name : {dir.file("notify"), "@ipcd-test-" + std::to_string(getpid())}) {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path, name.data(), name.size());
        if (name[0] == '@') {
            addr.sun_path[0] = '\0';  // abstract
        }
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
                  0);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        ecu::kora::application_status("connected, 1,200 records/s");
        ecu::kora::application_ready();
        char buf[64];
        std::vector<std::string> got;
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
            got.emplace_back(buf, static_cast<std::size_t>(n));
        }
        EXPECT_EQ(got, (std::vector<std::string>{"STATUS=connected, 1,200 records/s", "READY=1"}))
            << name;
        for (int i = 0; i < 1000; ++i) {  // far beyond the queue: each returns at once
            ecu::kora::watchdog_alive();
        }
        close(fd);
    }
    unsetenv("NOTIFY_SOCKET");
}

}  // namespace
