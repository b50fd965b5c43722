#!/usr/bin/python3
"""publish.py FILE: replaces the alarms file FILE by standard input. A reader sees the old text
or the new one, never a part, and always another time.
"""

import os
import sys
import tempfile
import time


def publish(path, text):
    # In the same directory, for a file only moves whole within one file system.
    descriptor, new = tempfile.mkstemp(dir=os.path.dirname(path) or ".")
    try:
        with os.fdopen(descriptor, "w") as file:
            file.write(text)
        os.chmod(new, 0o644)
        # Versions are told apart by their times in whole seconds. Counting up from the version
        # before never comes back to a time that was used already.
        try:
            previous = int(os.stat(path).st_mtime)
        except FileNotFoundError:
            previous = 0
        seconds = max(int(time.time()), previous + 1)
        os.utime(new, (seconds, seconds))
        os.replace(new, path)
    except BaseException:
        os.unlink(new)
        raise


if __name__ == "__main__":
    publish(sys.argv[1], sys.stdin.read())
