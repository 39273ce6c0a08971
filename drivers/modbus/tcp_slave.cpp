// The slave on TCP. Runs inside "Loop". Waits for at most IdleMs and never for a master: a connection whose master
// sends half a request, or takes no answer, holds up nobody. Allocates nothing.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <tuple>

#include "mapping.h"
#include "report.h"
#include "slave.h"
#include "slave_request.h"
#include "slave_serve.h"

namespace
{

constexpr std::size_t MaxMasters = 8;          // a panel has few
constexpr std::size_t PrefixBytes = 6;         // transaction, protocol, length
constexpr std::size_t MinLength = 2;           // unit, function
constexpr std::size_t MaxLength = 254;         // unit and the longest request
constexpr std::uint8_t AnyUnits[] = {0, 255};  // the box itself, whatever its number
constexpr std::uint32_t FirstMulticast = 0xE0000000;

struct Master {
    int fd;              // -1 for a free place
    bool hasAsked;       // a whole request has come
    std::uint64_t last;  // event: its last whole request, before the first its arrival
    std::size_t have;
    std::uint8_t adu[PrefixBytes + MaxLength];
};

}  // namespace

struct Slave {
    modbus_t* context;  // for answers; it owns no socket
    int listener;       // -1 while nothing is listening
    std::uint32_t address;
    std::uint16_t port;
    Reporter reporter;
    std::uint64_t events;  // arrivals and whole requests so far
    Master masters[MaxMasters];
};

namespace
{

void Drop(Master& master)
{
    if (master.fd >= 0) close(master.fd);
    master.fd = -1;
    master.have = 0;
}

void StopListening(Slave& slave)
{
    for (Master& master : slave.masters) Drop(master);
    if (slave.listener >= 0) close(slave.listener);
    slave.listener = -1;
}

void NameListener(Slave& slave, std::uint32_t address, std::uint16_t port)
{
    slave.address = address;
    slave.port = port;
    Reporter& reporter = slave.reporter;
    if (address == INADDR_ANY)
        std::snprintf(reporter.name, sizeof reporter.name, "port %u", port);
    else
        std::snprintf(reporter.name, sizeof reporter.name, "%u.%u.%u.%u:%u", address >> 24, address >> 16 & 0xFF,
                      address >> 8 & 0xFF, address & 0xFF, port);
}

// The system would bind to multicast addresses and to 255.255.255.255, where no connection ever arrives.
bool Bind(int fd, std::uint32_t address, std::uint16_t port)
{
    if (address >= FirstMulticast) {
        errno = EADDRNOTAVAIL;
        return false;
    }
    const int yes = 1;
    sockaddr_in place = {};
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = htonl(address);
    place.sin_port = htons(port);
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == 0 &&
           bind(fd, reinterpret_cast<const sockaddr*>(&place), sizeof place) == 0;
}

// libmodbus would listen on all addresses for one that begins with 0.
bool StartListening(Slave& slave, const Endpoint& endpoint)
{
    if (slave.listener >= 0 && slave.address == endpoint.address && slave.port == endpoint.port) return true;
    StopListening(slave);
    NameListener(slave, endpoint.address, endpoint.port);
    slave.listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (slave.listener >= 0 && Bind(slave.listener, endpoint.address, endpoint.port) &&
        listen(slave.listener, static_cast<int>(MaxMasters)) == 0)
        return true;
    const int error = errno;
    const bool foreign = error == EADDRNOTAVAIL;
    Report(slave.reporter, foreign ? "cannot listen, give the port an address of this machine or 0" : "cannot listen",
           error);
    StopListening(slave);
    return false;
}

// A free place; else of those that have sent no whole request the one that came first, so that a flood of connections
// and bytes that trickle in push out each other; else the one whose last request is the oldest.
Master& PlaceForOne(Slave& slave)
{
    const auto rank = [](const Master& master) { return std::tuple(master.fd >= 0, master.hasAsked, master.last); };
    return *std::min_element(std::begin(slave.masters), std::end(slave.masters),
                             [&](const Master& a, const Master& b) { return rank(a) < rank(b); });
}

void Accept(Slave& slave)
{
    const int fd = accept4(slave.listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    const int yes = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    Master& master = PlaceForOne(slave);
    Drop(master);
    master.fd = fd;
    master.hasAsked = false;
    master.last = ++slave.events;
}

bool ServesUnit(const ComInfoRecord& info, std::uint8_t unit)
{
    return unit == info.slaveNo || unit == AnyUnits[0] || unit == AnyUnits[1];
}

// False when the connection is of no more use.
bool ServeWhole(Slave& slave, Master& master, const ComInfoRecord& info, const UserOper& oper)
{
    const Indication indication = {master.adu, static_cast<int>(master.have), PrefixBytes + 1, 0};
    master.have = 0;
    master.hasAsked = true;
    master.last = ++slave.events;
    modbus_set_socket(slave.context, master.fd);
    if (ServesUnit(info, master.adu[PrefixBytes])) return ServeRequest(slave.context, indication, oper, false);
    return modbus_reply_exception(slave.context, master.adu, static_cast<unsigned>(Refusal::Gateway)) > 0;
}

// Bytes that the request in the buffer has, as far as it is known; 0 when it is none.
std::size_t Wanted(const Master& master)
{
    if (master.have < PrefixBytes) return PrefixBytes;
    const std::size_t length = WireWord(master.adu + 4);
    const bool modbus = WireWord(master.adu + 2) == 0 && length >= MinLength && length <= MaxLength;
    return modbus ? PrefixBytes + length : 0;
}

// One request at most: what else the master has sent stays in the socket for the next turn. The first read brings the
// length, the second the rest.
bool ServeMaster(Slave& slave, Master& master, const ComInfoRecord& info, const UserOper& oper)
{
    for (int part = 0; part < 2; part++) {
        const ssize_t got = recv(master.fd, master.adu + master.have, Wanted(master) - master.have, 0);
        if (got <= 0) return got < 0 && (errno == EAGAIN || errno == EINTR);
        master.have += static_cast<std::size_t>(got);
        const std::size_t wanted = Wanted(master);
        if (wanted == 0) return false;
        if (master.have == wanted) return ServeWhole(slave, master, info, oper);
    }
    return true;
}

}  // namespace

Slave* NewSlave()
{
    auto* slave = static_cast<Slave*>(std::calloc(1, sizeof(Slave)));
    if (slave == nullptr) return nullptr;
    slave->listener = -1;
    for (Master& master : slave->masters) master.fd = -1;
    slave->context = modbus_new_tcp("0.0.0.0", 0);
    if (slave->context != nullptr) return slave;
    std::free(slave);
    return nullptr;
}

void FreeSlave(Slave* slave)
{
    StopListening(*slave);
    modbus_free(slave->context);
    std::free(slave);
}

int SlaveTurn(Slave& slave, const ComInfoRecord& info, const UserOper& oper)
{
    if (!StartListening(slave, EndpointOf(info))) {
        poll(nullptr, 0, IdleMs);
        return PLC_DRV_ERROR;
    }
    pollfd ready[MaxMasters + 1] = {};
    for (std::size_t i = 0; i < MaxMasters; i++) ready[i] = {slave.masters[i].fd, POLLIN, 0};
    ready[MaxMasters] = {slave.listener, POLLIN, 0};
    if (poll(ready, MaxMasters + 1, IdleMs) <= 0) return PLC_DRV_OK;
    for (std::size_t i = 0; i < MaxMasters; i++)
        if (ready[i].revents != 0 && !ServeMaster(slave, slave.masters[i], info, oper)) Drop(slave.masters[i]);
    if (ready[MaxMasters].revents != 0) Accept(slave);
    return PLC_DRV_OK;
}
