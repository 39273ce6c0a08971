"""A Modbus TCP server that is not ours: foreign_plc.py PORT. Unit 1 has no holding register 7, unit 2 takes 400 ms."""
import asyncio
import sys
import time

from pymodbus import server
from pymodbus.datastore import ModbusServerContext, ModbusSlaveContext, ModbusSparseDataBlock


class Slow(ModbusSlaveContext):
    def getValues(self, *where, **what):
        time.sleep(0.4)
        return super().getValues(*where, **what)


def unit(kind):
    return kind(hr=ModbusSparseDataBlock({n + 1: n for n in range(20) if n != 7}))  # the store counts from one


asyncio.run(server.StartAsyncTcpServer(ModbusServerContext(slaves={1: unit(ModbusSlaveContext), 2: unit(Slow)}, single=False),
                                       address=("127.0.0.1", int(sys.argv[1]))))
