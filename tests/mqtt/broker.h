// A real broker on a port of its own, for as long as the test wants it.
#pragma once

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

namespace voq
{

inline std::uint16_t FreePort()
{
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    const bool bound = bind(socket, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                       getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    close(socket);
    return bound ? ntohs(address.sin_port) : 0;
}

class Broker
{
public:
    Broker(const std::string& folder, const std::string& more)
        : port_(FreePort()), file_(folder + "/" + std::to_string(port_) + ".conf")
    {
        std::ofstream(file_) << "listener " << port_ << " localhost\nlog_dest none\n"
                             << (geteuid() == 0 ? "user root\n" : "") << more << "\n";
        Start();
    }
    ~Broker() { Stop(); }
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    std::uint16_t Port() const { return port_; }

    void Start()
    {
        process_ = fork();
        if (process_ != 0) return;
        if (std::freopen("/dev/null", "w", stderr) == nullptr) _exit(127);
        execl("/usr/sbin/mosquitto", "mosquitto", "-c", file_.c_str(), nullptr);
        _exit(127);
    }

    void Stop()
    {
        if (process_ <= 0) return;
        kill(process_, SIGKILL);
        waitpid(process_, nullptr, 0);
        process_ = 0;
    }

private:
    std::uint16_t port_;
    std::string file_;
    pid_t process_ = 0;
};

}  // namespace voq
