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


def allocate(library, size, seed):
    """HAL memory of this process holding pattern(size, seed): (library, memory object, share
    handle, physical address)."""
    hal = ctypes.CDLL(library)
    device, memory, phys, handle = ctypes.c_uint32(), ctypes.c_uint32(), ctypes.c_uint32(), ctypes.c_uint64()
    base = ctypes.POINTER(ctypes.c_uint8)()
    if (hal.arvo_hal_initialize(None) != 0
            or hal.arvo_hal_device_open(b"/dev/ion", None, ctypes.byref(device)) not in (0, -1004)
            or hal.arvo_hal_mem_alloc(device, ctypes.byref(memory), size, 1024, 0, 27) != 0
            or hal.arvo_hal_mem_map(memory, ctypes.byref(base)) != 0):
        raise RuntimeError("cannot allocate %d bytes of HAL memory" % size)
    ctypes.memmove(base, pattern(size, seed), size)
    hal.arvo_hal_mem_share(memory, ctypes.byref(handle))
    hal.arvo_hal_mem_get_phys_addr(memory, ctypes.byref(phys))
    return hal, memory, handle.value, phys.value


def main():
    try:
        hal, memory, handle, phys = allocate(sys.argv[1], int(sys.argv[2]), sys.argv[3])
    except RuntimeError as error:
        sys.exit(str(error))
    print(handle, phys, flush=True)
    sys.stdin.read()
    hal.arvo_hal_mem_free(memory)


if __name__ == "__main__":
    main()
