#include "ArrivalNames.h"

#include <glib-unix.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "SocketInternal.h"

namespace solicd {
namespace {

constexpr int kNotificationsPerWakeup = 64;

// if_indextoname through the socket we hold instead of one opened and closed for each call:
// the same name, and ENXIO for an unknown index, without two extra system calls per datagram.
bool interfaceName(int socket, unsigned index, char* name) {
    struct ifreq request {};
    request.ifr_ifindex = static_cast<int>(index);
    if (::ioctl(socket, SIOCGIFNAME, &request) < 0) {
        if (errno == ENODEV) {
            errno = ENXIO;
        }
        return false;
    }
    std::strncpy(name, request.ifr_name, IF_NAMESIZE);
    return true;
}

}  // namespace

void ArrivalNames::SourceRelease::operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
}

bool ArrivalNames::watch() {
    UniqueFd links(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
    struct sockaddr_nl local {};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK;
    if (links.get() < 0 ||
        ::bind(links.get(), reinterpret_cast<const struct sockaddr*>(&local), sizeof local) != 0) {
        return false;
    }
    watch(std::move(links));
    return true;
}

void ArrivalNames::watch(UniqueFd notifications) {
    m_source.reset();
    m_notifications = std::move(notifications);
    m_index = 0;
    m_source.reset(g_unix_fd_source_new(m_notifications.get(), G_IO_IN));
    g_source_set_priority(m_source.get(), G_PRIORITY_HIGH);
    g_source_set_callback(m_source.get(), G_SOURCE_FUNC(&ArrivalNames::cbNotified), this, nullptr);
    g_source_attach(m_source.get(), nullptr);
}

gboolean ArrivalNames::cbNotified(gint, GIOCondition, gpointer self) {
    static_cast<ArrivalNames*>(self)->notified();
    return G_SOURCE_CONTINUE;
}

void ArrivalNames::notified() {
    m_index = 0;
    uint8_t buffer[kNetlinkBufferSize];
    // Bounded work per wakeup: what is left keeps the descriptor readable for the next one.
    for (int taken = 0; taken < kNotificationsPerWakeup; ++taken) {
        const ssize_t received = ::recv(m_notifications.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (received > 0 || (received < 0 && errno == EINTR)) {
            continue;
        }
        // ENOBUFS: notifications were lost, which forgetting the name covers; the socket goes on.
        if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS)) {
            return;
        }
        // End of file or a lasting error: without notifications no name can be kept.
        m_source.reset();
        m_notifications.reset();
        return;
    }
}

bool ArrivalNames::isNotificationWaiting() const {
    if (!isWatching()) {
        return false;
    }
    struct pollfd watched {
        m_notifications.get(), POLLIN, 0
    };
    return ::poll(&watched, 1, 0) != 0;
}

bool ArrivalNames::lookup(int socket, unsigned index, char* name) {
    if (index != 0 && index == m_index) {
        std::memcpy(name, m_name, IF_NAMESIZE);
        return true;
    }
    const bool found =
        m_resolve != nullptr ? m_resolve(index, name) != nullptr : interfaceName(socket, index, name);
    if (found && isWatching()) {
        std::memcpy(m_name, name, IF_NAMESIZE);
        m_index = index;
    }
    return found;
}

}  // namespace solicd
