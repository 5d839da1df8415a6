"""A small render-stream parent for the benchmark scripts: starts a child, sends audio messages
and flushes, reads frame records up to each marker. The protocol is docs/MODEL_FORMAT.md,
section 5."""
import hashlib
import struct
import subprocess
import threading
import time
import wave

FRAME_BYTES = 416 * 720 * 3
FLUSH = 0xFFFFFFFF
MARKER = 0xFFFFFFFF


def load_wav(path):
    """16-bit PCM WAV samples as floats in [-1, 1)."""
    with wave.open(path) as w:
        pcm = w.readframes(w.getnframes())
    return [v / 32768.0 for v in struct.unpack(f"<{len(pcm) // 2}h", pcm)]


def messages(samples, piece=16000):
    """Audio messages of `piece` samples each, then a flush."""
    out = b"".join(struct.pack(f"<I{len(samples[i:i + piece])}f", len(samples[i:i + piece]),
                               *samples[i:i + piece]) for i in range(0, len(samples), piece))
    return out + struct.pack("<I", FLUSH)


class Child:
    def __init__(self, model, avatar, engine, env=None):
        self.started = time.perf_counter()
        self.process = subprocess.Popen([model, "render-stream", avatar, "--engine", engine],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=subprocess.DEVNULL, env=env)
        self.header = self.process.stdout.readline()
        self.ready = time.perf_counter() - self.started

    def segment(self, payload):
        """Sends `payload` (messages ending in a flush) from a thread and reads every record up to
        the marker: (frames, sha256 of positions and pixels, seconds from the start of sending to
        the first record)."""
        sent = time.perf_counter()

        def send():
            self.process.stdin.write(payload)
            self.process.stdin.flush()

        thread = threading.Thread(target=send)
        thread.start()
        digest, frames, first = hashlib.sha256(), 0, None
        while True:
            word = self.process.stdout.read(4)
            (value,) = struct.unpack("<I", word)
            if value == MARKER:
                break
            if first is None:
                first = time.perf_counter() - sent
            digest.update(word)
            digest.update(self.process.stdout.read(FRAME_BYTES))
            frames += 1
        thread.join()
        return frames, digest.hexdigest(), first

    def close(self):
        self.process.stdin.close()
        self.process.stdout.close()
        return self.process.wait()
