"""What the calls of this module raise."""
from __future__ import annotations

from . import _library


class Error(Exception):
    """A call failed; `code` is that of voq/client.h, the text is for a person."""

    code = _library.SYSTEM

    def __init__(self, text: str, code: int | None = None) -> None:
        super().__init__(text)
        if code is not None:
            self.code = code


class InvalidError(Error, ValueError):
    """An expression, name or value that makes no sense or does not fit."""


class NoPortError(Error):
    """No such port directory, no such port in the description."""


class NoServiceError(Error):
    """No service reads the port's FIFO, or it ended before it answered."""


class LockedError(Error, TimeoutError):
    """A file stayed locked by another process."""


class FullError(Error, TimeoutError):
    """The service does not take requests."""


class NoAnswerError(Error, TimeoutError):
    """No answer in time; the service may still carry the request out."""


class PlcTimeoutError(Error, TimeoutError):
    """The PLC did not answer the service."""


class PlcError(Error):
    """Communication error, or the PLC refused."""


class RefusedError(Error):
    """The service did not take the request."""


CLASSES = {_library.INVALID: InvalidError, _library.NO_PORT: NoPortError, _library.NO_SERVICE: NoServiceError,
           _library.LOCKED: LockedError, _library.FULL: FullError, _library.NO_ANSWER: NoAnswerError,
           _library.PLC_TIMEOUT: PlcTimeoutError, _library.PLC_ERROR: PlcError, _library.REFUSED: RefusedError}


def error_of(code: int, text: str = "") -> Error:
    return CLASSES.get(code, Error)(text or _library.library.strerror(code).decode(), code)
