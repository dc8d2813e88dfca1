#!/usr/bin/python3
# Lists a compound file as seen by olefile in its strict mode: one line per element,
# "d PATH" for storages and "f PATH SIZE CRC32" for streams, sorted. Exit 1 on any defect.
import sys
import zlib

import olefile

ole = olefile.OleFileIO(sys.argv[1], raise_defects=olefile.DEFECT_INCORRECT)
lines = []
for entry in ole.listdir(streams=True, storages=True):
    path = "/".join(entry)
    if ole.get_type(entry) == olefile.STGTY_STORAGE:
        lines.append("d " + path)
    else:
        data = ole.openstream(entry).read()
        lines.append("f %s %d %08x" % (path, len(data), zlib.crc32(data) & 0xFFFFFFFF))
for line in sorted(lines):
    text = "".join("\\x%02x" % ord(c) if ord(c) < 0x20 else c for c in line)
    sys.stdout.buffer.write(text.encode("utf-8", "backslashreplace") + b"\n")
