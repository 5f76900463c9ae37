// Arbitrary bytes as one route-netlink datagram received while init waits for the link-local
// address: the walk must stay inside the bytes, terminate, and never crash.
#include <net/if.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "SocketMgr.h"
#include "TraceLog.h"

namespace {

// Index 1 is the monitored interface, 2 another one, every other index unknown.
char* resolve(unsigned index, char* name) {
    switch (index) {
        case 1:
            return std::strcpy(name, "veth0");
        case 2:
            return std::strcpy(name, "eth1");
        default:
            errno = ENXIO;
            return nullptr;
    }
}

void discard(void*, solicd::TraceEvent, const char*, const char*, const char*) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Every trace formatted, as with a live tracing session.
    solicd::trace::setCapture(&discard, nullptr, solicd::trace::kAllEvents);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    struct sockaddr_in6 lladdr {};
    if (solicd::findLinkLocalInNetlink(data, size, "veth0", &resolve, lladdr)) {
        // Only a permanent fe80::/10 address of interface 1 is an answer.
        if (lladdr.sin6_scope_id != 1 || lladdr.sin6_addr.s6_addr[0] != 0xfe ||
            (lladdr.sin6_addr.s6_addr[1] & 0xc0) != 0x80) {
            __builtin_trap();
        }
    }
    return 0;
}
