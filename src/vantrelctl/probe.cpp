#include "probe.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

struct addrinfo_free {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

struct fd_closer {
    int fd;
    ~fd_closer()
    {
        if (fd >= 0) close(fd);
    }
};

// One address: 0, or an errno value (ETIMEDOUT when the time ran out).
int try_connect(const addrinfo& address, int timeout_ms)
{
    fd_closer sock{socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                          address.ai_protocol)};
    if (sock.fd < 0) return errno;
    if (connect(sock.fd, address.ai_addr, address.ai_addrlen) == 0) return 0;
    if (errno != EINPROGRESS) return errno;
    pollfd waiting{sock.fd, POLLOUT, 0};
    int ready = poll(&waiting, 1, timeout_ms);
    if (ready == 0) return ETIMEDOUT;
    if (ready < 0) return errno;
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(sock.fd, SOL_SOCKET, SO_ERROR, &error, &size) < 0) return errno;
    return error;
}

}  // namespace

std::string probe_connect(const std::string& authority, int timeout_ms)
{
    std::string host = authority, port = "80";
    std::size_t colon = authority.rfind(':');
    if (colon != std::string::npos && authority.find(']', colon) == std::string::npos) {
        host = authority.substr(0, colon);
        port = authority.substr(colon + 1);
    }
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (rc != 0) return std::string("cannot resolve ") + host + ": " + gai_strerror(rc);
    std::unique_ptr<addrinfo, addrinfo_free> list(found);
    int error = 0;
    for (const addrinfo* address = found; address; address = address->ai_next) {
        error = try_connect(*address, timeout_ms);
        if (error == 0) return "";
    }
    if (error == ETIMEDOUT)
        return "connect timed out after " + std::to_string(timeout_ms) + " ms";
    return std::string("connect: ") + strerror(error);
}
