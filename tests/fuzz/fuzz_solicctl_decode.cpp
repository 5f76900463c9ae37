// Arbitrary bytes as a message solicctl received: the size checks must hold every read inside
// the message, and whatever decodes must print (text, JSON, the short watch line, structure form)
// without fault.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>

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
    return 0;
}
