#include "ArgParser.h"

#include <cstdlib>
#include <memory>

#include "SolIf.h"
#include "TraceLog.h"

namespace solicd {
namespace {

struct GOptionContextFree {
    void operator()(GOptionContext* context) const { g_option_context_free(context); }
};
struct GErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};
struct GFree {
    void operator()(gpointer p) const { g_free(p); }
};
struct CFree {
    void operator()(void* p) const { free(p); }
};

// The strings GOption allocated; released however init ends.
struct ValuesGuard {
    ArgParser::Values& values;
    ~ValuesGuard() {
        g_free(values.ns);
        g_free(values.interface);
        g_free(values.source);
        g_free(values.destination);
    }
};

}  // namespace

ArgParser::ArgParser() : m_description(kDescription) {}

uint32_t ArgParser::init(int argc, char** argv) {
    Values values;
    ValuesGuard valuesGuard{values};

    // GOption rearranges and shortens the vector it parses; main's own vector stays intact.
    const size_t count = argc > 0 ? static_cast<size_t>(argc) : 0;
    std::unique_ptr<char*, CFree> argvCopy(static_cast<char**>(calloc(count, sizeof(char*))));
    if (!argvCopy) {
        SOL_TRACE(ERROR, "GENERAL", "init", "Failed to allocate memory for arguments copy");
        return 1;
    }
    for (size_t i = 0; i < count; ++i) {
        argvCopy.get()[i] = argv[i];
    }

    GOptionEntry entries[] = {
        {"namespace", 'n', 0, G_OPTION_ARG_STRING, &values.ns, "Linux network namespace", "NAMESPACE"},
        {"interface", 'i', 0, G_OPTION_ARG_STRING, &values.interface, "Linux network interface", "IF"},
        {"source", 's', 0, G_OPTION_ARG_STRING, &values.source, "solicd LMX mailbox", "MBOX_LOCAL"},
        {"destination", 'd', 0, G_OPTION_ARG_STRING, &values.destination, "solicd client LMX mailbox",
         "MBOX_REMOTE"},
        {"verbose", 'v', 0, G_OPTION_ARG_NONE, &values.verbose, "print information to stdout", nullptr},
        {nullptr, ' ', 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
    };
    std::unique_ptr<GOptionContext, GOptionContextFree> context(g_option_context_new(m_description.c_str()));
    g_option_context_add_main_entries(context.get(), entries, nullptr);
    g_set_prgname(count > 0 ? argv[0] : nullptr);

    int argcCopy = argc;
    char** parsedArgv = argvCopy.get();
    GError* rawError = nullptr;
    if (!g_option_context_parse(context.get(), &argcCopy, &parsedArgv, &rawError)) {
        std::unique_ptr<GError, GErrorFree> error(rawError);
        const char* text = error ? error->message : "";
        g_print("ERROR: %s\n", text);
        SOL_TRACE(ERROR, "GENERAL", "init", "Argument parsing error %s", text);
        error.reset();
        std::unique_ptr<gchar, GFree> help(g_option_context_get_help(context.get(), TRUE, nullptr));
        g_print("%s\n", help.get());
        return 1;
    }
    setData(values);
    return 0;
}

std::string ArgParser::getOwnMailboxName() const {
    if (!m_mboxLocal.empty()) {
        return m_mboxLocal;
    }
    return solifDefaultMailbox(m_namespace, m_interface);
}

void ArgParser::setData(const Values& values) {
    if (values.ns != nullptr) {
        m_namespace = values.ns;
    }
    if (values.interface != nullptr) {
        m_interface = values.interface;
    }
    if (values.source != nullptr) {
        m_mboxLocal = values.source;
    }
    if (values.destination != nullptr) {
        m_mboxRemote = values.destination;
    }
    m_verboseEnabled = values.verbose == 1;
    SOL_TRACE(LAB, "GENERAL", "setData",
              "Input arguments m_interface: %s, m_namespace: %s, m_mboxLocal: %s, m_mboxRemote: %s, "
              "m_verboseEnabled: %d",
              m_interface.c_str(), m_namespace.c_str(), m_mboxLocal.c_str(), m_mboxRemote.c_str(),
              m_verboseEnabled ? 1 : 0);
}

}  // namespace solicd
