// The Modbus TCP driver against a server that lies: what goes over the wire, and that no wrong answer is ever believed.
#include "driver.h"
#include "lying_server.h"

namespace
{

constexpr int TimeoutMs = 250;  // of a request; honest answers take less even on a busy machine

class Modbus : public testing::Test
{
protected:
    Modbus()
    {
        driver.Init();
        driver.Para(server.port, TimeoutMs);
        driver.info.baudOrAddress = 0x7F000001;
    }
    // Reads holding register n: the result, or 4 when it succeeded with anything but the register's true value.
    int ReadTrue(std::uint16_t n)
    {
        Bytes word = {0xAA, 0xAA};
        const int result = driver.Read(Key(1, 0x22, 4, n, 1), word);
        const bool right = word == Bytes{static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)};
        return result == 0 && !right ? 4 : result;
    }

    LyingServer server;
    Driver driver{MODBUS_DRIVER};
};

TEST_F(Modbus, RangesBecomeRequestsOfTheProtocolsSize)
{
    Bytes data(600);
    ASSERT_EQ(driver.Read(Key(17, 0x02, 4, 2000, 300), data), 0);  // byte addresses: register 1000
    for (std::size_t i = 0; i < 300; i++) EXPECT_EQ(data[2 * i] << 8 | data[2 * i + 1], 1000 + static_cast<int>(i));
    EXPECT_EQ(
        server.Requests(),
        (std::vector<Bytes>{{17, 3, 0x03, 0xE8, 0, 125}, {17, 3, 0x04, 0x65, 0, 125}, {17, 3, 0x04, 0xE2, 0, 50}}));
    data.resize(63 * 4);  // two registers an element: never torn
    ASSERT_EQ(driver.Read(Key(0, 0x24, 3, 0, 63), data), 0);
    EXPECT_EQ(data[251], 125);
    EXPECT_EQ(server.Requests(), (std::vector<Bytes>{{0, 4, 0, 0, 0, 124}, {0, 4, 0, 124, 0, 2}}));

    data.resize(2001);
    ASSERT_EQ(driver.Read(Key(1, 0x00, 1, 3, 2001), data), 0);
    for (std::size_t i = 0; i < 2001; i++) EXPECT_EQ(data[i], i % 3 == 0);
    EXPECT_EQ(server.Requests(), (std::vector<Bytes>{{1, 2, 0, 3, 0x07, 0xD0}, {1, 2, 0x07, 0xD3, 0, 1}}));

    ASSERT_EQ(driver.Write(Key(1, 0x22, 4, 65533, 3), {1, 2, 3, 4, 5, 6}), 0);
    ASSERT_EQ(driver.Write(Key(1, 0x22, 4, 9, 1), {0x12, 0x34}), 0);
    ASSERT_EQ(driver.Write(Key(1, 0x00, 0, 2, 3), {1, 0, 7}), 0);
    ASSERT_EQ(driver.Write(Key(1, 0x00, 0, 2, 1), {1}), 0);
    EXPECT_EQ(server.Requests(), (std::vector<Bytes>{{1, 16, 0xFF, 0xFD, 0, 3, 6, 1, 2, 3, 4, 5, 6},
                                                     {1, 6, 0, 9, 0x12, 0x34},
                                                     {1, 15, 0, 2, 0, 3, 1, 5},
                                                     {1, 5, 0, 2, 0xFF, 0}}));
    ASSERT_EQ(driver.Write(Key(1, 0x22, 4, 0, 124), Bytes(248)), 0);
    ASSERT_EQ(driver.Write(Key(1, 0x00, 0, 0, 1969), Bytes(1969)), 0);
    const auto requests = server.Requests();
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0][5], 123);
    EXPECT_EQ(requests[2][4] << 8 | requests[2][5], 1968);
    EXPECT_EQ(server.connections, 1);

    server.Next([](int fd, const Bytes& r) { return LyingServer::Send(fd, LyingServer::Honest(r)); });
    server.Next([](int fd, const Bytes& r) { return LyingServer::Send(fd, {r[0], r[1], 0, 0, 0, 3, 1, 0x83, 2}); });
    EXPECT_EQ(driver.Read(Key(1, 0x22, 4, 0, 300), data = Bytes(600)), 3);
    EXPECT_EQ(server.Requests().size(), 2u);  // stops at the first failure
}

TEST_F(Modbus, WhatModbusCannotSayIsRefusedUnsent)
{
    const std::pair<RegKey, std::size_t> reads[] = {
        {Key(1, 0x22, 0, 0, 1), 2},  {Key(1, 0x22, 0x104, 0, 1), 2},      {Key(1, 0x11, 4, 0, 2), 2},
        {Key(1, 0x02, 4, 1, 1), 2},  {Key(1, 0x22, 4, 65535, 2), 4},      {Key(1, 0x00, 0, 65535, 2), 2},
        {Key(1, 0x00, 4, 0, 1), 1},  {Key(1, 0x22, 4, 0x80000000, 1), 2}, {Key(1, 0xF8, 4, ~0u, 65535), 524280},
        {Key(1, 0x22, 4, 0, 2), 2},  {Key(1, 0x22, 4, 0, 0), 0},          {Key(1, 0x2F, 4, 0, 1), 0},
        {Key(250, 0x22, 4, 0, 1), 2}};
    for (const auto& [key, length] : reads) {
        Bytes data(length);
        EXPECT_EQ(driver.Read(key, data), 3) << "area " << key.regid << " layout " << int{key.layout};
    }
    EXPECT_EQ(driver.Write(Key(1, 0x00, 1, 0, 1), {1}), 3);
    EXPECT_EQ(driver.Write(Key(1, 0x22, 3, 0, 1), {1, 2}), 3);
    driver.info.baudOrAddress = 0;
    EXPECT_EQ(ReadTrue(5), 3);
    EXPECT_EQ(server.connections, 0);
}

// Every lie about register 100 costs the call it answers, with the right result in time, and never the next one.
TEST_F(Modbus, NoLieIsBelieved)
{
    const Bytes wrong = {0, 0, 0, 0, 0, 5, 1, 3, 2, 0xDE, 0xAD}, right = {0, 0, 0, 0, 0, 5, 1, 3, 2, 0, 100};
    const struct Lie {
        const char* name;
        int result;
        bool reconnects;
        Bytes reply;  // the first two bytes are added to the request's number
        bool closes = false;
        int waitFirst = 0;
        int waitEach = 0;
    } lies[] = {
        {"late", 2, true, wrong, false, 400},
        {"trickling", 2, true, wrong, false, 0, 40},
        {"exception", 3, false, {0, 0, 0, 0, 0, 3, 1, 0x83, 2}},
        {"wrong number", 3, true, {0, 1, 0, 0, 0, 5, 1, 3, 2, 0xDE, 0xAD}},
        {"wrong function", 3, true, {0, 0, 0, 0, 0, 5, 1, 4, 2, 0xDE, 0xAD}},
        {"too few values", 3, true, {0, 0, 0, 0, 0, 3, 1, 3, 0}},
        {"too many values", 3, true, {0, 0, 0, 0, 0, 7, 1, 3, 4, 1, 2, 3, 4}},
        {"garbage", 3, true, Bytes(300, 0xFF)},
        {"cut off", 3, true, {0, 0, 0, 0, 0, 5, 1, 3, 2, 0}, true},
        {"closed", 3, true, {}, true},
        {"twice", 0, true, Join(right, wrong)},
        {"closed after", 0, true, right, true},
    };
    ASSERT_EQ(ReadTrue(1), 0);
    for (const Lie& lie : lies) {
        const int before = server.connections;
        server.Next([&lie](int fd, const Bytes& request) {
            Bytes reply = lie.reply;
            for (std::size_t i = 0; i < 2 && i < reply.size(); i++) reply[i] += request[i];
            Pause(lie.waitFirst);
            if (lie.waitEach == 0) return LyingServer::Send(fd, reply) && !lie.closes;
            for (const std::uint8_t byte : reply)
                if (Pause(lie.waitEach); !LyingServer::Send(fd, {byte})) return false;
            return true;
        });
        const Stopwatch watch;
        EXPECT_EQ(ReadTrue(100), lie.result) << lie.name;
        EXPECT_LT(watch.Ms(), TimeoutMs + 200) << lie.name;
        if (lie.result == 0) Pause(20);
        EXPECT_EQ(ReadTrue(200), 0) << lie.name;
        EXPECT_EQ(server.connections - before, lie.reconnects ? 1 : 0) << lie.name;
    }
}

TEST_F(Modbus, ConnectsInBoundedTimeAndFollowsTheParameters)
{
    std::uint16_t gone;
    {
        LyingServer other;
        gone = other.port;
        ASSERT_EQ(ReadTrue(1), 0);
        driver.Para(other.port, TimeoutMs);  // no new Init
        EXPECT_EQ(ReadTrue(2), 0);
        EXPECT_EQ(other.Requests().size(), 1u);
    }
    EXPECT_EQ(ReadTrue(3), 3);  // the connection it had
    EXPECT_EQ(ReadTrue(3), 3);  // a refused one
    LyingServer again(gone);
    EXPECT_EQ(ReadTrue(4), 0);

    // A listener whose queue is full takes no notice of a caller.
    const int full = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t length = sizeof address;
    bind(full, reinterpret_cast<sockaddr*>(&address), length);
    listen(full, 0);
    getsockname(full, reinterpret_cast<sockaddr*>(&address), &length);
    const int fillers[] = {socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0),
                           socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)};
    for (const int fd : fillers) connect(fd, reinterpret_cast<sockaddr*>(&address), length);
    Pause(20);
    driver.Para(ntohs(address.sin_port), TimeoutMs);
    const Stopwatch watch;
    EXPECT_EQ(ReadTrue(5), 2);
    EXPECT_LT(watch.Ms(), TimeoutMs + 200);
    for (const int fd : {fillers[0], fillers[1], full}) close(fd);
}

}  // namespace
