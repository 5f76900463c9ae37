#include "lmx_message.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace lmx {

static_assert(sizeof(MessageHeader) % alignof(std::max_align_t) == 0,
              "the message bytes must keep malloc's alignment");

void* allocMessage(size_t size, bool zeroed) {
    const size_t total = sizeof(MessageHeader) + size;
    void* block = zeroed ? std::calloc(1, total) : std::malloc(total);
    if (block == nullptr) {
        return nullptr;
    }
    auto* header = new (block) MessageHeader;
    header->size = size;
    return header + 1;
}

void freeMessage(void* msg) {
    if (msg != nullptr) {
        MessageHeader* header = &headerOf(msg);
        header->~MessageHeader();
        std::free(header);
    }
}

MessageHeader& headerOf(void* msg) {
    return *(static_cast<MessageHeader*>(msg) - 1);
}

const MessageHeader& headerOf(const void* msg) {
    return *(static_cast<const MessageHeader*>(msg) - 1);
}

uint32_t msgNoOf(const void* msg) {
    uint32_t no;
    std::memcpy(&no, msg, sizeof no);
    return no;
}

bool isReservedMsgNo(uint32_t msgNo) {
    return msgNo == LMX_LOCATE_DEFAULT_NO || msgNo == LMX_MONITOR_DEFAULT_NO;
}

}  // namespace lmx
