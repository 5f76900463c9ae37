// solicd-check-config FILE...: checks instance files of solicd@.service before the unit starts
// solicd (its ExecCondition=). Silent and status 0 when every file can start; otherwise one line
// per mistake on standard error, "solicd-check-config: FILE:LINE: what is wrong; what to do", and
// status 1, which makes systemd skip the start without restarting it.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "InstanceFile.h"

namespace {

constexpr int kStatusMistakes = 1;
constexpr int kStatusUsage = 2;

constexpr const char* kUsage =
    "Usage: solicd-check-config FILE...\n"
    "Checks instance files of solicd@.service (/etc/solicd/NAME.conf): only the settings\n"
    "NAMESPACE, INTERFACE, SOURCE and DESTINATION, as KEY=value lines; INTERFACE set, and names\n"
    "that an interface, a network namespace and a mailbox can have. Prints one line per mistake\n"
    "and exits with status 1 if there is any, else prints nothing and exits with status 0.\n";

// The whole file into `text`; false, with errno set, when it cannot be read.
bool readFile(const char* path, std::string& text) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    char buffer[4096];
    ssize_t n = 0;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<size_t>(n));
    }
    const int error = errno;
    ::close(fd);
    errno = error;
    return n == 0;
}

// The mistakes of one file, printed; false when it has any or cannot be read.
bool checkFile(const char* path) {
    std::string text;
    if (!readFile(path, text)) {
        std::fprintf(stderr, "solicd-check-config: %s: cannot read it: %s\n", path, std::strerror(errno));
        return false;
    }
    const auto mistakes = solicd::instance::check(text);
    for (const auto& mistake : mistakes) {
        if (mistake.line == 0) {
            std::fprintf(stderr, "solicd-check-config: %s: %s\n", path, mistake.text.c_str());
        } else {
            std::fprintf(stderr, "solicd-check-config: %s:%u: %s\n", path, mistake.line,
                         mistake.text.c_str());
        }
    }
    return mistakes.empty();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h")) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (argc < 2 || (argv[1][0] == '-' && argv[1][1] != '\0')) {
        std::fputs(argc < 2 ? "solicd-check-config: no file given; see 'solicd-check-config --help'\n"
                            : "solicd-check-config: unknown option; see 'solicd-check-config --help'\n",
                   stderr);
        return kStatusUsage;
    }
    bool clean = true;
    for (int i = 1; i < argc; ++i) {
        clean = checkFile(argv[i]) && clean;
    }
    return clean ? 0 : kStatusMistakes;
}
