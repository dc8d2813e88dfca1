#!/usr/bin/python3
# Opens a compound file with olefile, lists it and reads every stream; prints the seconds and bytes.
import sys
import time

import olefile

start = time.perf_counter()
ole = olefile.OleFileIO(sys.argv[1])
total = 0
for entry in ole.listdir(streams=True, storages=False):
    total += len(ole.openstream(entry).read())
ole.close()
print("%.6f %d" % (time.perf_counter() - start, total))
