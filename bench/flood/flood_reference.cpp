// The references of the flood benchmark on the daemon's own socket. The socket is set up by the
// daemon's SocketMgr::init (namespace, device binding, ICMPv6 filter, packet information and hop
// limit, bound to the link-local address); then, into the same buffers the daemon uses and nothing
// else, either a GLib loop does one recvmsg per wakeup (the GLib reference), or, with --blocking, a
// bare blocking recvmsg loop (the receive limit).
//   flood_reference [--blocking] NAMESPACE INTERFACE
// Prints "ready" once the socket is bound, then runs until SIGINT/SIGTERM and prints
// "received N".
#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <signal.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "SocketMgr.h"

namespace {

// The daemon's receive buffers: kMessageBufferSize bytes of data and room for the control items
// its socket asks for.
struct Receiver {
    uint64_t received = 0;
    uint8_t data[solicd::kMessageBufferSize];
    alignas(struct cmsghdr) uint8_t control[solicd::kReceiveControlSize];
};

// One datagram; false when the call failed (EINTR when a signal ends the blocking loop).
bool receiveOne(int fd, Receiver* r) {
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
    if (recvmsg(fd, &header, 0) < 0) {
        return false;
    }
    ++r->received;
    return true;
}

gboolean cbReadable(gint fd, GIOCondition, gpointer user) {
    receiveOne(fd, static_cast<Receiver*>(user));
    return TRUE;
}

volatile sig_atomic_t g_stop = 0;

void onStop(int) {
    g_stop = 1;
}

// The receive limit: nothing between one recvmsg and the next. SIGINT and SIGTERM interrupt the
// call (no SA_RESTART).
void runBlocking(int fd, Receiver& receiver) {
    struct sigaction stop {};
    stop.sa_handler = &onStop;
    sigaction(SIGINT, &stop, nullptr);
    sigaction(SIGTERM, &stop, nullptr);
    std::printf("ready\n");
    std::fflush(stdout);
    while (g_stop == 0) {
        if (!receiveOne(fd, &receiver) && errno != EINTR) {
            std::fprintf(stderr, "flood_reference: recvmsg: %s\n", std::strerror(errno));
            break;
        }
    }
}

gboolean cbStop(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return FALSE;
}

}  // namespace

int main(int argc, char** argv) {
    const bool blocking = argc == 4 && std::strcmp(argv[1], "--blocking") == 0;
    if (argc != (blocking ? 4 : 3)) {
        std::fprintf(stderr, "usage: flood_reference [--blocking] NAMESPACE INTERFACE\n");
        return 2;
    }
    const char* ns = argv[argc - 2];
    const char* interface = argv[argc - 1];
    solicd::SocketMgr socket;
    if (socket.init(ns, interface) != 0) {
        std::fprintf(stderr, "flood_reference: the socket could not be set up\n");
        return 1;
    }
    // init arms the solicitation timer; the reference measures reception only.
    socket.getRsTimeout().remove();
    Receiver receiver;
    if (blocking) {
        // The socket is non-blocking for the daemon's loop; the limit waits in the call itself.
        const int flags = fcntl(socket.getFd(), F_GETFL);
        fcntl(socket.getFd(), F_SETFL, flags & ~O_NONBLOCK);
        runBlocking(socket.getFd(), receiver);
        std::printf("received %llu\n", static_cast<unsigned long long>(receiver.received));
        return 0;
    }
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
