// Changes of a value image, on the main thread. The work area lies on the stack; bytes behind the image read as zero.
#include "rdchgwr/chg.h"

#include <algorithm>
#include <cstring>
#include <type_traits>

#include "rdchgwr/byte_order.h"
#include "rdchgwr/geometry.h"
#include "value/decimal.h"

namespace
{
constexpr std::uint32_t MaxOperandBytes = 8;
// The last group of a reordered image may begin in its last byte.
constexpr std::uint32_t WorkBytes = MaxChangeBytes + MaxOperandBytes;

struct BitRun {
    std::uint16_t first;
    std::uint16_t count;
};

template <typename T>
T Load(const unsigned char* from)
{
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <typename T>
void Store(unsigned char* to, const T& value)
{
    std::memcpy(to, &value, sizeof value);
}

// A descriptor that holds all it needs.
struct Change {
    explicit Change(std::span<const unsigned char> desc)
        : head(Load<ChgDesc>(desc.data())),
          operation(static_cast<ChangeOp>(head.operation)),
          type(static_cast<OperandType>(head.format & CHG_TYPE_MASK)),
          operands(desc.data() + sizeof(ChgDesc))
    {
    }
    [[nodiscard]] bool Wraps() const { return (head.format & CHG_WRAP) != 0; }
    [[nodiscard]] bool Bounces() const { return (head.format & CHG_BOUNCE) != 0; }

    ChgDesc head;
    ChangeOp operation;
    OperandType type;
    const unsigned char* operands;
};

bool KnownType(std::uint16_t format)
{
    const int type = format & CHG_TYPE_MASK;
    return type >= static_cast<int>(OperandType::Signed) && type <= static_cast<int>(OperandType::Double);
}

bool IsArithmetic(ChangeOp operation)
{
    return operation == ChangeOp::Add || operation == ChangeOp::Subtract;
}
bool IsDigitStep(ChangeOp operation)
{
    return operation == ChangeOp::DigitUp || operation == ChangeOp::DigitDown;
}

// Operand `index` of the descriptor, widened with zeros to eight bytes.
template <typename T>
T Operand(const Change& change, std::uint32_t index)
{
    unsigned char slot[MaxOperandBytes] = {};
    std::memcpy(slot, change.operands + index * change.head.size, change.head.size);
    return Load<T>(slot);
}

template <typename T>
struct Step {
    T value, step, minimum, maximum;
};

template <typename T>
struct Stepped {
    T value;
    bool bounced;
};

// Integers wrap at 32 bits.
template <typename T>
T Sum(T a, T b)
{
    if constexpr (std::is_integral_v<T>) {
        return static_cast<T>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
    } else {
        return a + b;
    }
}

template <typename T>
T Difference(T a, T b)
{
    if constexpr (std::is_integral_v<T>) {
        return static_cast<T>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
    } else {
        return a - b;
    }
}

template <typename T>
bool Negative(T value)
{
    return std::is_signed_v<T> && value < T{};
}

// No rule applies to a sum that has no order with the maximum (not a number): the value stays.
template <typename T>
Stepped<T> AddStep(const Step<T>& at, bool wraps, bool bounces)
{
    const T next = Sum(at.value, at.step);
    const bool over = (at.step > T{} && next < at.value) || (Negative(at.step) && next > at.value) || next > at.maximum;
    if (!over && next < at.maximum) return {next, false};
    if (!over && next != at.maximum) return {at.value, false};
    if (wraps) return {over ? at.minimum : at.maximum, false};
    if (!bounces) return {at.maximum, false};
    if (at.value < at.maximum) return {at.maximum, true};
    const T back = Difference(at.maximum, at.step);
    return {back >= at.minimum ? back : at.minimum, true};
}

template <typename T>
Stepped<T> SubtractStep(const Step<T>& at, bool wraps, bool bounces)
{
    const T next = Difference(at.value, at.step);
    const bool under =
        (at.step > T{} && next > at.value) || (Negative(at.step) && next < at.value) || next < at.minimum;
    if (!under && next > at.minimum) return {next, false};
    if (!under && next != at.minimum) return {at.value, false};
    if (wraps) return {under ? at.maximum : at.minimum, false};
    if (!bounces) return {at.minimum, false};
    if (at.value > at.minimum) return {at.minimum, true};
    const T back = Sum(at.minimum, at.step);
    return {back <= at.maximum ? back : at.maximum, true};
}

template <typename T>
Step<T> LoadStep(const unsigned char* work, const Change& change)
{
    return {Load<T>(work), Operand<T>(change, 0), Operand<T>(change, 1), Operand<T>(change, 2)};
}

Step<std::int32_t> LoadSignedStep(const unsigned char* work, const Change& change)
{
    Step<std::int32_t> at = LoadStep<std::int32_t>(work, change);
    if (change.head.size == sizeof(std::int16_t)) {
        for (std::int32_t* each : {&at.value, &at.step, &at.minimum, &at.maximum}) {
            *each = static_cast<std::int16_t>(*each);
        }
    }
    return at;
}

template <typename T>
bool StepValue(unsigned char* work, const Change& change, const Step<T>& at, bool add)
{
    const Stepped<T> result =
        add ? AddStep(at, change.Wraps(), change.Bounces()) : SubtractStep(at, change.Wraps(), change.Bounces());
    Store(work, result.value);
    return result.bounced;
}

// Returns true when the value bounced.
bool DoArithmetic(unsigned char* work, const Change& change, bool add)
{
    switch (change.type) {
        case OperandType::Signed:
            return StepValue(work, change, LoadSignedStep(work, change), add);
        case OperandType::Unsigned:
            return StepValue(work, change, LoadStep<std::uint32_t>(work, change), add);
        case OperandType::Float:
            return StepValue(work, change, LoadStep<float>(work, change), add);
        case OperandType::Double:
            return StepValue(work, change, LoadStep<double>(work, change), add);
    }
    return false;
}

void DoDigitStep(unsigned char* work, const Change& change)
{
    const int pos = static_cast<int>(Operand<std::uint32_t>(change, 0));
    auto value = Load<std::uint32_t>(work);
    const int digit = static_cast<int>(GetPosVal(value, pos));
    const int next = change.operation == ChangeOp::DigitUp ? digit + 1 : digit - 1;
    SetPosVal(&value, CalPosVal(next, pos, change.head.size), pos);
    Store(work, value);
}

void ConvertBcd(unsigned char* work, std::uint32_t len, std::uint32_t (*convert)(std::uint32_t, int))
{
    const std::uint32_t value = convert(Load<std::uint32_t>(work), static_cast<int>(len));
    std::memcpy(work, &value, std::min<std::size_t>(len, sizeof value));
}

// An operation on numbers: host form, the operation, device form. Returns true when the value bounced.
bool DoConverted(unsigned char* work, const Change& change, std::uint32_t len, bool add, const RegKey& key)
{
    const auto order = [&] {
        operByteOrder(work, static_cast<int>(len), static_cast<int>(change.type), change.head.size, key);
    };
    bool bounced = false;
    order();
    if (isBcd(key.flag) != 0) ConvertBcd(work, len, CvtBcd2Bin);
    if (IsArithmetic(change.operation)) {
        bounced = DoArithmetic(work, change, add);
    } else {
        DoDigitStep(work, change);
    }
    if (isBcd(key.flag) != 0) ConvertBcd(work, len, CvtBin2Bcd);
    order();
    return bounced;
}

void DoMask(unsigned char* work, const Change& change, std::uint32_t len)
{
    for (std::uint32_t i = 0; i < len; ++i) {
        const unsigned mask = i < change.head.size ? change.operands[i] : 0;
        unsigned byte = work[i];
        if (change.operation == ChangeOp::And) byte &= mask;
        if (change.operation == ChangeOp::Or) byte |= mask;
        if (change.operation == ChangeOp::Xor) byte ^= mask;
        work[i] = static_cast<unsigned char>(byte);
    }
}

void DoToggle(unsigned char* work, const Change& change)
{
    if (change.head.bit < 32) Store(work, Load<std::uint32_t>(work) ^ std::uint32_t{1} << change.head.bit);
}

void DoBitField(unsigned char* work, const Change& change)
{
    const auto run = Load<BitRun>(change.operands);
    const unsigned char* bits = change.operands + sizeof run;
    for (std::uint32_t i = 0; i < run.count; ++i) {
        const std::uint32_t to = run.first + i;
        const unsigned mask = 1u << to % 8;
        const bool set = (bits[i / 8] >> i % 8 & 1) != 0;
        work[to / 8] = static_cast<unsigned char>(set ? work[to / 8] | mask : work[to / 8] & ~mask);
    }
}

// False when the descriptor names something beyond the limits, so that the image stays as it is.
bool InLimits(const Change& change, std::span<const unsigned char> desc, std::uint32_t len)
{
    if (IsArithmetic(change.operation)) return change.head.size <= MaxOperandBytes;
    if (IsDigitStep(change.operation)) {
        return change.head.size <= MaxDigitSize && Operand<std::uint32_t>(change, 0) <= MaxDigitPosition;
    }
    return change.operation != ChangeOp::BitField || BitFieldInside(desc, len);
}
}  // namespace

std::uint32_t ChangeNeeds(std::span<const unsigned char> desc)
{
    constexpr std::uint32_t Head = sizeof(ChgDesc);
    if (desc.size() < Head) return Head;
    const auto head = Load<ChgDesc>(desc.data());
    switch (static_cast<ChangeOp>(head.operation)) {
        case ChangeOp::Add:
        case ChangeOp::Subtract:
            return KnownType(head.format) && head.size <= MaxOperandBytes ? Head + 3u * head.size : Head;
        case ChangeOp::And:
        case ChangeOp::Or:
        case ChangeOp::Xor:
            return Head + head.size;
        case ChangeOp::DigitUp:
        case ChangeOp::DigitDown:
            return head.size <= MaxDigitSize ? Head + head.size : Head;
        case ChangeOp::BitField: {
            if (desc.size() < Head + sizeof(BitRun)) return Head + sizeof(BitRun);
            const auto run = Load<BitRun>(desc.data() + Head);
            return Head + sizeof(BitRun) + (run.count + 31u) / 32 * 4;
        }
        default:
            return Head;
    }
}

bool BitFieldInside(std::span<const unsigned char> desc, std::uint32_t len)
{
    const auto run = Load<BitRun>(desc.data() + sizeof(ChgDesc));
    return run.first + run.count <= std::int64_t{len} * 8;
}

std::uint32_t Chg(unsigned char* buf, std::span<const unsigned char> desc, std::uint32_t len, std::uint32_t cmdFlags,
                  RegKey key)
{
    const std::uint32_t direction = cmdFlags & CMD_REVERSED;
    if (len > MaxChangeBytes || desc.size() < ChangeNeeds(desc)) return direction;
    const Change change(desc);
    if (!InLimits(change, desc, len)) return direction;

    unsigned char work[WorkBytes] = {};
    std::memcpy(work, buf, len);
    bool bounced = false;
    switch (change.operation) {
        case ChangeOp::Add:
        case ChangeOp::Subtract:
        case ChangeOp::DigitUp:
        case ChangeOp::DigitDown:
            bounced = DoConverted(work, change, len, (change.operation == ChangeOp::Add) == (direction == 0), key);
            break;
        case ChangeOp::And:
        case ChangeOp::Or:
        case ChangeOp::Xor:
            DoMask(work, change, len);
            break;
        case ChangeOp::Not:
            for (std::uint32_t i = 0; i < len; ++i) work[i] = static_cast<unsigned char>(~work[i]);
            break;
        case ChangeOp::ToggleBit:
            DoToggle(work, change);
            break;
        case ChangeOp::BitField:
            DoBitField(work, change);
            break;
        default:
            break;
    }
    std::memcpy(buf, work, len);
    return bounced ? direction ^ CMD_REVERSED : direction;
}
