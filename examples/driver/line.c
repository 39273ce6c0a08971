/* A whole driver in one file: a PLC that takes lines of text over TCP (plc.py beside this file is one).
 *
 *     r STATION AREA ADDRESS COUNT         answer: the values, COUNT numbers from 0 to 65535
 *     w STATION AREA ADDRESS VALUE...      answer: ok
 *
 * A refusal is answered with a line that begins with "!". All registers are 16-bit words, one address each.
 *
 * Read from the port's parameters: baudOrAddress, the PLC's IPv4 address; driverPara bytes 0-1, its TCP port (0: 7000);
 * driverPara bytes 2-3, milliseconds that one command may take (0: 500). */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "voq/plc_driver.h"

enum { WORD_LAYOUT = 0x22, MAX_WORDS = 100, LINE_BYTES = 1024, DEFAULT_PORT = 7000, DEFAULT_MS = 500 };

/* What lasts from one command to the next. */
typedef struct Driver {
    int socket;  /* -1 while there is no connection */
    int failing; /* the last command failed: the log has been told */
} Driver;

static int64_t NowMs(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now); /* not the wall clock, which may be set */
    return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

static unsigned Parameter(const ComInfoRecord* info, int at, unsigned byDefault)
{
    const unsigned value = info->driverPara[at] | (unsigned)info->driverPara[at + 1] << 8;
    return value != 0 ? value : byDefault;
}

/* An answer that comes late has nowhere to arrive once its connection is gone. */
static void Disconnect(Driver* driver)
{
    if (driver->socket >= 0) close(driver->socket);
    driver->socket = -1;
}

static int32_t WaitFor(const Driver* driver, short events, int64_t end)
{
    struct pollfd waiting = {driver->socket, events, 0};
    const int64_t left = end - NowMs();
    const int ready = left > 0 ? poll(&waiting, 1, (int)left) : 0;
    if (ready > 0) return PLC_DRV_OK;
    return ready == 0 ? PLC_DRV_TIMEOUT : PLC_DRV_ERROR;
}

static int32_t Connect(Driver* driver, const ComInfoRecord* info, int64_t end)
{
    struct sockaddr_in plc = {.sin_family = AF_INET};
    plc.sin_addr.s_addr = htonl(info->baudOrAddress);
    plc.sin_port = htons((uint16_t)Parameter(info, 0, DEFAULT_PORT));
    driver->socket = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (driver->socket < 0) return PLC_DRV_ERROR;
    if (connect(driver->socket, (const struct sockaddr*)&plc, sizeof plc) == 0) return PLC_DRV_OK;
    if (errno != EINPROGRESS) return PLC_DRV_ERROR;
    const int32_t result = WaitFor(driver, POLLOUT, end);
    int error = 0;
    socklen_t size = sizeof error;
    if (result == PLC_DRV_OK && getsockopt(driver->socket, SOL_SOCKET, SO_ERROR, &error, &size) != 0) error = errno;
    return error == 0 ? result : PLC_DRV_ERROR;
}

/* Sends the request in `line` and replaces it by its answer, without the line's end. */
static int32_t Exchange(Driver* driver, const ComInfoRecord* info, char line[LINE_BYTES])
{
    const int64_t end = NowMs() + Parameter(info, 2, DEFAULT_MS);
    char byte;
    /* Nothing may arrive between two requests: a byte is nobody's answer, an end of file a PLC that has hung up. */
    if (driver->socket >= 0 && recv(driver->socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0) Disconnect(driver);
    int32_t result = driver->socket >= 0 ? PLC_DRV_OK : Connect(driver, info, end);
    /* A request is far smaller than what an idle connection takes at once. */
    const ssize_t length = (ssize_t)strlen(line);
    if (result == PLC_DRV_OK && send(driver->socket, line, (size_t)length, MSG_NOSIGNAL) != length)
        result = PLC_DRV_ERROR;
    size_t have = 0;
    while (result == PLC_DRV_OK && (have == 0 || line[have - 1] != '\n')) {
        result = have < LINE_BYTES - 1 ? WaitFor(driver, POLLIN, end) : PLC_DRV_ERROR;
        if (result != PLC_DRV_OK) break;
        const ssize_t got = recv(driver->socket, line + have, LINE_BYTES - 1 - have, 0);
        if (got <= 0) result = PLC_DRV_ERROR;
        if (got > 0) have += (size_t)got;
    }
    if (result != PLC_DRV_OK) Disconnect(driver);
    line[have > 0 ? have - 1 : 0] = '\0';
    return result;
}

/* Bytes lie low byte first in the service's buffer; this PLC has no order of its own, so the port's byte-order word is
 * 0. */
static int32_t ReadWords(Driver* driver, const PlcRequest* request, const ComInfoRecord* info)
{
    const RegKey* key = request->key;
    uint8_t* data = request->data;
    char line[LINE_BYTES];
    snprintf(line, sizeof line, "r %u %u %u %u\n", key->plcno, key->regid, key->addr, key->width);
    const int32_t result = Exchange(driver, info, line);
    if (result != PLC_DRV_OK) return result;
    char* at = line;
    for (unsigned i = 0; i < key->width; i++) {
        char* behind;
        const unsigned long value = strtoul(at, &behind, 10);
        if (behind == at || value > 0xFFFF) return PLC_DRV_ERROR; /* a refusal, too, is no number */
        data[2 * i] = (uint8_t)value;
        data[2 * i + 1] = (uint8_t)(value >> 8);
        at = behind;
    }
    return *at == '\0' ? PLC_DRV_OK : PLC_DRV_ERROR;
}

static int32_t WriteWords(Driver* driver, const PlcRequest* request, const ComInfoRecord* info)
{
    const RegKey* key = request->key;
    const uint8_t* data = request->data;
    char line[LINE_BYTES];
    int length = snprintf(line, sizeof line, "w %u %u %u", key->plcno, key->regid, key->addr);
    for (unsigned i = 0; i < key->width; i++)
        length += snprintf(line + length, sizeof line - (size_t)length, " %u", data[2 * i] | data[2 * i + 1] << 8);
    snprintf(line + length, sizeof line - (size_t)length, "\n");
    const int32_t result = Exchange(driver, info, line);
    return result == PLC_DRV_OK && strcmp(line, "ok") != 0 ? PLC_DRV_ERROR : result;
}

/* No instance means that "Init" failed. A range that this PLC cannot have is refused before anything is sent. */
static int32_t Transfer(Driver* driver, const PlcRequest* request, const ComInfoRecord* info, int write)
{
    if (driver == NULL) return PLC_DRV_ERROR;
    const RegKey* key = request->key;
    if (key->layout != WORD_LAYOUT || key->width == 0 || key->width > MAX_WORDS) return PLC_DRV_ERROR;
    const int32_t result = write ? WriteWords(driver, request, info) : ReadWords(driver, request, info);
    if (result != PLC_DRV_OK && !driver->failing)
        printf("*LINE*station %u %s\r\n", key->plcno, result == PLC_DRV_TIMEOUT ? "does not answer" : "failed");
    driver->failing = result != PLC_DRV_OK;
    return result;
}

static int32_t Init(Driver** slot)
{
    *slot = calloc(1, sizeof **slot);
    if (*slot == NULL) return PLC_DRV_ERROR;
    (*slot)->socket = -1; /* the first request connects */
    return PLC_DRV_OK;
}

static int32_t Destroy(Driver** slot)
{
    if (*slot == NULL) return PLC_DRV_OK;
    Disconnect(*slot);
    free(*slot);
    *slot = NULL;
    return PLC_DRV_OK;
}

int32_t PlcDrvCmd(const char* command, void* target, void** args)
{
    if (strcmp(command, "RdOne") == 0) return Transfer(target, args[0], args[1], 0);
    if (strcmp(command, "WrOne") == 0) return Transfer(target, args[0], args[1], 1);
    if (strcmp(command, "Init") == 0) return Init(target);
    if (strcmp(command, "Destroy") == 0) return Destroy(target);
    return PLC_DRV_ERROR; /* "Loop" is for slaves */
}
