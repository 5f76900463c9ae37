// Arbitrary bytes as a message solicctl received: the size checks must hold every read inside
// the message, and whatever decodes must print (text, JSON, the short watch line, structure form,
// and a health document taken as whole, for people and as metrics) without fault.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>

#include "HealthView.h"
#include "SolIf.h"
#include "SolicctlOutput.h"
#include "WatchLines.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size, malloc-aligned copy, as the mailbox service hands out: one byte too far is caught.
    std::unique_ptr<unsigned char[]> msg(new unsigned char[size]);
    if (size != 0) {
        std::memcpy(msg.get(), data, size);
    }
    solicd::SolifMessage decoded;
    std::string error;
    const bool fits = solicd::solifFits(msg.get(), size);
    if (solicd::solifDecode(msg.get(), size, decoded, error) != 0) {
        if (fits || error.empty()) {
            __builtin_trap();  // a refusal must agree with the size check and say why
        }
        return 0;
    }
    if (!fits) {
        __builtin_trap();
    }
    std::ostringstream os;
    solicd::solifPrint(os, msg.get(), size);
    if (solicd::ctl::kindOf(decoded.msgNo) != nullptr) {
        os << solicd::ctl::jsonLine(decoded);
        for (const auto& line : solicd::ctl::textLines(decoded)) {
            os << line;
        }
        os << solicd::ctl::watchLine(decoded, 0, true);
    }
    os << solicd::ctl::showText(decoded);
    // A health document solicctl takes as whole must show, for people and for scrapers.
    solicd::ctl::HealthDocument health;
    if (decoded.msgNo == SOLIF_HEALTH_CFM && !decoded.textCut &&
        solicd::ctl::readHealth(decoded.text, health, error)) {
        os << solicd::ctl::healthText("solicd", health, 0, true)
           << solicd::ctl::metricsText(health, solicd::SolCacheText{}, 0);
    }
    return 0;
}
