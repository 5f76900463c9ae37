// A hostile local user's program: forged "DNS servers" updates to a mailbox of solicd's client,
// on the mailbox service's own wire format, so the test can see when the receiver has them.
//   lmx_forger own TARGET COUNT SERVER
//       creates a mailbox of its own, forger-PID, and sends COUNT updates naming only SERVER
//       from it to mailbox TARGET; succeeds once TARGET's mailbox service has taken every one
//       in (they then wait for TARGET's application ahead of anything sent later).
//   lmx_forger claim TARGET NAME SERVER
//       says hello to TARGET as mailbox NAME, someone else's, and sends one such update;
//       succeeds once TARGET's mailbox service has refused the connection.
// The mailbox directory is $LMX_DIR. Prints "taken" or "refused"; exit status 0 when that was
// the expected outcome, 1 otherwise, 2 on a usage or system error.
#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "SolIf.h"
#include "lmx.h"
#include "lmx_wire.h"

namespace {

constexpr auto kGuard = std::chrono::seconds(10);

int usage() {
    std::fputs("usage: lmx_forger own TARGET COUNT SERVER | lmx_forger claim TARGET NAME SERVER\n", stderr);
    return 2;
}

int systemError(const char* what) {
    std::fprintf(stderr, "lmx_forger: %s: %s\n", what, std::strerror(errno));
    return 2;
}

// A socket connected to mailbox `name` of the directory; -1 on failure.
int connectTo(const std::string& dir, const std::string& name) {
    const int dirFd = ::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "/proc/self/fd/%d/%s", dirFd, name.c_str());
    const bool ok =
        dirFd >= 0 && fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    ::close(dirFd);
    if (!ok) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// A DNS server list of one entry, SERVER, as solicd would send it; one packet on the wire.
std::vector<uint8_t> forgedUpdate(const char* server) {
    const size_t size = solifDnsServerUpdatedIndSize(1);
    std::vector<uint8_t> packet(lmx::kFragmentHeaderSize + size, 0);
    const lmx::FragmentHeader header{static_cast<uint32_t>(size), 0};
    std::memcpy(packet.data(), &header, sizeof header);
    auto* msg = reinterpret_cast<solif_dns_server_updated_ind_t*>(packet.data() + sizeof header);
    msg->msgNo = SOLIF_DNS_SERVER_UPDATED_IND;
    msg->count = 1;
    solif_dns_server_entry_t* entry = solifEntry(*msg, 0);
    entry->config.address.family = AF_INET6;
    entry->config.lifetime = 3600;
    entry->status.id = 1;
    entry->status.state = 1;  // STATE_NEW
    if (inet_pton(AF_INET6, server, entry->config.address.bytes) != 1) {
        packet.clear();
    }
    return packet;
}

bool sendPacket(int fd, const void* bytes, size_t size) {
    return ::send(fd, bytes, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool closedByReceiver(int fd) {
    char byte;
    return ::recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

// "taken" once the receiver has read every packet and kept the connection, "refused" once it
// closed it, "" when neither happened within the guard. A refusing receiver marks the connection
// closed before it discards what it did not read, so no packet left looks like "taken" only
// while the close is not visible yet: the close is looked for again after the count.
std::string outcome(int fd) {
    const auto giveUp = std::chrono::steady_clock::now() + kGuard;
    while (std::chrono::steady_clock::now() < giveUp) {
        if (closedByReceiver(fd)) {
            return "refused";
        }
        int unread = -1;
        if (::ioctl(fd, SIOCOUTQ, &unread) == 0 && unread == 0) {
            return closedByReceiver(fd) ? "refused" : "taken";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 5) {
        return usage();
    }
    const std::string mode = argv[1];
    const std::string target = argv[2];
    const char* dirEnv = std::getenv("LMX_DIR");
    const std::string dir = dirEnv != nullptr && *dirEnv != '\0' ? dirEnv : LMX_DEFAULT_DIR;
    const std::vector<uint8_t> update = forgedUpdate(argv[4]);
    if ((mode != "own" && mode != "claim") || update.empty()) {
        return usage();
    }
    std::string name = argv[3];
    int count = 1;
    if (mode == "own") {
        count = std::atoi(argv[3]);
        name = "forger-" + std::to_string(::getpid());
        // A mailbox of its own, so that the name it speaks as is really its own.
        if (count < 1 || lmx_init(1, nullptr) != 0 || lmx_create_mailbox(name.c_str(), 0) == LMX_INVALID_ID) {
            return systemError("creating its mailbox");
        }
    }
    const int fd = connectTo(dir, target);
    if (fd < 0) {
        return systemError(("connecting to " + target).c_str());
    }
    const lmx::Hello hello = lmx::encodeHello(lmx::LinkKind::Data, name);
    bool sent = sendPacket(fd, hello.bytes.data(), hello.size);
    for (int i = 0; sent && i < count; ++i) {
        sent = sendPacket(fd, update.data(), update.size());
    }
    const std::string result = outcome(fd);
    std::printf("%s\n", result.empty() ? "neither taken nor refused" : result.c_str());
    ::close(fd);
    lmx_exit();
    if (!sent && result != "refused") {
        return systemError("sending");
    }
    return result == (mode == "own" ? "taken" : "refused") ? 0 : 1;
}
