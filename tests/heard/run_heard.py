#!/usr/bin/env python3
"""The listening suite: clips made by sox, espeak-ng, abc2midi and ffmpeg are played through
lorvex-play into WAV files, and what is heard there is checked against what the clip holds.
Every case prints one line per check: expected, measured, verdict. Exit 1 when a check fails."""
import argparse
import concurrent.futures
import glob
import gzip
import os
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import threading
import time

import numpy as np

import heard as H

LENGTH = 0.020  # tolerance of a heard length or a time, in seconds
PITCH = 0.02  # relative tolerance of a pitch
RUN_LIMIT = 90  # seconds a run may take on a loaded machine before it counts as hung
BAD_LIMIT = 20  # seconds bad input may take to be refused (a loaded machine, a sanitizer build)
LEAD = 1.0  # seconds from the scene's now to a clip's start: the players' start-up under load


def start_at(t):
    """The arguments that start the next clip t seconds after the first."""
    return ['--start', str(LEAD + t)]


class Rig:
    """Makes clips once, in one folder, and runs lorvex-play there."""

    def __init__(self, play, folder):
        self.play, self.dir = play, folder

    def path(self, name):
        return os.path.join(self.dir, name)

    def make(self, name, command):
        """The clip name, made by command (with {out} for its path) unless it exists."""
        out = self.path(name)
        if not os.path.exists(out):
            tmp = '%s.%d.tmp' % (out, threading.get_ident())  # cases make clips in parallel
            subprocess.run(command.format(out=tmp), shell=True, check=True, cwd=self.dir,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            os.replace(tmp, out)
        return out

    def tone(self, seconds, hz, fmt='-r 44100 -c 1 -b 16', kind='sine'):
        name = '%s-%g-%g-%s.wav' % (kind, seconds, hz, '_'.join(fmt.replace('-', '').split()))
        return self.make(name, 'sox -q -n %s -t wav {out} synth %g %s %g vol 0.5' % (fmt, seconds, kind, hz))

    def noise(self, seconds):
        return self.tone(seconds, 0, kind='whitenoise')

    def tool(self, args, limit=60, env=None):
        """The finished lorvex-play process run with args; env is added to the environment."""
        env = dict(os.environ, **(env or {}))
        return subprocess.run([self.play] + args, cwd=self.dir, capture_output=True, text=True, timeout=limit,
                              env=env)

    def run(self, case, args, limit=RUN_LIMIT, env=None):
        """Plays into <case>.wav: (samples, rate, the finished process)."""
        out = self.path(case + '.wav')
        r = self.tool(['-o', 'wav:' + out] + args, limit, env)
        if r.returncode != 0 and 'LeakSanitizer has encountered a fatal error' in r.stderr:
            # LeakSanitizer's own tracer sometimes crashes on a GStreamer thread's thread-local
            # storage at exit: no finding about the program. The run is heard again without it.
            print('note %s: LeakSanitizer failed at exit; run again without the leak check' % case)
            asan = os.environ.get('ASAN_OPTIONS', '') + ':detect_leaks=0'
            r = self.tool(['-o', 'wav:' + out] + args, limit, dict(env or {}, ASAN_OPTIONS=asan))
        x, rate = H.read(out) if os.path.getsize(out) > 44 else (np.zeros((0, 2)), 44100)
        return x, rate, r


def check(what, expected, measured, ok):
    return (what, expected, measured, bool(ok))


def near(what, expected, measured, tolerance, unit='s'):
    shown = '-' if measured is None else '%.3f %s' % (measured, unit)
    good = measured is not None and abs(measured - expected) <= tolerance
    return check(what, '%.3f %s +-%g' % (expected, unit, tolerance), shown, good)


def heard_length(x, rate, expected, what='length'):
    s = H.span(x, rate)
    return near(what, expected, None if s is None else s[1] - s[0], LENGTH)


def heard_pitch(x, rate, hz, what='pitch'):
    s = H.span(x, rate)
    if s is None:
        return check(what, '%g Hz' % hz, 'silence', False)
    p = H.pitch(H.cut(x, rate, s[0] + 0.05, s[1] - 0.05), rate)
    return near(what, hz, p, PITCH * hz, 'Hz')


def played(r):
    said = '' if r.returncode == 0 else ': ' + r.stderr.strip()
    return check('exit status', '0', '%d%s' % (r.returncode, said), r.returncode == 0)


class Unheard(Exception):
    """Nothing there to measure: the case ends with the run's exit status and what was heard."""


def need(r, ok, what, expected, measured):
    if not ok:
        raise Unheard(r, check(what, expected, measured, False))


def heard(r, s, expected='sound'):
    """The span s, which must not be silence."""
    need(r, s is not None, 'heard', expected, 'silence')
    return s


def sounds(x, rate, r, n=2):
    seg = H.segments(x, rate)
    need(r, len(seg) == n, 'sounds', str(n), '%d' % len(seg))
    return seg


def same_envelope(y, yrate, a, x, rate, b):
    """The heard span b of x follows the span a of the clip y in its 20-ms envelope."""
    c = H.correlation(H.envelope(H.cut(y, yrate, *a), yrate, 0.02), H.envelope(H.cut(x, rate, *b), rate, 0.02))
    return check('envelope correlation', '> 0.9', '%.3f' % c, c > 0.9)


def painted(frames):
    pictures = sorted(glob.glob(os.path.join(frames, '*.png')))
    distinct = len({open(p, 'rb').read() for p in pictures})
    return check('pictures painted, distinct', '>= 10, >= 10', '%d, %d' % (len(pictures), distinct),
                 len(pictures) >= 10 and distinct >= 10)


# WAVE layouts: a 0.3-s 660 Hz tone in each, heard for its length at its pitch.

LAYOUTS = [('%d-bit %s %d Hz' % (b, 'mono' if c == 1 else 'stereo', r), '-r %d -c %d -b %d' % (r, c, b))
           for b in (8, 16) for c in (1, 2) for r in (8000, 11025, 22050, 44100, 48000)]
LAYOUTS += [('24-bit stereo 44100 Hz', '-r 44100 -c 2 -b 24'),
            ('float stereo 44100 Hz', '-r 44100 -c 2 -e floating-point -b 32'),
            ('mu-law mono 8000 Hz', '-r 8000 -c 1 -e mu-law -b 8'), ('6 channels 48000 Hz', '-r 48000 -c 6 -b 16'),
            ('16-bit stereo 96000 Hz', '-r 96000 -c 2 -b 16'), ('16-bit stereo 192000 Hz', '-r 192000 -c 2 -b 16')]


def layouts(rig, name, first, last):
    """Clips k = first..last-1 of LAYOUTS, 0.3 s each, one every 0.8 s after a marker tone that gives
    the schedule its origin (so that a silent clip cannot shift the others)."""
    args = ['--start', str(LEAD), rig.tone(0.1, 330)]
    for k in range(first, last):
        args += ['--start', str(LEAD + 0.8 * (k - first + 1)), rig.tone(0.3, 660, LAYOUTS[k][1])]
    x, rate, r = rig.run(name, args)
    seg, got = H.segments(x, rate), [played(r)]
    for k in range(first, last):
        # Each clip is the sound in its place in the order; with one missing, the one heard
        # nearest to when it was due (a heavily loaded machine moves starts by up to 0.25 s).
        due = seg[0][0] + 0.8 * (k - first + 1) if seg else 0
        near_due = min(seg, key=lambda g: abs(g[0] - due)) if seg else (0, 0)
        on, off = seg[k - first + 1] if len(seg) == last - first + 1 else near_due
        if len(seg) != last - first + 1 and abs(on - due) > 0.35:  # nothing heard near when it was due
            on = off = 0
        y = H.cut(x, rate, on - 0.01, off + 0.01)
        got += [heard_length(y, rate, 0.3, LAYOUTS[k][0] + ': length'),
                heard_pitch(y, rate, 660, LAYOUTS[k][0] + ': pitch')]
    return got


def list_after_data(rig, name):
    """A LIST chunk after the samples must not be heard as sound."""
    clip, data = rig.path('list-after-data.wav'), bytearray(open(rig.tone(0.5, 660), 'rb').read())
    info = b'INFOISFT' + struct.pack('<I', 14) + b'heard suite\0\0\0'
    data += b'LIST' + struct.pack('<I', len(info)) + info
    data[4:8] = struct.pack('<I', len(data) - 8)
    open(clip, 'wb').write(data)
    x, rate, r = rig.run(name, ['--start', str(LEAD), clip])
    return [played(r), heard_length(x, rate, 0.5), heard_pitch(x, rate, 660)]


def speech(rig, name):
    """Speech under 2 s (a longer one starts the start-up latency in), heard with the clip's envelope."""
    clip = rig.make('speech.wav', 'espeak-ng -w {out} "Lorvex plays it whole"')
    src, srate = H.read(clip)
    x, rate, r = rig.run(name, ['--start', str(LEAD), clip])
    a, b = H.span(src, srate), heard(r, H.span(x, rate), 'speech')
    return [played(r), near('length', a[1] - a[0], b[1] - b[0], LENGTH),
            same_envelope(src, srate, a, x, rate, b)]


# Timing fields, as a browser sets them.

def start_ahead(rig, name):
    """A clip due 1 s after another is heard 1 s after it."""
    x, rate, r = rig.run(name, start_at(0) + [rig.tone(0.2, 440)] + start_at(1) + [rig.tone(0.5, 880)])
    seg = sounds(x, rate, r)
    return [played(r), near('first length', 0.2, seg[0][1] - seg[0][0], LENGTH),
            near('second start after first', 1.0, seg[1][0] - seg[0][0], LENGTH),
            near('second length', 0.5, seg[1][1] - seg[1][0], LENGTH)]


def joined_late(rig, name):
    """A clip that started 0.5 s before now plays in step with the scene: when a tone due 1 s after
    now is heard (on the left), the clip (on the right) is 1.5 s in; and it is heard on to its end."""
    clip = rig.noise(3)
    src = H.mono(H.read(clip)[0])
    x, rate, r = rig.run(name, ['--start', '-0.5', '--location', '2,0,0', clip,
                                '--start', str(LEAD), '--location', '-2,0,0', rig.tone(0.1, 330)])
    s = heard(r, H.span(x[:, 1:], rate), 'noise right, tone left')
    marker = heard(r, H.span(x[:, :1], rate), 'noise right, tone left')
    at, score = H.locate(src, x[int(s[0] * rate):int(s[0] * rate) + 2205, 1])
    then, _ = H.locate(src, x[int(marker[0] * rate):int(marker[0] * rate) + 2205, 1])
    return [played(r), near('clip position when the tone is heard', LEAD + 0.5, then / rate, LENGTH),
            check('match', '> 0.95', '%.3f' % score, score > 0.95),
            near('heard from where it joined to its end', 3.0 - at / rate, s[1] - s[0], LENGTH)]


def stop_time(rig, name):
    """A stop time on a streamed clip, and on a 1-s clip (held resident) while it plays out."""
    x, rate, r = rig.run(name, ['--start', str(LEAD), '--stop', str(LEAD + 0.7), rig.tone(2.0, 660),
                                '--start', str(LEAD + 1.5), '--stop', str(LEAD + 1.9), rig.tone(1.0, 660)])
    seg = sounds(x, rate, r)
    return [played(r), near('length', 0.7, seg[0][1] - seg[0][0], LENGTH),
            near('resident length', 0.4, seg[1][1] - seg[1][0], LENGTH)]


def starts_apart(rig, name):
    """Two starts asked for 1 s ahead, 0.5037 s apart, heard that far apart to the sample: through the
    filter-graph player, and the WAVE player (with no GStreamer plugins the manager has no graph)."""
    none = {'GST_PLUGIN_SYSTEM_PATH_1_0': rig.path('no-plugins'), 'GST_PLUGIN_PATH_1_0': '',
            'GST_REGISTRY_1_0': rig.path('no-plugins.bin')}
    got, clip = [], rig.tone(0.2, 1000)
    for player, env in (('filter-graph player', None), ('WAVE player', none)):
        x, rate, r = rig.run(name, start_at(0) + [clip] + start_at(0.5037) + [clip], env=env)
        seg = H.segments(x, rate)  # a sine from phase 0: each onset is the second sample of its clip
        apart = 1000 * (seg[1][0] - seg[0][0]) if len(seg) == 2 else None
        got += [played(r), near(player, 503.7, apart, 0.1, 'ms')]
    return got


def rate_case(rig, name, rate_value):
    x, rate, r = rig.run(name, ['--start', str(LEAD), '--rate', str(rate_value), rig.tone(1.0, 440)])
    return [played(r), heard_length(x, rate, 1.0 / rate_value), heard_pitch(x, rate, 440 * rate_value)]


def loop(rig, name):
    """A 1-s noise clip looped for 2.5 s: every 20 ms of what is heard is the clip at the same place."""
    src = H.mono(H.read(rig.noise(1))[0])
    x, rate, r = rig.run(name, ['-t', str(LEAD + 2.7), '--loop', '--start', str(LEAD), rig.noise(1)])
    s = H.span(x, rate)
    length = 0 if s is None else s[1] - s[0]
    need(r, length >= 2.2, 'heard', '> 2.2 s', 'silence' if s is None else '%.3f s' % length)
    m = H.mono(x)
    at, _ = H.locate(src, m[int(s[0] * rate):int(s[0] * rate) + 2205])
    origin = int(s[0] * rate) - at  # where the clip's first sample lies in the output
    tiled, w, worst = np.tile(src, 4), 882, 1.0
    for p in range(max(0, -origin), int(2.2 * rate) - w, w):
        q = origin + p
        worst = min(worst, max(H.correlation(m[q + d:q + d + w], tiled[p:p + w]) for d in (-1, 0, 1)))
    return [played(r), check('every 20 ms in place across 2 seams', 'correlation > 0.9', '%.3f' % worst,
                             worst > 0.9)]


# Mixing: gain, position, channels.

def gain(rig, name):
    t = rig.tone(0.5, 660)
    x, rate, r = rig.run(name, start_at(0) + [t] + start_at(1) + ['--gain', '0.5', t])
    a, b = (H.level(H.cut(x, rate, on + 0.05, off - 0.05)) for on, off in sounds(x, rate, r))
    return [played(r), near('level ratio gain 0.5 : 1', 0.5, b / a, 0.025, '')]


def position(rig, name):
    t = rig.tone(0.5, 660)
    x, rate, r = rig.run(name, start_at(0) + ['--location', '-2,0,0', t] + start_at(1)
                         + ['--location', '2,0,0', t])
    left, right = (H.balance(H.cut(x, rate, on + 0.05, off - 0.05)) for on, off in sounds(x, rate, r))
    return [played(r), check('left : right at x = -2', '> 2', '%.2f' % min(left, 999), left > 2),
            check('left : right at x = +2', '< 0.5', '%.2f' % right, right < 0.5)]


def channels(rig, name):
    """One channel: the weaker clip is left out while the stronger plays, and heard when it ends at
    the gain it was given while it waited (both tones are equally loud at gain 1)."""
    x, rate, r = rig.run(name, ['-c', '1'] + start_at(0) + ['--priority', '0.9', rig.tone(0.8, 440)] + start_at(0)
                         + ['--priority', '0.1', '--gain', '0.25', rig.tone(1.9, 880)])
    s = heard(r, H.span(x, rate))
    held, freed = H.cut(x, rate, s[0] + 0.1, s[0] + 0.7), H.cut(x, rate, s[0] + 0.9, s[0] + 1.8)


    def weak_to_strong(y):
        return H.band_level(y, rate, 880) / max(1e-9, H.band_level(y, rate, 440))
    during, after = weak_to_strong(held), weak_to_strong(freed)
    granted = H.level(freed) / max(1e-9, H.level(held))
    return [played(r), check('weaker : stronger while the stronger plays', '< 0.05', '%.3f' % during, during < 0.05),
            check('weaker : stronger after it ended', '> 20', '%.1f' % min(after, 999), after > 20),
            near('heard until the weaker clip ends', 1.9, s[1] - s[0], LENGTH),
            near('weaker (gain 0.25) : stronger (gain 1)', 0.25, granted, 0.025, '')]


# MIDI against FluidSynth with the same SoundFont, and clips through the filter graph.

TUNE = 'X:1\nT:heard\nM:4/4\nL:1/8\nQ:1/4=160\nK:C\nCDEF GABc|c2G2 E2C2|z4 [CEG]4|\n'
# A square lead panned right, a note a beat, 120 beats a minute and 180 from 2 s.
LATE_TUNE = 'X:1\nT:late\nM:4/4\nL:1/4\nQ:1/4=120\nK:C\n%%MIDI program 80\n%%MIDI control 10 127\n' \
    'C D E F|[Q:1/4=180] G A B c|d e f g|a g f e|d c B A|G F E D|\n'


def tune(rig, name, text):
    """(the MIDI file abc2midi makes of text, FluidSynth's rendering of it with lorvex-play's SoundFont)."""
    font = [l for l in rig.tool(['--version']).stdout.splitlines() if 'SoundFont' in l][0].split('SoundFont ')[1]
    open(rig.path(name + '.abc'), 'w').write(text)
    clip = rig.make(name + '.mid', 'abc2midi %s.abc -o {out}' % name)
    return clip, rig.make(name + '-fluidsynth.wav', 'fluidsynth -ni -q -F {out} -T wav -r 44100 %s %s' % (font, clip))


def midi(rig, name):
    clip, ref = tune(rig, 'tune', TUNE)
    y, yrate = H.read(ref)
    x, rate, r = rig.run(name, ['--start', str(LEAD), clip])
    a, b = H.span(y, yrate, 0.002), heard(r, H.span(x, rate, 0.002), 'music')
    return [played(r), near('length against FluidSynth', a[1] - a[0], b[1] - b[0], 0.3),
            same_envelope(y, yrate, a, x, rate, b)]


def midi_late(rig, name):
    """A looping MIDI clip that started 4 s ago, its program, pan and tempo set before that point:
    when a tone due 1 s after now is heard (on the left), the music (on the right) is where
    FluidSynth's rendering is 5 s in, and sounds as it does there."""
    clip, ref = tune(rig, 'late', LATE_TUNE)
    y, _ = H.read(ref)
    x, rate, r = rig.run(name, ['-t', str(LEAD + 2), '--start', '-4', '--loop', clip,
                                '--start', str(LEAD), '--location', '-2,0,0', rig.tone(0.1, 330)])
    marker = heard(r, H.span(x[:, :1], rate, 0.1), 'tone left')
    at, score = H.follow(H.spectrogram(y[:, 1], rate), H.spectrogram(H.cut(x, rate, marker[0], marker[0] + 1.5)[:, 1], rate))
    side, theirs = H.balance(H.cut(x, rate, marker[0] + 0.2, marker[0] + 1.5)), H.balance(y)
    return [played(r), near('music position when the tone is heard', 4 + LEAD, at * H.HOP, 0.03),
            check("1.5 s of spectra against FluidSynth's", '> 0.95', '%.3f' % score, score > 0.95),
            check('left : right (panned right)', '< 0.2 (FluidSynth %.2f)' % theirs, '%.2f' % side, side < 0.2)]


# 1.5 s long: a clip of 2 s or more starts the start-up latency into its media.
PICTURE = '-f lavfi -i testsrc=size=160x120:rate=25:duration=1.5 '
SINE = '-f lavfi -i sine=frequency=660:duration=%g '
MOVIES = {
    'MPEG-1': ('clip.mpg', PICTURE + SINE % 1.5 + '-c:v mpeg1video -c:a mp2 -f mpeg'),
    'QuickTime': ('clip.mov', PICTURE + SINE % 1.5 + '-c:v mjpeg -c:a pcm_s16le -f mov'),
    'MP3': ('clip.mp3', SINE % 1.5 + '-c:a libmp3lame -f mp3'),
    # Under 2 s, and a length the demuxer can only estimate: heard whole only when the renderer
    # does not take the estimate for exact.
    'MPEG-1 audio': ('clip-audio.mpg', SINE % 1.9 + '-c:a mp2 -f mpeg'),
    'AIFF': ('clip.aiff', SINE % 1.9 + '-c:a pcm_s16be -f aiff'),
}


def film(rig, kind, name):
    """(the clip of MOVIES[kind], a fresh folder for the pictures painted while <name> plays it)."""
    file, args = MOVIES[kind]
    frames = rig.path(name + '-frames')
    shutil.rmtree(frames, ignore_errors=True)
    return rig.make(file, 'ffmpeg -v error -y ' + args + ' {out}'), frames


def movie(rig, name, kind):
    clip, frames = film(rig, kind, name)
    ref = rig.make(clip + '.wav', 'ffmpeg -v error -y -i %s -f wav {out}' % clip)
    x, rate, r = rig.run(name, ['--frames', frames, '--start', str(LEAD), clip])
    a = H.span(*H.read(ref))
    got = [heard_length(x, rate, a[1] - a[0]), heard_pitch(x, rate, 660)]
    return [played(r)] + got + ([painted(frames)] if 'testsrc' in MOVIES[kind][1] else [])


# Bad input and the tool's own promises.

def bad(rig, name, file, data):
    """The file (written with data, if any) refused with a one-line error, in time."""
    clip = rig.path(file)
    if data is not None:
        open(clip, 'wb').write(data)
    begin = time.monotonic()
    r = rig.tool(['-o', 'null', clip])
    took, lines = time.monotonic() - begin, r.stderr.strip().splitlines()
    return [check('exit status', 'not 0', '%d' % r.returncode, r.returncode not in (0, -6)),
            check('error', 'one line', ' | '.join(lines) or '-',
                  len(lines) == 1 and lines[0].startswith('lorvex-play: ')),
            near('refused within', 0, took, BAD_LIMIT)]


def riff(fmt_size=16, data=b'\0' * 400):
    fmt = struct.pack('<IHHIIHH', fmt_size, 1, 1, 8000, 16000, 2, 16)
    return b'RIFF' + struct.pack('<I', 36 + len(data)) + b'WAVEfmt ' + fmt + b'data' + struct.pack('<I', len(data)) + data


BAD = {
    'empty file': ('empty.wav', b''),
    'random bytes': ('random.wav', np.random.default_rng(7).bytes(4096)),
    'truncated header': ('truncated.wav', riff()[:30]),
    'absurd chunk size': ('absurd.wav', riff(fmt_size=0xFFFFFFF0)),
    'text named .mid': ('text.mid', b'this is not a MIDI file\n'),
    'missing file': ('missing.wav', None),
}


def refusals(rig, name):
    clip = rig.tone(0.5, 660)
    before = open(clip, 'rb').read()
    same = rig.tool(['-o', 'wav:' + clip, clip])
    kept = open(clip, 'rb').read() == before

    def exits(args, code):
        p = rig.tool(args + [clip])
        said = '%d: %s' % (p.returncode, p.stderr.strip())
        return check(' '.join(args), 'exit %d' % code, said, p.returncode == code)
    return [check('output is an input', 'refused, clip kept', '%d, %s' % (same.returncode, 'kept' if kept else 'DESTROYED'),
                  same.returncode != 0 and kept), exits(['-c', '1e10'], 2), exits(['-o', 'alsa:no-such-device'], 1)]


def terminated(rig, name):
    """SIGTERM while playing: exit 143 and a WAV file whose header counts what it holds."""
    out = rig.path(name + '.wav')
    p = subprocess.Popen([rig.play, '-o', 'wav:' + out, rig.tone(20, 440)], cwd=rig.dir, stdout=subprocess.DEVNULL,
                         stderr=subprocess.PIPE, text=True)
    deadline = time.monotonic() + RUN_LIMIT
    while time.monotonic() < deadline and p.poll() is None and (not os.path.exists(out) or os.path.getsize(out) < 44 + 44100):
        time.sleep(0.05)  # polls the file for the sound to begin; no stand-in for a state change
    p.send_signal(signal.SIGTERM)
    code = p.wait(timeout=60)
    data = open(out, 'rb').read()
    riff_size, data_size = struct.unpack('<I', data[4:8])[0], struct.unpack('<I', data[40:44])[0] if len(data) >= 44 else -1
    return [check('exit status', '143', '%d' % code, code == 143),
            check('header sizes', 'RIFF %d, data %d' % (len(data) - 8, len(data) - 44), 'RIFF %d, data %d' % (riff_size, data_size),
                  riff_size == len(data) - 8 and data_size == len(data) - 44 and data_size > 44100)]


# Worlds: VRML97 files whose Sound, AudioClip and MovieTexture nodes lorvex-play plays as a browser.

def world(rig, name, text, extra=()):
    path = rig.path(name + '.wrl')
    open(path, 'w').write('#VRML V2.0 utf8\n' + text)
    return rig.run(name, list(extra) + [path])


def world_sides(rig, name):
    """Nested Transforms put A on the listener's left inside its minimum ellipse and B on the right
    half way across its ramp (-10 dB); both are started by --at as a sensor would."""
    a_clip, b_clip = (os.path.basename(rig.tone(0.5, hz)) for hz in (440, 880))
    x, rate, r = world(rig, name, """
        Viewpoint { position 0 0 0 }
        Transform { translation -1 0 0 children Transform { translation -2 0 0 children
          Sound { source DEF A AudioClip { url "%s" } minFront 4 minBack 4 } } }
        Transform { rotation 0 1 0 3.14159265 children
          Sound { source DEF B AudioClip { url "%s" } location -3 0 0 minFront 1 minBack 1 maxFront 5 maxBack 5 } }
        """ % (a_clip, b_clip), ['--at', 'A=%g' % LEAD, '--at', 'B=%g' % (LEAD + 1)])
    seg = sounds(x, rate, r)
    a, b = (H.cut(x, rate, on + 0.05, off - 0.05) for on, off in seg)
    ratio = H.level(b[:, 1]) / max(1e-9, H.level(a[:, 0]))
    return [played(r), heard_pitch(a, rate, 440, 'A pitch'),
            check('A left : right', '> 2', '%.2f' % min(H.balance(a), 999), H.balance(a) > 2),
            check('B left : right', '< 0.5', '%.2f' % H.balance(b), H.balance(b) < 0.5),
            near('B level (-10 dB) : A level', 10 ** -0.5, ratio, 0.03, ''), near('B after A', 1.0, seg[1][0] - seg[0][0], LENGTH)]


def world_ambient(rig, name):
    """A looping clip whose startTime is 0 (1970) is joined in progress and heard throughout; a
    non-looping one ended long ago and stays silent."""
    clip, tone = rig.noise(3), rig.tone(0.5, 440)
    x, rate, r = world(rig, name, """
        Sound { source AudioClip { url "%s" loop TRUE startTime 0 } minFront 20 minBack 20 }
        Sound { source AudioClip { url "%s" startTime 0 } minFront 20 minBack 20 }
        """ % (os.path.basename(clip), os.path.basename(tone)), ['-t', '3'])
    s = heard(r, H.span(x, rate), 'noise')
    src = H.mono(H.read(clip)[0])
    at, score = H.locate(np.r_[src, src], H.mono(H.cut(x, rate, s[0] + 0.5, s[0] + 0.55)))
    seg = H.segments(x, rate)
    return [played(r), check('joined in progress: matches the clip', '> 0.95', '%.3f' % score, score > 0.95),
            check('gaps', '0', '%d' % (len(seg) - 1), len(seg) == 1),
            check('the non-looping clip', 'silent', 'said so' if 'time had passed' in r.stdout else r.stdout,
                  'time had passed' in r.stdout)]


def world_inline_movie(rig, name):
    """A compressed world that Inlines another, whose MovieTexture is painted and heard."""
    clip, frames = film(rig, 'MPEG-1', name)
    inner = rig.path(name + '-inner.wrl.gz')
    with gzip.open(inner, 'wt') as f:
        f.write('#VRML V2.0 utf8\nShape { appearance Appearance { texture DEF M MovieTexture { url "%s" } } }\n'
                'Sound { source USE M }\n' % os.path.basename(clip))
    x, rate, r = world(rig, name, 'Transform { children Inline { url "%s" } }' % os.path.basename(inner),
                       ['--frames', frames, '--at', 'M=%g' % LEAD])
    return [played(r), heard_pitch(x, rate, 660), painted(frames)]


def world_faults(rig, name):
    """Faults are reported with file and line; the rest of the world still plays."""
    tone = os.path.basename(rig.tone(0.5, 660))
    x, rate, r = world(rig, name, """Group { children [ Shape { geometry Box { } } } ] }
        Sound { source USE Nothing }
        Sound { source AudioClip { url "not-here.wav" } }
        Sound { source DEF Ok AudioClip { url "%s" } }
        """ % tone, ['--at', 'Ok=%g' % LEAD])
    said = r.stderr.strip().replace('\n', ' | ')
    def named(what, line, text):
        where = '%s.wrl:%d' % (name, line)
        found = '%s: %s' % (where, text) in r.stderr
        return check(what, where, 'named' if found else said, found)
    return [played(r), heard_length(x, rate, 0.5), heard_pitch(x, rate, 660),
            named('stray brace', 2, 'unmatched'), named('unknown USE', 3, 'USE of an unknown'),
            named('missing url', 4, 'AudioClip: no url names a file')]


CASES = [('wave', 'layouts %d-%d' % (k + 1, min(k + 9, len(LAYOUTS))), layouts, k, min(k + 9, len(LAYOUTS)))
         for k in range(0, len(LAYOUTS), 9)] + [
    ('wave', 'LIST chunk after the data', list_after_data),
    ('wave', 'speech (espeak-ng)', speech),
    ('timing', 'start ahead', start_ahead),
    ('timing', 'joined late', joined_late),
    ('timing', 'stop time', stop_time),
    ('timing', 'starts 0.5037 s apart', starts_apart),
    ('timing', 'MIDI joined late', midi_late),
    ('timing', 'rate 2', rate_case, 2),
    ('timing', 'rate 0.5', rate_case, 0.5),
    ('timing', 'loop without gaps', loop),
    ('mix', 'gain', gain),
    ('mix', '3D position', position),
    ('mix', 'one channel, two clips', channels),
    ('media', 'MIDI', midi),
] + [('media', k, movie, k) for k in MOVIES] + [('bad', 'bad input: ' + k, bad) + f for k, f in BAD.items()] + [
    ('bad', 'refused options', refusals),
    ('bad', 'SIGTERM while playing', terminated),
    ('world', 'left and right, --at', world_sides),
    ('world', 'ambient joined in progress', world_ambient),
    ('world', 'Inline, .wrl.gz, MovieTexture', world_inline_movie),
    ('world', 'faults by file and line', world_faults),
]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument('play')
    ap.add_argument('--group', action='append')
    ap.add_argument('--case', help='only cases whose name contains this')
    ap.add_argument('--jobs', type=int, default=2)
    ap.add_argument('--table', help='write the results as a Markdown table')
    ap.add_argument('--keep', help='work in this folder and keep it')
    a = ap.parse_args()
    folder = os.path.abspath(a.keep or tempfile.mkdtemp(prefix='heard-'))
    os.makedirs(folder, exist_ok=True)
    rig = Rig(os.path.abspath(a.play), folder)
    cases = [c for c in CASES if (not a.group or c[0] in a.group) and (not a.case or a.case in c[1])]

    def one(case):
        # A timing that slipped once on a loaded machine gets one more run; the slip is printed,
        # so that a fault that comes and goes still shows in the log.
        group, name, fn, *args = case
        slug = ''.join(ch if ch.isalnum() else '-' for ch in name)
        for second in (False, True):
            try:
                checks = fn(rig, slug, *args)
            except Unheard as e:
                checks = [played(e.args[0]), e.args[1]]
            except Exception as e:  # a case that cannot even be measured fails, with the reason
                checks = [check('ran', 'yes', '%s: %s' % (type(e).__name__, e), False)]
            if second or all(c[3] for c in checks):
                return group, name, checks
            for what, expected, measured, _ in (c for c in checks if not c[3]):
                print('note %-6s %-28s first run: %s expected %s measured %s' % (group, name, what, expected,
                                                                                  measured))

    with concurrent.futures.ThreadPoolExecutor(a.jobs) as pool:
        results = list(pool.map(one, cases))
    failed, rows = 0, []
    for group, name, checks in results:
        for what, expected, measured, ok in checks:
            failed += not ok
            row = (name, what, expected, measured, 'ok' if ok else 'FAIL')
            print('%-4s %-6s %-28s %-34s expected %-26s measured %s' % ((row[4], group) + row[:4]))
            rows.append('| %s | %s | %s | %s | %s |' % row)
    if a.table:
        open(a.table, 'w').write('| case | check | expected | measured | |\n|---|---|---|---|---|\n'
                                 + '\n'.join(rows) + '\n')
    if not a.keep:
        shutil.rmtree(folder, ignore_errors=True)
    print('%d checks, %d failed' % (len(rows), failed))
    return 1 if failed else 0


if __name__ == '__main__':
    sys.exit(main())
