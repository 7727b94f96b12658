"""Filters for the check: small ones, in this process, over the port of the current folder."""

import contextlib, os, socket, struct, threading, time
from pathlib import Path

from shared import BAD_HANDLE, CHANGED, INVALID, NOT_FOUND, hresult, listening

RATE = 100e6  # bytes per second of progress


def tag_of(path):
    return Path(path + ":restore_filter_tag").read_bytes()


class restoration:
    """One file of a filter. It gets its bytes at its start, or, if it grows, with its progress."""

    def __init__(self, link, content, grows, rate):
        self.file = open(link, "r+b", buffering=0)
        self.content, self.grows, self.rate = content, grows, rate
        self.done = self.written = self.told = 0
        self.source = None  # the path of the backing file
        self.running = self.failed = False
        if not grows:
            self.write(content)

    def write(self, content, offset=0):
        os.pwrite(self.file.fileno(), content, offset)

    def is_whole(self):
        return self.done == len(self.content)

    def advance(self, seconds):
        if self.running:
            self.done = min(self.done + int(seconds * self.rate), len(self.content))
            self.running = not self.is_whole()
        if self.grows and self.written < self.done:
            self.write(self.content[self.written:self.done], self.written)
            self.written = self.done


class right_filter:
    """Serves reads: at its start, a file gets all its bytes; its progress takes its time."""

    grows = False
    rate = RATE

    def __init__(self, tag):
        self.header = tag[:6] + tag[8:26]
        self.files = {}  # restorations by inode
        self.lock = threading.Lock()
        self.serving = True

    def path_in(self, tag):
        length = int.from_bytes(tag[26:28], "little")
        return os.fsdecode(os.fsencode(tag[36:36 + length].decode("utf-16-le", "surrogatepass")))

    def backing(self, link):
        """The content that the tag names. An HRESULT if there is none."""
        try:
            tag = tag_of(os.readlink(link))
            if len(tag) != 16376 or tag[:6] + tag[8:26] != self.header:
                return INVALID
            path = self.path_in(tag)
            return INVALID if os.path.samefile(path, link) else Path(path).read_bytes()
        except (OSError, ValueError):
            return NOT_FOUND

    def answer(self, link, operation, reads):
        """The HRESULT and the two numbers of a progress query."""
        if operation > 3 or not os.path.isfile(link) or os.stat(link).st_dev != os.stat(".").st_dev:
            return INVALID,
        inode = os.stat(link).st_ino
        if operation == 1 and inode not in self.files:
            content = self.backing(link)
            if not isinstance(content, bytes):
                return content,
            self.files[inode] = restoration(link, content, self.grows, self.rate)
        if operation == 0 or inode not in self.files:
            return NOT_FOUND if operation else 0,
        work = self.files[inode]
        if operation in (1, 2):
            work.running = operation == 1 and not work.is_whole()
        return 0, max(work.done, not work.content), max(len(work.content), 1)

    def serve(self, client):
        credentials = client.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12)
        process = struct.unpack("3i", credentials)[0]
        is_context = len(client.recv(100)) == 40
        client.send(hresult(0 if is_context else INVALID))
        while is_context and (packet := client.recv(5000)):
            room, handle, operation, _, reads = struct.unpack_from("<IQIIi", packet.ljust(24))
            link = "/proc/%d/fd/%d" % (process, handle)
            with self.lock:
                result, *reply = (self.answer(link, operation, reads) if len(packet) == 28
                                  else (INVALID,))
            client.send(hresult(result) + struct.pack("<%dQ" % len(reply), *reply)[:room])
        client.close()

    def tick(self):
        last = time.monotonic()
        while self.serving:
            time.sleep(0.005)
            now = time.monotonic()
            with self.lock:
                for work in list(self.files.values()):
                    work.advance(now - last)
            last = now

    @contextlib.contextmanager
    def running(self):
        def accept():
            with contextlib.suppress(OSError):  # when it is shut down
                while True:
                    threading.Thread(target=self.serve, args=listener.accept()[:1]).start()

        with listening() as listener:
            threads = [threading.Thread(target=each) for each in (accept, self.tick)]
            for thread in threads:
                thread.start()
            try:
                yield
            finally:
                self.serving = False
                listener.shutdown(socket.SHUT_RDWR)
                for thread in threads:
                    thread.join()


class repeating_filter(right_filter):
    """Writes all bytes again at the end."""

    hides = False

    def answer(self, link, operation, reads):
        known = set(self.files)
        came = super().answer(link, operation, reads)
        for inode, work in self.files.items():
            if self.hides and inode not in known:
                work.write(bytes(len(work.content)))
            if work.is_whole() and not work.told:
                work.told = 1
                work.write(work.content)
        return came


class hiding_filter(repeating_filter):
    """Shows zeros until the end."""

    hides = True
    rate = RATE / 4  # so that the check reads in time, also on a busy machine


class careless_filter(right_filter):
    """Serves no reads, and makes these mistakes, each where the check must find it."""

    grows = True
    MISTAKES = (
        "a tag with a wrong guid is refused",  # it is obeyed
        "a tag with pathOffset 0 is refused",  # it is, but something is written
        "a start of a (file without a tag|deleted file) is answered",  # by BAD_HANDLE
        "a stop of a whole file is answered",  # by 1, a success that the tool takes for a failure
        "nothing is restored from a backing file that is a folder",  # it counts as empty
        "a backing file of size 4095 is restored",  # progress is above the total
        "a backing file of size 1048577 is restored",  # progress falls
        "nothing is written after a stop is answered",  # 300 ms later
        "a stop of one file stops no other",
        "a start after a stop continues, until the file is whole",  # it begins at 0
        "a start of a whole file writes nothing",
        "a failure is told by each progress query",  # only by the first
        "a file that is deleted during its restoration grows no more",
        "the tag is unchanged when the file is whole",  # it is removed
        "a hard link has no tag",  # its file's is used
    )

    def backing(self, link):
        path = os.readlink(link)
        if not os.path.exists(path + ":restore_filter_tag"):
            for other in Path(path).parent.glob("file*:restore_filter_tag"):
                name = str(other).removesuffix(":restore_filter_tag")
                if os.path.exists(name) and os.path.samefile(name, path):
                    return Path(self.path_in(other.read_bytes())).read_bytes()
            return BAD_HANDLE
        tag = tag_of(path) if os.path.isfile(path + ":restore_filter_tag") else b""
        if tag[22:23] == b"\0":
            return b"obeyed"
        if tag[24:25] == b"\0":
            Path(path).write_bytes(b"something")
        return b"" if b"f\0o\0l\0d\0e\0r\0\0" in tag else super().backing(link)

    def answer(self, link, operation, reads):
        work = self.files.get(os.stat(link).st_ino) if os.path.isfile(link) else None
        was_whole = work and work.is_whole()
        came = super().answer(link, operation, reads)
        if operation == 1 and came[0] == 0 and not work:
            work = self.files[os.stat(link).st_ino]
            work.rate = RATE / 10 if reads == 1 else RATE
            with contextlib.suppress(OSError):
                work.source = self.path_in(tag_of(os.readlink(link)))
        elif operation == 1 and was_whole:
            work.write(work.content)
        elif operation == 1 and work:
            work.done = 0
        elif operation == 2 and was_whole:
            return 1,
        elif operation == 2 and work:
            for each in self.files.values():
                each.running = False
            late = work.content[work.written:work.written + 65536]
            threading.Timer(0.3, work.write, (late, work.written)).start()
        elif operation == 3 and work:
            work.told += 1
            is_cut = work.source and os.path.getsize(work.source) < len(work.content)
            if is_cut and not work.failed:
                work.failed = True
                return CHANGED,
            if work.is_whole():
                Path(os.readlink(link) + ":restore_filter_tag").unlink(missing_ok=True)
            if len(work.content) == 4095 and work.told < 3:
                return 0, 2, 1
            if len(work.content) == 1048577 and work.told < 3:
                return 0, 100 - work.told, 1048577
        return came
