// A serial line for the drivers: the other end of a pseudo-terminal.
#pragma once

#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>

#include "driver.h"

inline Bytes WithCrc(Bytes frame)
{
    unsigned crc = 0xFFFF;
    for (const std::uint8_t byte : frame) {
        crc ^= byte;
        for (int bit = 0; bit < 8; bit++) crc = (crc & 1) != 0 ? crc / 2 ^ 0xA001 : crc / 2;
    }
    frame.push_back(static_cast<std::uint8_t>(crc));
    frame.push_back(static_cast<std::uint8_t>(crc >> 8));
    return frame;
}

class Pty
{
public:
    Pty()
    {
        int slave;
        char path[64];
        if (openpty(&fd, &slave, path, nullptr, nullptr) != 0) throw std::runtime_error("no pseudo-terminal");
        termios raw = State();
        cfmakeraw(&raw);
        tcsetattr(fd, TCSANOW, &raw);
        close(slave);
        setenv("VOQ_SERIAL_7", path, 1);
    }
    ~Pty() { close(fd); }
    Pty(const Pty&) = delete;
    Pty& operator=(const Pty&) = delete;

    static void Settings(ComInfoRecord& info, std::uint32_t baud)
    {
        info.portNo = 7;
        info.baudOrAddress = baud;
        info.dataBits = 8;
        info.stopBits = 1;
    }
    termios State() const
    {
        termios state = {};
        tcgetattr(fd, &state);
        return state;
    }
    void Send(const Bytes& bytes) const
    {
        if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            throw std::runtime_error("the line takes nothing");
    }
    // What arrives until the line has been silent for `ms`.
    Bytes Receive(int ms) const
    {
        Bytes bytes;
        pollfd line = {fd, POLLIN, 0};
        while (poll(&line, 1, ms) > 0) {
            std::uint8_t part[512];
            const ssize_t got = read(fd, part, sizeof part);
            if (got <= 0) break;
            bytes.insert(bytes.end(), part, part + got);
        }
        return bytes;
    }

    int fd = -1;
};
