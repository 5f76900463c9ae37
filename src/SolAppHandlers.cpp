// The handlers the main loop calls for RA packets, cache-entry expiry and client messages.
#include "SolApp.h"
#include "TraceLog.h"

namespace solicd::SolApp {

void Logic::handleRaSocketEvent() {
    SocketMgr::Message message;
    if (m_data->getSocketMgr().receive(message) != 0) {
        SOL_FATAL("handleRaSocketEvent", "GenIf::receive()");
    }
    if (message.m_state != SocketMgr::Message::MSG_STATE_RX_OK) {
        SOL_TRACE(ERROR, "GENERAL", "handleRaSocketEvent",
                  "[%s] Something went wrong on RA receiving, RX socket state is %s", getTraceTag(),
                  messageStateToStr(message.m_state).c_str());
        return;
    }
    // Not yet: parsing into records, cache pushes with their timers, relations and forwarding.
}

void Logic::handleCacheExpiredEvent(uint32_t type, const std::string& name) {
    bool changed = false;
    uint32_t timeout = 0;
    CacheMgr& cache = m_data->getCacheMgr();
    switch (type) {
        case CacheTimeout::TYPE_ROUTER:
            cache.notifyTimeoutExpiresAndGetEntry(&changed, &timeout, name, RouterKind{});
            break;
        case CacheTimeout::TYPE_NETWORK:
            cache.notifyTimeoutExpiresAndGetEntry(&changed, &timeout, name, NetworkKind{});
            break;
        case CacheTimeout::TYPE_DNS_SERVER:
            cache.notifyTimeoutExpiresAndGetEntry(&changed, &timeout, name, DnsServerKind{});
            break;
        default:
            return;
    }
    applyTimeoutAction(name, type, timeout);
    // Not yet: forwarding the entry's new state to the client.
}

bool Logic::readyForLmxNotify(bool dataUpdated) {
    const bool isLmxNotify = m_data->getLmxMgr().getDstMboxState() == LmxMgr::DST_MBOX_STATE_CONNECTED;
    const bool ready = isLmxNotify && dataUpdated;
    if (!ready) {
        SOL_TRACE(LAB, "GENERAL", "readyForLmxNotify",
                  "[%s] RA state change was not forwarded. isLmxNotify: %s, dataUpdated: %s", getTraceTag(),
                  isLmxNotify ? "true" : "false", dataUpdated ? "true" : "false");
    }
    return ready;
}

void Logic::handleLmxEvent() {
    LmxMgr::Message message;
    if (m_data->getLmxMgr().receive(message) == 1) {
        if (message.getRxType() == LmxMgr::RX_TYPE_INTERNAL) {
            SOL_FATAL("handleLmxEvent", "Internal LMX initialization failed");
        }
        if (message.getRxType() == LmxMgr::RX_TYPE_NO_MSG) {
            return;
        }
    }
    // Not yet: the connection check with the cache push, and the routers and show-cache requests.
}

void Logic::sendRaCacheToLmxClient() {
    // Not yet: the whole cache as router, network and DNS-server indications.
}

void Logic::sendShowRainfoToLmxClient(const LmxMgr::Message& /*request*/) {
    // Not yet: the show-cache text answered to the request's sender.
}

}  // namespace solicd::SolApp
