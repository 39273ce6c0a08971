// Byte order of value images, on the main thread; computes in the caller's buffer.
#include "rdchgwr/byte_order.h"

#include "rdchgwr/geometry.h"
#include "state/com_state.h"
#include "value/shuffle.h"
#include "voq/chg_desc.h"

namespace
{
enum { CLASS_16_BIT, CLASS_32_BIT, CLASS_FLOAT };
constexpr int ClassShift = 4;  // bits from one class to the next in the byte-order word
constexpr int CodeMask = 3;

void OrderGroups(void* buf, int len, int code, int size)
{
    auto* bytes = static_cast<unsigned char*>(buf);
    for (int offset = 0; offset < len; offset += size) DoByteOrder(bytes + offset, code, size);
}
}  // namespace

void loadByteOrders(int out[3], RegKey key)
{
    const int word = key.portno == REG_PORT_LOCAL ? sysByteOder : ComInfo.byteOrder;
    for (int valueClass = CLASS_16_BIT; valueClass <= CLASS_FLOAT; ++valueClass) {
        out[valueClass] = word >> (valueClass * ClassShift) & CodeMask;
    }
}

void operByteOrder(void* buf, int len, int type, int size, RegKey key)
{
    if (type == 0 || size <= 0) return;
    int codes[3];
    loadByteOrders(codes, key);
    if (type == static_cast<int>(OperandType::Float)) {
        if (codes[CLASS_FLOAT] != ORDER_KEEP) OrderGroups(buf, len, codes[CLASS_FLOAT], size);
    } else if (size == 4) {
        OrderGroups(buf, len, codes[CLASS_32_BIT], size);
    } else if (size == 2) {
        OrderGroups(buf, len, codes[CLASS_16_BIT], size);
    }
}

void operBigEnd(void* buf, int len, int type, int size, RegKey key)
{
    operByteOrder(buf, len, type, size, key);
}

void operBigEndEx(RegKey key, void* buf, int len)
{
    const int size = static_cast<int>(RegElemSize(&key));
    if (isBigEnd(key.flag) == 0 || size == 0) return;
    OrderGroups(buf, len, ORDER_REVERSE_BYTES, size);
}
