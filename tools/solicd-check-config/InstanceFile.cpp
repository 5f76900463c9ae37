#include "InstanceFile.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>
#include <optional>

#include "SolIf.h"
#include "lmx_wire.h"

namespace solicd::instance {
namespace {

constexpr std::string_view kBlanks = " \t\n\r";
constexpr std::string_view kLineEnds = "\n\r";
constexpr std::string_view kCommentStarts = "#;";
// Inside "...", a backslash quotes these and is dropped; before anything else it stays.
constexpr std::string_view kDoubleQuoteEscapes = "\"\\`$";

// The most the kernel keeps of an interface name (IFNAMSIZ less its terminator), and of a file
// name, which a namespace name is (NAME_MAX).
constexpr size_t kInterfaceNameMax = 15;
constexpr size_t kNamespaceNameMax = 255;

constexpr const char* kNamespace = "NAMESPACE";
constexpr const char* kInterface = "INTERFACE";
constexpr const char* kSource = "SOURCE";
constexpr const char* kDestination = "DESTINATION";

constexpr const char* kMailboxRule = "1 to 100 of A-Z a-z 0-9 . _ -, not starting with '.'";
constexpr const char* kSetInterface = "set it to the interface to listen on, as `ip link` shows it";

bool isOneOf(char c, std::string_view set) {
    return set.find(c) != std::string_view::npos;
}

// Reads the file character by character, as systemd does; the states are systemd's.
class Reader {
public:
    std::vector<Entry> read(std::string_view text) {
        for (const char c : text) {
            step(c);
            if (c == '\n') {
                ++m_line;
            }
        }
        switch (m_state) {
            case State::Key:
                emitStray();
                break;
            case State::PreValue:
            case State::Value:
            case State::ValueEscape:
            case State::SingleQuote:
            case State::DoubleQuote:
            case State::DoubleQuoteEscape:
                emitAssignment();
                break;
            default:
                break;
        }
        return std::move(m_entries);
    }

private:
    enum class State {
        PreKey,
        Key,
        PreValue,
        Value,
        ValueEscape,
        SingleQuote,
        DoubleQuote,
        DoubleQuoteEscape,
        Comment,
        CommentEscape,
    };

    void step(char c) {
        switch (m_state) {
            case State::PreKey:
                if (isOneOf(c, kCommentStarts)) {
                    m_state = State::Comment;
                } else if (!isOneOf(c, kBlanks)) {
                    m_state = State::Key;
                    m_keyLine = m_line;
                    m_key.assign(1, c);
                }
                break;
            case State::Key:
                if (isOneOf(c, kLineEnds)) {
                    emitStray();
                } else if (c == '=') {
                    m_state = State::PreValue;
                } else {
                    m_key += c;
                }
                break;
            case State::PreValue:
                if (isOneOf(c, kLineEnds)) {
                    emitAssignment();
                } else if (c == '\'') {
                    m_state = State::SingleQuote;
                } else if (c == '"') {
                    m_state = State::DoubleQuote;
                } else if (c == '\\') {
                    m_state = State::ValueEscape;
                } else if (!isOneOf(c, kBlanks)) {
                    m_state = State::Value;
                    m_value += c;
                }
                break;
            case State::Value:
                if (isOneOf(c, kLineEnds)) {
                    emitAssignment();
                } else if (c == '\\') {
                    m_state = State::ValueEscape;
                    m_trailingBlanksFrom = std::string::npos;
                } else {
                    if (!isOneOf(c, kBlanks)) {
                        m_trailingBlanksFrom = std::string::npos;
                    } else if (m_trailingBlanksFrom == std::string::npos) {
                        m_trailingBlanksFrom = m_value.size();
                    }
                    m_value += c;
                }
                break;
            case State::ValueEscape:
                m_state = State::Value;
                // An escaped line end joins the lines.
                if (!isOneOf(c, kLineEnds)) {
                    m_value += c;
                }
                break;
            case State::SingleQuote:
                if (c == '\'') {
                    m_state = State::PreValue;
                } else {
                    m_value += c;
                }
                break;
            case State::DoubleQuote:
                if (c == '"') {
                    m_state = State::PreValue;
                } else if (c == '\\') {
                    m_state = State::DoubleQuoteEscape;
                } else {
                    m_value += c;
                }
                break;
            case State::DoubleQuoteEscape:
                m_state = State::DoubleQuote;
                if (isOneOf(c, kDoubleQuoteEscapes)) {
                    m_value += c;
                } else if (c != '\n') {
                    m_value += '\\';
                    m_value += c;
                }
                break;
            case State::Comment:
                if (c == '\\') {
                    m_state = State::CommentEscape;
                } else if (isOneOf(c, kLineEnds)) {
                    m_state = State::PreKey;
                }
                break;
            case State::CommentEscape:
                m_state = State::Comment;
                break;
        }
    }

    void emitStray() {
        m_entries.push_back({m_keyLine, trimmedKey(), {}, false});
        reset();
    }
    void emitAssignment() {
        if (m_state == State::Value && m_trailingBlanksFrom != std::string::npos) {
            m_value.erase(m_trailingBlanksFrom);
        }
        m_entries.push_back({m_keyLine, trimmedKey(), m_value, true});
        reset();
    }
    std::string trimmedKey() const {
        const size_t end = m_key.find_last_not_of(kBlanks);
        return end == std::string::npos ? std::string() : m_key.substr(0, end + 1);
    }
    void reset() {
        m_state = State::PreKey;
        m_key.clear();
        m_value.clear();
        m_trailingBlanksFrom = std::string::npos;
    }

    State m_state = State::PreKey;
    unsigned m_line = 1;
    unsigned m_keyLine = 1;
    std::string m_key;
    std::string m_value;
    size_t m_trailingBlanksFrom = std::string::npos;
    std::vector<Entry> m_entries;
};

bool isValidUtf8(std::string_view text) {
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        size_t length = 0;
        unsigned smallest = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        }
        if ((lead & 0xe0) == 0xc0) {
            length = 2;
            smallest = 0x80;
        } else if ((lead & 0xf0) == 0xe0) {
            length = 3;
            smallest = 0x800;
        } else if ((lead & 0xf8) == 0xf0) {
            length = 4;
            smallest = 0x10000;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        unsigned point = lead & (0x7fu >> length);
        for (size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xc0) != 0x80) {
                return false;
            }
            point = (point << 6) | (next & 0x3fu);
        }
        if (point < smallest || point > 0x10ffff || (point >= 0xd800 && point <= 0xdfff)) {
            return false;
        }
        i += length;
    }
    return true;
}

// A value as a message shows it: quoted, on one line, control characters as \xNN.
std::string shown(std::string_view value) {
    std::string out = "'";
    for (const char c : value) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(c));
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "'";
}

bool isKnownSetting(std::string_view key) {
    return std::any_of(std::begin(kSettings), std::end(kSettings), [key](const char* s) { return key == s; });
}

std::string settingsList() {
    return std::string(kSettings[0]) + ", " + kSettings[1] + ", " + kSettings[2] + " and " + kSettings[3];
}

// systemd takes the rest of the line as the value: "eth0  # uplink" is the value, not a comment.
bool holdsComment(std::string_view value) {
    for (size_t i = 1; i < value.size(); ++i) {
        if (value[i] == '#' && isOneOf(value[i - 1], " \t")) {
            return true;
        }
    }
    return false;
}

// Why no interface can have this name (the kernel's rule), or nothing.
std::optional<std::string> interfaceNameProblem(std::string_view name) {
    if (name.size() > kInterfaceNameMax) {
        return "is longer than 15 characters, the most the kernel keeps";
    }
    if (name == "." || name == "..") {
        return "is not a name an interface can have";
    }
    for (const char c : name) {
        if (c == '/' || c == ':') {
            return std::string("holds '") + c + "', which interface names never do";
        }
        if (isOneOf(c, " \t\n\v\f\r")) {
            return "holds a blank, which interface names never do";
        }
    }
    return std::nullopt;
}

// Why `ip netns` cannot name a namespace so, or nothing.
std::optional<std::string> namespaceNameProblem(std::string_view name) {
    if (name.size() > kNamespaceNameMax) {
        return "is longer than 255 bytes, the most a file name can be";
    }
    if (name == "." || name == "..") {
        return "is not a name a namespace can have";
    }
    if (name.find('/') != std::string_view::npos) {
        return "holds '/': name a file in /var/run/netns, as `ip netns list` shows";
    }
    return std::nullopt;
}

class Checker {
public:
    std::vector<Mistake> check(std::string_view text) {
        for (const Entry& entry : readEnvironmentFile(text)) {
            take(entry);
        }
        for (Setting& ns : m_settings[kNamespace]) {
            checkNamespace(ns);
        }
        checkInterface();
        for (const char* key : {kSource, kDestination}) {
            for (Setting& mailbox : m_settings[key]) {
                checkMailbox(key, mailbox);
            }
        }
        checkOwnMailbox();
        std::stable_sort(m_mistakes.begin(), m_mistakes.end(), [](const Mistake& a, const Mistake& b) {
            // The file as a whole (line 0) after every line.
            return a.line - 1 < b.line - 1;
        });
        return std::move(m_mistakes);
    }

private:
    struct Setting {
        unsigned line;
        std::string value;
        bool usable;  // no mistake found in it
    };

    void take(const Entry& entry) {
        if (!entry.isAssignment) {
            add(entry.line, shown(entry.key) + " is not a setting; write KEY=value");
            return;
        }
        if (!isValidUtf8(entry.key) || !isValidUtf8(entry.value)) {
            add(entry.line, shown(entry.key) +
                                " is not valid UTF-8, and systemd refuses the whole file for it; write "
                                "the line in UTF-8");
            return;
        }
        if (!isKnownSetting(entry.key)) {
            add(entry.line, "unknown setting " + shown(entry.key) + "; the settings are " + settingsList());
            return;
        }
        std::vector<Setting>& settings = m_settings[entry.key];
        if (!settings.empty()) {
            add(entry.line, entry.key + " is set again (also on line " +
                                std::to_string(settings.front().line) + "); keep one");
        }
        settings.push_back({entry.line, entry.value, true});
        if (holdsComment(entry.value)) {
            refuse(settings.back(), entry.key.c_str(),
                   "holds a comment, but systemd takes the whole rest of the line as the value; put the "
                   "comment on a line of its own");
        }
    }

    // The value systemd uses (the last one given), if it has no mistake; null otherwise.
    const Setting* effective(const char* key) const {
        const auto it = m_settings.find(key);
        return it == m_settings.end() || it->second.empty() || !it->second.back().usable ? nullptr
                                                                                         : &it->second.back();
    }
    bool isGiven(const char* key) const {
        const auto it = m_settings.find(key);
        return it != m_settings.end() && !it->second.empty();
    }

    void checkNamespace(Setting& ns) {
        if (!ns.usable || ns.value.empty()) {
            return;
        }
        if (const auto problem = namespaceNameProblem(ns.value)) {
            refuse(ns, kNamespace, *problem);
        }
    }

    void checkInterface() {
        if (!isGiven(kInterface)) {
            add(0, "INTERFACE is not set; " + std::string(kSetInterface));
            return;
        }
        for (Setting& interface : m_settings[kInterface]) {
            if (!interface.usable) {
                continue;
            }
            if (interface.value.empty()) {
                add(interface.line, "INTERFACE is empty; " + std::string(kSetInterface));
                interface.usable = false;
            } else if (const auto problem = interfaceNameProblem(interface.value)) {
                refuse(interface, kInterface, *problem + "; give the name `ip link` shows");
            }
        }
    }

    void checkMailbox(const char* key, Setting& mailbox) {
        if (mailbox.usable && !mailbox.value.empty() && !lmx::isValidName(mailbox.value)) {
            refuse(mailbox, key, std::string("is not a mailbox name: use ") + kMailboxRule);
        }
    }

    // solicd's own mailbox, given or made from NAMESPACE and INTERFACE as solicd makes it, must
    // be a name, and not the client's.
    void checkOwnMailbox() {
        const Setting* source = effective(kSource);
        if (isGiven(kSource) && source == nullptr) {
            return;  // its own mistake is reported
        }
        std::string own;
        if (source != nullptr && !source->value.empty()) {
            own = source->value;
        } else {
            const Setting* interface = effective(kInterface);
            const Setting* ns = effective(kNamespace);
            if (interface == nullptr || (isGiven(kNamespace) && ns == nullptr)) {
                return;
            }
            own = solifDefaultMailbox(ns != nullptr ? ns->value : std::string(), interface->value);
            if (!lmx::isValidName(own)) {
                add(source != nullptr ? source->line : 0,
                    std::string(source != nullptr ? "SOURCE is empty" : "SOURCE is not set") +
                        ", and the mailbox name solicd makes from NAMESPACE and INTERFACE, " + shown(own) +
                        ", is not a mailbox name; set SOURCE to a mailbox name (" + kMailboxRule + ")");
                return;
            }
        }
        const Setting* destination = effective(kDestination);
        if (destination != nullptr && destination->value == own) {
            add(destination->line, "DESTINATION " + shown(destination->value) +
                                       " is solicd's own mailbox (SOURCE); name the client's mailbox");
        }
    }

    void refuse(Setting& setting, const char* key, const std::string& problem) {
        add(setting.line, std::string(key) + " " + shown(setting.value) + " " + problem);
        setting.usable = false;
    }
    void add(unsigned line, std::string text) { m_mistakes.push_back({line, std::move(text)}); }

    std::map<std::string, std::vector<Setting>, std::less<>> m_settings;
    std::vector<Mistake> m_mistakes;
};

}  // namespace

std::vector<Entry> readEnvironmentFile(std::string_view text) {
    return Reader().read(text);
}

std::vector<Mistake> check(std::string_view text) {
    return Checker().check(text);
}

}  // namespace solicd::instance
