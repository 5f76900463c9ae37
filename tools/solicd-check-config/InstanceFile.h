// The settings file of one systemd instance, /etc/solicd/NAME.conf: read as systemd reads an
// EnvironmentFile=, then checked for what can never start (an unknown setting, a name no
// interface, namespace or mailbox can have), so that the unit refuses it once instead of
// restarting for ever. What may still come right by itself (a namespace or an interface that
// does not exist yet) is not looked at.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace solicd::instance {

// One line of the file as systemd reads it: KEY=value, or words without '=' (which systemd
// drops without a word).
struct Entry {
    unsigned line = 0;  // where the key starts, from 1
    std::string key;
    std::string value;
    bool isAssignment = false;
};

// systemd's reading of an environment file: '#' or ';' first on a line makes a comment; blanks
// around the key and before the value are dropped, trailing blanks of an unquoted value too;
// '...' and "..." quote (in "...", a backslash keeps its meaning only before " \ ` $ and the end
// of a line); a backslash outside quotes takes the next character as it is and joins lines; the
// rest of the line after '=' is the value, '#' included.
std::vector<Entry> readEnvironmentFile(std::string_view text);

// A mistake on `line`, or in the file as a whole when `line` is 0.
struct Mistake {
    unsigned line = 0;
    std::string text;
    bool operator==(const Mistake&) const = default;
};

// The mistakes of an instance file, in line order, those of the whole file last; none for a
// file the unit can start with.
std::vector<Mistake> check(std::string_view text);

// The settings an instance file may hold, in the order the messages name them.
inline constexpr const char* kSettings[] = {"NAMESPACE", "INTERFACE", "SOURCE", "DESTINATION"};

}  // namespace solicd::instance
