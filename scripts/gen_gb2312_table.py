#!/usr/bin/env python3
"""Writes a GB2312 font table: one 2-byte entry per code point U+4E00..U+9FA5 (41804 bytes, no
header). An entry holds the character's GB2312 (EUC-CN) bytes in text order, lead byte first;
a character that GB2312 lacks gets 00 00. The encoder is glibc's iconv program, so that the
table comes from a converter the distribution ships rather than from anything of ours.

usage: gen_gb2312_table.py OUTPUT_FILE
"""
import os
import subprocess
import sys
import tempfile

FIRST = 0x4E00
LAST = 0x9FA5
MISSING = b"\x00\x00"


def encode_all():
    # One character per line: "iconv -c" drops what it cannot convert, which leaves an empty
    # line, so every line still stands for its code point. EUC-CN bytes are all 0xA1 or above
    # and never look like a newline.
    text = "".join(chr(cp) + "\n" for cp in range(FIRST, LAST + 1))
    result = subprocess.run(
        ["iconv", "-c", "-f", "UTF-32LE", "-t", "GB2312"],
        input=text.encode("utf-32-le"),
        stdout=subprocess.PIPE,
        check=False,
    )
    # Status 1 only says that some characters were dropped.
    if result.returncode not in (0, 1):
        sys.exit("iconv failed with status %d" % result.returncode)
    lines = result.stdout.split(b"\n")
    if lines[-1] != b"":
        sys.exit("iconv output does not end in a newline")
    lines = lines[:-1]
    if len(lines) != LAST - FIRST + 1:
        sys.exit("iconv gave %d lines for %d characters" % (len(lines), LAST - FIRST + 1))
    entries = []
    for cp, line in zip(range(FIRST, LAST + 1), lines):
        if line == b"":
            entries.append(MISSING)
        elif len(line) == 2:
            entries.append(line)
        else:
            sys.exit("U+%04X encoded to %d bytes" % (cp, len(line)))
    return b"".join(entries)


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__.strip().splitlines()[-1])
    output = sys.argv[1]
    table = encode_all()
    folder = os.path.dirname(os.path.abspath(output))
    os.makedirs(folder, exist_ok=True)
    # Written beside the target and renamed, so a failed run never leaves half a table.
    fd, temporary = tempfile.mkstemp(dir=folder, prefix=".gb2312.")
    try:
        with os.fdopen(fd, "wb") as out:
            out.write(table)
        os.chmod(temporary, 0o644)
        os.replace(temporary, output)
    except BaseException:
        os.unlink(temporary)
        raise


if __name__ == "__main__":
    main()
