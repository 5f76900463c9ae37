// Floods Router Advertisements onto a link from the peer end of a test link, for the flood
// benchmark and the soak tests. The frames are written whole (link, IPv6 and ICMPv6 headers), so
// the router's link-local source address can be any fe80:: address, not only the interface's own:
//   ra_flood --interface IF [--mode typical|unique] [--seconds S] [--count N] [--rate PER_SECOND]
//            [--preferred SECONDS] [--valid SECONDS] [--no-dns]
// typical: the same RA every time: router fe80::1 (lifetime 1800 s), one prefix 2001:db8:1::/64
//          (valid 3600 s, preferred 1800 s) and two DNS servers 2001:db8::53 and 2001:db8::54.
// unique:  RA number i announces prefix 2001:db8:XXXX:XXXX::/64 with i in the middle 32 bits, from
//          router fe80::a:0:R with R = i / 100 (a new router every 100 RAs) and the DNS servers
//          2001:db8:ffff::R:1 and 2001:db8:ffff::R:2 (R as 32 bits).
// It stops after S seconds or N RAs, whichever comes first (at least one must be given), or on
// SIGINT/SIGTERM, and prints "sent N seconds T" on stdout.
#include <arpa/inet.h>
#include <getopt.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr size_t kIpv6HeaderSize = 40;
constexpr size_t kAddressSize = 16;
constexpr uint8_t kNextHeaderIcmpv6 = 58;
constexpr uint8_t kNdHopLimit = 255;
constexpr uint8_t kTypeRouterAdvertisement = 134;
constexpr size_t kMacSize = 6;
// ff02::1 and its multicast MAC address.
constexpr std::array<uint8_t, kAddressSize> kAllNodes = {0xff, 0x02, 0, 0, 0, 0, 0, 0,
                                                         0,    0,    0, 0, 0, 0, 0, 1};
constexpr std::array<uint8_t, kMacSize> kAllNodesMac = {0x33, 0x33, 0, 0, 0, 1};

constexpr uint16_t kRouterLifetime = 1800;
constexpr uint32_t kReachableTimeMs = 30000;
constexpr uint32_t kRetransTimerMs = 1000;
constexpr uint32_t kValidLifetime = 3600;
constexpr uint32_t kPreferredLifetime = 1800;
constexpr uint32_t kDnsLifetime = 600;
constexpr uint32_t kRasPerRouter = 100;

// RA layout after the IPv6 header (RFC 4861 4.2, 4.6.1, 4.6.2; RFC 8106 5.1).
constexpr size_t kRaHeaderSize = 16;
constexpr size_t kSllaSize = 8;
constexpr size_t kPioSize = 32;
constexpr size_t kRdnssSize = 8 + 2 * kAddressSize;
constexpr size_t kPioOffset = kRaHeaderSize + kSllaSize;
constexpr size_t kRdnssOffset = kPioOffset + kPioSize;
constexpr size_t kMaxRaSize = kRdnssOffset + kRdnssSize;

struct Options {
    std::string interface;
    bool unique = false;
    double seconds = 0;
    uint64_t count = 0;
    uint64_t rate = 0;  // 0: as fast as the link takes them
    uint32_t preferred = kPreferredLifetime;
    uint32_t valid = kValidLifetime;
    bool dns = true;
};

volatile sig_atomic_t g_stop = 0;

void onSignal(int) {
    g_stop = 1;
}

int usage() {
    std::fprintf(stderr,
                 "usage: ra_flood --interface IF [--mode typical|unique] [--seconds S] [--count N] "
                 "[--rate PER_SECOND] [--preferred SECONDS] [--valid SECONDS] [--no-dns]\n");
    return 2;
}

bool parse(int argc, char** argv, Options& o) {
    enum { kPreferred = 256, kValid, kNoDns };
    const option longOptions[] = {
        {"interface", required_argument, nullptr, 'i'},
        {"mode", required_argument, nullptr, 'm'},
        {"seconds", required_argument, nullptr, 's'},
        {"count", required_argument, nullptr, 'c'},
        {"rate", required_argument, nullptr, 'r'},
        {"preferred", required_argument, nullptr, kPreferred},
        {"valid", required_argument, nullptr, kValid},
        {"no-dns", no_argument, nullptr, kNoDns},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    while ((c = getopt_long(argc, argv, "i:m:s:c:r:", longOptions, nullptr)) != -1) {
        switch (c) {
            case 'i':
                o.interface = optarg;
                break;
            case 'm':
                if (std::strcmp(optarg, "unique") != 0 && std::strcmp(optarg, "typical") != 0) {
                    return false;
                }
                o.unique = std::strcmp(optarg, "unique") == 0;
                break;
            case 's':
                o.seconds = std::strtod(optarg, nullptr);
                break;
            case 'c':
                o.count = std::strtoull(optarg, nullptr, 10);
                break;
            case 'r':
                o.rate = std::strtoull(optarg, nullptr, 10);
                break;
            case kPreferred:
                o.preferred = static_cast<uint32_t>(std::strtoul(optarg, nullptr, 10));
                break;
            case kValid:
                o.valid = static_cast<uint32_t>(std::strtoul(optarg, nullptr, 10));
                break;
            case kNoDns:
                o.dns = false;
                break;
            default:
                return false;
        }
    }
    return optind == argc && !o.interface.empty() && (o.seconds > 0 || o.count > 0);
}

void put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

void put32(uint8_t* p, uint32_t v) {
    put16(p, static_cast<uint16_t>(v >> 16));
    put16(p + 2, static_cast<uint16_t>(v));
}

uint32_t sum16(const uint8_t* p, size_t n, uint32_t sum) {
    for (size_t i = 0; i + 1 < n; i += 2) {
        sum += static_cast<uint32_t>(p[i] << 8 | p[i + 1]);
    }
    if (n % 2 != 0) {
        sum += static_cast<uint32_t>(p[n - 1] << 8);
    }
    return sum;
}

// The packet: IPv6 header and RA, rewritten in place for every RA of the unique mode.
class RaPacket {
public:
    RaPacket(const Options& o, const std::array<uint8_t, kMacSize>& mac) : m_options(o) {
        m_size = kIpv6HeaderSize + (o.dns ? kMaxRaSize : kRdnssOffset);
        uint8_t* ip = m_bytes.data();
        ip[0] = 0x60;  // version 6
        put16(ip + 4, static_cast<uint16_t>(m_size - kIpv6HeaderSize));
        ip[6] = kNextHeaderIcmpv6;
        ip[7] = kNdHopLimit;
        source()[0] = 0xfe;
        source()[1] = 0x80;
        std::memcpy(ip + 24, kAllNodes.data(), kAddressSize);

        uint8_t* ra = icmp();
        ra[0] = kTypeRouterAdvertisement;
        ra[4] = 64;    // current hop limit
        ra[5] = 0xc0;  // managed and other configuration
        put16(ra + 6, kRouterLifetime);
        put32(ra + 8, kReachableTimeMs);
        put32(ra + 12, kRetransTimerMs);
        uint8_t* slla = ra + kRaHeaderSize;
        slla[0] = 1;
        slla[1] = 1;
        std::memcpy(slla + 2, mac.data(), kMacSize);
        uint8_t* pio = ra + kPioOffset;
        pio[0] = 3;
        pio[1] = 4;
        pio[2] = 64;
        pio[3] = 0xc0;  // on-link, autonomous
        put32(pio + 4, o.valid);
        put32(pio + 8, o.preferred);
        pio[16] = 0x20;
        pio[17] = 0x01;
        pio[18] = 0x0d;
        pio[19] = 0xb8;
        if (o.dns) {
            uint8_t* rdnss = ra + kRdnssOffset;
            rdnss[0] = 25;
            rdnss[1] = static_cast<uint8_t>(kRdnssSize / 8);
            put32(rdnss + 4, kDnsLifetime);
            for (uint8_t* a : {rdnss + 8, rdnss + 8 + kAddressSize}) {
                a[0] = 0x20;
                a[1] = 0x01;
                a[2] = 0x0d;
                a[3] = 0xb8;
            }
        }
        setNumber(0);
    }

    // The variable part: router, prefix and DNS servers of RA number `i`.
    void setNumber(uint64_t i) {
        uint8_t* src = source();
        uint8_t* prefix = icmp() + kPioOffset + 16;
        uint8_t* dns1 = icmp() + kRdnssOffset + 8;
        uint8_t* dns2 = dns1 + kAddressSize;
        if (!m_options.unique) {
            src[15] = 1;
            prefix[5] = 1;
            dns1[15] = 0x53;
            dns2[15] = 0x54;
        } else {
            const auto router = static_cast<uint32_t>(i / kRasPerRouter);
            put16(src + 10, 0xa);
            put32(src + 12, router);
            put32(prefix + 4, static_cast<uint32_t>(i));
            if (m_options.dns) {
                for (uint8_t* a : {dns1, dns2}) {
                    put16(a + 4, 0xffff);
                    put32(a + 10, router);
                }
                put16(dns1 + 14, 1);
                put16(dns2 + 14, 2);
            }
        }
        fillChecksum();
    }

    const uint8_t* data() const { return m_bytes.data(); }
    size_t size() const { return m_size; }

private:
    uint8_t* source() { return m_bytes.data() + 8; }
    uint8_t* icmp() { return m_bytes.data() + kIpv6HeaderSize; }

    // ICMPv6 checksum over the pseudo-header (RFC 8200 8.1) and the message.
    void fillChecksum() {
        uint8_t* ra = icmp();
        const size_t length = m_size - kIpv6HeaderSize;
        ra[2] = 0;
        ra[3] = 0;
        uint32_t sum = sum16(m_bytes.data() + 8, 2 * kAddressSize, 0);
        sum += static_cast<uint32_t>(length) + kNextHeaderIcmpv6;
        sum = sum16(ra, length, sum);
        while (sum >> 16 != 0) {
            sum = (sum & 0xffff) + (sum >> 16);
        }
        put16(ra + 2, static_cast<uint16_t>(~sum));
    }

    const Options& m_options;
    std::array<uint8_t, kIpv6HeaderSize + kMaxRaSize> m_bytes{};
    size_t m_size = 0;
};

double now() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        return usage();
    }
    const int fd = socket(AF_PACKET, SOCK_DGRAM, htons(ETH_P_IPV6));
    if (fd < 0) {
        std::fprintf(stderr, "ra_flood: socket: %s\n", std::strerror(errno));
        return 1;
    }
    ifreq request{};
    std::snprintf(request.ifr_name, sizeof request.ifr_name, "%s", o.interface.c_str());
    if (ioctl(fd, SIOCGIFINDEX, &request) != 0) {
        std::fprintf(stderr, "ra_flood: interface %s: %s\n", o.interface.c_str(), std::strerror(errno));
        return 1;
    }
    const int ifindex = request.ifr_ifindex;
    if (ioctl(fd, SIOCGIFHWADDR, &request) != 0) {
        std::fprintf(stderr, "ra_flood: hardware address of %s: %s\n", o.interface.c_str(),
                     std::strerror(errno));
        return 1;
    }
    std::array<uint8_t, kMacSize> mac{};
    std::memcpy(mac.data(), request.ifr_hwaddr.sa_data, kMacSize);

    sockaddr_ll destination{};
    destination.sll_family = AF_PACKET;
    destination.sll_protocol = htons(ETH_P_IPV6);
    destination.sll_ifindex = ifindex;
    destination.sll_halen = kMacSize;
    std::memcpy(destination.sll_addr, kAllNodesMac.data(), kMacSize);

    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    RaPacket packet(o, mac);
    const double start = now();
    const double end = o.seconds > 0 ? start + o.seconds : 0;
    uint64_t sent = 0;
    while (g_stop == 0 && (o.count == 0 || sent < o.count)) {
        const double t = now();
        if (end != 0 && t >= end) {
            break;
        }
        if (o.rate != 0 && static_cast<double>(sent) > (t - start) * static_cast<double>(o.rate)) {
            const timespec pause{0, 200000};
            nanosleep(&pause, nullptr);
            continue;
        }
        if (o.unique) {
            packet.setNumber(sent);
        }
        if (sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&destination),
                   sizeof destination) != static_cast<ssize_t>(packet.size())) {
            if (errno == ENOBUFS || errno == EAGAIN || errno == EINTR) {
                continue;
            }
            std::fprintf(stderr, "ra_flood: sendto: %s\n", std::strerror(errno));
            return 1;
        }
        ++sent;
    }
    std::printf("sent %llu seconds %.3f\n", static_cast<unsigned long long>(sent), now() - start);
    close(fd);
    return 0;
}
