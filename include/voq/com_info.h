/* Communication parameters of one port, as the project file holds them and the driver sees them. Plain C.
 *
 * offset size field            meaning
 *  0     4    flags            bits 17-18: 0 packed polling, else unpacked
 *  4     1    linkType         0 serial, 1 CAN, 2 Ethernet
 *  5     3    reserved1        not read by the service
 *  8     2    portNo           port number: names the port's directory and driver
 * 10     2    lineMode         serial line mode, 0 to 2
 * 12     2    byteOrder        PLC byte-order word
 * 14     1    dataBits         serial: 7 or 8; Ethernet: the port byte of a reload frame
 * 15     1    parity           serial: 0 none, 1 odd, 2 even
 * 16     4    baudOrAddress    serial: bits per second; Ethernet: IPv4 address of the PLC, of a slave its own
 * 20     1    stopBits         serial: 1 or 2
 * 21     1    masterSlaveMode  1 slave, else master
 * 22     14   driverPara       not read by the service; drivers say what they read here
 * 36     2    slaveNo          the panel's own station number in slave mode
 * 38     2    wordLimit        elements in one driver request, word registers
 * 40     2    bitLimit         elements in one driver request, bit registers
 * 42     1    wordGap          packing gap in elements, word registers
 * 43     1    bitGap           packing gap in elements, bit registers
 * 44     1    pause            milliseconds between main-loop turns
 * 45     15   reserved2        not read by the service
 *
 * All integers are little-endian. */
#ifndef VOQ_COM_INFO_H
#define VOQ_COM_INFO_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

typedef struct ComInfoRecord {
    uint32_t flags;
    uint8_t linkType;
    uint8_t reserved1[3];
    uint16_t portNo;
    uint16_t lineMode;
    uint16_t byteOrder;
    uint8_t dataBits;
    uint8_t parity;
    uint32_t baudOrAddress;
    uint8_t stopBits;
    uint8_t masterSlaveMode;
    uint8_t driverPara[14];
    uint16_t slaveNo;
    uint16_t wordLimit;
    uint16_t bitLimit;
    uint8_t wordGap;
    uint8_t bitGap;
    uint8_t pause;
    uint8_t reserved2[15];
} ComInfoRecord;

static_assert(sizeof(ComInfoRecord) == 60, "ComInfoRecord is read from files as it lies");
static_assert(offsetof(ComInfoRecord, flags) == 0, "flags");
static_assert(offsetof(ComInfoRecord, linkType) == 4, "linkType");
static_assert(offsetof(ComInfoRecord, reserved1) == 5, "reserved1");
static_assert(offsetof(ComInfoRecord, portNo) == 8, "portNo");
static_assert(offsetof(ComInfoRecord, lineMode) == 10, "lineMode");
static_assert(offsetof(ComInfoRecord, byteOrder) == 12, "byteOrder");
static_assert(offsetof(ComInfoRecord, dataBits) == 14, "dataBits");
static_assert(offsetof(ComInfoRecord, parity) == 15, "parity");
static_assert(offsetof(ComInfoRecord, baudOrAddress) == 16, "baudOrAddress");
static_assert(offsetof(ComInfoRecord, stopBits) == 20, "stopBits");
static_assert(offsetof(ComInfoRecord, masterSlaveMode) == 21, "masterSlaveMode");
static_assert(offsetof(ComInfoRecord, driverPara) == 22, "driverPara");
static_assert(offsetof(ComInfoRecord, slaveNo) == 36, "slaveNo");
static_assert(offsetof(ComInfoRecord, wordLimit) == 38, "wordLimit");
static_assert(offsetof(ComInfoRecord, bitLimit) == 40, "bitLimit");
static_assert(offsetof(ComInfoRecord, wordGap) == 42, "wordGap");
static_assert(offsetof(ComInfoRecord, bitGap) == 43, "bitGap");
static_assert(offsetof(ComInfoRecord, pause) == 44, "pause");
static_assert(offsetof(ComInfoRecord, reserved2) == 45, "reserved2");

enum { LINK_SERIAL = 0, LINK_CAN = 1, LINK_ETHERNET = 2 };
enum { MODE_SLAVE = 1 };

#endif
