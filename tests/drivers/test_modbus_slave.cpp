// The slave drivers with panel registers made up by the test: every function, every refusal, frames that are none.
#include <map>
#include <random>

#include "driver.h"
#include "lying_server.h"
#include "pty.h"

namespace
{

std::map<std::string, Bytes> Panel;  // kind: values, little-endian
constexpr std::uint32_t Unusable = 30000;

std::uint8_t* At(const char* name, std::uint32_t addr)
{
    Bytes& values = Panel[name];
    values.resize(300000);
    return &values.at(addr * (name == std::string("LB") ? 1 : 2));
}
int ReadPanel(const char* name, std::uint32_t addr, std::uint16_t width, void* buf, int)
{
    if (addr == Unusable) return 3;
    memcpy(buf, At(name, addr), static_cast<std::size_t>(At(name, addr + width) - At(name, addr)));
    return 1;
}
int WritePanel(const char* name, std::uint32_t addr, std::uint16_t width, const void* data, int)
{
    if (addr == Unusable) return 3;
    memcpy(At(name, addr), data, static_cast<std::size_t>(At(name, addr + width) - At(name, addr)));
    return 1;
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
    {{0x2B, 0x0E, 1, 0}, {0xAB, 1}},
};

class Slave : public testing::Test
{
protected:
    explicit Slave(const char* path) : driver(path)
    {
        driver.Init();
        driver.info.slaveNo = 17;
        Panel.clear();
        WritePanel("SRW", 10000, 1, "\xCD\xAB", 0);
    }
    int Loop()
    {
        void* args[] = {&driver.info, &oper};
        const Stopwatch watch;
        const int result = driver.entry("Loop", driver.instance, args);
        EXPECT_LT(watch.Ms(), 150);
        return result;
    }
    // Noise, and requests with wrong lengths and counts behind the function code.
    Bytes Noise(std::size_t longest)
    {
        Bytes noise(1 + random() % longest);
        for (std::uint8_t& byte : noise) byte = static_cast<std::uint8_t>(random() % 3 == 0 ? 17 : random());
        if (random() % 2 == 0) noise[0] = static_cast<std::uint8_t>(random() % 24);
        return noise;
    }
    std::mt19937 random{1};
    UserOper oper = {nullptr, ReadPanel, WritePanel};
    Driver driver;
};

class RtuSlave : public Slave
{
protected:
    RtuSlave() : Slave(RTU_SLAVE_DRIVER) { Pty::Settings(driver.info, 115200); }
    Bytes Ask(const Bytes& bytes)
    {
        line.Send(bytes);
        for (int i = 0; i < 3; i++) Loop();
        return line.Receive(0);
    }
    Pty line;
};

TEST_F(RtuSlave, ServesRefusesAndOutlastsNoise)
{
    EXPECT_EQ(Loop(), 0);
    for (const auto& [request, answer] : Exchanges)
        EXPECT_EQ(Ask(WithCrc(Join({17}, request))), WithCrc(Join({17}, answer))) << testing::PrintToString(request);
    EXPECT_EQ(Ask(WithCrc({0, 6, 0, 9, 0, 7})), Bytes{});  // a broadcast
    EXPECT_EQ(*At("LW", 9), 7);
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
    for (int i = 0; i < 60; i++) {
        line.Send(i % 2 == 0 ? Noise(700) : WithCrc(Join({17}, Noise(250))));
        EXPECT_EQ(Loop(), 0);
    }
    Pause(60);
    Loop();
    line.Receive(0);
    WritePanel("LW", 9, 1, "\x07\x00", 0);
    driver.info.slaveNo = 18;
    EXPECT_EQ(Ask(request), Bytes{});
    EXPECT_EQ(Ask(other), WithCrc({18, 3, 2, 0, 7}));
    driver.info.slaveNo = 0;
    EXPECT_EQ(Ask(WithCrc({0, 6, 0, 9, 0, 8})), Bytes{});
    EXPECT_EQ(*At("LW", 9), 7);
    const Stopwatch watch;
    Loop();
    EXPECT_GE(watch.Ms(), 15);  // an idle turn does not spin
}

class TcpSlave : public Slave
{
protected:
    TcpSlave() : Slave(TCP_SLAVE_DRIVER)
    {
        const std::uint16_t port = LyingServer().port;
        address.sin_port = htons(port);
        driver.Para(port, 0);
        EXPECT_EQ(Loop(), 0);
    }
    ~TcpSlave() override
    {
        for (const int fd : masters) close(fd);
    }
    int Connect()
    {
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
    Bytes Ask(int fd, const Bytes& sent)
    {
        LyingServer::Send(fd, sent);
        for (int i = 0; i < 2; i++) Loop();
        Bytes bytes(1000);
        const ssize_t got = recv(fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno != EAGAIN)) return {0};
        bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
        return bytes;
    }
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    std::vector<int> masters;
    const Bytes request = Adu(255, {4, 0x27, 0x10, 0, 1}), answer = Adu(255, {4, 2, 0xAB, 0xCD});
};

TEST_F(TcpSlave, RefusesAndLetsNoMasterHoldUpAnother)
{
    std::vector<int> fds;
    for (int i = 0; i < 8; i++) fds.push_back(Connect());
    for (std::size_t i = 1; i < 8; i++) EXPECT_EQ(Ask(fds[i], Join(request, request)), Join(answer, answer));
    Pause(2);
    const int fd = Connect();
    EXPECT_EQ(Ask(fds[0], {}), Bytes{0});  // the quietest made room for the ninth
    EXPECT_EQ(Ask(fds[1], {request.begin(), request.begin() + 9}), Bytes{});
    EXPECT_EQ(Ask(fd, Adu(18, {4, 0x27, 0x10, 0, 1})), Adu(18, {0x84, 11}));
    EXPECT_EQ(Ask(fds[1], {request.begin() + 9, request.end()}), answer);
    EXPECT_EQ(Ask(fd, Adu(17, {4, 0x27, 0x10, 0})), Adu(17, {0x84, 3}));
    EXPECT_EQ(Ask(fd, Adu(17, {16, 0, 0, 0, 2, 4, 1, 2})), Adu(17, {0x90, 3}));
    EXPECT_EQ(Ask(fd, Adu(17, {16, 0, 0, 0, 1, 4, 1, 2})), Adu(17, {0x90, 3}));
    for (const Bytes& none : {Bytes{0, 1, 0, 1, 0, 6, 1, 3}, Bytes{0, 1, 0, 0, 0, 1, 1}, Bytes{0, 1, 0, 0, 1, 0, 1, 3}})
        EXPECT_EQ(Ask(Connect(), none), Bytes{0});

    const int deaf = Connect(), small = 4096;  // asks on and on and takes no answer
    setsockopt(deaf, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
    Bytes flood;
    for (int i = 0; i < 40000; i++) flood = Join(std::move(flood), Adu(17, {3, 0, 0, 0, 125}));
    const ssize_t taken = send(deaf, flood.data(), flood.size(), MSG_DONTWAIT);
    ASSERT_GT(taken, 0);
    for (ssize_t i = 0; i < taken / 12 && LyingServer::Send(deaf, {0}); i += 100)
        for (int turn = 0; turn < 100; turn++) Loop();
    EXPECT_FALSE(LyingServer::Send(deaf, {0}));
    for (int i = 0; i < 300; i++) LyingServer::Send(Connect(), i % 2 == 0 ? Noise(250) : Adu(17, Noise(250)));
    EXPECT_EQ(Ask(Connect(), request), answer);
    LyingServer occupied;
    driver.Para(occupied.port, 0);
    EXPECT_EQ(Loop(), 3);
}

}  // namespace
