// The mailbox service's packet intake: a connection's packets, as a peer could send them, against
// a plain model of reassembly. Input: the first byte chooses whether a good data hello comes
// first (bit 0); then packets, each a 2-byte little-endian length and that many bytes (the
// length is cut to what is left).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "lmx_wire.h"

using lmx::Intake;

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    Intake intake;
    bool helloSeen = false;
    bool dataLink = false;
    bool broken = false;
    std::vector<uint8_t> model;  // the bytes of the message being reassembled
    if ((data[0] & 1) != 0) {
        const lmx::Hello hello = lmx::encodeHello(lmx::LinkKind::Data, "fuzz");
        check(intake.feed(hello.bytes.data(), hello.size) == Intake::Step::Hello);
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
    return 0;
}
