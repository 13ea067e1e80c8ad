#!/usr/bin/env python3
"""Writes the seed corpus under fuzz/corpus/ from valid (and a few nearly
valid) messages. Rerun after changing the wire format; the fuzzers never
write here themselves."""
import hashlib
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
BUNDLE_KEY = bytes([0x5e, 0x13, 0xc0, 0x7a, 0x9d, 0x4b, 0x22, 0x68])
CHALLENGE = b"fuzzkelp"  # fixture_challenge in fuzz_support.h


def rc4(key, data):
    s = list(range(256))
    j = 0
    for i in range(256):
        j = (j + s[i] + key[i % len(key)]) & 0xFF
        s[i], s[j] = s[j], s[i]
    x = y = 0
    out = bytearray()
    for b in data:
        x = (x + 1) & 0xFF
        y = (y + s[x]) & 0xFF
        s[x], s[y] = s[y], s[x]
        out.append(b ^ s[(s[x] + s[y]) & 0xFF])
    return bytes(out)


def le32(v):
    return struct.pack("<I", v)


def frames(data):
    out = b""
    for i in range(0, len(data), 1460):
        part = data[i:i + 1460]
        out += struct.pack("<H", len(part)) + part.ljust(1460, b"\0")
    return out


def bundle(plain, version=b"\x01\x00\x00\x20", size_delta=0, digest=None):
    header = b"kelp-v3 configuration".ljust(24, b"\0")
    header += digest if digest is not None else hashlib.md5(plain).digest()
    header += version + le32(48 + len(plain) + size_delta)
    return header + rc4(BUNDLE_KEY, plain)


def request(action, script=0, flags=0, size=0, mode=0):
    return b"\x00\x01" + bytes([mode, action, script, flags]) + b"\0" * 32 + le32(size)


def auth_reply(password, tag=b"\x02\x01"):
    return tag + rc4(CHALLENGE, password.ljust(32, b"\0"))


def kick_name(name):
    return le32(len(name)) + name


CONFIG = b"".join(b"set option%d value%d\n" % (i, i) for i in range(60))  # ~1.3 kB
SMALL = b"hostname router\n"

SEEDS = {
    "auth": {
        "right": auth_reply(b"secret"),
        "wrong": auth_reply(b"secreT"),
        "bad_tag": auth_reply(b"secret", tag=b"\x01\x02"),
        "short": auth_reply(b"secret")[:20],
    },
    "request": {
        "nothing": request(0),
        "send_config": request(1),
        "send_script": request(2, script=1),
        "send_script_refused": request(2, script=5),
        "receive_config": request(3, size=len(bundle(CONFIG)), flags=1) + frames(bundle(CONFIG)),
        "receive_config_small": request(3, size=100) + frames(b"x" * 100),
        "receive_script": request(4, script=7, flags=3, size=len(SMALL)) + frames(SMALL),
        "ppp_list": request(18),
        "hotspot_list": request(19),
        "throughput_rx": request(32),
        "throughput_tx": request(33) + b"\xAA" * 300,
        "kick_ppp": request(48) + kick_name(b"alice"),
        "kick_hotspot": request(53) + kick_name(b"bob"),
        "kick_ip": request(54) + bytes([10, 0, 0, 5]),
        "sysinfo": request(64),
        "kernlog": request(65),
        "core_sysinfo": request(96),
        "firmware": request(241, flags=1, size=100) + frames(b"\x7fFW" * 33 + b"!"),
        "unknown": request(200),
    },
    "frames": {
        "one": le32(len(SMALL)) + frames(SMALL),
        "three": le32(3000) + frames(b"z" * 3000),
        "zero_length": le32(10) + b"\0\0" + b"\0" * 1460,
        "overlong": le32(10) + struct.pack("<H", 1461) + b"\0" * 1460,
        "more_than_declared": le32(5) + frames(SMALL),
    },
    "bundle": {
        "valid": bundle(SMALL),
        "two_chunks": bundle(CONFIG),
        "empty_body": bundle(b""),
        "bad_version": bundle(SMALL, version=b"\x01\x00\x00\x21"),
        "bad_size": bundle(SMALL, size_delta=1),
        "bad_digest": bundle(SMALL, digest=b"\0" * 16),
    },
    "ppp_info": {
        "info": b"PPP=ppp0\nTYPE=pppoe\nREMOTE=10.0.0.2\nNAME=alice\nCBQRULE=12\n",
        "overflowing": b"NAME=" + b"n" * 300 + b"\nCBQRULE=-99999999999\nREMOTE=" + b"1" * 40 + b"\n",
    },
    "hotspot": {
        "line": b"alice|10.0.0.5|00:11:22:33:44:55|123|456|7|8\n",
        "two_lines": b"bob|10.0.0.6|aa:bb:cc:dd:ee:ff|-1|99999999999999999999999| 42|x\nshort|line\n",
    },
    "kick": {
        "ppp": b"\x00" + kick_name(b"alice"),
        "hotspot": b"\x01" + kick_name(b"bob"),
        "ip": b"\x02" + bytes([192, 168, 1, 20]),
        "mismatch": b"\x00" + le32(9) + b"bob",
        "fixed_length": b"\x80" + le32(0) + b"carol",
    },
    "fifo": {
        "progress": b"Erasing flash\nWriting 10%\nWriting 100%\ndone\n",
        "long": b"p" * 1030 + b"\n\ndone",
    },
    "tokens": {
        "passwd": b"\x00\n\r:\x00admin:abJnggxhB/yWI:0:0:admin:/:/bin/sh\n",
        "default": b"\x01KEY = [value] (x) 'y'\t\"z\"\r\n",
    },
    "basename": {
        "unix": b"/usr/sbin/kelputild",
        "windows": b"C:\\tools\\kelputil.EXE",
        "both": b"a\\b/c.exe.exe",
    },
}

for target, seeds in SEEDS.items():
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)
