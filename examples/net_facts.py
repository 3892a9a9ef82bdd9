#!/usr/bin/env python3
"""Shows the address and the MTU of a network interface, through the shared library.

    LD_LIBRARY_PATH=build/shared examples/net_facts.py eth0

An installed library needs no LD_LIBRARY_PATH. Exits with 1 when there is no such interface.
"""

import ctypes
import sys

# From common/net_info.h. Values of public constants stay.
COM_NET_IP_TEXT = 20
COM_NET_MTU = 43
COM_NET_ADDRESS_TEXT_SIZE = 16

common = ctypes.CDLL("libtalvek_common.so.1")
common.COM_GetNetInfo.argtypes = [ctypes.c_uint32, ctypes.c_char_p, ctypes.c_void_p]
common.COM_GetNetInfo.restype = ctypes.c_int


def main(arguments):
    if len(arguments) != 2:
        print(f"usage: {arguments[0]} <interface>", file=sys.stderr)
        return 2
    name = arguments[1].encode()
    mtu = ctypes.c_int32()
    if common.COM_GetNetInfo(COM_NET_MTU, name, ctypes.byref(mtu)) != 0:
        print(f"{arguments[1]}: no such interface", file=sys.stderr)
        return 1
    address = ctypes.create_string_buffer(COM_NET_ADDRESS_TEXT_SIZE)
    common.COM_GetNetInfo(COM_NET_IP_TEXT, name, address)
    print("interface", arguments[1])
    print("mtu", mtu.value)
    print("address", address.value.decode())
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
