// The daemon's command line: namespace, interface, its own and its client's mailbox, verbose.
#pragma once

#include <glib.h>

#include <cstdint>
#include <string>

namespace solicd {

class ArgParser {
public:
    // What GOption fills in; the strings are GOption's allocations until init frees them.
    struct Values {
        gchar* ns = nullptr;
        gchar* interface = nullptr;
        gchar* source = nullptr;
        gchar* destination = nullptr;
        gboolean verbose = FALSE;
    };

    // Shown by GLib after the option placeholder on the usage line.
    static constexpr const char* kDescription =
        "application is listening for IPv6 ND RA messages,\n"
        "tracking routers and subnetworks states, and forwarding this information to the client\n"
        "with LMX mailbox MBOX_REMOTE. Application also allows to provide diagnostic over internal LMX "
        "mechanism.\n"
        "In this case, client should transmit request towards MBOX_LOCAL LMX mailbox";

    ArgParser();
    virtual ~ArgParser() = default;
    ArgParser(const ArgParser&) = delete;
    ArgParser& operator=(const ArgParser&) = delete;

    // Parses main's arguments (left intact); 0 on success, 1 on a parse or allocation failure.
    // GLib's --help prints the help and ends the process with status 0.
    uint32_t init(int argc, char** argv);
    // Copies the options that were given; the others keep their previous content.
    void setData(const Values& values);

    const std::string& getNamespace() const { return m_namespace; }
    const std::string& getInterface() const { return m_interface; }
    const std::string& getMboxLocal() const { return m_mboxLocal; }
    const std::string& getMboxRemote() const { return m_mboxRemote; }
    bool isVerboseEnabled() const { return m_verboseEnabled; }
    const std::string& getDescription() const { return m_description; }

    // The daemon's own mailbox name, which is also its trace tag: --source when given and not
    // empty, otherwise "solcid." + namespace + "-" + interface.
    std::string getOwnMailboxName() const;

private:
    std::string m_namespace;
    std::string m_interface;
    std::string m_mboxLocal;
    std::string m_mboxRemote;
    bool m_verboseEnabled = false;
    std::string m_description;
};

}  // namespace solicd
