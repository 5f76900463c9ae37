// The mailbox connection format and its intake, over bytes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "lmx_names.h"
#include "lmx_wire.h"

using namespace lmx;

namespace {

using Bytes = std::vector<uint8_t>;
using Step = Intake::Step;

Bytes helloBytes(LinkKind kind, std::string_view name) {
    const Hello hello = encodeHello(kind, name);
    return Bytes(hello.bytes.begin(), hello.bytes.begin() + hello.size);
}

Bytes fragment(uint32_t total, uint32_t offset, const Bytes& payload) {
    Bytes packet(kFragmentHeaderSize + payload.size());
    std::memcpy(packet.data(), &total, 4);
    std::memcpy(packet.data() + 4, &offset, 4);
    if (!payload.empty()) {
        std::memcpy(packet.data() + kFragmentHeaderSize, payload.data(), payload.size());
    }
    return packet;
}

Bytes pattern(size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    return bytes;
}

Step feed(Intake& intake, const Bytes& packet) {
    return intake.feed(packet.data(), packet.size());
}

// An intake that has accepted the data hello of mailbox "peer".
Intake dataLink() {
    Intake intake;
    EXPECT_EQ(feed(intake, helloBytes(LinkKind::Data, "peer")), Step::Hello);
    return intake;
}

}  // namespace

TEST(LmxNames, AcceptsLettersDigitsDotUnderscoreDashUpToOneHundred) {
    EXPECT_TRUE(isValidName("solicd.ns1-eth0_A9"));
    EXPECT_TRUE(isValidName("a"));
    EXPECT_TRUE(isValidName("x."));
    EXPECT_TRUE(isValidName(std::string(100, 'n')));
    EXPECT_TRUE(isValidName(std::string(100, 'n').c_str()));
}

TEST(LmxNames, RefusesPathsHiddenNamesEmptyLongAndOtherCharacters) {
    for (const char* name : {"../x", "a/b", ".x", ".", "..", "", "a b", "a\\b", "caf\xc3\xa9", "a:b", "*"}) {
        EXPECT_FALSE(isValidName(name)) << name;
        EXPECT_FALSE(isValidName(std::string_view(name))) << name;
    }
    EXPECT_FALSE(isValidName(std::string(101, 'n')));
    EXPECT_FALSE(isValidName(std::string(101, 'n').c_str()));
    EXPECT_FALSE(isValidName(std::string_view("a\0b", 3)));
    EXPECT_FALSE(isValidName(static_cast<const char*>(nullptr)));
}

TEST(LmxNameTable, SameNameSameIdNeverZeroNorAllOnesUpToItsBound) {
    NameTable names;
    EXPECT_EQ(names.lookup("a"), LMX_INVALID_ID);
    EXPECT_EQ(names.find(0), nullptr);
    const lmx_mbox_id_t a = names.hold("a");
    EXPECT_NE(a, 0u);
    EXPECT_NE(a, LMX_INVALID_ID);
    EXPECT_EQ(names.hold("a"), a);
    EXPECT_EQ(names.lookup("a"), a);
    const std::string* kept = names.find(a);
    ASSERT_NE(kept, nullptr);
    const char* text = kept->c_str();
    for (size_t i = 1; i < kMaxNames; ++i) {
        const lmx_mbox_id_t id = names.hold("n" + std::to_string(i));
        ASSERT_NE(id, LMX_INVALID_ID) << i;
        ASSERT_NE(id, 0u) << i;
    }
    // Full: a new name is refused, known names keep their ids and their text where it was.
    EXPECT_EQ(names.hold("one-more"), LMX_INVALID_ID);
    EXPECT_EQ(names.lookup("one-more"), LMX_INVALID_ID);
    EXPECT_EQ(names.size(), kMaxNames);
    EXPECT_EQ(names.hold("a"), a);
    EXPECT_EQ(names.find(a)->c_str(), text);
    EXPECT_EQ(*names.find(names.lookup("n77")), "n77");
    EXPECT_EQ(names.find(LMX_INVALID_ID), nullptr);
    // A name let go of makes room for a new one.
    names.release(names.lookup("n77"));
    EXPECT_EQ(names.lookup("n77"), LMX_INVALID_ID);
    EXPECT_NE(names.hold("one-more"), LMX_INVALID_ID);
}

TEST(LmxNameTable, NameIsForgottenWithItsLastHoldAndComesBackUnderANewId) {
    NameTable names;
    const lmx_mbox_id_t first = names.hold("peer");
    EXPECT_TRUE(names.hold(first));
    names.release(first);
    EXPECT_EQ(names.lookup("peer"), first);  // one hold is left
    EXPECT_EQ(*names.find(first), "peer");
    names.release(first);
    EXPECT_EQ(names.lookup("peer"), LMX_INVALID_ID);
    EXPECT_EQ(names.find(first), nullptr);
    EXPECT_EQ(names.size(), 0u);
    // The old id names nothing: it cannot be held again, nor released below nothing.
    EXPECT_FALSE(names.hold(first));
    names.release(first);
    const lmx_mbox_id_t again = names.hold("peer");
    EXPECT_NE(again, first);
    EXPECT_NE(names.hold("other"), first);
    EXPECT_EQ(names.find(first), nullptr);
}

TEST(LmxNameTable, IdsGoOnPastForgottenNamesAndWrapPastAllOnesAndZero) {
    NameTable names(0xfffffffcu);
    const lmx_mbox_id_t kept = names.hold("kept");
    EXPECT_EQ(kept, 0xfffffffcu);
    const lmx_mbox_id_t gone = names.hold("gone");
    EXPECT_EQ(gone, 0xfffffffdu);
    names.release(gone);
    // The forgotten id is not given again, not even to the same name.
    EXPECT_EQ(names.hold("gone"), 0xfffffffeu);
    EXPECT_EQ(names.hold("next"), 1u);  // neither all ones nor 0
    EXPECT_EQ(names.lookup("kept"), kept);
    EXPECT_EQ(names.find(gone), nullptr);
}

TEST(LmxNameTable, HoldLetsGoWhenItEndsAndTravelsWhenMoved) {
    NameTable names;
    {
        NameHold outer;
        {
            NameHold inner(names, std::string_view("peer"));
            ASSERT_TRUE(inner);
            EXPECT_EQ(names.lookup("peer"), inner.id());
            outer = std::move(inner);
            EXPECT_FALSE(inner);
        }
        EXPECT_NE(names.lookup("peer"), LMX_INVALID_ID);
        NameHold second(names, outer.id());
        EXPECT_TRUE(second);
        outer.reset();
        EXPECT_NE(names.lookup("peer"), LMX_INVALID_ID);
    }
    EXPECT_EQ(names.lookup("peer"), LMX_INVALID_ID);
    EXPECT_FALSE(NameHold(names, lmx_mbox_id_t{42}));  // an id not known is not held
    EXPECT_EQ(names.size(), 0u);
}

TEST(LmxWire, DataHelloIsMagicVersionKindLengthReservedThenName) {
    const Bytes expected = {'L', 'M', 'X', 'H', 1, 1, 6, 0, 's', 'o', 'l', 'i', 'c', 'd'};
    EXPECT_EQ(helloBytes(LinkKind::Data, "solicd"), expected);
}

TEST(LmxWire, MonitorHelloCarriesNoName) {
    const Bytes expected = {'L', 'M', 'X', 'H', 1, 2, 0, 0};
    EXPECT_EQ(helloBytes(LinkKind::Monitor, ""), expected);
}

TEST(LmxIntake, DataHelloNamesThePeer) {
    Intake intake;
    ASSERT_EQ(feed(intake, helloBytes(LinkKind::Data, std::string(100, 'z'))), Step::Hello);
    EXPECT_EQ(intake.kind(), LinkKind::Data);
    EXPECT_EQ(intake.peerName(), std::string(100, 'z'));
}

TEST(LmxIntake, MonitorHelloIsAccepted) {
    Intake intake;
    ASSERT_EQ(feed(intake, helloBytes(LinkKind::Monitor, "")), Step::Hello);
    EXPECT_EQ(intake.kind(), LinkKind::Monitor);
}

TEST(LmxIntake, BadHellosAreMalformed) {
    const Bytes good = helloBytes(LinkKind::Data, "peer");
    std::vector<Bytes> bad;
    bad.push_back({});                                          // nothing
    bad.push_back(Bytes(good.begin(), good.begin() + 7));       // shorter than its header
    bad.push_back(Bytes(good.begin(), good.end() - 1));         // name shorter than announced
    bad.push_back(good), bad.back().push_back('x');             // name longer than announced
    bad.push_back(good), bad.back()[0] = 'X';                   // magic
    bad.push_back(good), bad.back()[4] = 2;                     // version
    bad.push_back(good), bad.back()[5] = 0;                     // kind
    bad.push_back(good), bad.back()[5] = 3;                     // kind
    bad.push_back(good), bad.back()[7] = 1;                     // reserved
    bad.push_back(helloBytes(LinkKind::Data, "../x"));          // a path
    bad.push_back(helloBytes(LinkKind::Data, ".hidden"));       // a hidden name
    bad.push_back(helloBytes(LinkKind::Data, ""));              // a data link must name its sender
    bad.push_back(Bytes{'L', 'M', 'X', 'H', 1, 2, 1, 0, 'x'});  // a monitor link names nobody
    bad.push_back(fragment(4, 0, {1, 2, 3, 4}));                // data before the hello
    for (size_t i = 0; i < bad.size(); ++i) {
        Intake intake;
        EXPECT_EQ(feed(intake, bad[i]), Step::Malformed) << "case " << i;
        // Once broken, nothing is accepted any more, not even a good hello.
        EXPECT_EQ(feed(intake, good), Step::Malformed) << "case " << i;
    }
}

TEST(LmxIntake, SecondHelloIsMalformed) {
    Intake intake = dataLink();
    EXPECT_EQ(feed(intake, helloBytes(LinkKind::Data, "peer")), Step::Malformed);
}

TEST(LmxIntake, AnythingOnAMonitorLinkIsMalformed) {
    Intake intake;
    ASSERT_EQ(feed(intake, helloBytes(LinkKind::Monitor, "")), Step::Hello);
    EXPECT_EQ(feed(intake, fragment(4, 0, {1, 2, 3, 4})), Step::Malformed);
}

TEST(LmxIntake, OnePacketMessageArrivesWithItsSizeAndBytes) {
    Intake intake = dataLink();
    const Bytes body = {0x30, 0x16, 0xa1, 0x01, 9, 8, 7};
    ASSERT_EQ(feed(intake, fragment(7, 0, body)), Step::Message);
    MessagePtr msg = intake.takeMessage();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(headerOf(msg.get()).size, 7u);
    EXPECT_EQ(msgNoOf(msg.get()), 0x01a11630u);
    EXPECT_EQ(std::memcmp(msg.get(), body.data(), body.size()), 0);
}

TEST(LmxIntake, LocateOrMonitorAnswerFromAPeerIsAForgeryAndMalformed) {
    // 0x1901000 and 0x1901001, native endian: only the receiving service makes these.
    Intake locate = dataLink();
    EXPECT_EQ(feed(locate, fragment(8, 0, {0x00, 0x10, 0x90, 0x01, 0, 0, 0, 0})), Step::Malformed);
    EXPECT_EQ(locate.takeMessage(), nullptr);
    Intake monitor = dataLink();
    EXPECT_EQ(feed(monitor, fragment(4, 0, {0x01, 0x10, 0x90, 0x01})), Step::Malformed);
    // A forgery split over fragments is refused once it is whole.
    Intake split = dataLink();
    EXPECT_EQ(feed(split, fragment(6, 0, {0x01, 0x10, 0x90})), Step::More);
    EXPECT_EQ(feed(split, fragment(6, 3, {0x01, 7, 7})), Step::Malformed);
}

TEST(LmxIntake, FragmentsAreReassembledInOrderAndHandedOnOnlyWhole) {
    Intake intake = dataLink();
    const Bytes body = pattern(10000);
    for (uint32_t at = 0; at < 9000; at += 1000) {
        ASSERT_EQ(feed(intake, fragment(10000, at, Bytes(body.begin() + at, body.begin() + at + 1000))),
                  Step::More);
        EXPECT_EQ(intake.takeMessage(), nullptr);
    }
    ASSERT_EQ(feed(intake, fragment(10000, 9000, Bytes(body.begin() + 9000, body.end()))), Step::Message);
    MessagePtr msg = intake.takeMessage();
    EXPECT_EQ(headerOf(msg.get()).size, 10000u);
    EXPECT_EQ(std::memcmp(msg.get(), body.data(), body.size()), 0);
    // The link goes on with the next message.
    EXPECT_EQ(feed(intake, fragment(4, 0, {1, 0, 0, 0})), Step::Message);
}

TEST(LmxIntake, LargestMessageIsAcceptedOneByteMoreIsNot) {
    Intake intake = dataLink();
    const Bytes first(kMaxPacketSize - kFragmentHeaderSize, 0x5a);
    EXPECT_EQ(feed(intake, fragment(kMaxMessageSize, 0, first)), Step::More);
    Intake other = dataLink();
    EXPECT_EQ(feed(other, fragment(kMaxMessageSize + 1, 0, first)), Step::Malformed);
}

TEST(LmxIntake, FragmentViolationsAreMalformed) {
    struct Case {
        const char* what;
        std::vector<Bytes> packets;  // the last one must be refused
    };
    const Bytes two = {1, 2};
    const std::vector<Case> cases = {
        {"header only", {fragment(4, 0, {})}},
        {"shorter than a header", {Bytes{4, 0, 0}}},
        {"total below a message number", {fragment(3, 0, {1, 2, 3})}},
        {"first fragment not at 0", {fragment(8, 2, two)}},
        {"payload beyond total", {fragment(4, 0, {1, 2, 3, 4, 5})}},
        {"gap", {fragment(8, 0, two), fragment(8, 4, two)}},
        {"overlap", {fragment(8, 0, two), fragment(8, 1, two)}},
        {"total changes", {fragment(8, 0, two), fragment(9, 2, two)}},
        {"continuation beyond total", {fragment(8, 0, two), fragment(8, 2, Bytes(7, 1))}},
        {"oversized packet",
         {fragment(kMaxMessageSize, 0, Bytes(kMaxPacketSize - kFragmentHeaderSize + 1, 1))}},
    };
    for (const Case& c : cases) {
        Intake intake = dataLink();
        for (size_t i = 0; i + 1 < c.packets.size(); ++i) {
            ASSERT_EQ(feed(intake, c.packets[i]), Step::More) << c.what;
        }
        EXPECT_EQ(feed(intake, c.packets.back()), Step::Malformed) << c.what;
        EXPECT_EQ(intake.takeMessage(), nullptr) << c.what;
    }
}
