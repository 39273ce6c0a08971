"""Every change of a value, on the whole process, against a second opinion that computes another way: exact integers
instead of wrap tests, decimal strings instead of division, slices instead of swaps."""
import ctypes
import math
import random
import struct
from dataclasses import make_dataclass

import pytest
from test_oneshot import ADD, BIT_FIELD, CHANGED, XOR, Client, change
from voqtest import ALWAYS, Key, com_info

SUBTRACT, AND, OR, NOT, NONE, TOGGLE, DIGIT_UP, DIGIT_DOWN = 2, 3, 4, 6, 7, 10, 0x101, 0x102
BCD, REVERSED, SYSTEM_ORDER = 1 << 15, 0x40, 0x1234


# Type: 1 signed, 2 unsigned, 3 float, 4 double. Size: of an operand. Order: the byte-order word.
Change = make_dataclass("Change", "operation type size operands bit wrap bounce reversed bcd order".split())


def operand(c, index, form="<I"):
    each = c.operands[index * c.size: (index + 1) * c.size]
    return struct.unpack(form, each.ljust(8, b"\0")[: struct.calcsize(form)])[0]


def words_reversed(raw):
    whole = len(raw) // 2 * 2
    return b"".join(raw[i: i + 2] for i in range(whole - 2, -1, -2)) + raw[whole:]


def reordered(work, length, c):
    """The image with the bytes of each number in the other order, device's or host's."""
    code = (c.order >> 8 if c.type == 3 else c.order >> 4 if c.size == 4 else c.order if c.size == 2 else 0) & 3
    if c.type == 0 or c.size == 0:
        return work
    out = b""
    for at in range(0, length, c.size):
        group = work[at: at + c.size]
        out += (group, words_reversed(group[::-1]), words_reversed(group), group[::-1])[code]
    return out + work[len(out):]


def wrapped(value, signed):
    return (value + (1 << 31)) % (1 << 32) - (1 << 31) if signed else value % (1 << 32)


def step(value, by, near, far, c, up, narrow):
    """One step towards the near limit; the value, and whether the direction turns."""
    def beyond(a, b):
        return a > b if up else a < b

    exact = value + by if up else value - by
    after = narrow(exact)
    ran_out = after != exact and exact == exact and isinstance(exact, int)
    if not ran_out and beyond(near, after):
        return after, False
    if not ran_out and after != near and not beyond(after, near):
        return value, False  # not a number
    if c.wrap:
        return near if not ran_out and after == near else far, False
    back = narrow(near - by if up else near + by)
    if not c.bounce or beyond(near, value):
        return near, c.bounce
    return back if beyond(back, far) or back == far else far, True


def stepped(work, c, up):
    """The image with its first number changed, and whether the direction turns."""
    if c.type in (1, 2):
        form, signed = "<I", c.type == 1
        numbers = [struct.unpack_from("<I", work)[0], *(operand(c, i) for i in range(3))]
        if signed and c.size == 2:
            numbers = [((n & 0xFFFF) ^ 0x8000) - 0x8000 for n in numbers]
        numbers, narrow = [wrapped(n, signed) for n in numbers], lambda n: wrapped(n, signed)
    elif c.type in (3, 4):
        form = "<f" if c.type == 3 else "<d"
        numbers = [struct.unpack_from(form, work)[0], *(operand(c, i, form) for i in range(3))]
        narrow = (lambda x: ctypes.c_float(x).value) if c.type == 3 else float
    else:
        return work, False
    value, by, low, high = numbers
    result, turned = step(value, by, *((high, low) if up else (low, high)), c, up, narrow)
    if result is value:
        return work if form != "<I" else struct.pack("<I", result % (1 << 32)) + work[4:], turned
    raw = struct.pack(form, result % (1 << 32) if form == "<I" else result)
    return raw + work[len(raw):], turned


def digit_stepped(value, c):
    place, top = operand(c, 0), ("1", "255", "65535", "16777215", "4294967295")[c.size]
    text = list(f"{value:010}")
    at = 10 - place if 1 <= place <= 10 else 9
    highest = int(top[0]) if place >= len(top) else 9
    digit = int(text[at]) + (1 if c.operation == DIGIT_UP else -1)
    text[at] = str(0 if digit > highest else highest if digit < 0 else digit)
    return int("".join(text)) % (1 << 32)


def changed(image, c):
    """What the image becomes, and whether the direction turns."""
    length, turned = len(image), False
    first, count = struct.unpack("<HH", c.operands[:4].ljust(4, b"\0"))
    if (c.operation in (ADD, SUBTRACT) and c.size > 8 or c.operation == BIT_FIELD and first + count > 8 * length
            or c.operation in (DIGIT_UP, DIGIT_DOWN) and (c.size > 4 or operand(c, 0) > 16)):
        return image, False  # what cannot be meant
    work = image + bytes(16)
    number, digits = min(length, 4), min(2 * length, 8)
    if c.operation in (ADD, SUBTRACT, DIGIT_UP, DIGIT_DOWN):
        work = reordered(work, length, c)
        if c.bcd:
            nibbles = [work[i // 2] >> i % 2 * 4 & 15 for i in range(digits)]
            value = sum(n * 10 ** i for i, n in enumerate(nibbles)) % (1 << 32)
            work = value.to_bytes(4, "little")[:number] + work[number:]
        if c.operation in (ADD, SUBTRACT):
            work, turned = stepped(work, c, (c.operation == ADD) != c.reversed)
        else:
            work = struct.pack("<I", digit_stepped(*struct.unpack_from("<I", work), c)) + work[4:]
        if c.bcd:
            value = int(f"{struct.unpack_from('<I', work)[0]:010}"[-digits:], 16)
            work = value.to_bytes(4, "little")[:number] + work[number:]
        return reordered(work, length, c)[:length], turned
    bits, mask = int.from_bytes(image, "little"), int.from_bytes(c.operands[: min(c.size, length)], "little")
    ones = (1 << 8 * length) - 1
    if c.operation == BIT_FIELD:
        run = (1 << count) - 1
        bits = bits & ~(run << first) | (int.from_bytes(c.operands[4:], "little") & run) << first
    bits = {AND: bits & mask, OR: bits | mask, XOR: bits ^ mask, NOT: bits ^ ones,
            TOGGLE: bits ^ (1 << c.bit if c.bit < 32 else 0)}.get(c.operation, bits)
    return (bits & ones).to_bytes(length, "little"), False


CORNERS = [0, 1, 2, 9, 99, 0x7F, 0xFF, 0x7FFF, 0x8000, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, 0xFFFFFFFE]
REALS = [0.0, -0.0, 0.5, 1.0, 1.5, 2.0, -1.0, -2.0, 1e30, -1e300, math.inf, math.nan]


def some_number(rng, kind):
    real = rng.choice(REALS) if rng.random() < 0.5 else float(rng.randrange(-20, 21))
    if kind in (3, 4) and rng.random() < 0.9:
        return struct.pack("<d", real) if kind == 4 else bytes(ctypes.c_float(real)) + bytes(4)
    small = rng.choice(CORNERS) if rng.random() < 0.5 else rng.randrange(-3, 9) % (1 << 64)
    return struct.pack("<Q", rng.getrandbits(64) if rng.random() < 0.3 else small)


def some_change(rng, order):
    operation = rng.choice((ADD, SUBTRACT) * 3 + (AND, OR, XOR, NOT, NONE, TOGGLE, DIGIT_UP, DIGIT_DOWN, BIT_FIELD))
    kind, size = rng.randrange(6), rng.choice((0, 1, 2, 2, 3, 4, 4, 4, 5, 8, 8, 9))
    if operation in (DIGIT_UP, DIGIT_DOWN):
        size = rng.choice((0, 1, 2, 3, 4, 4, 5))
        operands = rng.randrange(19).to_bytes(8, "little")[:size]
    else:
        operands = b"".join(some_number(rng, kind)[:size].ljust(size, b"\0") for _ in range(3))
    bit = rng.randrange(rng.choice((32, 256)))
    return Change(operation, kind, size, operands, bit, *(rng.random() < p for p in (0.3, 0.5, 0.3, 0.25)), order)


@pytest.mark.sanitized
@pytest.mark.parametrize("word", [0, 0x331, 0x112, 0x223])
def test_changes_agree_with_a_second_opinion(start, word):
    rng = random.Random(word)
    client = Client(start(com_info(pause=0, word=word)))
    for batch in range(8):
        cases = []
        for n in range(250):
            local = rng.random() < 0.3  # the panel's registers have its own order
            c = some_change(rng, SYSTEM_ORDER if local else word)
            element = rng.choice((0, 1, 2, 2, 3, 4, 4, 8))
            width = max(1, c.size // max(1, element)) if rng.random() < 0.7 else rng.randrange(1, 9)
            if c.operation == BIT_FIELD:  # from the first element into the last
                element = rng.choice((2, 4, 8))
                first, count = rng.randrange(8 * element), rng.randrange(1, 100)
                width = -(-(first + count) // (8 * element))
                count += (8 * width * element - first - count + 1) * (rng.random() < 0.1)  # one bit too far
                c.operands = struct.pack("<HH", first, count) + rng.randbytes((count + 31) // 32 * 4)
            key = Key(100 * n, width, int(element > 0), 0x20 + element, batch, flag=ALWAYS | (BCD if c.bcd else 0),
                      portno=0xFF if local else 1)
            image = (some_number(rng, c.type) + some_number(rng, c.type) + bytes(200))[: key.size]
            client.sim.set(key, image)
            form = c.type | 0x8000 * c.wrap | 0x4000 * c.bounce
            subcmd = CHANGED | REVERSED * c.reversed
            cases.append((c, key, image, change(subcmd, c.operation, key, c.operands, c.bit, form, c.size)))
        answers = client.served(*(request for *_, request in cases))
        for (c, key, image, _), answer in zip(cases, answers):
            expected, turned = changed(image, c)
            direction = b"\1\x40" if turned != c.reversed else b"\1\0"
            assert (answer, client.sim.value(key)) == ((1, direction), expected), (c, key, image)
