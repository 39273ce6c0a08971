"""A register range of a port: described, subscribed, read and written."""
from __future__ import annotations

import asyncio
import ctypes
import math
from ctypes import byref, c_double, c_int, c_int64, c_size_t, c_void_p
from typing import TYPE_CHECKING, NamedTuple, Sequence, Union

from . import _library
from ._errors import error_of
from ._library import library

if TYPE_CHECKING:
    from ._port import Port

Element = Union[int, float, bytes]
Value = Union[Element, "list[Element]"]
Settable = Union[Element, Sequence[Element]]


class Reading(NamedTuple):
    """What the service knew of a subscribed range when the port was dispatched last."""

    value: Value | None  # the last good one; None before there is one
    state: int           # 1 good, 0 not read yet, 2 time-out, 3 error, -1 not known to the service yet
    live: bool           # the service runs, and has read the value since the subscription
    stamp: float         # when it did, in seconds since 1970; 0 for never
    age: float           # how long ago that is, in seconds


class Meaning(NamedTuple):
    """What the values mean to a person, as the project's description says."""

    unit: str
    comment: str
    scale: float
    offset: float
    minimum: float | None
    maximum: float | None
    decimals: int | None
    is_text: bool


class Range:
    """Made by port["..."]. An element is an int, a float or, of raw types, bytes, as it lies in the PLC
    (`text` and `enter` scale it and keep the description's limits); a value of one element is that element,
    of several a list."""

    def __init__(self, port: Port, text: str) -> None:
        self.port, self.name = port, text
        handle = c_void_p()
        port._check(library.range_new(port._handle, text.encode(), byref(handle)))
        self._pointer = handle.value
        self.count: int = library.range_count(self._handle)
        self._bytes: int = library.range_bytes(self._handle)
        self._type = library.range_type(self._handle)
        is_float = self._type in (_library.FLOAT, _library.DOUBLE)
        self._numbers = ((c_double if is_float else c_int64) * self.count)()
        self._decode = library.decode_doubles if is_float else library.decode_integers
        self._encode = library.encode_doubles if is_float else library.encode_integers
        self._image = ctypes.create_string_buffer(self._bytes)
        self._reading = _library.ReadingRecord()

    @property
    def _handle(self) -> int:
        if self._pointer is None:
            raise error_of(_library.INVALID, "the port is closed")
        return self._pointer

    def __repr__(self) -> str:
        return f"<voq.Range {self.name!r}>"

    # Subscribed

    def subscribe(self) -> Range:
        """The service polls the range from now on; its changes come by iteration over the port."""
        self.port._check(library.subscribe(self._handle))
        return self

    def unsubscribe(self) -> None:
        self.port._check(library.unsubscribe(self._handle))

    @property
    def reading(self) -> Reading | None:
        """Of a subscribed range; None of any other. Reads no file: iterate over the port, or call its poll()."""
        record = self._reading
        if library.range_reading(self._handle, byref(record)) != _library.OK:
            return None
        value = self._value_of(record.data, record.length) if record.data else None
        return Reading(value, record.state, bool(record.live), record.stamp_us / 1e6, record.age_us / 1e6)

    @property
    def value(self) -> Value | None:
        """Of a subscribed range the last value, None before there is one; of any other what a read gives now. Setting it
        writes it and waits for the answer."""
        record = self._reading
        if library.range_reading(self._handle, byref(record)) != _library.OK:
            return self.read()
        return self._value_of(record.data, record.length) if record.data else None

    @value.setter
    def value(self, value: Settable) -> None:
        self.write(value)

    @property
    def text(self) -> str:
        """The value of a subscribed range as a person reads it: scaled and named as the description says."""
        record = self._reading
        if library.range_reading(self._handle, byref(record)) != _library.OK or not record.data:
            return ""
        length = self.port._check(library.show(self._handle, record.data, record.length, None, 0))
        text = ctypes.create_string_buffer(length + 1)
        self.port._check(library.show(self._handle, record.data, record.length, text, len(text)))
        return text.value.decode(errors="replace")

    @property
    def meaning(self) -> Meaning:
        record = _library.MeaningRecord()
        self.port._check(library.range_meaning(self._handle, byref(record), ctypes.sizeof(record)))
        limits = (None if math.isnan(limit) else limit for limit in (record.minimum, record.maximum))
        return Meaning(record.unit.decode(), record.comment.decode(), record.scale, record.offset, *limits,
                       None if record.decimals < 0 else record.decimals, record.text != 0)

    # One-shot requests. Each waits for its answer for `timeout` seconds and raises Error without one.

    def read(self, timeout: float = 10) -> Value:
        """The value as the PLC has it now."""
        length = self.port._check(library.read(self._handle, self._image, self._bytes, milliseconds(timeout)))
        return self._value_of(ctypes.addressof(self._image), length)

    def write(self, value: Settable, timeout: float = 10) -> None:
        image = self._image_of(value)
        self.port._check(library.write(self._handle, image, len(image), milliseconds(timeout)))

    def enter(self, text: str, timeout: float = 10) -> None:
        """Writes what a person typed: scaled and named as the description says."""
        self.port._check(library.enter(self._handle, text.encode(), self._image, self._bytes))
        self.port._check(library.write(self._handle, self._image, self._bytes, milliseconds(timeout)))

    def change(self, change: str, timeout: float = 10) -> bool:
        """Changes the value in place: "add 1 max 10", "toggle 3", ... (voq_change). True when a bounce has turned the
        direction: add "reversed" to the next step."""
        turned = c_int()
        self.port._check(library.change(self._handle, change.encode(), byref(turned), milliseconds(timeout)))
        return bool(turned.value)

    def pulse(self, seconds: float, bit: int = -1, value: bool = True, timeout: float = 10) -> None:
        """Sets a bit, and its opposite after so many seconds; answered then."""
        self.port._check(library.pulse(self._handle, bit, value, milliseconds(seconds), milliseconds(timeout)))

    # The same for asyncio

    async def read_async(self, timeout: float = 10) -> Value:
        request = await self._asked(library.begin_read, milliseconds(timeout))
        length = c_size_t()
        data = library.request_data(request, byref(length))
        value = self._value_of(data, length.value)
        library.request_free(request)
        return value

    async def write_async(self, value: Settable, timeout: float = 10) -> None:
        image = self._image_of(value)
        library.request_free(await self._asked(library.begin_write, image, len(image), milliseconds(timeout)))

    async def change_async(self, change: str, timeout: float = 10) -> bool:
        request = await self._asked(library.begin_change, change.encode(), milliseconds(timeout))
        turned = bool(library.request_reversed(request))
        library.request_free(request)
        return turned

    async def pulse_async(self, seconds: float, bit: int = -1, value: bool = True, timeout: float = 10) -> None:
        arguments = bit, value, milliseconds(seconds), milliseconds(timeout)
        library.request_free(await self._asked(library.begin_pulse, *arguments))

    async def _asked(self, begin, *arguments) -> int:
        """The handle of a request that is done; frees it when it failed or nobody waits any more."""
        handle = c_void_p()
        self.port._check(begin(self._handle, *arguments, byref(handle)))
        request = handle.value
        assert request is not None
        answered: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self.port._answers[request] = answered
        try:
            with self.port._reading_events():
                await answered
            code = library.request_result(request)
            if code != _library.OK:
                raise error_of(code, f"{self.name}: {library.strerror(code).decode()}")
            return request
        except BaseException:
            self.port._answers.pop(request, None)
            if self.port._pointer:
                library.request_free(request)
            raise

    # Values

    def _value_of(self, data: int | None, length: int) -> Value:
        if self._type == _library.RAW:
            image = ctypes.string_at(data or 0, length)
            size = self._bytes // self.count
            elements: list = [image[at:at + size] for at in range(0, len(image), size)]
        else:
            numbers = self._numbers
            self.port._check(self._decode(self._handle, data, length, numbers, self.count))
            if self.count == 1:
                return numbers[0]
            return numbers[:]
        return elements[0] if self.count == 1 else elements

    def _image_of(self, value: Settable) -> ctypes.Array:
        image = ctypes.create_string_buffer(self._bytes)
        elements = list(value) if isinstance(value, Sequence) and not isinstance(value, bytes) else [value]
        if self._type == _library.RAW:
            joined = b"".join(elements)  # type: ignore[arg-type]
            if len(joined) != self._bytes:
                raise error_of(_library.INVALID, f"{self.name}: {len(joined)} bytes, the range has {self._bytes}")
            image.raw = joined
            return image
        try:
            numbers = (type(self._numbers)._type_ * len(elements))(*elements)
        except TypeError as error:
            raise error_of(_library.INVALID, f"{self.name}: {error}") from None
        self.port._check(self._encode(self._handle, numbers, len(elements), image, self._bytes))
        return image


def milliseconds(seconds: float) -> int:
    return max(1, min(round(seconds * 1000), 2**31 - 1))
