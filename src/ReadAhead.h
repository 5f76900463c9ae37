// Datagrams read from a socket several at a time, in one system call, then taken one by one.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace solicd {

class ReadAhead {
public:
    // Room for `capacity` datagrams of up to `dataSize` bytes, each with `controlSize` bytes of
    // control data (a multiple of the control header's alignment). The memory is taken on the
    // first read: a daemon that never sees more than one datagram at a time never needs it.
    ReadAhead(size_t capacity, size_t dataSize, size_t controlSize);

    // One datagram as recvmsg leaves it: the header with its source, control data and flags, and
    // the bytes received into `data`.
    struct Datagram {
        const struct msghdr* header;
        const uint8_t* data;
        size_t length;
    };

    // Reads up to `most` datagrams (at most the capacity) from `socket` in one system call: waits
    // for the first, takes those that wait behind it. Datagrams read before and not taken are
    // dropped. How many were read; -1, with errno set, when the first could not be.
    int read(int socket, size_t most);
    // The next datagram read and not yet taken; false when none is left.
    bool take(Datagram& datagram);
    bool isEmpty() const { return m_taken == m_read; }

private:
    size_t m_capacity;
    size_t m_dataSize;
    size_t m_controlSize;
    std::vector<uint8_t> m_data;
    std::vector<uint8_t> m_control;
    std::vector<struct sockaddr_storage> m_sources;
    std::vector<struct iovec> m_scatter;
    std::vector<struct mmsghdr> m_headers;
    size_t m_read = 0;
    size_t m_taken = 0;
};

}  // namespace solicd
