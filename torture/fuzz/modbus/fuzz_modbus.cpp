// Arbitrary bytes as what a PLC answers a master, and as what outside masters ask a slave: every command ends, inside
// its buffers and the panel's registers. A socket stands for the network, or with FUZZ_LINE for the serial line; nobody
// waits: what has not come when it is looked for never comes.
#include <fuzzer/FuzzedDataProvider.h>
#include <modbus.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "rtu_frame.h"
#include "voq/plc_driver.h"

namespace
{
FuzzedDataProvider* Input;
std::vector<int> Peers;  // the other ends of what the driver has open
int Next = -1;           // what accept is to return

// Returns the driver's end.
int NewPeer()
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) std::abort();
    Peers.push_back(ends[1]);
    return ends[0];
}

void ForgetPeers()
{
    for (const int peer : std::exchange(Peers, {})) close(peer);
}

// Bytes as they are or, mostly, as the content of a frame, with a station and a number that are often right.
void Say(int peer)
{
    std::string said = Input->ConsumeRandomLengthString(260);
    const char unit = Input->ConsumeIntegralInRange<char>(0, 3), number = Input->ConsumeIntegralInRange<char>(0, 4);
    if (Input->ConsumeIntegral<std::uint8_t>() != 0) {
        said.insert(0, 1, unit);
        const auto size = static_cast<std::uint16_t>(said.size());
        const std::uint16_t crc = RtuCrc(reinterpret_cast<const std::uint8_t*>(said.data()), size);
        const char header[] = {0, number, 0, 0, static_cast<char>(size >> 8), static_cast<char>(size)};
        const char trailer[] = {static_cast<char>(crc), static_cast<char>(crc >> 8)};
        FUZZ_LINE ? said.append(trailer, sizeof trailer) : said.insert(0, header, sizeof header);
    }
    send(peer, said.data(), said.size(), MSG_NOSIGNAL);
}

std::size_t PanelBytes(const char* name, std::uint32_t addr, std::uint16_t width)
{
    const bool bits = std::strcmp(name, "LB") == 0;
    const std::uint32_t end = bits ? 65536 : std::strcmp(name, "SRW") == 0 ? 20000 : 32768;
    if (width == 0 || addr + width > end) std::abort();
    return bits ? width : 2u * width;
}

int Read(const char* name, std::uint32_t addr, std::uint16_t width, void* bytes, int)
{
    std::memset(bytes, 0x5A, PanelBytes(name, addr, width));
    return 1;
}

int Write(const char* name, std::uint32_t addr, std::uint16_t width, const void* bytes, int)
{
    static char registers[2 * 65536];
    std::memcpy(registers, bytes, PanelBytes(name, addr, width));
    return 1;
}

// What is answered comes in FuzzAnswer.
void Transfer(void* instance, ComInfoRecord& info)
{
    RegKey key = {};
    key.regid = Input->ConsumeIntegralInRange<std::uint8_t>(0, 4);
    key.plcno = Input->ConsumeIntegralInRange<std::uint8_t>(0, 3);
    const bool bits = key.regid < 2;
    key.layout = bits ? 0x00 : 0x22;
    key.width = Input->ConsumeIntegralInRange<std::uint16_t>(1, 300);
    key.addr = Input->ConsumeIntegralInRange<std::uint16_t>(0, 20);
    std::vector<unsigned char> value(bits ? key.width : 2u * key.width);  // its end is guarded
    PlcRequest request = {&key, static_cast<std::int32_t>(value.size()), value.data()};
    void* arguments[] = {&request, &info, nullptr};
    if (Input->ConsumeIntegral<std::uint8_t>() == 0) ForgetPeers();  // a PLC that went away
    PlcDrvCmd(Input->ConsumeBool() ? "WrOne" : "RdOne", instance, arguments);
}

// Perhaps a new master, then bytes of one that is there.
void Turn(void* instance, void** arguments)
{
    constexpr std::size_t MostMasters = 12;  // more than the driver has places for
    if (!FUZZ_LINE && Peers.size() < MostMasters && (Peers.empty() || Input->ConsumeBool())) Next = NewPeer();
    if (!Peers.empty()) Say(Peers[Input->ConsumeIntegralInRange<std::size_t>(0, Peers.size() - 1)]);
    PlcDrvCmd("Loop", instance, arguments);
}
}  // namespace

// In place of the functions of these names. Where a master looks for an answer, the next one comes.
extern "C" int FuzzAnswer(pollfd* all, nfds_t count, int)
{
    if (!Peers.empty() && Input->remaining_bytes() > 0) Say(Peers.back());
    return poll(all, count, 0);
}

// A slave's listener is the last one.
extern "C" int FuzzPoll(pollfd* all, nfds_t count, int)
{
    const int ready = poll(all, count, 0);
    if (Next < 0) return ready;
    all[count - 1].revents = POLLIN;
    return ready + 1;
}

extern "C" int FuzzConnect(modbus_t* context)
{
    return modbus_set_socket(context, NewPeer());
}

extern "C" int FuzzBind(int, const sockaddr*, socklen_t)
{
    return 0;
}

extern "C" int FuzzAccept(int, sockaddr*, socklen_t*, int)
{
    return std::exchange(Next, -1);
}

extern "C" int FuzzSelect(int count, fd_set* readers, fd_set* writers, fd_set* others, timeval*)
{
    timeval none = {};
    return select(count, readers, writers, others, &none);
}

extern "C" int FuzzFlush(int fd, int)
{
    char bytes[1024];
    while (recv(fd, bytes, sizeof bytes, 0) > 0) continue;
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    std::signal(SIGPIPE, SIG_IGN);
    return std::freopen("/dev/null", "w", stdout) != nullptr ? 0 : -1;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider in(data, size);
    Input = &in;
    ComInfoRecord info = {};
    info.linkType = FUZZ_LINE ? LINK_SERIAL : LINK_ETHERNET;
    info.baudOrAddress = FUZZ_LINE ? 115200 : 0x7F000001;
    info.dataBits = 8;
    info.stopBits = 1;
    info.slaveNo = 1;
    UserOper oper = {nullptr, Read, Write};
    void* instance = nullptr;
    void* arguments[] = {&info, &oper};
    if (PlcDrvCmd("Init", &instance, arguments) != PLC_DRV_OK) std::abort();
    for (int steps = in.ConsumeIntegralInRange<int>(1, 20); steps > 0; --steps)
        FUZZ_SLAVE ? Turn(instance, arguments) : Transfer(instance, info);
    PlcDrvCmd("Destroy", &instance, arguments);
    ForgetPeers();
    return 0;
}
