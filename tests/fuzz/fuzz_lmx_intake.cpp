// The mailbox service's packet intake: a connection's packets, as a peer could send them, against
// a plain model of reassembly; then the same packets over a real connection to a live service,
// whose descriptor must be readable exactly while a message the model completed waits, and whose
// messages must be the model's, or none when the hello names a mailbox other than its own (the
// only one of this user in the directory, so no other name is proven). Input: the first byte
// chooses whether a good data hello comes first (bit 0); then packets, each a 2-byte
// little-endian length and that many bytes (the length is cut to what is left).
#include <linux/sockios.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "lmx.h"
#include "lmx_wire.h"

using lmx::Intake;

namespace {

constexpr int kGuardMs = 5000;

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// One service for the whole run, with the mailbox the packets go to.
struct LiveService {
    LiveService() {
        char root[] = "/tmp/lmx-fuzz.XXXXXX";
        check(::mkdtemp(root) != nullptr);
        dir = root;
        path = dir + "/fuzz";
        ::setenv("LMX_DIR", root, 1);
        check(lmx_init(1, nullptr) == 0 && lmx_create_mailbox("fuzz", 0) != LMX_INVALID_ID);
    }
    ~LiveService() {
        lmx_exit();  // removes the mailbox's socket file
        ::rmdir(dir.c_str());
    }
    std::string dir;
    std::string path;
};

LiveService& live() {
    static LiveService service;
    return service;
}

bool readable(int fd, int waitMs) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, waitMs) == 1;
}

// Sends the packets over a new connection and waits until the service has read all of them or
// closed the connection.
void sendLive(const std::vector<std::vector<uint8_t>>& packets) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, live().path.c_str(), sizeof addr.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    check(fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0);
    for (const auto& packet : packets) {
        if (::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) < 0) {
            check(errno == EPIPE || errno == ECONNRESET);  // dropped as malformed
            break;
        }
    }
    for (int waited = 0;; ++waited) {
        int unread = 0;
        char byte;
        if (::ioctl(fd, SIOCOUTQ, &unread) == 0 && unread == 0) {
            break;
        }
        if (readable(fd, 0) && ::recv(fd, &byte, 1, MSG_DONTWAIT) == 0) {
            break;
        }
        check(waited < kGuardMs);
        ::usleep(1000);
    }
    ::close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    Intake intake;
    std::vector<std::vector<uint8_t>> packets;   // as sent, for the live service
    std::vector<std::vector<uint8_t>> complete;  // the messages the model completed
    bool helloSeen = false;
    bool proven = true;  // the hello names the one mailbox this user owns
    bool dataLink = false;
    bool broken = false;
    std::vector<uint8_t> model;  // the bytes of the message being reassembled
    if ((data[0] & 1) != 0) {
        const lmx::Hello hello = lmx::encodeHello(lmx::LinkKind::Data, "fuzz");
        check(intake.feed(hello.bytes.data(), hello.size) == Intake::Step::Hello);
        packets.emplace_back(hello.bytes.begin(), hello.bytes.begin() + hello.size);
        helloSeen = dataLink = true;
    }
    size_t at = 1;
    while (at < size) {
        size_t length = data[at];
        if (at + 1 < size) {
            length |= static_cast<size_t>(data[at + 1]) << 8;
        }
        at = std::min(at + 2, size);
        length = std::min(length, size - at);
        const uint8_t* packet = data + at;
        at += length;
        packets.emplace_back(packet, packet + length);

        const Intake::Step step = intake.feed(packet, length);
        if (broken) {
            check(step == Intake::Step::Malformed);  // a broken intake stays broken
            continue;
        }
        switch (step) {
            case Intake::Step::Hello:
                check(!helloSeen);
                helloSeen = true;
                dataLink = intake.kind() == lmx::LinkKind::Data;
                check(!dataLink || lmx::isValidName(intake.peerName()));
                proven = !dataLink || intake.peerName() == "fuzz";
                break;
            case Intake::Step::More:
            case Intake::Step::Message: {
                check(dataLink && length > lmx::kFragmentHeaderSize && length <= lmx::kMaxPacketSize);
                lmx::FragmentHeader header;
                std::memcpy(&header, packet, sizeof header);
                check(header.offset == model.size());
                model.insert(model.end(), packet + lmx::kFragmentHeaderSize, packet + length);
                check(model.size() <= header.total && header.total <= lmx::kMaxMessageSize);
                if (step == Intake::Step::Message) {
                    lmx::MessagePtr msg = intake.takeMessage();
                    check(msg != nullptr && lmx::headerOf(msg.get()).size == model.size());
                    check(model.size() == header.total && model.size() >= lmx::kMinMessageSize);
                    check(std::memcmp(msg.get(), model.data(), model.size()) == 0);
                    check(!lmx::isReservedMsgNo(lmx::msgNoOf(msg.get())));
                    complete.push_back(model);
                    model.clear();
                } else {
                    check(model.size() < header.total);
                }
                break;
            }
            case Intake::Step::Malformed:
                check(intake.takeMessage() == nullptr);
                broken = true;
                break;
        }
    }

    // The live service: quiet but for the completed messages, which come whole and in order.
    // (A zero-length packet ends nothing on a real connection; leave those inputs to the model.)
    for (const auto& packet : packets) {
        if (packet.empty()) {
            return 0;
        }
    }
    check(!readable(lmx_get_fd(), 0));
    sendLive(packets);
    if (!proven) {
        complete.clear();  // refused at the hello
    }
    for (const auto& expected : complete) {
        check(readable(lmx_get_fd(), kGuardMs));
        void* msg = lmx_receive(nullptr, 0, LMX_ANY_SENDER);
        check(msg != nullptr && lmx_size(msg) == expected.size() &&
              std::memcmp(msg, expected.data(), expected.size()) == 0);
        lmx_free(msg);
    }
    check(!readable(lmx_get_fd(), 0));
    errno = 0;
    check(lmx_receive(nullptr, 0, LMX_ANY_SENDER) == nullptr && errno == EAGAIN);
    return 0;
}
