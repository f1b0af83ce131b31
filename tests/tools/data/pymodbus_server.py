#!/usr/bin/python3
"""A Modbus TCP server built on pymodbus, for checking zelt-modbus against an implementation not written here.

Usage: pymodbus_server.py PORT [--framer socket|rtu]
Listens on 127.0.0.1:PORT until killed. Protocol address 0 is the first value of each table (zero mode).
--framer rtu carries RTU frames (unit id, PDU, CRC-16) on the TCP stream, as a serial-to-Ethernet converter
in front of a serial device would; the default "socket" speaks Modbus TCP (MBAP).
"""
import argparse

from pymodbus.datastore import ModbusSequentialDataBlock, ModbusServerContext, ModbusSlaveContext
from pymodbus.device import ModbusDeviceIdentification
from pymodbus.framer.rtu_framer import ModbusRtuFramer
from pymodbus.framer.socket_framer import ModbusSocketFramer
from pymodbus.server import StartTcpServer

HOLDING = [
    0x3F80, 0x0000,  # 0: FLOAT 1.0
    0xFFFF, 0xFFFE,  # 2: INT32 -2
    0x1234,          # 4: UINT16 4660
    0x5059, 0x4D42,  # 5: STRING "PYMB"
    0x0000, 0x0000,  # 7: padding of the string
    0x0009,          # 9: bits 0 and 3 set
    0x0001, 0xE240,  # 10: UINT32 123456
]
INPUT = [0xFFFF, 0x1234]  # INT16 -1, UINT16 4660
COILS = [1, 0, 1]
DISCRETE_INPUTS = [0, 1]
IDENTITY = {
    0x00: "PyModbus Test Vendor",
    0x01: "PYM-1",
    0x02: "3.0",
    0x03: "https://pymodbus.invalid",
    0x04: "PyModbus test server",
    0x05: "PYM-1 model",
    0x06: "zelt-modbus test",
}


FRAMERS = {"socket": ModbusSocketFramer, "rtu": ModbusRtuFramer}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("port", type=int)
    parser.add_argument("--framer", choices=sorted(FRAMERS), default="socket")
    arguments = parser.parse_args()
    slave = ModbusSlaveContext(
        di=ModbusSequentialDataBlock(0, DISCRETE_INPUTS + [0] * 16),
        co=ModbusSequentialDataBlock(0, COILS + [0] * 16),
        hr=ModbusSequentialDataBlock(0, HOLDING + [0] * 16),
        ir=ModbusSequentialDataBlock(0, INPUT + [0] * 16),
        zero_mode=True,
    )
    context = ModbusServerContext(slaves=slave, single=True)
    identity = ModbusDeviceIdentification(info=IDENTITY)
    StartTcpServer(
        context=context,
        identity=identity,
        address=("127.0.0.1", arguments.port),
        framer=FRAMERS[arguments.framer],
    )


if __name__ == "__main__":
    main()
