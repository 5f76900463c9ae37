// Doubles for the event handlers of SolApp::Logic: the real cache behind a spy with a movable
// clock, a socket that hands out queued RAs, a client link whose notify and respond keep what they
// were given, an RA builder, and trace filters.
#pragma once

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <deque>
#include <initializer_list>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "FakeLmx.h"
#include "SolAppDoubles.h"
#include "SolIf.h"
#include "TraceCapture.h"

namespace solicd::test {

// 2023-11-14 22:13:20 UTC.
inline constexpr time_t kHandlerT0 = 1700000000;

inline kt_ip_address_t ipv6Address(const char* text) {
    kt_ip_address_t address{};
    address.family = KT_AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, address.bytes), 1) << text;
    return address;
}

// Every operation the handlers use runs the real cache unless a test says otherwise, and every
// call can be checked.
class SpyCacheMgr : public CacheMgr {
public:
    explicit SpyCacheMgr(Clock clock) : CacheMgr(std::move(clock)) {
        using ::testing::_;
        using ::testing::An;
        ON_CALL(*this, pushConfigAndGetEntry(An<const SolRouter::Config&>(), _, _))
            .WillByDefault([this](const SolRouter::Config& c, bool* changed, uint32_t* timeout) {
                return CacheMgr::pushConfigAndGetEntry(c, changed, timeout);
            });
        ON_CALL(*this, pushConfigAndGetEntry(An<const SolNetwork::Config&>(), _, _))
            .WillByDefault([this](const SolNetwork::Config& c, bool* changed, uint32_t* timeout) {
                return CacheMgr::pushConfigAndGetEntry(c, changed, timeout);
            });
        ON_CALL(*this, pushConfigAndGetEntry(An<const SolDnsServer::Config&>(), _, _))
            .WillByDefault([this](const SolDnsServer::Config& c, bool* changed, uint32_t* timeout) {
                return CacheMgr::pushConfigAndGetEntry(c, changed, timeout);
            });
        ON_CALL(*this, notifyTimeoutExpiresAndGetEntry(_, _, _, An<RouterKind>()))
            .WillByDefault(
                [this](bool* changed, uint32_t* timeout, const std::string& name, RouterKind kind) {
                    return CacheMgr::notifyTimeoutExpiresAndGetEntry(changed, timeout, name, kind);
                });
        ON_CALL(*this, notifyTimeoutExpiresAndGetEntry(_, _, _, An<NetworkKind>()))
            .WillByDefault(
                [this](bool* changed, uint32_t* timeout, const std::string& name, NetworkKind kind) {
                    return CacheMgr::notifyTimeoutExpiresAndGetEntry(changed, timeout, name, kind);
                });
        ON_CALL(*this, notifyTimeoutExpiresAndGetEntry(_, _, _, An<DnsServerKind>()))
            .WillByDefault(
                [this](bool* changed, uint32_t* timeout, const std::string& name, DnsServerKind kind) {
                    return CacheMgr::notifyTimeoutExpiresAndGetEntry(changed, timeout, name, kind);
                });
        ON_CALL(*this, getRouters(_)).WillByDefault([this](auto& l) { CacheMgr::getRouters(l); });
        ON_CALL(*this, getActiveRouters(_)).WillByDefault([this](auto& l) { CacheMgr::getActiveRouters(l); });
        ON_CALL(*this, getNetworks(_)).WillByDefault([this](auto& l) { CacheMgr::getNetworks(l); });
        ON_CALL(*this, getActiveNetworks(_)).WillByDefault([this](auto& l) {
            CacheMgr::getActiveNetworks(l);
        });
        ON_CALL(*this, getActiveNetworksOfRouter(_, _)).WillByDefault([this](uint32_t id, auto& l) {
            CacheMgr::getActiveNetworksOfRouter(id, l);
        });
        ON_CALL(*this, getDnsServers(_)).WillByDefault([this](auto& l) { CacheMgr::getDnsServers(l); });
        ON_CALL(*this, getActiveDnsServers(_)).WillByDefault([this](auto& l) {
            CacheMgr::getActiveDnsServers(l);
        });
        ON_CALL(*this, setRelation(_, An<const NetworkEntry&>()))
            .WillByDefault(
                [this](const RouterEntry& r, const NetworkEntry& n) { CacheMgr::setRelation(r, n); });
        ON_CALL(*this, setRelation(_, An<const DnsServerEntry&>()))
            .WillByDefault(
                [this](const RouterEntry& r, const DnsServerEntry& d) { CacheMgr::setRelation(r, d); });
    }

    MOCK_METHOD(RouterEntry*, pushConfigAndGetEntry, (const SolRouter::Config&, bool*, uint32_t*),
                (override));
    MOCK_METHOD(NetworkEntry*, pushConfigAndGetEntry, (const SolNetwork::Config&, bool*, uint32_t*),
                (override));
    MOCK_METHOD(DnsServerEntry*, pushConfigAndGetEntry, (const SolDnsServer::Config&, bool*, uint32_t*),
                (override));
    MOCK_METHOD(RouterEntry*, notifyTimeoutExpiresAndGetEntry,
                (bool*, uint32_t*, const std::string&, RouterKind), (override));
    MOCK_METHOD(NetworkEntry*, notifyTimeoutExpiresAndGetEntry,
                (bool*, uint32_t*, const std::string&, NetworkKind), (override));
    MOCK_METHOD(DnsServerEntry*, notifyTimeoutExpiresAndGetEntry,
                (bool*, uint32_t*, const std::string&, DnsServerKind), (override));
    MOCK_METHOD(void, getRouters, (std::list<RouterEntry*>&), (override));
    MOCK_METHOD(void, getActiveRouters, (std::list<RouterEntry*>&), (override));
    MOCK_METHOD(void, getNetworks, (std::list<NetworkEntry*>&), (override));
    MOCK_METHOD(void, getActiveNetworks, (std::list<NetworkEntry*>&), (override));
    MOCK_METHOD(void, getActiveNetworksOfRouter, (uint32_t, std::list<NetworkEntry*>&), (override));
    MOCK_METHOD(void, getDnsServers, (std::list<DnsServerEntry*>&), (override));
    MOCK_METHOD(void, getActiveDnsServers, (std::list<DnsServerEntry*>&), (override));
    MOCK_METHOD(void, setRelation, (const RouterEntry&, const NetworkEntry&), (override));
    MOCK_METHOD(void, setRelation, (const RouterEntry&, const DnsServerEntry&), (override));
};

// A message as the client would decode it, with its allocated size.
struct SentMessage {
    SolifMessage decoded;
    size_t size = 0;
};

inline SentMessage decodeHeld(const LmxMgr::Message& message) {
    SentMessage sent;
    if (message.m_data.m_buffer != nullptr) {
        sent.size = lmx_size(message.m_data.m_buffer);
        std::string error;
        EXPECT_EQ(solifDecode(message.m_data.m_buffer, sent.size, sent.decoded, error), 0u) << error;
    }
    return sent;
}

// Managers for the handlers: the socket hands out the queued RAs one per receive, the client link
// reports `lmxState` and, like the real one, refuses to notify unless connected; the cache is real
// and its clock stands at `now` unless `realClock` is set.
class HandlerData : public SolApp::DataIf {
public:
    HandlerData() {
        using ::testing::_;
        ON_CALL(socket, getFd()).WillByDefault(::testing::Return(socketPipe.readEnd.get()));
        ON_CALL(lmx, getFd()).WillByDefault(::testing::Return(lmxPipe.readEnd.get()));
        ON_CALL(socket, receive(_)).WillByDefault([this](SocketMgr::Message& message) {
            socketPipe.drain();
            if (packets.empty()) {
                ADD_FAILURE() << "receive without a queued RA";
                message.m_state = SocketMgr::Message::MSG_STATE_RX_ERROR;
                return 1u;
            }
            const Packet packet = packets.front();
            packets.pop_front();
            // As the socket leaves it: the whole buffer, of which the datagram fills the start.
            message.m_data.assign(kMessageBufferSize, 0);
            std::copy(packet.bytes.begin(), packet.bytes.end(), message.m_data.begin());
            message.m_length = packet.bytes.size();
            message.m_peer = ipv6Address(packet.source.c_str());
            message.m_state = SocketMgr::Message::MSG_STATE_RX_OK;
            return 0u;
        });
        ON_CALL(lmx, getDstMboxState()).WillByDefault([this] { return lmxState; });
        ON_CALL(lmx, notify(_)).WillByDefault([this](LmxMgr::Message& message) {
            notified.push_back(decodeHeld(message));
            return lmxState == LmxMgr::DST_MBOX_STATE_CONNECTED ? 0u : 1u;
        });
        ON_CALL(lmx, respond(_, _))
            .WillByDefault([this](const LmxMgr::Message& request, LmxMgr::Message& answer) {
                respondedTo.push_back(request.m_data.m_peer);
                responded.push_back(decodeHeld(answer));
                return 0u;
            });
    }

    ArgParser& getArgParser() override { return args; }
    SocketMgr& getSocketMgr() override { return socket; }
    LmxMgr& getLmxMgr() override { return lmx; }
    CacheMgr& getCacheMgr() override { return cache; }
    PacketParser& getPacketParser() override { return parser; }
    ServiceNotify& getServiceNotify() override { return notify; }

    // The next datagram the socket receives.
    void queueRa(std::vector<uint8_t> bytes, std::string source = "fe80::1") {
        packets.push_back({std::move(bytes), std::move(source)});
    }

    struct Packet {
        std::vector<uint8_t> bytes;
        std::string source;
    };

    TestPipe socketPipe;
    TestPipe lmxPipe;
    RecordingNotify notify;
    time_t now = kHandlerT0;
    bool realClock = false;
    uint32_t lmxState = LmxMgr::DST_MBOX_STATE_CONNECTED;
    std::deque<Packet> packets;
    std::vector<SentMessage> notified;
    std::vector<SentMessage> responded;
    std::vector<uint32_t> respondedTo;

    ArgParser args;
    ::testing::NiceMock<MockSocketMgr> socket;
    ::testing::NiceMock<MockLmxMgr> lmx;
    ::testing::NiceMock<SpyCacheMgr> cache{[this] { return realClock ? time(nullptr) : now; }};
    PacketParser parser;
};

// Router Advertisements written field by field: the 16-byte header, then options in call order.
class RaBuilder {
public:
    explicit RaBuilder(uint16_t routerLifetime) {
        // type 134, code 0, checksum, hop limit 64, no flags
        m_bytes = {0x86, 0x00, 0x00, 0x00, 0x40, 0x00};
        put16(routerLifetime);
        put32(0);  // reachable time unspecified
        put32(0);  // retrans timer unspecified
    }
    // The header's M (0x80) and O (0x40) bits.
    RaBuilder& flags(uint8_t bits) {
        m_bytes[5] = bits;
        return *this;
    }
    RaBuilder& timers(uint32_t reachable, uint32_t retrans) {
        for (const auto& [at, value] : {std::pair{8, reachable}, std::pair{12, retrans}}) {
            for (int i = 0; i < 4; ++i) {
                m_bytes[at + i] = static_cast<uint8_t>(value >> (24 - 8 * i));
            }
        }
        return *this;
    }
    // Prefix Information, 4 units: /64, L and A set.
    RaBuilder& prefix(const char* prefix, uint32_t valid, uint32_t preferred) {
        m_bytes.insert(m_bytes.end(), {0x03, 0x04, 64, 0xc0});
        put32(valid);
        put32(preferred);
        put32(0);  // reserved
        putAddress(prefix);
        return *this;
    }
    // Recursive DNS Server: 1 unit of header and lifetime, 2 units per address.
    RaBuilder& rdnss(uint32_t lifetime, std::initializer_list<const char*> addresses) {
        return rdnss(lifetime, std::vector<std::string>(addresses.begin(), addresses.end()));
    }
    RaBuilder& rdnss(uint32_t lifetime, const std::vector<std::string>& addresses) {
        m_bytes.insert(m_bytes.end(), {0x19, static_cast<uint8_t>(1 + 2 * addresses.size()), 0x00, 0x00});
        put32(lifetime);
        for (const std::string& address : addresses) {
            putAddress(address.c_str());
        }
        return *this;
    }
    std::vector<uint8_t> bytes() const { return m_bytes; }

private:
    void put16(uint16_t value) {
        m_bytes.push_back(static_cast<uint8_t>(value >> 8));
        m_bytes.push_back(static_cast<uint8_t>(value));
    }
    void put32(uint32_t value) {
        put16(static_cast<uint16_t>(value >> 16));
        put16(static_cast<uint16_t>(value));
    }
    void putAddress(const char* text) {
        const kt_ip_address_t address = ipv6Address(text);
        m_bytes.insert(m_bytes.end(), address.bytes, address.bytes + sizeof address.bytes);
    }

    std::vector<uint8_t> m_bytes;
};

// The captured traces whose message comes from one of `functions` ("name(): ...").
inline std::vector<TraceRecord> tracesOf(const TraceCapture& capture,
                                         std::initializer_list<const char*> functions) {
    std::vector<TraceRecord> out;
    for (const TraceRecord& record : capture.records()) {
        for (const char* function : functions) {
            if (record.message.rfind(std::string(function) + "(): ", 0) == 0) {
                out.push_back(record);
                break;
            }
        }
    }
    return out;
}

// What the cache-entry timers did: creation and removal of CacheTimeout objects and the arming
// and disarming of their GLib sources, in order, with handler ids left out.
inline std::vector<std::string> timerActions(const TraceCapture& capture) {
    std::vector<std::string> out;
    for (const TraceRecord& record : capture.records()) {
        const std::string& m = record.message;
        const size_t tagEnd = m.find("] ");
        if (tagEnd == std::string::npos) {
            continue;
        }
        const std::string text = m.substr(tagEnd + 2);
        if (m.rfind("add(): ", 0) == 0 || m.rfind("remove(): ", 0) == 0) {
            out.push_back(text.substr(0, text.rfind(", handler")));
        } else if (m.rfind("~CacheTimeout(): ", 0) == 0 ||
                   text.find(" timeout  with with id:") != std::string::npos) {
            out.push_back(text);
        }
    }
    return out;
}

inline constexpr const char* kHandlerTag = "ra0";

// "<function>(): [ra0] <text>", as the handlers' traces read.
inline std::string tagged(const std::string& function, const std::string& text) {
    return function + "(): [" + kHandlerTag + "] " + text;
}

// Writes the traces of the named functions to stderr, one line each, with write() alone, so that
// a death test sees them although the process ends with _exit.
class StderrTraces {
public:
    explicit StderrTraces(std::vector<std::string> functions)
        : m_functions(std::move(functions)), m_scope(&StderrTraces::onTrace, this, trace::kAllEvents) {}

private:
    static void onTrace(void* self, TraceEvent event, const char* /*location*/, const char* category,
                        const char* message) {
        for (const std::string& function : static_cast<StderrTraces*>(self)->m_functions) {
            if (std::string(message).rfind(function + "(): ", 0) == 0) {
                const std::string line = formatRecord(event, category, message);
                (void)!write(STDERR_FILENO, line.data(), line.size());
                return;
            }
        }
    }

    std::vector<std::string> m_functions;
    ScopedCapture m_scope;
};

inline std::string quoteRegex(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) {
            out += '\\';
        }
        out += c;
    }
    return out;
}

// The whole stderr of a handler that wrote `before` and then asked for a restart with `text`.
inline std::string restartAfter(const std::string& before, const std::string& text) {
    return quoteRegex(before) +
           "solicd: restart requested at [^\n]*SolAppHandlers\\.cpp:[0-9]+: " + quoteRegex(text) + "\n";
}

inline std::string traceLine(TraceEvent event, const std::string& category, const std::string& message) {
    return formatRecord(event, category.c_str(), message.c_str());
}

// Handlers on the real cache (sized as the daemon sizes it) with the client connected; every
// message buffer must be released by the end of each test. Death tests re-execute the binary
// (lttng-ust keeps threads in every test process).
class HandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        useThreadsafeDeathTests();
        FakeLmx::instance().reset();
        setTraceTag(kHandlerTag);
        m_data.cache.setMaxCacheSizes(SolApp::Logic::kMaxRouters, SolApp::Logic::kMaxNetworks,
                                      SolApp::Logic::kMaxDnsServers);
    }
    void TearDown() override {
        EXPECT_EQ(FakeLmx::instance().liveBuffers(), 0u) << "a message buffer leaked";
        setTraceTag("");
    }

    // One RA through the socket event handler.
    void receiveRa(std::vector<uint8_t> bytes, std::string source = "fe80::1") {
        m_data.queueRa(std::move(bytes), std::move(source));
        m_logic.handleRaSocketEvent();
    }
    template <size_t N>
    void receiveRa(const uint8_t (&bytes)[N], std::string source = "fe80::1") {
        receiveRa(std::vector<uint8_t>(bytes, bytes + N), std::move(source));
    }

    // Entries by name, looked up in the real cache.
    template <class Entry>
    static Entry* find(const std::list<Entry*>& entries, const std::string& name) {
        for (Entry* entry : entries) {
            if (entry->m_config.getName() == name) {
                return entry;
            }
        }
        return nullptr;
    }
    RouterEntry* router(const std::string& name) {
        std::list<RouterEntry*> all;
        m_data.cache.CacheMgr::getRouters(all);
        return find(all, name);
    }
    NetworkEntry* network(const std::string& name) {
        std::list<NetworkEntry*> all;
        m_data.cache.CacheMgr::getNetworks(all);
        return find(all, name);
    }
    DnsServerEntry* dnsServer(const std::string& name) {
        std::list<DnsServerEntry*> all;
        m_data.cache.CacheMgr::getDnsServers(all);
        return find(all, name);
    }

    std::vector<std::string> timerNames() const {
        std::vector<std::string> names;
        for (const auto& [name, timeout] : m_logic.getTimeouts()) {
            names.push_back(name);
        }
        return names;
    }

    HandlerData m_data;
    SolApp::Logic m_logic{&m_data};
};

// A message as sent, checked against the record it was built from, byte for byte.
template <class Record>
::testing::AssertionResult sameRecord(const Record& sent, const Record& expected) {
    if (std::memcmp(&sent.m_config.data(), &expected.m_config.data(), sizeof sent.m_config.data()) != 0) {
        return ::testing::AssertionFailure()
               << "config " << toStr(sent.m_config) << " is not " << toStr(expected.m_config);
    }
    if (std::memcmp(&sent.m_status.data(), &expected.m_status.data(), sizeof sent.m_status.data()) != 0) {
        return ::testing::AssertionFailure()
               << "status " << toStr(sent.m_status) << " is not " << toStr(expected.m_status);
    }
    return ::testing::AssertionSuccess();
}

// The names of the records a message carries, in message order, after its kind: for example
// "router router/fe80::1", "dns dns/2001:db8::53 dns/2001:db8::54".
inline std::string describe(const SentMessage& sent) {
    const SolifMessage& m = sent.decoded;
    std::string out;
    switch (m.msgNo) {
        case SOLIF_ROUTER_UPDATED_IND:
            out = "router";
            break;
        case SOLIF_NETWORK_UPDATED_IND:
            out = "network";
            break;
        case SOLIF_DNS_SERVER_UPDATED_IND:
            out = "dns";
            break;
        case SOLIF_GET_ROUTERS_CFM:
            out = "routers";
            break;
        default:
            out = "msg " + std::to_string(m.msgNo);
    }
    for (const auto& r : m.routers) {
        out += " " + r.m_config.getName();
    }
    for (const auto& n : m.networks) {
        out += " " + n.m_config.getName();
    }
    for (const auto& d : m.dnsServers) {
        out += " " + d.m_config.getName();
    }
    return out;
}

inline std::vector<std::string> describe(const std::vector<SentMessage>& sent) {
    std::vector<std::string> out;
    for (const SentMessage& m : sent) {
        out.push_back(describe(m));
    }
    return out;
}

}  // namespace solicd::test
