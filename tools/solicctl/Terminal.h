// Whether solicctl colours its output, and the few styles it uses.
#pragma once

#include <string>

namespace solicd::ctl {

// Colour only on a terminal, never with NO_COLOR set (to anything but the empty string) and
// never on a terminal that says it cannot show it (TERM=dumb). `noColor` and `term` are the
// variables' values, null when unset.
bool colourWanted(bool isTerminal, const char* noColor, const char* term);

// colourWanted() for this process's standard output.
bool colourForStdout();

enum class Tone { Plain, Heading, Dim, Good, Warn, Bad };

// `text` in `tone` when `colour`, else `text` as it is.
std::string paint(const std::string& text, Tone tone, bool colour);

}  // namespace solicd::ctl
