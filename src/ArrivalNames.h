// The name of the interface a datagram arrived on, kept between the kernel's link notifications.
#pragma once

#include <net/if.h>

#include <glib.h>

#include <memory>

#include "UniqueFd.h"

namespace solicd {

// Resolves an interface index into a name buffer of IF_NAMESIZE bytes; if_indextoname's contract.
using IfIndexToName = char* (*)(unsigned ifindex, char* name);

// The name of the interface a datagram arrived on. Asking the kernel costs a system call per
// datagram, a seventh of what an RA costs the daemon under a flood, so while the kernel's link
// notifications are watched the last name is kept until any of them arrives. The watch runs at a
// higher priority than the socket it serves: a datagram that arrives after a rename (which needs
// the link down, then up) is read in a main-loop iteration where the notification of the rename
// is handled first, so no datagram is ever judged by a name older than the one it came in on.
// Datagrams read in a batch, after the first of an iteration, arrived before the batch was read:
// when no notification waits once they are read, the name kept is no older than theirs; when one
// does, whoever read them has every name asked afresh (forget), which gives the newest.
class ArrivalNames {
public:
    // `resolve` is a seam for tests; the daemon asks the kernel through its own socket.
    explicit ArrivalNames(IfIndexToName resolve = nullptr) : m_resolve(resolve) {}
    // The same seam for names held by another class.
    void resolveWith(IfIndexToName resolve) { m_resolve = resolve; }

    // Watches the link notifications of the current network namespace; false when they cannot be
    // had, and every name is then looked up afresh.
    bool watch();
    // Watches the descriptor given instead of a route-netlink socket (tests): anything readable
    // on it counts as a notification.
    void watch(UniqueFd notifications);
    bool isWatching() const { return m_source != nullptr; }
    // True when a notification waits to be handled (or the watch failed): the name kept may be
    // older than the kernel's. Does not wait.
    bool isNotificationWaiting() const;
    // Drops the name kept: the next lookup asks the kernel.
    void forget() { m_index = 0; }

    // The name of interface `index` into `name` (IF_NAMESIZE bytes), asked of `socket` when it is
    // not known; false, with errno ENXIO for an unknown index, when there is none.
    bool lookup(int socket, unsigned index, char* name);

private:
    struct SourceRelease {
        void operator()(GSource* source) const;
    };
    static gboolean cbNotified(gint fd, GIOCondition condition, gpointer self);
    // Drains what the kernel reported and forgets the name; a watch that fails for good ends.
    void notified();

    IfIndexToName m_resolve;
    UniqueFd m_notifications;
    std::unique_ptr<GSource, SourceRelease> m_source;
    unsigned m_index = 0;  // 0: no name kept
    char m_name[IF_NAMESIZE] = {};
};

}  // namespace solicd
