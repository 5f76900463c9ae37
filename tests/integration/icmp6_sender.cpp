// Sends crafted ICMPv6 messages from the peer end of the test link:
//   icmp6_sender IFNAME DESTINATION TYPE SIZE [COUNT]
// Each message is TYPE, code 0, zero body, SIZE bytes in all, hop limit 255; the kernel fills in
// the checksum. Exit status 0 when every message was sent.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

int main(int argc, char** argv) {
    if (argc < 5 || argc > 6) {
        std::fprintf(stderr, "usage: icmp6_sender IFNAME DESTINATION TYPE SIZE [COUNT]\n");
        return 2;
    }
    const unsigned ifindex = if_nametoindex(argv[1]);
    struct sockaddr_in6 destination {};
    destination.sin6_family = AF_INET6;
    destination.sin6_scope_id = ifindex;
    const unsigned long type = std::strtoul(argv[3], nullptr, 10);
    const unsigned long size = std::strtoul(argv[4], nullptr, 10);
    const unsigned long count = argc == 6 ? std::strtoul(argv[5], nullptr, 10) : 1;
    if (ifindex == 0 || inet_pton(AF_INET6, argv[2], &destination.sin6_addr) != 1 || type > 255 || size < 4 ||
        size > 65000) {
        std::fprintf(stderr, "icmp6_sender: bad interface, destination, type or size\n");
        return 2;
    }
    const int fd = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
    const int hops = 255;
    if (fd < 0 || setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &hops, sizeof hops) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &hops, sizeof hops) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &ifindex, sizeof ifindex) != 0) {
        std::fprintf(stderr, "icmp6_sender: socket: %s\n", std::strerror(errno));
        return 1;
    }
    std::vector<unsigned char> message(size, 0);
    message[0] = static_cast<unsigned char>(type);
    for (unsigned long i = 0; i < count; ++i) {
        if (sendto(fd, message.data(), message.size(), 0, reinterpret_cast<const sockaddr*>(&destination),
                   sizeof destination) != static_cast<ssize_t>(message.size())) {
            std::fprintf(stderr, "icmp6_sender: sendto: %s\n", std::strerror(errno));
            return 1;
        }
    }
    close(fd);
    return 0;
}
