// Listening sockets.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "client/error.h"
#include "web/server.h"

namespace voq::web
{

namespace
{

constexpr int Backlog = 64;

int BoundTo(const sockaddr* address, socklen_t size, const std::string& where)
{
    const int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) throw SystemError(where, errno);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd, address, size) == 0 && listen(fd, Backlog) == 0) return fd;
    const int error = errno;
    close(fd);
    throw SystemError(where, error);
}

bool SomebodyListens(const sockaddr_un& address)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answered = fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    if (fd >= 0) close(fd);
    return answered;
}

int ListenUnix(const std::string& path, const std::string& where)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) throw Error(where + ": no path for a socket");
    std::memcpy(address.sun_path, path.data(), path.size());
    struct stat there = {};
    if (lstat(path.c_str(), &there) == 0 && S_ISSOCK(there.st_mode) && !SomebodyListens(address)) unlink(path.c_str());
    return BoundTo(reinterpret_cast<const sockaddr*>(&address), sizeof address, where);
}

}  // namespace

int Listen(const std::string& where)
{
    constexpr std::string_view Unix = "unix:";
    if (where.starts_with(Unix)) return ListenUnix(where.substr(Unix.size()), where);
    const std::size_t colon = where.rfind(':');
    std::string name = where.substr(0, colon == std::string::npos ? 0 : colon);
    const char* text = colon == std::string::npos ? "" : where.c_str() + colon + 1;
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text, text + std::strlen(text), port);
    if (error != std::errc() || *end != '\0') throw Error(where + ": neither ADDRESS:PORT nor unix:PATH");
    sockaddr_in v4 = {};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    if (inet_pton(AF_INET, name.c_str(), &v4.sin_addr) == 1) {
        return BoundTo(reinterpret_cast<const sockaddr*>(&v4), sizeof v4, where);
    }
    sockaddr_in6 v6 = {};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(port);
    if (name.size() > 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
    if (inet_pton(AF_INET6, name.c_str(), &v6.sin6_addr) == 1) {
        return BoundTo(reinterpret_cast<const sockaddr*>(&v6), sizeof v6, where);
    }
    throw Error(where + ": neither ADDRESS:PORT nor unix:PATH");
}

}  // namespace voq::web
