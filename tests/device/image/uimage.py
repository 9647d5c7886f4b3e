#!/usr/bin/python3
"""uimage.py VMLINUZ UIMAGE: unpacks Debian's self-extracting ARM kernel for a machine that starts it unpacked.

Extracting it in the emulated machine costs several seconds at every boot; here it costs half a second once.
"""

import lzma
import struct
import sys
import zlib
from pathlib import Path

MAGIC = 0x27051956
# Memory of QEMU's "virt" machine starts at 1 GiB; Debian's armmp kernels are linked to run 0x208000 above that.
LOAD_ADDRESS = 0x40208000
LINUX, ARM, KERNEL, UNCOMPRESSED = 5, 2, 2, 0


def unpack(packed: bytes) -> bytes:
    """The kernel inside the extractor: the first large xz stream in the file."""
    start = packed.find(b"\xfd7zXZ\0")
    while start >= 0:
        try:
            image = lzma.LZMADecompressor().decompress(packed[start:])
            if len(image) > 1 << 20:
                return image
        except lzma.LZMAError:
            pass
        start = packed.find(b"\xfd7zXZ\0", start + 1)
    sys.exit(f"{sys.argv[1]}: no xz-compressed kernel in it")


def header(image: bytes, own_checksum: int = 0) -> bytes:
    """The 64 bytes in front of the image."""
    return struct.pack(
        ">7I4B32s",
        MAGIC,
        own_checksum,
        0,
        len(image),
        LOAD_ADDRESS,
        LOAD_ADDRESS,
        zlib.crc32(image),
        LINUX,
        ARM,
        KERNEL,
        UNCOMPRESSED,
        b"linux",
    )


def main(source: Path, target: Path) -> None:
    """Writes the image with a header over whose checksum field the checksum was taken as zero."""
    image = unpack(source.read_bytes())
    target.write_bytes(header(image, zlib.crc32(header(image))) + image)


if __name__ == "__main__":
    main(Path(sys.argv[1]), Path(sys.argv[2]))
