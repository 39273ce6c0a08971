// A Modbus TCP server on raw sockets that answers honestly unless told to lie. One thread per connection.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>

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
        stop = true;
        shutdown(listener, SHUT_RDWR);
        acceptor.join();
        for (std::thread& thread : threads) thread.join();
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
        const int bytes = function > 4 ? 3 : function > 2 ? 2 * count : (count + 7) / 8;
        Bytes reply(request.begin(), request.begin() + 12);
        reply.resize(static_cast<std::size_t>(9 + bytes));
        if (function <= 4) {
            reply[8] = static_cast<std::uint8_t>(bytes);
            std::fill(reply.begin() + 9, reply.end(), 0);
        }
        for (int i = 0; i < count && function <= 4; i++) {
            std::uint8_t* values = reply.data() + 9;
            const int n = first + i;
            if (function > 2) values[2 * i] = static_cast<std::uint8_t>(n >> 8);
            if (function > 2) values[2 * i + 1] = static_cast<std::uint8_t>(n);
            if (function <= 2 && n % 3 == 0) values[i / 8] |= static_cast<std::uint8_t>(1 << i % 8);
        }
        reply[4] = static_cast<std::uint8_t>((reply.size() - 6) >> 8);
        reply[5] = static_cast<std::uint8_t>(reply.size() - 6);
        return reply;
    }

    std::uint16_t port;
    std::atomic<int> connections = 0;
    std::atomic<int> deadUnit = -1;  // gives no answer

private:
    void Accept()
    {
        for (int fd; (fd = accept(listener, nullptr, nullptr)) >= 0;) {
            connections++;
            threads.emplace_back([this, fd] {
                const timeval patience = {0, 20000};
                setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
                while (Serve(fd)) {
                }
                close(fd);
            });
        }
    }
    bool Receive(int fd, Bytes& bytes, std::size_t wanted)
    {
        while (bytes.size() < wanted && !stop) {
            std::uint8_t byte;
            const ssize_t got = recv(fd, &byte, 1, 0);
            if (got == 1) bytes.push_back(byte);
            if (got == 0 || (got < 0 && errno != EAGAIN)) return false;
        }
        return !stop;
    }
    bool Serve(int fd)
    {
        Bytes request;
        if (!Receive(fd, request, 6) || !Receive(fd, request, 6u + request[5] + 256u * request[4])) return false;
        Behaviour lie;
        {
            std::lock_guard lock(mutex);
            requests.emplace_back(request.begin() + 6, request.end());
            if (!lies.empty()) {
                lie = lies.front();
                lies.pop_front();
            }
        }
        if (request[6] == deadUnit) return true;
        return lie ? lie(fd, request) : Send(fd, Honest(request));
    }

    int listener;
    std::atomic<bool> stop = false;
    std::mutex mutex;
    std::deque<Behaviour> lies;
    std::vector<Bytes> requests;
    std::thread acceptor;
    std::vector<std::thread> threads;  // of the acceptor until it has ended
};
