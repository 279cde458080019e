"""Holds HAL shared memory for a test, from inside the emulator: allocates SIZE bytes, fills
them with a pattern derived from SEED, prints "<share handle> <physical address>" and keeps the
memory alive until its standard input closes. The daemon imports the memory by handle from this
process, so it must live until the transfer is over.

usage: shm_holder.py LIBARVOHAL SIZE SEED
"""

import ctypes
import hashlib
import sys


def pattern(size, seed):
    out = bytearray()
    counter = 0
    while len(out) < size:
        out += hashlib.sha256(f"{seed}:{counter}".encode()).digest() * 64
        counter += 1
    return bytes(out[:size])


def main():
    library, size, seed = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    hal = ctypes.CDLL(library)
    u32, u64 = ctypes.c_uint32, ctypes.c_uint64
    if hal.arvo_hal_initialize(None) != 0:
        sys.exit("arvo_hal_initialize failed")
    device = u32()
    if hal.arvo_hal_device_open(b"/dev/ion", None, ctypes.byref(device)) not in (0, -1004):
        sys.exit("cannot open /dev/ion")
    memory = u32()
    if hal.arvo_hal_mem_alloc(device, ctypes.byref(memory), size, 1024, 0, 27) != 0:
        sys.exit("arvo_hal_mem_alloc failed")
    base = ctypes.POINTER(ctypes.c_uint8)()
    if hal.arvo_hal_mem_map(memory, ctypes.byref(base)) != 0:
        sys.exit("arvo_hal_mem_map failed")
    ctypes.memmove(base, pattern(size, seed), size)
    handle, phys = u64(), u32()
    hal.arvo_hal_mem_share(memory, ctypes.byref(handle))
    hal.arvo_hal_mem_get_phys_addr(memory, ctypes.byref(phys))
    print(handle.value, phys.value, flush=True)
    sys.stdin.read()
    hal.arvo_hal_mem_free(memory)


if __name__ == "__main__":
    main()
