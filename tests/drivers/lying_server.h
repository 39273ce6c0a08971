// A Modbus TCP server on raw sockets that answers honestly unless told to lie. One thread per connection.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>

#include "driver.h"

class LyingServer
{
public:
    // Serves one request on a connection; false closes it.
    using Behaviour = std::function<bool(int fd, const Bytes& request)>;

    explicit LyingServer(std::uint16_t wanted = 0) : listener(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in address = {AF_INET, htons(wanted), {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t length = sizeof address;
        const int yes = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener, 8) != 0)
            throw std::runtime_error("cannot listen");
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        acceptor = std::thread([this] { Accept(); });
    }
    ~LyingServer()
    {
        shutdown(listener, SHUT_RDWR);
        acceptor.join();
        for (const int fd : fds) shutdown(fd, SHUT_RDWR);
        for (std::thread& thread : threads) thread.join();
        for (const int fd : fds) close(fd);
        close(listener);
    }
    LyingServer(const LyingServer&) = delete;
    LyingServer& operator=(const LyingServer&) = delete;

    void Next(Behaviour behaviour)
    {
        std::lock_guard lock(mutex);
        lies.push_back(std::move(behaviour));
    }
    // The requests since the last call, without their transaction numbers.
    std::vector<Bytes> Requests()
    {
        std::lock_guard lock(mutex);
        return std::exchange(requests, {});
    }

    static bool Send(int fd, const Bytes& bytes)
    {
        return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // Register n reads as n, bit n is set when n is a multiple of 3; writes are acknowledged.
    static Bytes Honest(const Bytes& request)
    {
        const int function = request[7], first = request[8] << 8 | request[9], count = request[10] << 8 | request[11];
        Bytes reply(request.begin(), request.begin() + (function > 4 ? 12 : 9));
        if (function <= 4) {
            Bytes values(static_cast<std::size_t>(function > 2 ? 2 * count : (count + 7) / 8));
            for (int i = 0; i < count; i++) {
                const int n = first + i;
                if (function > 2) values[2 * i] = static_cast<std::uint8_t>(n >> 8);
                if (function > 2) values[2 * i + 1] = static_cast<std::uint8_t>(n);
                if (function <= 2 && n % 3 == 0) values[i / 8] |= static_cast<std::uint8_t>(1 << i % 8);
            }
            reply[8] = static_cast<std::uint8_t>(values.size());
            reply = Join(reply, values);
        }
        reply[4] = static_cast<std::uint8_t>((reply.size() - 6) >> 8);
        reply[5] = static_cast<std::uint8_t>(reply.size() - 6);
        return reply;
    }

    std::uint16_t port;
    std::atomic<int> connections = 0;

private:
    void Accept()
    {
        for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;) {
            connections++;
            fds.push_back(fd);
            threads.emplace_back([this, fd] {
                while (Serve(fd)) {
                }
                shutdown(fd, SHUT_RDWR);
            });
        }
    }
    bool Serve(int fd)
    {
        Bytes request(6);
        if (recv(fd, request.data(), 6, MSG_WAITALL) != 6) return false;
        const ssize_t rest = request[5] + 256 * request[4];
        request.resize(static_cast<std::size_t>(6 + rest));
        if (recv(fd, request.data() + 6, request.size() - 6, MSG_WAITALL) != rest) return false;
        Behaviour lie;
        {
            std::lock_guard lock(mutex);
            requests.emplace_back(request.begin() + 6, request.end());
            if (!lies.empty()) {
                lie = lies.front();
                lies.pop_front();
            }
        }
        return lie ? lie(fd, request) : Send(fd, Honest(request));
    }

    int listener;
    std::mutex mutex;
    std::deque<Behaviour> lies;
    std::vector<Bytes> requests;
    std::thread acceptor;
    std::vector<int> fds;  // of the acceptor until it has ended, as the threads
    std::vector<std::thread> threads;
};
