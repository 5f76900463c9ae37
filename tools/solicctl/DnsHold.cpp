#include "DnsHold.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <sstream>

#include "SolIf.h"

namespace solicd::ctl {
namespace {

// Time for the RAs that answered the cycle's last solicitation to reach the hooks.
constexpr int64_t kAnswerSlackMs = 1000;
constexpr const char* kInfinite = "infinite";
constexpr const char* kHeader =
    "# solicctl hooks: the DNS servers the hooks acted on last, each with the end of its lifetime\n";

std::string whyNot(const std::string& what, const std::string& path) {
    return what + " " + path + " (" + std::strerror(errno) + ")";
}

}  // namespace

int64_t firstCycleEnd(const std::string& dir, const std::string& name, int64_t now) {
    struct stat st {};
    int64_t madeMs = now * 1000;
    if (::stat((dir + "/" + name).c_str(), &st) == 0) {
        madeMs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    }
    const int64_t endMs = madeMs + kSolifFirstCycleMaxMs + kAnswerSlackMs;
    return (endMs + 999) / 1000;
}

std::string dnsMemoryText(const std::vector<KnownServer>& servers) {
    std::string text = kHeader;
    for (const KnownServer& s : servers) {
        text += s.address + " " + (s.end == KnownServer::kNoEnd ? kInfinite : std::to_string(s.end)) + "\n";
    }
    return text;
}

bool parseDnsMemory(const std::string& text, std::vector<KnownServer>& servers, std::string& error) {
    std::vector<KnownServer> parsed;
    std::istringstream lines(text);
    std::string line;
    for (int number = 1; std::getline(lines, line); ++number) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const size_t blank = line.find(' ');
        const std::string address = line.substr(0, blank);
        const std::string end = blank == std::string::npos ? std::string() : line.substr(blank + 1);
        in6_addr bytes{};
        KnownServer server{address, KnownServer::kNoEnd};
        const char* last = end.data() + end.size();
        const auto [stop, ec] = std::from_chars(end.data(), last, server.end);
        const bool endValid =
            end == kInfinite || (!end.empty() && ec == std::errc() && stop == last && server.end >= 0);
        if (inet_pton(AF_INET6, address.c_str(), &bytes) != 1 || !endValid) {
            error = "line " + std::to_string(number) + " is not an IPv6 address and the end of its lifetime";
            return false;
        }
        if (end == kInfinite) {
            server.end = KnownServer::kNoEnd;
        }
        parsed.push_back(std::move(server));
    }
    servers = std::move(parsed);
    return true;
}

std::vector<KnownServer> DnsMemory::load(std::string& error) {
    error.clear();
    if (m_path.empty()) {
        return {};
    }
    if (::access(m_path.c_str(), F_OK) != 0 && errno == ENOENT) {
        return {};
    }
    std::ifstream in(m_path);
    if (!in) {
        error =
            whyNot("cannot read the DNS servers of the last run from", m_path) + "; starting without them";
        return {};
    }
    std::ostringstream text;
    text << in.rdbuf();
    std::vector<KnownServer> servers;
    std::string why;
    if (!parseDnsMemory(text.str(), servers, why)) {
        error = "ignored " + m_path + ": " + why + "; starting without the DNS servers of the last run";
        return {};
    }
    m_held = servers;
    return servers;
}

void DnsMemory::save(const std::vector<KnownServer>& servers, std::string& error) {
    error.clear();
    if (m_path.empty() || servers == m_held) {
        return;
    }
    const std::string tmp = m_path + ".new";
    bool written = false;
    {
        std::ofstream out(tmp, std::ios::trunc);
        out << dnsMemoryText(servers);
        out.close();
        written = !out.fail();
    }
    if (!written || ::rename(tmp.c_str(), m_path.c_str()) != 0) {
        if (!m_failed) {
            error = whyNot("cannot keep the DNS servers in", m_path) +
                    "; a restart of the hooks will not hold them";
        }
        m_failed = true;
        ::unlink(tmp.c_str());
        return;
    }
    m_failed = false;
    m_held = servers;
}

}  // namespace solicd::ctl
