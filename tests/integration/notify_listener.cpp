// Stands in for the service manager's notification socket: binds a Unix datagram socket at PATH
// and writes each notification it receives to standard output, followed by a newline, until
// SIGTERM or SIGINT. The socket file is removed on the way out.
//   notify_listener PATH
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// A notification is one datagram of NEWLINE-separated assignments; a few KiB at most.
constexpr size_t kDatagramMax = 65536;

volatile sig_atomic_t g_stop = 0;

void onSignal(int) {
    g_stop = 1;
}

bool writeAll(const char* data, size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(STDOUT_FILENO, data, size);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: notify_listener PATH\n");
        return 2;
    }
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (std::strlen(argv[1]) >= sizeof address.sun_path) {
        std::fprintf(stderr, "notify_listener: path too long: %s\n", argv[1]);
        return 2;
    }
    std::strcpy(address.sun_path, argv[1]);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) != 0) {
        std::fprintf(stderr, "notify_listener: cannot bind %s: %s\n", argv[1], std::strerror(errno));
        return 1;
    }
    // No SA_RESTART: a signal ends the blocking receive.
    struct sigaction action {};
    action.sa_handler = &onSignal;
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGINT, &action, nullptr);

    std::string buffer(kDatagramMax, '\0');
    int status = 0;
    while (g_stop == 0) {
        const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            std::fprintf(stderr, "notify_listener: receive failed: %s\n", std::strerror(errno));
            status = 1;
            break;
        }
        if (!writeAll(buffer.data(), static_cast<size_t>(n)) || !writeAll("\n", 1)) {
            status = 1;
            break;
        }
    }
    ::close(fd);
    ::unlink(argv[1]);
    return status;
}
