#include "ReadAhead.h"

#include <algorithm>

namespace solicd {

ReadAhead::ReadAhead(size_t capacity, size_t dataSize, size_t controlSize)
    : m_capacity(capacity), m_dataSize(dataSize), m_controlSize(controlSize) {}

int ReadAhead::read(int socket, size_t most) {
    m_read = 0;
    m_taken = 0;
    most = std::max<size_t>(1, std::min(most, m_capacity));
    if (m_headers.empty()) {
        m_data.resize(m_capacity * m_dataSize);
        // Control data must start on the control header's alignment: the vector's memory does,
        // and every slot is a multiple of it long.
        m_control.resize(m_capacity * m_controlSize);
        m_sources.resize(m_capacity);
        m_scatter.resize(m_capacity);
        m_headers.resize(m_capacity);
        for (size_t i = 0; i < m_capacity; ++i) {
            m_scatter[i] = {&m_data[i * m_dataSize], m_dataSize};
            struct msghdr& header = m_headers[i].msg_hdr;
            header.msg_name = &m_sources[i];
            header.msg_iov = &m_scatter[i];
            header.msg_iovlen = 1;
            header.msg_control = &m_control[i * m_controlSize];
        }
    }
    // What the kernel wrote back into a header is given again; the buffers stay where they are.
    for (size_t i = 0; i < most; ++i) {
        struct msghdr& header = m_headers[i].msg_hdr;
        header.msg_namelen = sizeof m_sources[i];
        header.msg_controllen = m_controlSize;
        header.msg_flags = 0;
        m_headers[i].msg_len = 0;
    }
    const int read =
        ::recvmmsg(socket, m_headers.data(), static_cast<unsigned>(most), MSG_WAITFORONE, nullptr);
    m_read = read > 0 ? static_cast<size_t>(read) : 0;
    return read;
}

bool ReadAhead::take(Datagram& datagram) {
    if (m_taken == m_read) {
        return false;
    }
    const size_t i = m_taken++;
    datagram = {&m_headers[i].msg_hdr, &m_data[i * m_dataSize], m_headers[i].msg_len};
    return true;
}

}  // namespace solicd
