#!/usr/bin/env python3
"""Hostile and odd input through lorvex-play: makes each file, plays it into the null output with
a time limit, and prints a Markdown table of what each got (exit status, time, first message,
and whether a sanitizer spoke, when lorvex-play is a sanitizer build).

usage: bench/hostile.py LORVEX_PLAY"""
import os
import random
import struct
import subprocess
import sys
import tempfile
import time


def riff(fmt, data):
    body = b'WAVE' + b'fmt ' + struct.pack('<I', len(fmt)) + fmt + b'data' + struct.pack('<I', len(data)) + data
    return b'RIFF' + struct.pack('<I', len(body)) + body


def fmt(tag=1, ch=1, rate=8000, bits=16, align=None, bps=None):
    align = ch * bits // 8 if align is None else align
    return struct.pack('<HHIIHH', tag, ch, rate, rate * align if bps is None else bps, align, bits)


def smf(division, tracks, body):
    return b'MThd' + struct.pack('>IHHH', 6, 1, tracks, division) + body


rnd = random.Random(7)
noise = lambda n: bytes(rnd.getrandbits(8) for _ in range(n))
CASES = [
    ('empty.wav', 'an empty file', b''),
    ('random.wav', '10 KB of random bytes', noise(10000)),
    ('truncated.wav', 'a header cut at 30 bytes', riff(fmt(), b'\0' * 100)[:30]),
    ('data-4GiB.wav', 'a data chunk that claims 4 GiB', riff(fmt(), b'\0' * 100)[:40] + b'\xff\xff\xff\xff' + b'\0' * 100),
    ('fmt-huge.wav', 'a fmt chunk that claims 2 GiB', b'RIFF\x64\0\0\0WAVEfmt \xf0\xff\xff\x7f' + fmt()),
    ('no-fmt.wav', 'samples without a fmt chunk', b'RIFF\x70\0\0\0WAVEdata\x64\0\0\0' + b'\0' * 100),
    ('rate-zero.wav', 'a rate of 0', riff(fmt(rate=0), b'\0' * 800)),
    ('rate-4e9.wav', 'a rate of 4,000,000,000', riff(fmt(rate=4000000000, bps=0), b'\0' * 800)),
    ('byte-rate-wraps.wav', 'rate x block align wrapping 32 bits', riff(fmt(ch=2, rate=0x40000000, bits=32, bps=0), b'\0' * 800)),
    ('channels-65535.wav', '65,535 channels', riff(fmt(ch=65535, align=0, bps=0), b'\0' * 800)),
    ('channels-zero.wav', 'no channels', riff(fmt(ch=0, align=0), b'\0' * 800)),
    ('encoding-1234.wav', 'an unknown encoding', riff(fmt(tag=0x1234), b'\0' * 800)),
    ('text.mid', 'a text file named .mid', b'This is not a MIDI file.\n' * 40),
    ('random.mid', '5 KB of random bytes named .mid', noise(5000)),
    ('tracks-65535.mid', 'a header declaring 65,535 tracks', smf(96, 65535, b'MTrk\0\0\0\x04\x00\xff\x2f\x00')),
    ('division-zero.mid', 'a zero division', smf(0, 1, b'MTrk\0\0\0\x08\x00\x90\x3c\x40\x60\xff\x2f\x00')),
    ('track-4GiB.mid', 'a track that claims 4 GiB', smf(96, 1, b'MTrk\xff\xff\xff\xf0\x00\x90\x3c\x40')),
    ('no-end-of-track.mid', 'a track without its end-of-track event', smf(96, 1, b'MTrk\0\0\0\x08\x00\x90\x3c\x40\x60\x80\x3c\x00')),
    ('random.mpg', '20 KB of random bytes named .mpg', noise(20000)),
    ('random.mov', '20 KB of random bytes named .mov', noise(20000)),
    ('garbage.wrl', 'a world header and 5 KB of random bytes', b'#VRML V2.0 utf8\n' + noise(5000)),
    ('self.wrl', 'a world that Inlines itself', b'#VRML V2.0 utf8\nInline { url "self.wrl" }\n'),
    ('nested.wrl', 'Groups nested 5,000 deep, never closed', b'#VRML V2.0 utf8\n' + b'Group { children [ ' * 5000),
    ('missing.wav', 'a file that does not exist', None),
]


def main():
    play = os.path.abspath(sys.argv[1])
    folder = tempfile.mkdtemp(prefix='hostile-')
    env = dict(os.environ, ASAN_OPTIONS='detect_leaks=1:abort_on_error=1', UBSAN_OPTIONS='halt_on_error=1')
    print('| input | what it is | exit | seconds | sanitizer | what lorvex-play said |')
    print('|---|---|---|---|---|---|')
    for name, what, data in CASES:
        path = os.path.join(folder, name)
        if data is not None:
            with open(path, 'wb') as f:
                f.write(data)
        begin = time.monotonic()
        try:
            r = subprocess.run([play, '-o', 'null', '-t', '20', path], cwd=folder, capture_output=True, timeout=60)
            code, err, out = r.returncode, r.stderr.decode(errors='replace'), r.stdout.decode(errors='replace')
        except subprocess.TimeoutExpired:
            code, err, out = 'hung', '', ''
        seconds = time.monotonic() - begin
        sanitizer = 'yes' if ('Sanitizer' in err and 'ERROR' in err) or 'runtime error' in err else 'no'
        said = [l for l in err.splitlines() if l.startswith('lorvex-play:')] or \
               [l.strip() for l in out.splitlines() if l.startswith('  ')]
        text = (said[0] if said else '').replace(folder + '/', '').replace('|', '/')[:110]
        print('| %s | %s | %s | %.1f | %s | %s |' % (name, what, code, seconds, sanitizer, text))


if __name__ == '__main__':
    main()
