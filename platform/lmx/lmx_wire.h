// What travels on a mailbox connection, and the intake that turns received packets back into
// messages. Pure bytes in and out, so it can be tested and fuzzed without sockets.
//
// A connection starts with one hello packet:
//   0  4  magic "LMXH"
//   4  1  protocol version (1)
//   5  1  link kind: 1 data (messages follow), 2 monitor (nothing follows; only its end matters)
//   6  1  name length N: the sending mailbox for a data link, 0 for a monitor link
//   7  1  reserved, 0
//   8  N  the name, without a terminator
// A data link then carries each message as one or more fragments, in order:
//   0  4  the message's total size (native endian, as the link is local)
//   4  4  offset of this fragment's bytes within the message
//   8  ...  at least one byte of the message
// A message larger than a packet spans several fragments; the intake hands it on only whole.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "lmx_message.h"

namespace lmx {

constexpr std::array<uint8_t, 4> kHelloMagic = {'L', 'M', 'X', 'H'};
constexpr uint8_t kProtocolVersion = 1;
constexpr size_t kHelloHeaderSize = 8;
constexpr size_t kMaxHelloSize = kHelloHeaderSize + LMX_NAME_MAX;
constexpr size_t kFragmentHeaderSize = 8;
// The largest packet a peer may send; well below the default socket send buffer (about 208 KiB),
// which bounds one SEQPACKET datagram.
constexpr size_t kMaxPacketSize = 64 * 1024;

enum class LinkKind : uint8_t {
    Data = 1,
    Monitor = 2,
};

// 1 to LMX_NAME_MAX characters of A-Z a-z 0-9 . _ -, not starting with '.': never a path.
bool isValidName(std::string_view name);
// The same for a C string that may be null or unterminated within the limit.
bool isValidName(const char* name);

struct Hello {
    std::array<uint8_t, kMaxHelloSize> bytes{};
    size_t size = 0;
};
// `name` must be valid for a data link and empty for a monitor link.
Hello encodeHello(LinkKind kind, std::string_view name);

struct FragmentHeader {
    uint32_t total;
    uint32_t offset;
};
static_assert(sizeof(FragmentHeader) == kFragmentHeaderSize);

// The receiving side of one connection: a hello, then fragments. Any violation is final; the
// caller drops the connection.
class Intake {
public:
    enum class Step {
        More,       // nothing to hand on yet
        Hello,      // the hello was accepted: kind() and peerName() are set
        Message,    // a whole message is ready: takeMessage()
        Malformed,  // the peer broke the protocol
    };

    Step feed(const uint8_t* packet, size_t size);

    LinkKind kind() const { return m_kind; }
    const std::string& peerName() const { return m_peerName; }
    MessagePtr takeMessage() { return std::move(m_complete); }

private:
    enum class State {
        AwaitHello,
        DataLink,
        MonitorLink,
        Broken,
    };

    Step acceptHello(const uint8_t* packet, size_t size);
    Step acceptFragment(const uint8_t* packet, size_t size);
    Step fail();

    State m_state = State::AwaitHello;
    LinkKind m_kind = LinkKind::Data;
    std::string m_peerName;
    MessagePtr m_partial;
    size_t m_received = 0;
    MessagePtr m_complete;
};

}  // namespace lmx
