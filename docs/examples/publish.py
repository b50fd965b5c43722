#!/usr/bin/python3
"""Replaces the alarms file FILE by standard input. A reader sees the old text or the new one, never
a part, and always another time.
"""

import argparse
import fcntl
import os
import signal
import sys
import tempfile
import time


def publish(path, text):
    folder = os.path.dirname(path) or "."
    # One publisher at a time, by a lock on the directory, which no rename takes away; and each to
    # its end, which is near.
    lock = os.open(folder, os.O_RDONLY)
    try:
        fcntl.flock(lock, fcntl.LOCK_EX)
        mask = signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())
        try:
            replace(folder, path, text)
        finally:
            signal.pthread_sigmask(signal.SIG_SETMASK, mask)
    finally:
        os.close(lock)


def replace(folder, path, text):
    # In the same directory, for a file only moves whole within one file system.
    descriptor, new = tempfile.mkstemp(dir=folder)
    try:
        with os.fdopen(descriptor, "w") as file:
            # Who may look into the directory may read the file.
            os.fchmod(descriptor, os.stat(folder).st_mode & 0o666)
            file.write(text)
        # Versions are told apart by their times in whole seconds. Counting up from the version
        # before never comes back to a time that was used already.
        try:
            previous = int(os.lstat(path).st_mtime)
        except FileNotFoundError:
            previous = 0
        seconds = max(int(time.time()), previous + 1)
        os.utime(new, (seconds, seconds))
        os.replace(new, path)
    except BaseException:
        os.unlink(new)
        raise


if __name__ == "__main__":
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("file", metavar="FILE")
    publish(arguments.parse_args().file, sys.stdin.read())
