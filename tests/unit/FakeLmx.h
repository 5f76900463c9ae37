// An in-process stand-in for the mailbox service (every function of lmx.h), for unit tests that
// must see exactly what a user of the service asks of it, and make any of its operations fail.
// Linking FakeLmx.cpp into a test executable replaces the real service for that executable.
#pragma once

#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "lmx.h"

namespace solicd::test {

class FakeLmx {
public:
    struct Sent {
        std::vector<unsigned char> bytes;
        lmx_mbox_id_t to;
        lmx_mbox_id_t from;
    };

    // Answers the operations give; change them to inject failures.
    int initResult = 0;
    lmx_mbox_id_t createResult = 0x51;
    uint32_t monitorResult = 0x3;
    int locateAsyncResult = 0;
    int sendResult = 0;
    int sendErrno = ENOBUFS;
    size_t maxSize = 65536;
    int fd = 42;
    int emptyErrno = EAGAIN;  // errno of a receive with nothing queued
    bool poison = false;      // lmx_alloc fills with kPoison instead of zeros
    static constexpr unsigned char kPoison = 0xee;
    std::map<std::string, lmx_mbox_id_t> live;  // what lmx_locate finds

    // Every call, in order, as "name(arguments)".
    std::vector<std::string> calls;
    std::vector<Sent> sent;

    // Queues a message for lmx_receive: `size` bytes (zeroed) starting with `msgNo`.
    void deliver(uint32_t msgNo, lmx_mbox_id_t sender, size_t size = sizeof(uint32_t));
    void deliverBytes(std::vector<unsigned char> bytes, lmx_mbox_id_t sender);
    // Buffers allocated and not yet freed or sent.
    size_t liveBuffers() const { return m_liveBufferCount; }

    // The one instance the lmx functions act on; reset() starts a test afresh.
    static FakeLmx& instance();
    void reset();

    // Used by the fake lmx functions.
    void* allocBuffer(size_t size, uint32_t msgNo, lmx_mbox_id_t sender);
    void freeBuffer(void* msg);
    std::deque<std::pair<std::vector<unsigned char>, lmx_mbox_id_t>> queue;  // what lmx_receive returns

private:
    size_t m_liveBufferCount = 0;
};

}  // namespace solicd::test
