// Drives SocketMgr the way the daemon does, for the integration tests: init in a namespace on an
// interface, then a GLib loop that receives whenever the socket is readable. Every trace and
// every reception is printed on stdout as one tab-separated line, as it happens:
//   T <event> <category> <message>
//   INIT <result>
//   RECV <result> <state> <length> <peer> <rxRa> <rxRejected>
//   COUNTERS <rxRa> <txRs> <txRsFailed> <rxRejected>        (at exit)
#include <getopt.h>
#include <glib-unix.h>
#include <glib.h>
#include <netinet/icmp6.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "SocketMgr.h"
#include "TraceLog.h"

using namespace solicd;

namespace {

void printTrace(void*, TraceEvent event, const char*, const char* category, const char* message) {
    std::printf("T\t%s\t%s\t%s\n", eventName(event), category, message);
    std::fflush(stdout);
}

class DriverSocket : public SocketMgr {
public:
    // Stands in for init when the test needs a socket tied to no interface: init itself refuses
    // an empty interface name (the flags of "" cannot be read).
    bool openOnAnyInterface() {
        UniqueFd fd(::socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6));
        struct icmp6_filter filter;
        ICMP6_FILTER_SETBLOCKALL(&filter);
        ICMP6_FILTER_SETPASS(ND_ROUTER_ADVERT, &filter);
        if (fd.get() < 0 || setsockopt(fd.get(), IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter) != 0 ||
            !requestReceptionItems(fd.get())) {
            std::perror("any-interface socket");
            return false;
        }
        adoptSocket(std::move(fd), "", "");
        return true;
    }
};

gboolean cbReadable(gint, GIOCondition, gpointer data) {
    auto* mgr = static_cast<SocketMgr*>(data);
    SocketMgr::Message message;
    const uint32_t result = mgr->receive(message);
    const auto& counters = mgr->getCounters().m_counters;
    std::printf("RECV\t%u\t%u\t%zu\t%s\t%llu\t%llu\n", result, message.m_state, message.m_length,
                kt_ip_address_ntop(message.m_peer).c_str(), static_cast<unsigned long long>(counters.rxRa),
                static_cast<unsigned long long>(counters.rxRejected));
    std::fflush(stdout);
    return G_SOURCE_CONTINUE;
}

void usage() {
    std::fprintf(stderr,
                 "usage: socket_driver [--ns NS] [--if IF] [--seconds N] [--verbose] [--random-source PATH] "
                 "[--any-interface]\n");
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    std::string ns;
    std::string ifName;
    std::string randomSource;
    unsigned seconds = 10;
    bool verbose = false;
    bool anyInterface = false;
    const struct option options[] = {{"ns", required_argument, nullptr, 'n'},
                                     {"if", required_argument, nullptr, 'i'},
                                     {"seconds", required_argument, nullptr, 's'},
                                     {"verbose", no_argument, nullptr, 'v'},
                                     {"random-source", required_argument, nullptr, 'r'},
                                     {"any-interface", no_argument, nullptr, 'a'},
                                     {nullptr, 0, nullptr, 0}};
    for (int c; (c = getopt_long(argc, argv, "", options, nullptr)) != -1;) {
        switch (c) {
            case 'n':
                ns = optarg;
                break;
            case 'i':
                ifName = optarg;
                break;
            case 's':
                seconds = static_cast<unsigned>(std::strtoul(optarg, nullptr, 10));
                break;
            case 'v':
                verbose = true;
                break;
            case 'r':
                randomSource = optarg;
                break;
            case 'a':
                anyInterface = true;
                break;
            default:
                usage();
        }
    }
    trace::setCapture(&printTrace, nullptr, trace::kAllEvents);

    DriverSocket mgr;
    if (!randomSource.empty()) {
        mgr.setRandomSource(randomSource);
    }
    const uint32_t result = anyInterface ? (mgr.openOnAnyInterface() ? 0 : 1) : mgr.init(ns, ifName);
    std::printf("INIT\t%u\n", result);
    std::fflush(stdout);
    if (result != 0) {
        return 1;
    }
    mgr.setVerbose(verbose);

    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_fd_add(mgr.getFd(), G_IO_IN, &cbReadable, &mgr);
    g_timeout_add_seconds(
        seconds,
        [](gpointer data) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(data));
            return G_SOURCE_REMOVE;
        },
        loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);

    const auto& counters = mgr.getCounters().m_counters;
    std::printf("COUNTERS\t%llu\t%llu\t%llu\t%llu\n", static_cast<unsigned long long>(counters.rxRa),
                static_cast<unsigned long long>(counters.txRs),
                static_cast<unsigned long long>(counters.txRsFailed),
                static_cast<unsigned long long>(counters.rxRejected));
    return 0;
}
