#include "FakeLmx.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace solicd::test {
namespace {

// Each buffer carries its size and sender in front of the bytes handed out.
struct Header {
    size_t size;
    lmx_mbox_id_t sender;
    uint32_t magic;
};
static_assert(sizeof(Header) % alignof(std::max_align_t) == 0, "buffers keep malloc's alignment");
constexpr uint32_t kMagic = 0x6c6d7846;

Header* headerOf(const void* msg) {
    auto* header = reinterpret_cast<Header*>(
        const_cast<unsigned char*>(static_cast<const unsigned char*>(msg)) - sizeof(Header));
    if (header->magic != kMagic) {
        std::fprintf(stderr, "FakeLmx: %p is no buffer of the service\n", msg);
        std::abort();
    }
    return header;
}

std::string hex(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

}  // namespace

FakeLmx& FakeLmx::instance() {
    static FakeLmx fake;
    return fake;
}

void FakeLmx::reset() {
    *this = FakeLmx{};
}

void FakeLmx::deliver(uint32_t msgNo, lmx_mbox_id_t sender, size_t size) {
    std::vector<unsigned char> bytes(size);
    std::memcpy(bytes.data(), &msgNo, std::min(size, sizeof msgNo));
    deliverBytes(std::move(bytes), sender);
}

void FakeLmx::deliverBytes(std::vector<unsigned char> bytes, lmx_mbox_id_t sender) {
    queue.emplace_back(std::move(bytes), sender);
}

void* FakeLmx::allocBuffer(size_t size, uint32_t msgNo, lmx_mbox_id_t sender) {
    auto* raw = static_cast<unsigned char*>(std::calloc(1, sizeof(Header) + size));
    auto* header = reinterpret_cast<Header*>(raw);
    header->size = size;
    header->sender = sender;
    header->magic = kMagic;
    unsigned char* msg = raw + sizeof(Header);
    if (poison) {
        std::memset(msg, kPoison, size);
    }
    std::memcpy(msg, &msgNo, std::min(size, sizeof msgNo));
    ++m_liveBufferCount;
    return msg;
}

void FakeLmx::freeBuffer(void* msg) {
    Header* header = headerOf(msg);
    header->magic = 0;
    std::free(header);
    --m_liveBufferCount;
}

}  // namespace solicd::test

using solicd::test::FakeLmx;

extern "C" {

int lmx_init(unsigned mailboxes, const void* options) {
    FakeLmx& f = FakeLmx::instance();
    f.calls.push_back("lmx_init(" + std::to_string(mailboxes) +
                      (options == nullptr ? ", NULL)" : ", options)"));
    return f.initResult;
}

void lmx_exit(void) {
    FakeLmx::instance().calls.push_back("lmx_exit()");
}

lmx_mbox_id_t lmx_create_mailbox(const char* name, uint32_t flags) {
    FakeLmx& f = FakeLmx::instance();
    f.calls.push_back(std::string("lmx_create_mailbox(") + name + ", " + std::to_string(flags) + ")");
    return f.createResult;
}

int lmx_delete_mailbox(lmx_mbox_id_t id) {
    FakeLmx::instance().calls.push_back("lmx_delete_mailbox(" + std::to_string(id) + ")");
    return 0;
}

int lmx_get_fd(void) {
    return FakeLmx::instance().fd;
}

void* lmx_receive(const uint32_t* filter, int32_t timeout_ms, uint32_t from) {
    FakeLmx& f = FakeLmx::instance();
    f.calls.push_back(std::string("lmx_receive(") + (filter == nullptr ? "NULL" : "filter") + ", " +
                      std::to_string(timeout_ms) + ", " + std::to_string(from) + ")");
    if (f.queue.empty()) {
        errno = f.emptyErrno;
        return nullptr;
    }
    auto [bytes, sender] = std::move(f.queue.front());
    f.queue.pop_front();
    void* msg = f.allocBuffer(bytes.size(), 0, sender);
    std::memcpy(msg, bytes.data(), bytes.size());
    return msg;
}

lmx_mbox_id_t lmx_sender(const void* msg) {
    return solicd::test::headerOf(msg)->sender;
}

uint32_t lmx_msgno(const void* msg) {
    uint32_t msgNo = 0;
    std::memcpy(&msgNo, msg, std::min(lmx_size(msg), sizeof msgNo));
    return msgNo;
}

size_t lmx_size(const void* msg) {
    return solicd::test::headerOf(msg)->size;
}

int lmx_send(void* msg, lmx_mbox_id_t to, lmx_mbox_id_t from) {
    FakeLmx& f = FakeLmx::instance();
    f.calls.push_back("lmx_send(" + std::to_string(to) + ", " + std::to_string(from) + ")");
    const auto* bytes = static_cast<const unsigned char*>(msg);
    if (f.sendResult == 0) {
        f.sent.push_back({std::vector<unsigned char>(bytes, bytes + lmx_size(msg)), to, from});
    }
    f.freeBuffer(msg);
    if (f.sendResult != 0) {
        errno = f.sendErrno;
    }
    return f.sendResult;
}

void* lmx_alloc(size_t size, uint32_t msgno) {
    FakeLmx& f = FakeLmx::instance();
    f.calls.push_back("lmx_alloc(" + std::to_string(size) + ", " + solicd::test::hex(msgno) + ")");
    if (size > f.maxSize || size < sizeof(uint32_t)) {
        return nullptr;
    }
    return f.allocBuffer(size, msgno, LMX_INVALID_ID);
}

void lmx_free(void* msg) {
    if (msg != nullptr) {
        FakeLmx::instance().freeBuffer(msg);
    }
}

size_t lmx_get_max_size(void) {
    return FakeLmx::instance().maxSize;
}

int lmx_locate_async(const char* name, const void* data, uint32_t sender) {
    FakeLmx& f = FakeLmx::instance();
    f.calls.push_back(std::string("lmx_locate_async(") + name + (data == nullptr ? ", NULL, " : ", data, ") +
                      solicd::test::hex(sender) + ")");
    if (f.locateAsyncResult != 0) {
        errno = EINVAL;
    }
    return f.locateAsyncResult;
}

lmx_mbox_id_t lmx_locate(const char* name) {
    FakeLmx& f = FakeLmx::instance();
    f.calls.push_back(std::string("lmx_locate(") + name + ")");
    const auto it = f.live.find(name);
    return it == f.live.end() ? LMX_INVALID_ID : it->second;
}

uint32_t lmx_monitor(lmx_mbox_id_t id, const void* data) {
    FakeLmx& f = FakeLmx::instance();
    f.calls.push_back("lmx_monitor(" + std::to_string(id) + (data == nullptr ? ", NULL)" : ", data)"));
    return f.monitorResult;
}

int lmx_unmonitor(uint32_t monitor_id) {
    FakeLmx::instance().calls.push_back("lmx_unmonitor(" + std::to_string(monitor_id) + ")");
    return 0;
}

const char* lmx_name(lmx_mbox_id_t id) {
    for (const auto& [name, liveId] : FakeLmx::instance().live) {
        if (liveId == id) {
            return name.c_str();
        }
    }
    return nullptr;
}

}  // extern "C"
