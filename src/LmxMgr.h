// The daemon's side of the link to its client: its own mailbox, and the tracking of one
// subscriber mailbox through NOT_SET, CONNECTING and CONNECTED.
#pragma once

#include <cstdint>
#include <list>
#include <ostream>
#include <string>

#include "SolTypes.h"

namespace solicd {

class DnsServerEntry;

// Owns one mailbox-service message buffer.
class LmxMgrMessageData {
public:
    LmxMgrMessageData() = default;
    virtual ~LmxMgrMessageData();
    LmxMgrMessageData(const LmxMgrMessageData&) = delete;
    LmxMgrMessageData& operator=(const LmxMgrMessageData&) = delete;

    void* m_buffer = nullptr;
    uint32_t m_appendIndex = 0;  // routers already appended to a routers confirm
    uint32_t m_peer = 0xffffffff;
};

class LmxMgr {
public:
    enum DstMboxState : uint32_t {
        DST_MBOX_STATE_NOT_SET = 2,
        DST_MBOX_STATE_CONNECTING = 4,
        DST_MBOX_STATE_CONNECTED = 8,
    };

    enum RxType : uint32_t {
        RX_TYPE_NO_MSG = 0,
        RX_TYPE_INTERNAL = 1,
        RX_TYPE_ROUTERS_REQ = 2,
        RX_TYPE_CLICMD_SHOW_CACHE_REQ = 3,
        RX_TYPE_UNKNOWN = 4,
        RX_TYPE_HEALTH_REQ = 5,
    };

    class Message {
    public:
        Message() = default;
        virtual ~Message() = default;

        virtual RxType getRxType() const;
        virtual void setTxRouterUpdatedInd(const SolRouter& router);
        virtual void setTxNetworkUpdatedInd(const SolNetwork& network);
        virtual void setTxDnsServersUpdatedInd(const std::list<SolDnsServer>& servers);
        virtual void setTxDnsServersUpdatedInd(const std::list<DnsServerEntry*>& servers);
        virtual void setTxGetRoutersCfm(uint32_t count);
        virtual void setTxGetRoutersCfmPush(const SolRouter& router);
        virtual void setTxShowRainfoCfm(const std::string& text);
        virtual void setTxHealthCfm(const std::string& text);
        virtual void reset();

        LmxMgrMessageData m_data;
    };

    LmxMgr() = default;
    virtual ~LmxMgr();
    LmxMgr(const LmxMgr&) = delete;
    LmxMgr& operator=(const LmxMgr&) = delete;

    virtual int getFd();
    virtual uint32_t init(const std::string& srcMbox, const std::string& dstMbox);
    virtual uint32_t getDstMboxState() const;
    virtual uint32_t receive(Message& message);
    virtual uint32_t notify(Message& message);
    virtual uint32_t respond(const Message& request, Message& answer);

private:
    struct MboxData {
        uint32_t srcId = 0xffffffff;
        uint32_t dstId = 0xffffffff;
        uint32_t monitorId = 0;
        bool initialised = false;
    };

    using Action = uint32_t (LmxMgr::*)();
    uint32_t postDstMboxEvent(const char* event, uint32_t allowedStates, uint32_t nextState, Action action);
    uint32_t actionLocateDstMbox();
    uint32_t actionGetIdAndMonitorDstMbox();
    uint32_t actionUnsetDstMbox();
    void send(Message& message, uint32_t to, const char* function);

    MboxData m_mbox;
    uint32_t m_dstState = DST_MBOX_STATE_NOT_SET;
    std::string m_srcMbox;
    std::string m_dstMbox;
};

// "{ no: 8, txt: DST_MBOX_STATE_CONNECTED}"; "UNKNOWN" for a value without a name.
std::ostream& printDstMboxState(std::ostream& os, uint32_t state);
std::ostream& operator<<(std::ostream& os, const LmxMgr::Message& message);

}  // namespace solicd
