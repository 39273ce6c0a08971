// The slave drivers with panel registers made up by the test: every function, every refusal, frames that are none.
#include <chrono>
#include <map>
#include <random>

#include "driver.h"
#include "lying_server.h"
#include "pty.h"

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::map<std::string, std::map<std::uint32_t, std::uint16_t>> Panel;  // kind, address: value as a little-endian word
constexpr std::uint32_t Unusable = 30000;

int ReadPanel(const char* name, std::uint32_t addr, std::uint16_t width, void* buf, int)
{
    if (addr == Unusable) return 3;
    auto* bytes = static_cast<std::uint8_t*>(buf);
    for (std::uint32_t i = 0; i < width; i++) {
        const std::uint16_t value = Panel[name][addr + i];
        *bytes++ = static_cast<std::uint8_t>(value);
        if (name != std::string("LB")) *bytes++ = static_cast<std::uint8_t>(value >> 8);
    }
    return 1;
}
int WritePanel(const char* name, std::uint32_t addr, std::uint16_t width, const void* data, int)
{
    if (addr == Unusable) return 3;
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    for (std::uint32_t i = 0; i < width; i++) {
        Panel[name][addr + i] = *bytes++;
        if (name != std::string("LB")) Panel[name][addr + i] |= static_cast<std::uint16_t>(*bytes++ << 8);
    }
    return 1;
}

Bytes Join(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Requests and their answers, function code first, in order.
const std::pair<Bytes, Bytes> Exchanges[] = {
    {{5, 0, 3, 0xFF, 0}, {5, 0, 3, 0xFF, 0}},
    {{15, 0, 5, 0, 10, 2, 0x81, 0x02}, {15, 0, 5, 0, 10}},
    {{1, 0, 2, 0, 13}, {1, 2, 0x0A, 0x14}},  // 3, 5, 12, 14
    {{2, 0, 14, 0, 1}, {2, 1, 1}},
    {{5, 0, 3, 0, 0}, {5, 0, 3, 0, 0}},
    {{2, 0, 3, 0, 1}, {2, 1, 0}},
    {{6, 0x7F, 0xFF, 0x12, 0x34}, {6, 0x7F, 0xFF, 0x12, 0x34}},
    {{16, 0x80, 0, 0, 2, 4, 1, 2, 3, 4}, {16, 0x80, 0, 0, 2}},
    {{3, 0x7F, 0xFE, 0, 2}, {3, 4, 0, 0, 0x12, 0x34}},
    {{3, 0x80, 0, 0, 2}, {3, 4, 1, 2, 3, 4}},
    {{4, 0x27, 0x10, 0, 1}, {4, 2, 0xAB, 0xCD}},
    {{1, 0xFF, 0xFF, 0, 2}, {0x81, 2}},
    {{3, 0x7F, 0xFF, 0, 2}, {0x83, 2}},
    {{4, 0x27, 0x0F, 0, 2}, {0x84, 2}},
    {{4, 0x4E, 0x20, 0, 1}, {0x84, 2}},
    {{1, 0, 0, 0, 0}, {0x81, 3}},
    {{1, 0, 0, 0x07, 0xD1}, {0x81, 3}},
    {{3, 0, 0, 0, 126}, {0x83, 3}},
    {{5, 0, 3, 0x12, 0x34}, {0x85, 3}},
    {{3, 0x75, 0x30, 0, 1}, {0x83, 4}},
    {{16, 0x75, 0x30, 0, 1, 2, 0, 0}, {0x90, 4}},
    {{0x16, 0, 4, 0, 0xF2, 0, 0x25}, {0x96, 1}},
    {{0x17, 0, 3, 0, 1, 0, 14, 0, 1, 2, 0, 0xFF}, {0x97, 1}},
    {{0x2B, 0x0E, 1, 0}, {0xAB, 1}},
    {{7}, {0x87, 1}},
};

class Slave : public testing::Test
{
protected:
    explicit Slave(const char* path) : driver(path)
    {
        driver.Init();
        driver.info.slaveNo = 17;
        Panel.clear();
        Panel["SRW"][10000] = 0xABCD;
    }
    int Loop()
    {
        void* args[] = {&driver.info, &oper};
        const auto start = steady_clock::now();
        const int result = driver.entry("Loop", driver.instance, args);
        EXPECT_LT(steady_clock::now() - start, milliseconds(150));
        return result;
    }
    UserOper oper = {nullptr, ReadPanel, WritePanel};
    Driver driver;
};

class RtuSlave : public Slave
{
protected:
    RtuSlave() : Slave(RTU_SLAVE_DRIVER)
    {
        Pty::Settings(driver.info, 115200);
        EXPECT_EQ(Loop(), 0);
    }
    Bytes Ask(const Bytes& bytes)
    {
        line.Send(bytes);
        for (int i = 0; i < 3; i++) Loop();
        return line.Receive(0);
    }
    Pty line;
};

TEST_F(RtuSlave, ServesAndRefuses)
{
    for (const auto& [request, answer] : Exchanges)
        EXPECT_EQ(Ask(WithCrc(Join({17}, request))), WithCrc(Join({17}, answer))) << testing::PrintToString(request);
    EXPECT_EQ(Ask(WithCrc({0, 6, 0, 9, 0, 7})), Bytes{});  // a broadcast
    EXPECT_EQ(Panel["LW"][9], 7);
    EXPECT_EQ(Ask(WithCrc({0, 3, 0, 9, 0, 1})), Bytes{});

    const Bytes request = WithCrc({17, 3, 0, 9, 0, 1}), answer = WithCrc({17, 3, 2, 0, 7});
    Bytes spoilt = request;
    spoilt[5] ^= 1;
    EXPECT_EQ(Ask(spoilt), Bytes{});
    const Bytes other = WithCrc({18, 3, 0, 9, 0, 1}), otherAnswer = WithCrc({18, 3, 4, 17, 3, 0, 0});
    EXPECT_EQ(Ask(other), Bytes{});  // a dead station's: the next request is no answer of its
    EXPECT_EQ(Ask(request), answer);
    EXPECT_EQ(Ask(Join(Join(other, otherAnswer), request)), answer);  // all in one turn
    EXPECT_EQ(Ask(Bytes(request.begin(), request.begin() + 5)), Bytes{});
    EXPECT_EQ(Ask(Bytes(request.begin() + 5, request.end())), answer);  // a slow line
    EXPECT_EQ(Ask(Join(request, {1})), Bytes{});
    std::this_thread::sleep_for(milliseconds(60));
    Loop();
    driver.info.slaveNo = 18;
    EXPECT_EQ(Ask(request), Bytes{});
    EXPECT_EQ(Ask(other), WithCrc({18, 3, 2, 0, 7}));
    driver.info.slaveNo = 0;
    EXPECT_EQ(Ask(WithCrc({0, 6, 0, 9, 0, 8})), Bytes{});
    EXPECT_EQ(Panel["LW"][9], 7);
}

TEST_F(RtuSlave, OutlastsNoiseUnpluggingAndNewSettings)
{
    std::mt19937 random(1);
    for (int i = 0; i < 60; i++) {
        Bytes noise(random() % 700);
        for (std::uint8_t& byte : noise) byte = static_cast<std::uint8_t>(random() % 3 == 0 ? 17 : random());
        line.Send(i % 2 == 0 ? noise : WithCrc(Join({17, static_cast<std::uint8_t>(random() % 24)}, noise)));
        EXPECT_EQ(Loop(), 0);
    }
    line.Receive(0);
    driver.info.baudOrAddress = 9600;
    std::this_thread::sleep_for(milliseconds(60));
    Loop();
    EXPECT_EQ(line.Speed(), B9600);
    const Bytes request = WithCrc({17, 4, 0x27, 0x10, 0, 1}), answer = WithCrc({17, 4, 2, 0xAB, 0xCD});
    EXPECT_EQ(Ask(request), answer);
    line.Unplug();
    for (int i = 0; i < 3; i++) EXPECT_EQ(Loop(), 3);
    line.Plug();
    Loop();
    EXPECT_EQ(Ask(request), answer);
    const auto start = steady_clock::now();
    Loop();
    EXPECT_GE(steady_clock::now() - start, milliseconds(15));  // an idle turn does not spin
    Bytes word(2);
    EXPECT_EQ(driver.Read(Key(1, 0x22, 4, 0, 1), word), 3);
}

class TcpSlave : public Slave
{
protected:
    TcpSlave() : Slave(TCP_SLAVE_DRIVER)
    {
        Port(LyingServer().port);
        EXPECT_EQ(Loop(), 0);
    }
    ~TcpSlave() override
    {
        for (const int fd : masters) close(fd);
    }
    void Port(std::uint16_t port)
    {
        driver.info.driverPara[0] = static_cast<std::uint8_t>(port);
        driver.info.driverPara[1] = static_cast<std::uint8_t>(port >> 8);
    }
    int Connect()
    {
        const std::uint16_t port =
            static_cast<std::uint16_t>(driver.info.driverPara[0] | driver.info.driverPara[1] << 8);
        const sockaddr_in address = {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
        masters.push_back(socket(AF_INET, SOCK_STREAM, 0));
        EXPECT_EQ(connect(masters.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        Loop();
        return masters.back();
    }
    static Bytes Adu(std::uint8_t unit, const Bytes& pdu)
    {
        return Join({0x55, 0xAA, 0, 0, 0, static_cast<std::uint8_t>(pdu.size() + 1), unit}, pdu);
    }
    // What comes back; {0} for a connection that is closed.
    Bytes Answer(int fd)
    {
        for (int i = 0; i < 2; i++) Loop();
        Bytes bytes(1000);
        const ssize_t got = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN)) return {0};
        bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
        return bytes;
    }
    Bytes Ask(int fd, const Bytes& bytes)
    {
        LyingServer::Send(fd, bytes);
        return Answer(fd);
    }
    std::vector<int> masters;
    const Bytes request = Adu(255, {4, 0x27, 0x10, 0, 1}), answer = Adu(255, {4, 2, 0xAB, 0xCD});
};

TEST_F(TcpSlave, ServesAndRefuses)
{
    const int fd = Connect();
    for (const auto& [pdu, reply] : Exchanges)
        EXPECT_EQ(Ask(fd, Adu(17, pdu)), Adu(17, reply)) << testing::PrintToString(pdu);
    EXPECT_EQ(Ask(fd, Adu(18, {4, 0x27, 0x10, 0, 1})), Adu(18, {0x84, 11}));
    EXPECT_EQ(Ask(fd, Adu(17, {4, 0x27, 0x10, 0})), Adu(17, {0x84, 3}));
    EXPECT_EQ(Ask(fd, Adu(17, {16, 0, 0, 0, 2, 4, 1, 2})), Adu(17, {0x90, 3}));
    EXPECT_EQ(Ask(fd, Adu(17, {16, 0, 0, 0, 1, 4, 1, 2})), Adu(17, {0x90, 3}));
    driver.info.slaveNo = 18;
    EXPECT_EQ(Ask(fd, Adu(18, {4, 0x27, 0x10, 0, 1})), Adu(18, {4, 2, 0xAB, 0xCD}));
    EXPECT_EQ(Ask(fd, Join(request, request)), Join(answer, answer));
    Port(LyingServer().port);
    EXPECT_EQ(Loop(), 0);
    EXPECT_EQ(Ask(fd, request), Bytes{0});
    EXPECT_EQ(Ask(Connect(), request), answer);
    LyingServer occupied;
    Port(occupied.port);
    EXPECT_EQ(Loop(), 3);
}

TEST_F(TcpSlave, NoMasterHoldsUpAnother)
{
    std::vector<int> fds;
    for (int i = 0; i < 8; i++) fds.push_back(Connect());
    for (std::size_t i = 1; i < 8; i++) EXPECT_EQ(Ask(fds[i], request), answer);
    std::this_thread::sleep_for(milliseconds(2));
    const int ninth = Connect();
    EXPECT_EQ(Answer(fds[0]), Bytes{0});  // the quietest made room
    EXPECT_EQ(Ask(fds[1], {request.begin(), request.begin() + 9}), Bytes{});
    EXPECT_EQ(Ask(ninth, request), answer);
    EXPECT_EQ(Ask(fds[1], {request.begin() + 9, request.end()}), answer);
    for (const Bytes& none : {Bytes{0, 1, 0, 1, 0, 6, 1, 3}, Bytes{0, 1, 0, 0, 0, 1, 1}, Bytes{0, 1, 0, 0, 1, 0, 1, 3}})
        EXPECT_EQ(Ask(Connect(), none), Bytes{0});

    const int deaf = Connect(), small = 4096;  // asks on and on and takes no answer
    setsockopt(deaf, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    const Bytes longRead = Adu(17, {3, 0, 0, 0, 125});
    Bytes flood;
    for (int i = 0; i < 40000; i++) flood = Join(std::move(flood), longRead);
    const ssize_t taken = send(deaf, flood.data(), flood.size(), MSG_DONTWAIT);
    ASSERT_GT(taken, 0);
    for (ssize_t i = 0; i < taken / 12 && LyingServer::Send(deaf, {0}); i += 100)
        for (int turn = 0; turn < 100; turn++) Loop();
    EXPECT_FALSE(LyingServer::Send(deaf, {0}));
    EXPECT_EQ(Ask(ninth, request), answer);
    std::mt19937 random(1);
    for (int i = 0; i < 300; i++) {
        Bytes noise(1 + random() % 300);
        for (std::uint8_t& byte : noise) byte = static_cast<std::uint8_t>(random());
        noise.resize(noise.size() % 254);
        const int fd = Connect();
        LyingServer::Send(fd, i % 2 == 0 ? noise : Adu(17, Join({static_cast<std::uint8_t>(random() % 24)}, noise)));
        Loop();
        close(fd);
        masters.pop_back();
    }
    EXPECT_EQ(Ask(Connect(), request), answer);
}

}  // namespace
