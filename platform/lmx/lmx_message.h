// Message buffers: a hidden header in front of the bytes the application sees, so a buffer can
// carry its size and sender through lmx_size / lmx_sender and be freed with one call.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "lmx.h"

namespace lmx {

// The largest message. A show-cache answer for a full cache (64 routers, 128 networks and 128
// DNS servers at about 700 bytes of text each, plus the counters) is about 230 KB; a fourfold
// margin keeps longer text forms untruncated.
constexpr size_t kMaxMessageSize = 1024 * 1024;
constexpr size_t kMinMessageSize = sizeof(uint32_t);  // the message number

struct alignas(16) MessageHeader {
    size_t size = 0;
    lmx_mbox_id_t sender = LMX_INVALID_ID;
    uint32_t monitorId = 0;                    // set on monitor answers, so lmx_unmonitor can withdraw them
    uid_t senderUid = static_cast<uid_t>(-1);  // the sending process's user; -1 for the service's own
    // The service whose name table holds `sender` for this buffer until it is freed or sent; 0 none.
    uint32_t holder = 0;
};

// Allocates `size` bytes behind a header; zeroed on request (received messages are overwritten
// whole, so they skip it). nullptr when out of memory.
void* allocMessage(size_t size, bool zeroed);
void freeMessage(void* msg);
MessageHeader& headerOf(void* msg);
const MessageHeader& headerOf(const void* msg);
uint32_t msgNoOf(const void* msg);
// The service's own answers (locate, monitor) are made only inside the receiving process; a peer
// that sends one is forging it.
bool isReservedMsgNo(uint32_t msgNo);

struct MessageFree {
    void operator()(void* msg) const { freeMessage(msg); }
};
using MessagePtr = std::unique_ptr<void, MessageFree>;

}  // namespace lmx
