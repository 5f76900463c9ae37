// The reference of the flood benchmark: the raw-socket receive limit on the daemon's own socket.
// The socket is set up by the daemon's SocketMgr::init (namespace, device binding, ICMPv6 filter,
// packet information, bound to the link-local address); then a GLib loop does one recvmsg per
// wakeup, into the same buffers the daemon uses, and nothing else.
//   flood_reference NAMESPACE INTERFACE
// Prints "ready" once the socket is bound, then runs until SIGINT/SIGTERM and prints
// "received N".
#include <glib-unix.h>
#include <glib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>

#include "SocketMgr.h"

namespace {

// The daemon's receive buffers: kMessageBufferSize bytes of data and room for one packet
// information item.
constexpr size_t kControlSize = CMSG_SPACE(sizeof(struct in6_pktinfo));

struct Receiver {
    uint64_t received = 0;
    uint8_t data[solicd::kMessageBufferSize];
    alignas(struct cmsghdr) uint8_t control[kControlSize];
};

gboolean cbReadable(gint fd, GIOCondition, gpointer user) {
    auto* r = static_cast<Receiver*>(user);
    struct sockaddr_in6 source {};
    struct iovec scatter {
        r->data, sizeof r->data
    };
    struct msghdr header {};
    header.msg_name = &source;
    header.msg_namelen = sizeof source;
    header.msg_iov = &scatter;
    header.msg_iovlen = 1;
    header.msg_control = r->control;
    header.msg_controllen = sizeof r->control;
    if (recvmsg(fd, &header, 0) >= 0) {
        ++r->received;
    }
    return TRUE;
}

gboolean cbStop(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return FALSE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: flood_reference NAMESPACE INTERFACE\n");
        return 2;
    }
    solicd::SocketMgr socket;
    if (socket.init(argv[1], argv[2]) != 0) {
        std::fprintf(stderr, "flood_reference: the socket could not be set up\n");
        return 1;
    }
    // init arms the solicitation timer; the reference measures reception only.
    socket.getRsTimeout().remove();
    Receiver receiver;
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(socket.getFd(), G_IO_IN, &cbReadable, &receiver);
    g_unix_signal_add(SIGINT, &cbStop, loop);
    g_unix_signal_add(SIGTERM, &cbStop, loop);
    std::printf("ready\n");
    std::fflush(stdout);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    std::printf("received %llu\n", static_cast<unsigned long long>(receiver.received));
    return 0;
}
