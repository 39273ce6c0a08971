"""A port of a service: its ranges and what happens to them."""
from __future__ import annotations

import asyncio
import contextlib
import ctypes
import os
import time
from collections import deque
from ctypes import byref, c_void_p
from typing import AsyncIterator, Iterator, Literal, NamedTuple

from . import _library
from ._errors import error_of
from ._library import library
from ._range import Range, milliseconds

Kind = Literal["changed", "service_lost", "service_back", "link_changed"]
KINDS: dict[int, Kind] = {1: "changed", 3: "service_lost", 4: "service_back", 5: "link_changed"}
ANSWERED = 2


class Event(NamedTuple):
    kind: Kind
    range: Range | None  # of "changed"


class Project:
    """A project's description (TOML)."""

    def __init__(self, file: str | os.PathLike[str]) -> None:
        handle, error = c_void_p(), _library.ErrorRecord()
        code = library.project_load(os.fsencode(file), byref(handle), byref(error))
        if code != _library.OK:
            raise error_of(code, error.text.decode(errors="replace"))
        self._handle = handle.value

    def __del__(self) -> None:
        if getattr(self, "_handle", None):
            library.project_free(self._handle)

    @property
    def ports(self) -> list[str]:
        """The names of the ports' directories, by index."""
        return [library.project_port_name(self._handle, index).decode()
                for index in range(library.project_ports(self._handle))]

    def names(self, index: int = 0) -> list[str]:
        """The names of a port's registers."""
        return [library.project_name(self._handle, index, number).decode()
                for number in range(library.project_names(self._handle, index))]


class Port:
    """A port, by its directory, or by a user data directory with a project and the port's index in it:

        with voq.Port("/home/user", project="box.toml") as port:
            port["setpoints"].value = [1, 2]

    Options are those of voq_port_set: byte_order, interval_ms, lock_ms, ... A port is used by one thread at a time.
    """

    def __init__(self, directory: str | os.PathLike[str], project: Project | str | os.PathLike[str] | None = None,
                 index: int = 0, **options: int) -> None:
        self._pointer: int | None = None
        self._ranges: dict[str, Range] = {}
        self._by_handle: dict[int, Range] = {}
        self._events: deque[Event] = deque()
        self._answers: dict[int, asyncio.Future[None]] = {}
        self._waiting: list[asyncio.Future[None]] = []
        self._readers = 0
        handle, error, path = c_void_p(), _library.ErrorRecord(), os.fsencode(directory)
        if project is None:
            code = library.port_open(path, byref(handle), byref(error))
        else:
            known = project if isinstance(project, Project) else Project(project)
            code = library.port_open_project(path, known._handle, index, byref(handle), byref(error))
        if code != _library.OK:
            raise error_of(code, error.text.decode(errors="replace"))
        self._pointer = handle.value
        try:
            for name, value in options.items():
                if name not in _library.OPTIONS:
                    raise TypeError(f"no option {name!r}")
                self._check(library.port_set(self._handle, _library.OPTIONS[name], value))
        except BaseException:
            self.close()
            raise

    def close(self) -> None:
        """Ends all subscriptions; the port and its ranges are of no use then."""
        handle, self._pointer = self._pointer, None
        for answered in [*self._answers.values(), *self._waiting]:
            answered.cancel()
        for known in self._by_handle.values():
            known._pointer = None
        library.port_close(handle)

    def __enter__(self) -> Port:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_pointer", None):
            self.close()

    @property
    def _handle(self) -> int:
        if self._pointer is None:
            raise error_of(_library.INVALID, "the port is closed")
        return self._pointer

    def _check(self, code: int) -> int:
        if code >= 0:
            return code
        raise error_of(code, library.port_error(self._handle).decode(errors="replace"))

    def __getitem__(self, text: str) -> Range:
        """The range of an expression ("s1:a4:u16@100*4") or, with a project, of a register's name."""
        known = self._ranges.get(text)
        if known is None:
            known = self._ranges[text] = Range(self, text)
            self._by_handle[known._handle] = known
        return known

    def subscribe(self, *texts: str) -> list[Range]:
        """Several ranges at once."""
        return [self[text].subscribe() for text in texts]

    @property
    def running(self) -> bool:
        """Whether a service serves the port, as of the last poll."""
        return library.port_running(self._handle) == 1

    @property
    def link(self) -> Literal["good", "timeout", "error"]:
        """How the link to the PLC is, as of the last poll."""
        return ("good", "timeout", "error")[library.port_link(self._handle)]

    def status(self) -> dict[str, int]:
        """struct voq_status: one look at the port's files now."""
        record = _library.StatusRecord()
        self._check(library.port_status(self._handle, byref(record), ctypes.sizeof(record)))
        return {name: getattr(record, name) for name, *_ in record._fields_ if name != "reserved"}

    def statistics(self) -> dict[str, int | dict[str, int]]:
        """struct voq_statistics: what the service counts."""
        record = _library.StatisticsRecord()
        self._check(library.port_statistics(self._handle, byref(record), ctypes.sizeof(record)))
        values = ((name, getattr(record, name)) for name, *_ in record._fields_)
        return {name: fields(value) if isinstance(value, ctypes.Structure) else value for name, value in values}

    def station(self, station: int) -> dict[str, int]:
        """struct voq_calls: reads and writes of one PLC station together."""
        record = _library.CallsRecord()
        self._check(library.port_station(self._handle, station, byref(record), ctypes.sizeof(record)))
        return fields(record)

    # Events

    def fileno(self) -> int:
        """For select and the like: readable when poll() has something to do."""
        return self._check(library.port_fd(self._handle))

    def poll(self, timeout: float | None = 0) -> list[Event]:
        """What has happened, after at most so many seconds of waiting for something; None: no limit."""
        if not self._events:
            end = None if timeout is None else time.monotonic() + timeout
            while True:
                left = -1 if end is None else 0 if timeout == 0 else milliseconds(max(0, end - time.monotonic()))
                code = library.port_wait(self._handle, left)
                if code != _library.INTERRUPTED:
                    break
            self._check(code)
            self._take()
        events = list(self._events)
        self._events.clear()
        return events

    def events(self, timeout: float | None = None) -> Iterator[Event]:
        """Events as they come, until none came for so many seconds."""
        while events := self.poll(timeout):
            yield from events

    def changes(self, timeout: float | None = None) -> Iterator[Range]:
        """Subscribed ranges as their value, state or liveness changes, until none did for so many seconds."""
        end = None if timeout is None else time.monotonic() + timeout
        while True:
            left = None if end is None else max(0, end - time.monotonic())
            changed = [event.range for event in self.poll(left) if event.range is not None]
            if changed and timeout is not None:
                end = time.monotonic() + timeout
            yield from changed
            if end is not None and time.monotonic() >= end:
                return

    def __iter__(self) -> Iterator[Range]:
        return self.changes()

    def _take(self) -> None:
        """Sorts the library's events into ours and the answers of requests that somebody awaits."""
        record = _library.EventRecord()
        while library.port_next_event(self._handle, byref(record)) == 1:
            if record.type == ANSWERED:
                answered = self._answers.pop(record.request, None)
                if answered is not None and not answered.done():
                    answered.set_result(None)
            elif record.type in KINDS:
                self._events.append(Event(KINDS[record.type], self._by_handle.get(record.range)))

    # asyncio: as long as somebody waits, the loop reads the port's descriptor.

    @contextlib.contextmanager
    def _reading_events(self) -> Iterator[None]:
        loop, descriptor = asyncio.get_running_loop(), self.fileno()
        if self._readers == 0:
            loop.add_reader(descriptor, self._ready)
        self._readers += 1
        try:
            yield
        finally:
            self._readers -= 1
            if self._readers == 0:
                loop.remove_reader(descriptor)

    def _ready(self) -> None:
        if self._pointer is None:
            return
        code = library.port_dispatch(self._handle)
        self._take()
        waiting, self._waiting = self._waiting, []
        for waiter in waiting:
            if waiter.done():
                continue
            if code < 0 and code != _library.LOCKED:
                waiter.set_exception(error_of(code, library.port_error(self._handle).decode(errors="replace")))
            elif self._events:
                waiter.set_result(None)
            else:
                self._waiting.append(waiter)

    async def poll_async(self) -> list[Event]:
        """What has happened, as soon as something has."""
        if not self._events:
            waiter: asyncio.Future[None] = asyncio.get_running_loop().create_future()
            with self._reading_events():
                self._waiting.append(waiter)
                await waiter
        events = list(self._events)
        self._events.clear()
        return events

    async def __aiter__(self) -> AsyncIterator[Range]:
        while True:
            for event in await self.poll_async():
                if event.range is not None:
                    yield event.range


def fields(record: ctypes.Structure) -> dict[str, int]:
    return {name: getattr(record, name) for name, *_ in record._fields_}
