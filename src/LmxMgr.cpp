#include "LmxMgr.h"

#include <cerrno>
#include <cstring>

#include "CacheMgr.h"
#include "SolIf.h"
#include "TraceLog.h"
#include "lmx.h"

namespace solicd {
namespace {

constexpr uint32_t kNoPeer = 0xffffffff;
constexpr unsigned kMailboxCount = 1;

uint32_t msgNoOf(const void* buffer) {
    uint32_t msgNo;
    std::memcpy(&msgNo, buffer, sizeof msgNo);
    return msgNo;
}

const char* dstMboxStateCstr(uint32_t state) {
    switch (state) {
        case LmxMgr::DST_MBOX_STATE_NOT_SET:
            return "DST_MBOX_STATE_NOT_SET";
        case LmxMgr::DST_MBOX_STATE_CONNECTING:
            return "DST_MBOX_STATE_CONNECTING";
        case LmxMgr::DST_MBOX_STATE_CONNECTED:
            return "DST_MBOX_STATE_CONNECTED";
        default:
            return "UNKNOWN";
    }
}

std::string stateText(uint32_t state) {
    std::ostringstream os;
    printDstMboxState(os, state);
    return os.str();
}

// A fresh buffer of `size` bytes for message `msgNo` in `data`; null (traced) when the service
// refuses that size.
template <class Layout>
Layout* allocate(LmxMgrMessageData& data, size_t size, uint32_t msgNo, const char* function) {
    data.m_buffer = lmx_alloc(size, msgNo);
    if (data.m_buffer == nullptr) {
        SOL_TRACE(ERROR, "GENERAL", function, "[%s] Failed to allocate %zu bytes for %s", getTraceTag(), size,
                  solifMsgNoToCstr(msgNo));
    }
    return static_cast<Layout*>(data.m_buffer);
}

// Config and status data of a record into a layout (an indication or a list entry). The padding
// between them stays as lmx_alloc left it.
template <class Layout, class Record>
void writeRecord(Layout& layout, const Record& record) {
    std::memcpy(&layout.config, &record.m_config.data(), sizeof layout.config);
    std::memcpy(&layout.status, &record.m_status.data(), sizeof layout.status);
}

const SolDnsServer& dnsServerOf(const SolDnsServer& server) {
    return server;
}
const SolDnsServer& dnsServerOf(const DnsServerEntry* entry) {
    return *entry;
}

template <class List>
void fillDnsServers(LmxMgr::Message& message, const List& servers) {
    message.reset();
    const auto count = static_cast<uint32_t>(servers.size());
    auto* msg =
        allocate<solif_dns_server_updated_ind_t>(message.m_data, solifDnsServerUpdatedIndSize(count),
                                                 SOLIF_DNS_SERVER_UPDATED_IND, "setTxDnsServersUpdatedInd");
    if (msg == nullptr) {
        return;
    }
    msg->count = count;
    size_t index = 0;
    for (const auto& server : servers) {
        writeRecord(*solifEntry(*msg, index++), dnsServerOf(server));
    }
}

const char* peerText(uint32_t peer, uint32_t dstId, const char* subscriber, const char* other) {
    return peer != kNoPeer && peer == dstId ? subscriber : other;
}

}  // namespace

// ---- Message ----

LmxMgrMessageData::~LmxMgrMessageData() {
    if (m_buffer != nullptr) {
        lmx_free(m_buffer);
    }
}

LmxMgr::RxType LmxMgr::Message::getRxType() const {
    if (m_data.m_buffer == nullptr) {
        return RX_TYPE_NO_MSG;
    }
    switch (msgNoOf(m_data.m_buffer)) {
        case LMX_LOCATE_DEFAULT_NO:
        case LMX_MONITOR_DEFAULT_NO:
            return RX_TYPE_INTERNAL;
        case SOLIF_GET_ROUTERS_REQ:
            return RX_TYPE_ROUTERS_REQ;
        case SOLIF_SHOW_RAINFO_REQ:
            return RX_TYPE_CLICMD_SHOW_CACHE_REQ;
        case SOLIF_HEALTH_REQ:
            return RX_TYPE_HEALTH_REQ;
        default:
            return RX_TYPE_UNKNOWN;
    }
}

void LmxMgr::Message::setTxRouterUpdatedInd(const SolRouter& router) {
    reset();
    auto* msg = allocate<solif_router_updated_ind_t>(m_data, sizeof(solif_router_updated_ind_t),
                                                     SOLIF_ROUTER_UPDATED_IND, "setTxRouterUpdatedInd");
    if (msg != nullptr) {
        writeRecord(*msg, router);
    }
}

void LmxMgr::Message::setTxNetworkUpdatedInd(const SolNetwork& network) {
    reset();
    auto* msg = allocate<solif_network_updated_ind_t>(m_data, sizeof(solif_network_updated_ind_t),
                                                      SOLIF_NETWORK_UPDATED_IND, "setTxNetworkUpdatedInd");
    if (msg != nullptr) {
        writeRecord(*msg, network);
    }
}

void LmxMgr::Message::setTxDnsServersUpdatedInd(const std::list<SolDnsServer>& servers) {
    fillDnsServers(*this, servers);
}

void LmxMgr::Message::setTxDnsServersUpdatedInd(const std::list<DnsServerEntry*>& servers) {
    fillDnsServers(*this, servers);
}

void LmxMgr::Message::setTxGetRoutersCfm(uint32_t count) {
    reset();
    auto* msg = allocate<solif_get_routers_cfm_t>(m_data, solifGetRoutersCfmSize(count),
                                                  SOLIF_GET_ROUTERS_CFM, "setTxGetRoutersCfm");
    if (msg != nullptr) {
        msg->count = count;
    }
}

void LmxMgr::Message::setTxGetRoutersCfmPush(const SolRouter& router) {
    const char* held = "null";
    uint32_t capacity = 0;
    if (m_data.m_buffer != nullptr) {
        held = "unexpected";
        if (msgNoOf(m_data.m_buffer) == SOLIF_GET_ROUTERS_CFM) {
            auto* msg = static_cast<solif_get_routers_cfm_t*>(m_data.m_buffer);
            if (m_data.m_appendIndex < msg->count) {
                writeRecord(*solifEntry(*msg, m_data.m_appendIndex++), router);
                return;
            }
            held = "getRouterCfm";
            capacity = msg->count;
        }
    }
    SOL_TRACE(
        ERROR, "GENERAL", "setTxGetRoutersCfmPush",
        "[%s] Failed to append router with id %d into %s message memory is allocated for %d routers only",
        getTraceTag(), static_cast<int>(router.m_status.id), held, static_cast<int>(capacity));
}

namespace {

// A text answer (the cache dump, the health document): the text with its NUL, cut to what the
// service carries, and one more NUL.
void textAnswer(LmxMgrMessageData& data, uint32_t msgNo, const char* fn, const std::string& text) {
    const size_t maxSize = lmx_get_max_size();
    const size_t limit = maxSize > kSolifShowRainfoOverhead ? maxSize - kSolifShowRainfoOverhead : 0;
    size_t size = text.size() + 1;
    if (size > limit) {
        SOL_TRACE(
            INFO, "GENERAL", fn,
            "[%s] Attemp to send texts with size %u, which overflows max size %u, so truncated %u bytes",
            getTraceTag(), static_cast<unsigned>(size), static_cast<unsigned>(limit),
            static_cast<unsigned>(size - limit));
        size = limit;
    }
    const auto textSize = static_cast<uint32_t>(size);
    auto* msg = allocate<solif_show_rainfo_cfm_t>(data, solifShowRainfoCfmSize(textSize), msgNo, fn);
    if (msg == nullptr) {
        return;
    }
    msg->size = textSize;
    std::memcpy(msg->text, text.c_str(), size);
    msg->text[size] = '\0';
}

}  // namespace

void LmxMgr::Message::setTxShowRainfoCfm(const std::string& text) {
    reset();
    textAnswer(m_data, SOLIF_SHOW_RAINFO_CFM, "setTxShowRainfoCfm", text);
}

void LmxMgr::Message::setTxHealthCfm(const std::string& text) {
    reset();
    textAnswer(m_data, SOLIF_HEALTH_CFM, "setTxHealthCfm", text);
}

void LmxMgr::Message::reset() {
    if (m_data.m_buffer != nullptr) {
        lmx_free(m_data.m_buffer);
        m_data.m_buffer = nullptr;
    }
    m_data.m_appendIndex = 0;
    m_data.m_peer = kNoPeer;
}

std::ostream& operator<<(std::ostream& os, const LmxMgr::Message& message) {
    const void* buffer = message.m_data.m_buffer;
    if (buffer == nullptr) {
        return os << "{}";
    }
    // A received message is printed by its layout only when it really holds that layout.
    if (solifPrint(os, buffer, lmx_size(buffer))) {
        return os;
    }
    const uint32_t msgNo = msgNoOf(buffer);
    const char* name = msgNo == LMX_LOCATE_DEFAULT_NO    ? "LMX_LOCATE_DEFAULT_NO"
                       : msgNo == LMX_MONITOR_DEFAULT_NO ? "LMX_MONITOR_DEFAULT_NO"
                                                         : solifMsgNoToCstr(msgNo);
    return os << "{msg_no_txt: " << name << " , msg_no: " << msgNo << "}";
}

// ---- Link ----

std::ostream& printDstMboxState(std::ostream& os, uint32_t state) {
    return os << "{ no: " << state << ", txt: " << dstMboxStateCstr(state) << "}";
}

LmxMgr::~LmxMgr() {
    if (m_mbox.monitorId != 0) {
        lmx_unmonitor(m_mbox.monitorId);
    }
    if (m_mbox.srcId != LMX_INVALID_ID) {
        lmx_delete_mailbox(m_mbox.srcId);
    }
    if (m_mbox.initialised) {
        lmx_exit();
    }
}

int LmxMgr::getFd() {
    return lmx_get_fd();
}

uint32_t LmxMgr::getDstMboxState() const {
    return m_dstState;
}

uint32_t LmxMgr::init(const std::string& srcMbox, const std::string& dstMbox) {
    if (m_mbox.initialised) {
        SOL_TRACE(ERROR, "GENERAL", "init", "[%s] Invalid attemp to initilize LMX mananger second time",
                  getTraceTag());
        return 1;
    }
    m_srcMbox = srcMbox;
    m_dstMbox = dstMbox;
    if (m_srcMbox.empty() || lmx_init(kMailboxCount, nullptr) != 0) {
        SOL_TRACE(ERROR, "GENERAL", "init", "[%s] Failed to initilize LMX mailbox, srcMbox:[%s]",
                  getTraceTag(), m_srcMbox.c_str());
        return 1;
    }
    m_mbox.initialised = true;
    m_mbox.srcId = lmx_create_mailbox(m_srcMbox.c_str(), 0);
    if (m_mbox.srcId == LMX_INVALID_ID) {
        SOL_TRACE(ERROR, "GENERAL", "init", "[%s] Failed to create LMX mailbox, srcMbox:[%s]", getTraceTag(),
                  m_srcMbox.c_str());
        return 1;
    }
    if (m_dstMbox.empty()) {
        return 0;
    }
    return postDstMboxEvent("OrderConnect", DST_MBOX_STATE_NOT_SET, DST_MBOX_STATE_CONNECTING,
                            &LmxMgr::actionLocateDstMbox);
}

uint32_t LmxMgr::postDstMboxEvent(const char* event, uint32_t allowedStates, uint32_t nextState,
                                  Action action) {
    if ((m_dstState & allowedStates) == 0) {
        SOL_TRACE(ERROR, "GENERAL", "postDstMboxEvent", "[%s] Event %s is not expected in state %s",
                  getTraceTag(), event, stateText(m_dstState).c_str());
        return 1;
    }
    const uint32_t oldState = m_dstState;
    SOL_TRACE(INFO, "GENERAL", "postDstMboxEvent", "[%s] Changing dstMbox '%s' state: '%s' -> '%s'",
              getTraceTag(), m_dstMbox.c_str(), stateText(oldState).c_str(), stateText(nextState).c_str());
    // Set before the action runs, so that an action can post a further event.
    m_dstState = nextState;
    const uint32_t result = (this->*action)();
    if (result != 0) {
        m_dstState = oldState;
    }
    return result;
}

uint32_t LmxMgr::actionLocateDstMbox() {
    if (lmx_locate_async(m_dstMbox.c_str(), nullptr, LMX_LOCATE_SENDER) != 0) {
        const int error = errno;
        SOL_TRACE(ERROR, "GENERAL", "actionLocateDstMbox",
                  "[%s] Failed to request locating dstMbox with name: '%s', errno: %d(%s)", getTraceTag(),
                  m_dstMbox.c_str(), error, std::strerror(error));
    }
    SOL_TRACE(LAB, "GENERAL", "actionLocateDstMbox", "[%s] ACTION: locating dstMbox with name: '%s'",
              getTraceTag(), m_dstMbox.c_str());
    return 0;
}

uint32_t LmxMgr::actionGetIdAndMonitorDstMbox() {
    const lmx_mbox_id_t id = lmx_locate(m_dstMbox.c_str());
    if (id == LMX_INVALID_ID) {
        SOL_TRACE(ERROR, "GENERAL", "actionGetIdAndMonitorDstMbox",
                  "[%s] DstMbox with name:'%s' is up, but cannot  find mbox ID", getTraceTag(),
                  m_dstMbox.c_str());
        return 1;
    }
    m_mbox.dstId = id;
    SOL_TRACE(LAB, "GENERAL", "actionGetIdAndMonitorDstMbox",
              "[%s] ACTION: found ID: %d for dstMbox with name: '%s'", getTraceTag(), static_cast<int>(id),
              m_dstMbox.c_str());
    m_mbox.monitorId = lmx_monitor(id, nullptr);
    if (m_mbox.monitorId == 0) {
        SOL_TRACE(ERROR, "GENERAL", "actionGetIdAndMonitorDstMbox",
                  "[%s] Mbox dstMbox:[%s] monitoring is failed", getTraceTag(), m_dstMbox.c_str());
        return 1;
    }
    SOL_TRACE(LAB, "GENERAL", "actionGetIdAndMonitorDstMbox",
              "[%s] ACTION: start monitoring for dstMbox with name: '%s'", getTraceTag(), m_dstMbox.c_str());
    return 0;
}

uint32_t LmxMgr::actionUnsetDstMbox() {
    if (m_mbox.monitorId != 0) {
        lmx_unmonitor(m_mbox.monitorId);
    }
    m_mbox.dstId = LMX_INVALID_ID;
    m_mbox.monitorId = 0;
    SOL_TRACE(LAB, "GENERAL", "actionUnsetDstMbox", "[%s] ACTION: unset dstMbox with name: '%s'",
              getTraceTag(), m_dstMbox.c_str());
    if (m_dstMbox.empty()) {
        return 0;
    }
    // Wait for the subscriber to come back at once.
    return postDstMboxEvent("OrderConnect", DST_MBOX_STATE_NOT_SET, DST_MBOX_STATE_CONNECTING,
                            &LmxMgr::actionLocateDstMbox);
}

uint32_t LmxMgr::receive(Message& message) {
    message.reset();
    void* buffer = lmx_receive(nullptr, 0, LMX_ANY_SENDER);
    if (buffer == nullptr) {
        const int error = errno;
        if (error == ETIMEDOUT) {
            SOL_TRACE(INFO, "GENERAL", "receive", "[%s] LMX time travel detected", getTraceTag());
        } else {
            SOL_TRACE(EXCEPTION, "GENERAL", "receive", "[%s] Empty message received on %s, errno: %d(%s)",
                      getTraceTag(), m_srcMbox.c_str(), error, std::strerror(error));
        }
        return 1;
    }
    message.m_data.m_buffer = buffer;
    message.m_data.m_peer = lmx_sender(buffer);
    SOL_TRACE(LAB, "GENERAL", "receive", "[%s] Received message from %d%s, msg:%s", getTraceTag(),
              static_cast<int>(message.m_data.m_peer),
              peerText(message.m_data.m_peer, m_mbox.dstId, " (subscriber)", "(other client)"),
              toStr(message).c_str());
    switch (msgNoOf(buffer)) {
        case LMX_LOCATE_DEFAULT_NO:
            return postDstMboxEvent("Located", DST_MBOX_STATE_CONNECTING, DST_MBOX_STATE_CONNECTED,
                                    &LmxMgr::actionGetIdAndMonitorDstMbox);
        case LMX_MONITOR_DEFAULT_NO:
            return postDstMboxEvent("OrderDisconnect", DST_MBOX_STATE_CONNECTED, DST_MBOX_STATE_NOT_SET,
                                    &LmxMgr::actionUnsetDstMbox);
        default:
            return 0;
    }
}

void LmxMgr::send(Message& message, uint32_t to, const char* function) {
    // The service owns the buffer from here on, whether the send succeeds or not. A peer that
    // refuses it has just died or stalled: its death notice (subscriber) or its own timeout
    // (requester) follows, and a subscriber gets the whole cache when it comes back. So a lost
    // message is traced here, never fatal to the daemon.
    void* buffer = message.m_data.m_buffer;
    message.m_data.m_buffer = nullptr;
    if (lmx_send(buffer, to, m_mbox.srcId) != 0) {
        const int error = errno;
        SOL_TRACE(ERROR, "GENERAL", function, "[%s] Failed to send message to %d, errno: %d(%s)",
                  getTraceTag(), static_cast<int>(to), error, std::strerror(error));
    }
}

uint32_t LmxMgr::notify(Message& message) {
    if (m_dstState != DST_MBOX_STATE_CONNECTED || message.m_data.m_buffer == nullptr) {
        // The own mailbox name, not the destination's: this is how operators find the daemon.
        SOL_TRACE(ERROR, "GENERAL", "notify", "[%s] Unable to notify %s, state %s. Reason: %s", getTraceTag(),
                  m_srcMbox.c_str(), stateText(m_dstState).c_str(),
                  message.m_data.m_buffer == nullptr ? "message not set" : "not connected");
        return 1;
    }
    SOL_TRACE(LAB, "GENERAL", "notify", "[%s] Send message to %d (subscriber), msg:%s", getTraceTag(),
              static_cast<int>(m_mbox.dstId), toStr(message).c_str());
    send(message, m_mbox.dstId, "notify");
    return 0;
}

uint32_t LmxMgr::respond(const Message& request, Message& answer) {
    const uint32_t peer = request.m_data.m_peer;
    if (answer.m_data.m_buffer == nullptr) {
        SOL_TRACE(ERROR, "GENERAL", "respond", "[%s] Unable to respond to %d. Reason: message not set",
                  getTraceTag(), static_cast<int>(peer));
        return 1;
    }
    SOL_TRACE(LAB, "GENERAL", "respond", "[%s] Send message to %d %s, msg:%s", getTraceTag(),
              static_cast<int>(peer), peerText(peer, m_mbox.dstId, "(subscriber)", "(other client)"),
              toStr(answer).c_str());
    send(answer, peer, "respond");
    return 0;
}

}  // namespace solicd
