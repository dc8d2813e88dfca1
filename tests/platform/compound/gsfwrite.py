#!/usr/bin/python3
# Writes a compound file with libgsf, the other writer the tests compare against.
# usage: gsfwrite.py OUT SECTOR_SIZE; the layout is fixed: see the test that calls it.
import sys

import gi

gi.require_version("Gsf", "1")
from gi.repository import Gsf  # noqa: E402

out = Gsf.OutfileMSOle.new_full(Gsf.OutputStdio.new(sys.argv[1]), int(sys.argv[2]), 64)


def stream(parent, name, data):
    child = parent.new_child(name, False)
    child.write(data)
    child.close()


def pattern(n, seed):
    return bytes((i * 31 + seed) & 0xFF for i in range(n))


stream(out, "small", pattern(100, 1))
stream(out, "s4095", pattern(4095, 2))
stream(out, "big", pattern(70000, 3))
stream(out, "empty", b"")
sub = out.new_child("Sub", True)
stream(sub, "inner", pattern(5000, 4))
sub.close()
out.close()
