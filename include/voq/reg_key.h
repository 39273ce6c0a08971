/* One register range, as every file, frame and driver call carries it. Plain C: driver authors include it too.
 *
 * offset size field     meaning
 *  0     4    flag      value flags, see the REG_FLAG_ names
 *  4     4    convpara  handed through to the driver; its high half is 0 for a range the service registers by itself
 *  8     2    portno    communication port, REG_PORT_LOCAL for the panel's own registers
 * 10     1    plcno     PLC station, 0 to 255
 * 11     1    layout    low nibble: bytes per element (elemsize), 0 is a bit register held as one byte per bit;
 *                       high nibble: bytes per PLC address unit (addrType), 0 is read as 1
 * 12     2    regid     register area of the PLC, or a local register file
 * 14     2    width     number of elements
 * 16     4    addr      start address, in PLC address units
 * 20     4    subaddr   second address word; the low half is part of the group, the high half is not
 *
 * All integers are little-endian. */
#ifndef VOQ_REG_KEY_H
#define VOQ_REG_KEY_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

typedef struct RegKey {
    uint32_t flag;
    uint32_t convpara;
    uint16_t portno;
    uint8_t plcno;
    uint8_t layout;
    uint16_t regid;
    uint16_t width;
    uint32_t addr;
    uint32_t subaddr;
} RegKey;

static_assert(sizeof(RegKey) == 24, "RegKey is written to files as it lies");
static_assert(offsetof(RegKey, flag) == 0, "flag");
static_assert(offsetof(RegKey, convpara) == 4, "convpara");
static_assert(offsetof(RegKey, portno) == 8, "portno");
static_assert(offsetof(RegKey, plcno) == 10, "plcno");
static_assert(offsetof(RegKey, layout) == 11, "layout");
static_assert(offsetof(RegKey, regid) == 12, "regid");
static_assert(offsetof(RegKey, width) == 14, "width");
static_assert(offsetof(RegKey, addr) == 16, "addr");
static_assert(offsetof(RegKey, subaddr) == 20, "subaddr");

#define REG_FLAG_BIG_ENDIAN 0x100u /* the PLC holds the value big-endian */
#define REG_FLAG_GROUP 0x200u      /* part of the group; such a range is never read through the driver */
#define REG_FLAG_BCD 0x8000u       /* the value is packed BCD */
#define REG_FLAG_DWORD_CHANGE 0x200000u
#define REG_FLAG_URGENT 0x800000u  /* a one-shot request goes before all waiting ones */
#define REG_FLAG_PRIORITY_SHIFT 16 /* priority value: seven bits from here */
#define REG_FLAG_PRIORITY_MASK 0x7Fu
#define REG_PORT_LOCAL 0xFFu

/* Bytes per element, 0 for a bit register. */
static inline unsigned RegElemSize(const RegKey* key)
{
    return key->layout & 0x0Fu;
}

/* Bytes per PLC address unit as given, 0 included. */
static inline unsigned RegAddrType(const RegKey* key)
{
    return key->layout >> 4;
}

#endif
