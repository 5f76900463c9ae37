// The C interface. Nothing thrown inside crosses it: a failure becomes the documented failure
// value with errno set.
#include "lmx.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>

#include "lmx_message.h"
#include "lmx_service.h"

namespace {

std::unique_ptr<lmx::Service> g_service;
lmx::Service* g_lockedForFork = nullptr;

// Runs `op` on the started service, holding its lock against the service thread; `failure` with
// errno EPERM before lmx_init, ENOMEM when memory ran out.
template <typename R, typename Op>
R withService(R failure, Op&& op) noexcept {
    try {
        if (g_service == nullptr) {
            errno = EPERM;
            return failure;
        }
        std::unique_lock<std::mutex> held(g_service->lock());
        // After every operation, even one that failed half-way; still under the lock.
        struct Settle {
            lmx::Service& service;
            ~Settle() { service.settle(); }
        } settle{*g_service};
        if constexpr (std::is_invocable_v<Op, lmx::Service&, std::unique_lock<std::mutex>&>) {
            return op(*g_service, held);
        } else {
            return op(*g_service);
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    } catch (...) {
        errno = EIO;
    }
    return failure;
}

// The service thread holds the lock while it works: a fork waits until it is done, so the child
// never inherits a lock held by a thread it does not have.
void lockBeforeFork() {
    if (g_service != nullptr) {
        g_service->lock().lock();
        g_lockedForFork = g_service.get();
    }
}

void unlockAfterFork() {
    if (g_lockedForFork != nullptr) {
        g_lockedForFork->lock().unlock();
        g_lockedForFork = nullptr;
    }
}

// A forked child must not keep the parent's mailboxes open: a mailbox deleted or a process dead
// would otherwise still look alive to its peers and monitors.
void forgetAfterFork() {
    unlockAfterFork();
    if (g_service != nullptr) {
        g_service->forsake();
        g_service.reset();
    }
}

}  // namespace

extern "C" {

int lmx_init(unsigned mailboxes, const void* options) {
    if (g_service != nullptr) {
        errno = EALREADY;
        return -1;
    }
    if (options != nullptr) {  // there are none
        errno = EINVAL;
        return -1;
    }
    static const bool forkHandled = ::pthread_atfork(lockBeforeFork, unlockAfterFork, forgetAfterFork) == 0;
    if (!forkHandled) {
        errno = ENOMEM;
        return -1;
    }
    try {
        g_service = lmx::Service::start(mailboxes);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    }
    return g_service != nullptr ? 0 : -1;
}

void lmx_exit(void) {
    g_service.reset();
}

lmx_mbox_id_t lmx_create_mailbox(const char* name, uint32_t flags) {
    return withService(LMX_INVALID_ID, [&](lmx::Service& s) {
        if (flags != 0) {
            errno = EINVAL;
            return LMX_INVALID_ID;
        }
        return s.createMailbox(name);
    });
}

int lmx_delete_mailbox(lmx_mbox_id_t id) {
    return withService(-1, [&](lmx::Service& s) { return s.deleteMailbox(id); });
}

int lmx_get_fd(void) {
    return withService(-1, [](lmx::Service& s) { return s.fd(); });
}

void* lmx_receive(const uint32_t* filter, int32_t timeout_ms, uint32_t from) {
    return withService<void*>(nullptr, [&](lmx::Service& s, std::unique_lock<std::mutex>& held) {
        return s.receive(filter, timeout_ms, from, held);
    });
}

lmx_mbox_id_t lmx_sender(const void* msg) {
    return msg == nullptr ? LMX_INVALID_ID : lmx::headerOf(msg).sender;
}

uid_t lmx_sender_uid(const void* msg) {
    return msg == nullptr ? static_cast<uid_t>(-1) : lmx::headerOf(msg).senderUid;
}

uint32_t lmx_msgno(const void* msg) {
    return msg == nullptr ? 0 : lmx::msgNoOf(msg);
}

size_t lmx_size(const void* msg) {
    return msg == nullptr ? 0 : lmx::headerOf(msg).size;
}

int lmx_send(void* msg, lmx_mbox_id_t to, lmx_mbox_id_t from) {
    if (msg == nullptr || lmx::isReservedMsgNo(lmx::msgNoOf(msg))) {
        lmx_free(msg);
        errno = EINVAL;
        return -1;
    }
    lmx::MessagePtr owned(msg);
    return withService(-1, [&](lmx::Service& s) { return s.send(std::move(owned), to, from); });
}

void* lmx_alloc(size_t size, uint32_t msgno) {
    if (size < lmx::kMinMessageSize || size > lmx::kMaxMessageSize) {
        errno = size < lmx::kMinMessageSize ? EINVAL : EMSGSIZE;
        return nullptr;
    }
    void* msg = lmx::allocMessage(size, true);
    if (msg == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    std::memcpy(msg, &msgno, sizeof msgno);
    return msg;
}

void lmx_free(void* msg) {
    if (msg == nullptr) {
        return;
    }
    // A received message keeps its sender's name known until now.
    if (lmx::headerOf(msg).holder != 0) {
        const int saved = errno;
        withService(0, [msg](lmx::Service& s) {
            s.disown(msg);
            return 0;
        });
        errno = saved;
    }
    lmx::freeMessage(msg);
}

size_t lmx_get_max_size(void) {
    return lmx::kMaxMessageSize;
}

int lmx_locate_async(const char* name, const void* data, uint32_t sender) {
    return withService(-1, [&](lmx::Service& s) { return s.locateAsync(name, data, sender); });
}

lmx_mbox_id_t lmx_locate(const char* name) {
    return withService(LMX_INVALID_ID, [&](lmx::Service& s) { return s.locate(name); });
}

uint32_t lmx_monitor(lmx_mbox_id_t id, const void* data) {
    return withService(0u, [&](lmx::Service& s) { return s.monitor(id, data); });
}

int lmx_unmonitor(uint32_t monitor_id) {
    return withService(-1, [&](lmx::Service& s) { return s.unmonitor(monitor_id); });
}

const char* lmx_name(lmx_mbox_id_t id) {
    return withService<const char*>(nullptr, [&](lmx::Service& s) { return s.name(id); });
}

}  // extern "C"
