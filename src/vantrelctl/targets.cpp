#include "targets.h"

#include <cstdlib>
#include <fstream>

namespace {

std::string trim(const std::string& text)
{
    std::size_t first = text.find_first_not_of(" \t\r");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// A line of a hosts file is at most this long; a bigger file is a mistake.
constexpr std::size_t line_max = 4096;
constexpr std::size_t hosts_max = 4096;

}  // namespace

std::string url_from_host(const std::string& text)
{
    std::string host = trim(text);
    if (host.empty() || host.find_first_of(" \t") != std::string::npos) return "";
    if (host.find("://") != std::string::npos) return host;
    if (host.find(':') == std::string::npos) host += ":9000";
    return "http://" + host + "/RPC2";
}

std::string read_hosts_file(const std::string& path, std::vector<std::string>& urls)
{
    std::ifstream in(path);
    if (!in) return "cannot read hosts file " + path;
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (line.size() > line_max || urls.size() >= hosts_max)
            return path + ":" + std::to_string(number) + ": line too long or too many hosts";
        std::string entry = trim(line);
        if (entry.empty() || entry[0] == '#') continue;
        std::string url = url_from_host(entry);
        if (url.empty()) return path + ":" + std::to_string(number) + ": not a host: " + entry;
        urls.push_back(url);
    }
    return "";
}

std::string collect_targets(const std::vector<std::string>& flags, const std::string& hosts_file,
                            std::vector<std::string>& urls)
{
    for (const std::string& flag : flags) {
        std::string url = url_from_host(flag);
        if (url.empty()) return "not a URL or host: " + flag;
        urls.push_back(url);
    }
    if (!hosts_file.empty()) {
        std::string error = read_hosts_file(hosts_file, urls);
        if (!error.empty()) return error;
    }
    if (urls.empty()) {
        const char* env = getenv("VANTREL_WATCHDOG_URL");
        std::string url = url_from_host(env && *env ? env : default_url);
        if (url.empty()) return std::string("VANTREL_WATCHDOG_URL is not a URL: ") + env;
        urls.push_back(url);
    }
    return "";
}

std::string url_authority(const std::string& url)
{
    std::size_t start = url.find("://");
    start = start == std::string::npos ? 0 : start + 3;
    std::size_t end = url.find('/', start);
    std::string authority = url.substr(start, end == std::string::npos ? end : end - start);
    std::size_t at = authority.rfind('@');
    return at == std::string::npos ? authority : authority.substr(at + 1);
}
