// Sends one crafted Router Advertisement from the peer end of a test link, with exactly the
// source address, lifetimes, prefixes and DNS servers a test asks for:
//   ra_sender IFNAME SOURCE DESTINATION [FIELD=VALUE]...
// Fields (any order; prefix and rdnss may repeat, their options follow in the order given):
//   hop=N                       current hop limit (default 64)
//   iphop=N                     the IPv6 hop limit the RA leaves with (default 255; a router
//                               beyond the link cannot make an RA arrive with 255)
//   flags=M|O|MO|-              managed / other-configuration bits (default none)
//   lifetime=S                  router lifetime in seconds (default 1800)
//   reachable=MS  retrans=MS    reachable time and retransmission timer (default 0)
//   prefix=P/LEN,VALID,PREF[,LA|L|A|-]   prefix information; flags default LA; VALID and PREF
//                                        take "inf" for 0xffffffff
//   rdnss=LIFETIME,ADDR[,ADDR]...         recursive DNS servers with one lifetime
// SOURCE must be an address of IFNAME (e.g. added with "ip addr add fe80::a/64 dev IF nodad");
// it is set per packet, so one interface can play several routers. The kernel fills in the
// checksum. Exit status 0 when the RA was sent, 1 when sending failed, 2 on bad
// arguments.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr uint8_t kTypeRouterAdvertisement = 134;
constexpr uint8_t kOptionPrefixInformation = 3;
constexpr uint8_t kOptionRdnss = 25;
constexpr uint8_t kFlagManaged = 0x80;
constexpr uint8_t kFlagOther = 0x40;
constexpr uint8_t kFlagOnLink = 0x80;
constexpr uint8_t kFlagAutonomous = 0x40;
constexpr int kNdHopLimit = 255;
constexpr size_t kHeaderSize = 16;
constexpr size_t kPrefixOptionUnits = 4;
constexpr uint32_t kInfinite = 0xffffffff;

int usage(const char* problem) {
    std::fprintf(stderr, "ra_sender: %s\nusage: ra_sender IFNAME SOURCE DESTINATION [FIELD=VALUE]...\n",
                 problem);
    return 2;
}

void put16(std::vector<uint8_t>& out, size_t at, uint32_t v) {
    out[at] = static_cast<uint8_t>(v >> 8);
    out[at + 1] = static_cast<uint8_t>(v);
}

void put32(std::vector<uint8_t>& out, size_t at, uint32_t v) {
    put16(out, at, v >> 16);
    put16(out, at + 2, v & 0xffff);
}

std::optional<uint32_t> number(const std::string& text, uint32_t max) {
    if (text == "inf") {
        return kInfinite;
    }
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    errno = 0;
    const unsigned long long v = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || v > max) {
        return std::nullopt;
    }
    return static_cast<uint32_t>(v);
}

std::vector<std::string> split(const std::string& text, char by) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t at; (at = text.find(by, start)) != std::string::npos; start = at + 1) {
        parts.push_back(text.substr(start, at - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

bool address(const std::string& text, uint8_t* out) {
    return inet_pton(AF_INET6, text.c_str(), out) == 1;
}

// prefix=P/LEN,VALID,PREF[,FLAGS]
bool appendPrefix(std::vector<uint8_t>& ra, const std::string& value) {
    const auto parts = split(value, ',');
    if (parts.size() < 3 || parts.size() > 4) {
        return false;
    }
    const auto slash = parts[0].find('/');
    if (slash == std::string::npos) {
        return false;
    }
    const auto length = number(parts[0].substr(slash + 1), 128);
    const auto valid = number(parts[1], kInfinite);
    const auto preferred = number(parts[2], kInfinite);
    const std::string flagText = parts.size() == 4 ? parts[3] : "LA";
    uint8_t flags = 0;
    for (const char c : flagText) {
        if (c == 'L') {
            flags |= kFlagOnLink;
        } else if (c == 'A') {
            flags |= kFlagAutonomous;
        } else if (c != '-') {
            return false;
        }
    }
    const size_t at = ra.size();
    ra.resize(at + kPrefixOptionUnits * 8, 0);
    if (!length || !valid || !preferred || !address(parts[0].substr(0, slash), &ra[at + 16])) {
        return false;
    }
    ra[at] = kOptionPrefixInformation;
    ra[at + 1] = kPrefixOptionUnits;
    ra[at + 2] = static_cast<uint8_t>(*length);
    ra[at + 3] = flags;
    put32(ra, at + 4, *valid);
    put32(ra, at + 8, *preferred);
    return true;
}

// rdnss=LIFETIME,ADDR[,ADDR]...
bool appendRdnss(std::vector<uint8_t>& ra, const std::string& value) {
    const auto parts = split(value, ',');
    const auto lifetime = number(parts[0], kInfinite);
    if (parts.size() < 2 || !lifetime) {
        return false;
    }
    const size_t servers = parts.size() - 1;
    const size_t at = ra.size();
    ra.resize(at + 8 + 16 * servers, 0);
    ra[at] = kOptionRdnss;
    ra[at + 1] = static_cast<uint8_t>(1 + 2 * servers);
    put32(ra, at + 4, *lifetime);
    for (size_t i = 0; i < servers; ++i) {
        if (!address(parts[i + 1], &ra[at + 8 + 16 * i])) {
            return false;
        }
    }
    return true;
}

// Header fields and options into the RA, the IPv6 hop limit into `ipHops`; false on a field it
// does not know or cannot read.
bool build(std::vector<uint8_t>& ra, int& ipHops, int argc, char** argv) {
    ra.assign(kHeaderSize, 0);
    ra[0] = kTypeRouterAdvertisement;
    ra[4] = 64;
    put16(ra, 6, 1800);
    for (int i = 4; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto eq = arg.find('=');
        if (eq == std::string::npos) {
            return false;
        }
        const std::string key = arg.substr(0, eq);
        const std::string value = arg.substr(eq + 1);
        std::optional<uint32_t> n;
        if (key == "hop" && (n = number(value, 255))) {
            ra[4] = static_cast<uint8_t>(*n);
        } else if (key == "iphop" && (n = number(value, 255)) && *n <= 255) {
            ipHops = static_cast<int>(*n);
        } else if (key == "flags" && (value == "-" || value == "M" || value == "O" || value == "MO")) {
            ra[5] = static_cast<uint8_t>((value.find('M') != std::string::npos ? kFlagManaged : 0) |
                                         (value.find('O') != std::string::npos ? kFlagOther : 0));
        } else if (key == "lifetime" && (n = number(value, 0xffff))) {
            put16(ra, 6, *n);
        } else if (key == "reachable" && (n = number(value, kInfinite - 1))) {
            put32(ra, 8, *n);
        } else if (key == "retrans" && (n = number(value, kInfinite - 1))) {
            put32(ra, 12, *n);
        } else if (key == "prefix" && appendPrefix(ra, value)) {
        } else if (key == "rdnss" && appendRdnss(ra, value)) {
        } else {
            std::fprintf(stderr, "ra_sender: cannot use '%s'\n", arg.c_str());
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        return usage("missing arguments");
    }
    const unsigned ifindex = if_nametoindex(argv[1]);
    in6_pktinfo info{};
    info.ipi6_ifindex = static_cast<int>(ifindex);
    sockaddr_in6 destination{};
    destination.sin6_family = AF_INET6;
    destination.sin6_scope_id = ifindex;
    if (ifindex == 0 || !address(argv[2], info.ipi6_addr.s6_addr) ||
        !address(argv[3], destination.sin6_addr.s6_addr)) {
        return usage("bad interface, source or destination");
    }
    std::vector<uint8_t> ra;
    int ipHops = kNdHopLimit;
    if (!build(ra, ipHops, argc, argv)) {
        return usage("bad field");
    }

    const int fd = socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6);
    if (fd < 0 || setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, &ipHops, sizeof ipHops) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_UNICAST_HOPS, &ipHops, sizeof ipHops) != 0) {
        std::fprintf(stderr, "ra_sender: socket: %s\n", std::strerror(errno));
        return 1;
    }
    iovec iov{ra.data(), ra.size()};
    alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof info)] = {};
    msghdr msg{};
    msg.msg_name = &destination;
    msg.msg_namelen = sizeof destination;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* cmsg = CMSG_FIRSTHDR(&msg);
    cmsg->cmsg_level = IPPROTO_IPV6;
    cmsg->cmsg_type = IPV6_PKTINFO;
    cmsg->cmsg_len = CMSG_LEN(sizeof info);
    std::memcpy(CMSG_DATA(cmsg), &info, sizeof info);
    if (sendmsg(fd, &msg, 0) != static_cast<ssize_t>(ra.size())) {
        std::fprintf(stderr, "ra_sender: sendmsg from %s: %s\n", argv[2], std::strerror(errno));
        close(fd);
        return 1;
    }
    close(fd);
    return 0;
}
