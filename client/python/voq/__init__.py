"""A client of a voq service: follows, reads and writes the registers of its PLC.

    import voq

    with voq.Port("/home/user/tcp_1", byte_order=0) as port:
        port["s1:a4:u16@10*2"].value = [1, 2]
        level = port["s1:a4:u16@100"].subscribe()
        for changed in port:
            print(changed.name, changed.value)

The same for asyncio: `async for changed in port`, `await port[...].read_async()`.
"""
from ._errors import (Error, FullError, InvalidError, LockedError, NoAnswerError, NoPortError, NoServiceError, PlcError,
                      PlcTimeoutError, RefusedError)
from ._library import library as _loaded
from ._port import Event, Port, Project
from ._range import Meaning, Range, Reading

__version__: str = _loaded.version().decode()
__all__ = ["Error", "Event", "FullError", "InvalidError", "LockedError", "Meaning", "NoAnswerError", "NoPortError",
           "NoServiceError", "PlcError", "PlcTimeoutError", "Port", "Project", "Range", "Reading", "RefusedError"]
