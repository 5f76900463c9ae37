#include "Terminal.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace solicd::ctl {

bool colourWanted(bool isTerminal, const char* noColor, const char* term) {
    const bool noColorSet = noColor != nullptr && noColor[0] != '\0';
    const bool dumb = term != nullptr && std::strcmp(term, "dumb") == 0;
    return isTerminal && !noColorSet && !dumb;
}

bool colourForStdout() {
    return colourWanted(isatty(STDOUT_FILENO) == 1, std::getenv("NO_COLOR"), std::getenv("TERM"));
}

std::string paint(const std::string& text, Tone tone, bool colour) {
    if (!colour || tone == Tone::Plain) {
        return text;
    }
    const char* start = "";
    switch (tone) {
        case Tone::Plain:
            break;
        case Tone::Heading:
            start = "\033[1m";
            break;
        case Tone::Dim:
            start = "\033[2m";
            break;
        case Tone::Good:
            start = "\033[32m";
            break;
        case Tone::Warn:
            start = "\033[33m";
            break;
        case Tone::Bad:
            start = "\033[31m";
            break;
    }
    return start + text + "\033[0m";
}

}  // namespace solicd::ctl
