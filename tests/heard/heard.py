"""What a listener hears in a WAV file: onset, offset, pitch, level, side, envelope, spectra."""
import wave

import numpy as np

SILENT = 0.01  # amplitude (full scale 1.0) below which nothing counts as heard
HOP = 0.005  # seconds between the spectra of a spectrogram


def read(path):
    """(samples as float frames x channels, rate) of a 16-bit PCM file: what lorvex-play, sox, espeak-ng,
    FluidSynth and ffmpeg write here."""
    with wave.open(path, 'rb') as w:
        rate, channels, width = w.getframerate(), w.getnchannels(), w.getsampwidth()
        raw = w.readframes(w.getnframes())
    assert width == 2, '%s: %d-byte samples' % (path, width)
    return (np.frombuffer(raw, '<i2').astype(float) / 2.0**15).reshape(-1, channels), rate


def mono(x):
    return x.mean(axis=1) if x.ndim == 2 else x


def envelope(x, rate, window=0.005):
    """Peak amplitude per window of the mono mix."""
    m, n = np.abs(mono(x)), max(1, int(rate * window))
    m = m[:len(m) // n * n]
    return m.reshape(-1, n).max(axis=1) if len(m) else np.zeros(0)


def segments(x, rate, gap=0.05, threshold=SILENT):
    """[(onset, offset)] of the sounds heard, split at silences longer than gap seconds."""
    loud = np.nonzero(np.abs(mono(x)) > threshold)[0]
    if len(loud) == 0:
        return []
    cuts = np.nonzero(np.diff(loud) > gap * rate)[0]
    starts, ends = np.r_[loud[0], loud[cuts + 1]], np.r_[loud[cuts], loud[-1]] + 1
    return [(a / rate, b / rate) for a, b in zip(starts, ends)]


def span(x, rate, threshold=SILENT):
    """(onset, offset) in seconds of everything heard, or None for silence."""
    seg = segments(x, rate, threshold=threshold)
    return (seg[0][0], seg[-1][1]) if seg else None


def cut(x, rate, t0, t1):
    return x[max(0, int(t0 * rate)):max(0, int(t1 * rate))]


def pitch(x, rate):
    """The strongest frequency in Hz (Hann-windowed FFT with a parabolic peak fit)."""
    m = mono(x) * np.hanning(len(x))
    s = np.abs(np.fft.rfft(m, 4 * len(m)))
    k = int(np.argmax(s[1:-1])) + 1
    a, b, c = np.log(s[k - 1:k + 2] + 1e-12)
    return (k + 0.5 * (a - c) / (a - 2 * b + c)) * rate / (4 * len(m))


def band_level(x, rate, hz, width=0.1):
    """RMS amplitude of the part of the sound within +-width (relative) of hz."""
    m = mono(x)
    if len(m) == 0:
        return 0.0
    s = np.fft.rfft(m)
    f = np.fft.rfftfreq(len(m), 1 / rate)
    s[np.abs(f - hz) > width * hz] = 0
    return float(np.sqrt(np.mean(np.fft.irfft(s, len(m))**2)))


def level(x):
    """RMS of the mono mix."""
    return float(np.sqrt(np.mean(mono(x)**2))) if len(x) else 0.0


def balance(x):
    """Left RMS over right RMS."""
    return float(np.sqrt(np.mean(x[:, 0]**2)) / max(1e-9, np.sqrt(np.mean(x[:, 1]**2))))


def correlation(a, b):
    n = min(len(a), len(b))
    a, b = a[:n] - np.mean(a[:n]), b[:n] - np.mean(b[:n])
    d = np.sqrt(np.sum(a * a) * np.sum(b * b))
    return float(np.sum(a * b) / d) if d > 0 else 0.0


def locate(source, piece):
    """(offset in samples, score): where in source the samples of piece fit best."""
    n = len(source) + len(piece)
    c = np.fft.irfft(np.fft.rfft(source, n) * np.conj(np.fft.rfft(piece, n)), n)
    k = int(np.argmax(c[:len(source) - len(piece) + 1]))
    return k, correlation(source[k:k + len(piece)], piece)


def spectrogram(x, rate, n=2048, top=4000):
    """Magnitude spectra (up to top Hz) of the mono mix, one every HOP seconds."""
    m = mono(x)
    if len(m) < n:
        return np.zeros((0, n * top // rate))
    frames = np.lib.stride_tricks.sliding_window_view(m, n)[::int(HOP * rate)] * np.hanning(n)
    return np.abs(np.fft.rfft(frames))[:, :n * top // rate]


def follow(source, piece):
    """(offset in spectra, score): where in the spectrogram source the spectra of piece fit best;
    notes and timbre both count, so a tune's place is found even where its rhythm repeats."""
    n = len(source) + len(piece)
    c = np.fft.irfft(np.sum(np.fft.rfft(source, n, axis=0) * np.conj(np.fft.rfft(piece, n, axis=0)), 1), n)
    energy = np.convolve(np.sum(source**2, axis=1), np.ones(len(piece)), 'valid')
    score = c[:len(energy)] / np.sqrt(energy * np.sum(piece**2) + 1e-30)
    k = int(np.argmax(score))
    return k, float(score[k])
