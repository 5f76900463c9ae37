// Arbitrary text as the cache dump a mailbox peer answered `solicctl status` with: the parser
// reads it or refuses it with an offset, never reading past its end; what it reads prints (status
// text and JSON) without fault, and prints again into a text that reads back the same.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "SolTypesParse.h"
#include "StatusView.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size copy: one byte read too far is caught.
    std::string text(reinterpret_cast<const char*>(data), size);
    solicd::SolCacheText cache;
    std::string error;
    if (!solicd::solParseCacheText(std::string_view(text.data(), size), cache, error)) {
        if (error.rfind("at offset ", 0) != 0) {
            __builtin_trap();  // a refusal says where
        }
        return 0;
    }
    const std::string shown =
        solicd::ctl::statusText("fuzz", cache, 1764064800, true) + solicd::ctl::statusJson("fuzz", cache);
    const std::string again = solicd::solCacheTextOf(cache);
    solicd::SolCacheText reread;
    if (!solicd::solParseCacheText(again, reread, error) || solicd::solCacheTextOf(reread) != again ||
        shown.empty()) {
        __builtin_trap();
    }
    return 0;
}
