#include "lmx_wire.h"

#include <algorithm>
#include <cstring>

namespace lmx {

namespace {

constexpr size_t kVersionOffset = 4;
constexpr size_t kKindOffset = 5;
constexpr size_t kNameLengthOffset = 6;
constexpr size_t kReservedOffset = 7;

bool isNameChar(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

}  // namespace

bool isValidName(std::string_view name) {
    return !name.empty() && name.size() <= LMX_NAME_MAX && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), isNameChar);
}

bool isValidName(const char* name) {
    if (name == nullptr) {
        return false;
    }
    // Look one character past the limit at most: a longer name is refused, not measured.
    return isValidName(std::string_view(name, strnlen(name, LMX_NAME_MAX + 1)));
}

Hello encodeHello(LinkKind kind, std::string_view name) {
    Hello hello;
    std::copy(kHelloMagic.begin(), kHelloMagic.end(), hello.bytes.begin());
    hello.bytes[kVersionOffset] = kProtocolVersion;
    hello.bytes[kKindOffset] = static_cast<uint8_t>(kind);
    hello.bytes[kNameLengthOffset] = static_cast<uint8_t>(name.size());
    hello.bytes[kReservedOffset] = 0;
    std::copy(name.begin(), name.end(), hello.bytes.begin() + kHelloHeaderSize);
    hello.size = kHelloHeaderSize + name.size();
    return hello;
}

Intake::Step Intake::feed(const uint8_t* packet, size_t size) {
    switch (m_state) {
        case State::AwaitHello:
            return acceptHello(packet, size);
        case State::DataLink:
            return acceptFragment(packet, size);
        case State::MonitorLink:  // a monitor link carries nothing after its hello
        case State::Broken:
            break;
    }
    return fail();
}

Intake::Step Intake::acceptHello(const uint8_t* packet, size_t size) {
    if (size < kHelloHeaderSize || !std::equal(kHelloMagic.begin(), kHelloMagic.end(), packet) ||
        packet[kVersionOffset] != kProtocolVersion || packet[kReservedOffset] != 0 ||
        size != kHelloHeaderSize + packet[kNameLengthOffset]) {
        return fail();
    }
    const std::string_view name(reinterpret_cast<const char*>(packet) + kHelloHeaderSize,
                                size - kHelloHeaderSize);
    switch (packet[kKindOffset]) {
        case static_cast<uint8_t>(LinkKind::Data):
            if (!isValidName(name)) {
                return fail();
            }
            m_kind = LinkKind::Data;
            m_peerName.assign(name);
            m_state = State::DataLink;
            return Step::Hello;
        case static_cast<uint8_t>(LinkKind::Monitor):
            if (!name.empty()) {
                return fail();
            }
            m_kind = LinkKind::Monitor;
            m_state = State::MonitorLink;
            return Step::Hello;
        default:
            return fail();
    }
}

Intake::Step Intake::acceptFragment(const uint8_t* packet, size_t size) {
    if (size <= kFragmentHeaderSize || size > kMaxPacketSize) {
        return fail();
    }
    FragmentHeader header;
    std::memcpy(&header, packet, sizeof header);
    const size_t payload = size - kFragmentHeaderSize;
    if (m_partial == nullptr) {
        if (header.offset != 0 || header.total < kMinMessageSize || header.total > kMaxMessageSize) {
            return fail();
        }
        // Pages of a large buffer are only committed as fragments fill them.
        m_partial.reset(allocMessage(header.total, false));
        if (m_partial == nullptr) {
            return fail();
        }
        m_received = 0;
    } else if (header.total != headerOf(m_partial.get()).size || header.offset != m_received) {
        return fail();
    }
    if (payload > header.total - m_received) {
        return fail();
    }
    std::memcpy(static_cast<uint8_t*>(m_partial.get()) + m_received, packet + kFragmentHeaderSize, payload);
    m_received += payload;
    if (m_received < header.total) {
        return Step::More;
    }
    if (isReservedMsgNo(msgNoOf(m_partial.get()))) {
        return fail();
    }
    m_complete = std::move(m_partial);
    m_received = 0;
    return Step::Message;
}

Intake::Step Intake::fail() {
    m_state = State::Broken;
    m_partial.reset();
    m_complete.reset();
    return Step::Malformed;
}

}  // namespace lmx
