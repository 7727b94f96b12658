#!/usr/bin/env python3
"""End to end: the programs of a build folder on real file systems, and filter control against
restore_filter and against a scripted peer.

    end_to_end.py BUILD                    # on Linux (as root also other file systems and users) or on Windows
    end_to_end.py BUILD --emulator WINE    # Windows executables, with the tests' fltlib.dll
"""

import argparse, contextlib, itertools, os, re, shutil, signal, socket, struct, subprocess, sys, tempfile
import threading, time, unittest
from pathlib import Path

if os.name == "posix":
    import ctypes, fcntl, resource

options = argparse.ArgumentParser()
options.add_argument("build", type=lambda path: Path(path).resolve())
options.add_argument("--emulator")
options.add_argument("--sanitized", action="store_true")
options.add_argument("tests", nargs="*", help="run only these tests, such as WithPeer.test_answers")
GIVEN = options.parse_intermixed_args()
IS_WINDOWS = (GIVEN.build / "zan_restore.exe").exists()
TOOL, CHECK = (str(GIVEN.build / name) + ".exe" * IS_WINDOWS for name in ("zan_restore", "zan_filter_check"))
EMULATOR = [os.path.abspath(GIVEN.emulator)] if GIVEN.emulator else []
FILTER = str(GIVEN.build / "restore_filter")
SOURCE = Path(__file__).resolve().parent.parent
PWSH = shutil.which("pwsh", path=str(SOURCE / "build/tools")) or shutil.which("pwsh")
IS_ROOT = os.name == "posix" and os.geteuid() == 0
NO_PATH, TOO_MANY, DENIED, BAD_HANDLE, LEASED, NOT_SUPPORTED, EXISTS, INVALID, FULL, BUSY, CHANGED, IO_ERROR, NOT_FOUND = \
    (0x80070000 | code for code in (3, 4, 5, 6, 32, 50, 80, 87, 112, 170, 1006, 1117, 1168))
OK, NO = struct.pack("<I", 0), struct.pack("<I", DENIED)
REFUSED = "FilterConnectCommunicationPort failed: portName = %s, error = 0x80070005\n"
STRACE = "strace", "-f", "-qq", "-o", "/dev/null", "-e"
# The tool must not depend on the locale. Wine encodes the names of files by it.
ENVIRONMENT = {**os.environ, "LC_ALL": "C.UTF-8" if IS_WINDOWS else "C"}
IN_PATH = {**os.environ, "PATH": str(GIVEN.build) + os.pathsep + os.environ["PATH"]}


def volume_of(path):
    return "Volume{00000000-0000-0000-0000-%012x}" % os.stat(path).st_dev


def port_of(path):
    return "\\zan_restore_filter-" + volume_of(path)


def tool(*words, program=(TOOL,), **options):
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "env": ENVIRONMENT,
               "timeout": 600 if program == [CHECK] else 60, **options}
    done = subprocess.run([*EMULATOR, *program, *words], encoding="utf-8", errors="surrogateescape", **options)
    return done.returncode, done.stdout


def send(word, path, *count, **options):
    """0, or the HRESULT in the diagnosis of a failed send; None when nothing was sent."""
    status, output = tool(word, *count, path, **options)
    code = re.search(r"(0x\w+)\[", output)
    return 0 if status == 0 else code and int(code[1], 16)


def eventually(condition, seconds=20):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("still not so after %d s" % seconds)
        time.sleep(0.01)


def progress(path):
    """What --progress prints: two numbers, or a failure's HRESULT; None when nothing was sent."""
    numbers = [int(number, 16) for number in re.findall("0x([0-9a-f]+)", tool("--progress", path)[1])]
    return tuple(numbers) if len(numbers) == 2 else numbers[0] if numbers else None


@contextlib.contextmanager
def peer(*answers, owner=0):
    """A port for one connection: answers it, then one message. None closes it instead. Yields what it received."""
    packets = []
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
        listener.bind("\0" + port_of("."))
        os.seteuid(owner or os.getuid())
        listener.listen()
        os.seteuid(os.getuid())

        def serve():
            client, _ = listener.accept()
            with client:
                for answer in answers:
                    packets.append(client.recv(100))
                    if answer is None or not packets[-1]:
                        return
                    client.send(answer)
                while client.recv(100):
                    pass

        thread = threading.Thread(target=serve)
        thread.start()
        yield packets
        thread.join(20)


@contextlib.contextmanager
def reading_filter(header, hides=False, repeats=False):
    """A filter that serves reads: at its start, a file gets all its bytes; its progress takes its time. If it `hides`, it shows
    zeros until the end. If it `repeats`, it writes the bytes again at the end."""
    files = {}  # by inode: the open file, its bytes, how many of them are told, and since when that number rises

    def answer(link, operation):
        if operation > 3 or not os.path.isfile(link) or os.stat(link).st_dev != os.stat(".").st_dev:
            return INVALID,
        inode = os.stat(link).st_ino
        if operation == 1 and inode not in files:
            try:
                tag = Path(os.readlink(link) + ":restore_filter_tag").read_bytes()
                backing = os.fsencode(tag[36:36 + int.from_bytes(tag[26:28], "little")].decode("utf-16-le", "surrogatepass"))
                if len(tag) != 16376 or tag[:6] + tag[8:26] != header or os.path.samefile(backing, link):
                    return INVALID,
                content, local = Path(os.fsdecode(backing)).read_bytes(), open(link, "r+b", buffering=0)
            except (OSError, ValueError):
                return NOT_FOUND,
            local.write(bytes(len(content)) if hides else content)
            files[inode] = local, content, 0, 0
        if operation == 0 or inode not in files:
            return NOT_FOUND if operation else 0,
        local, content, done, since = files[inode]
        if since:
            done = min(done + int((time.monotonic() - since) * 100e6), len(content))
        if since and done == len(content) and (hides or repeats):
            os.pwrite(local.fileno(), content, 0)
        isRunning = done < len(content) and (operation == 1 or since and operation == 3)
        files[inode] = local, content, done, time.monotonic() if isRunning else 0
        return 0, max(done, not content), max(len(content), 1)

    def serve(client):
        process = struct.unpack("3i", client.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, 12))[0]
        isContext = len(client.recv(100)) == 40
        client.send(OK if isContext else struct.pack("<I", INVALID))
        while isContext and (packet := client.recv(5000)):
            room, handle, operation = struct.unpack_from("<IQI", packet.ljust(16))
            result, *reply = answer("/proc/%d/fd/%d" % (process, handle), operation) if len(packet) == 28 else (INVALID,)
            client.send(struct.pack("<I", result) + struct.pack("<%dQ" % len(reply), *reply)[:room])
        client.close()

    def accept():
        with contextlib.suppress(OSError):  # when it is shut down
            while True:
                threading.Thread(target=serve, args=listener.accept()[:1]).start()

    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
        listener.bind("\0" + port_of("."))
        listener.listen()
        thread = threading.Thread(target=accept)
        thread.start()
        try:
            yield
        finally:
            listener.shutdown(socket.SHUT_RDWR)
            thread.join()


@contextlib.contextmanager
def monitor():
    """Collects what a debug monitor shows."""
    lines = []
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as listener:
        listener.bind("\0DBWIN_BUFFER")
        listener.setblocking(False)
        yield lines
        with contextlib.suppress(BlockingIOError):
            while True:
                lines.append(listener.recv(4096).decode())


class story(unittest.TestCase):
    """Each test in a scratch folder, with a backing file in it."""

    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.enterContext(contextlib.chdir(self.folder))
        os.mkdir("back")
        self.log = self.enterContext(tempfile.TemporaryFile("w+"))
        self.content = os.urandom(3 * 1024 * 1024 + 5)
        Path("back/data").write_bytes(self.content)

    def mount(self, kind, source, folder, options):
        Path(folder).mkdir(exist_ok=True)
        subprocess.run(["mount", "-t", kind, "-o", options, source, folder], check=True)
        self.addCleanup(subprocess.run, ["umount", folder], stderr=subprocess.DEVNULL)

    def start_filter(self, *prefix, folder=".", mayFail=False):
        """Starts a filter with few descriptors, which is given the folder twice. Returns whether it runs."""
        self.filter = subprocess.Popen(
            ["prlimit", "--nofile=50:100", *prefix, FILTER, "--log", "--drive", "C=back", "--share", r"\\srv\share=back",
             folder, folder], stdout=subprocess.PIPE, stderr=self.log, text=True, start_new_session=True)
        self.addCleanup(self.stop_filter, self.filter)
        lines = [self.filter.stdout.readline() for _ in (1, 2)]
        traced = Path("/proc/%d/task/%d/children" % ((self.filter.pid,) * 2)).read_text().split()
        self.filter_pid = int((traced or [self.filter.pid])[0])
        isRunning = lines == ["%s: %s\n" % (folder, port_of(folder))] * 2
        self.assertTrue(isRunning or mayFail, lines)
        return isRunning

    def stop_filter(self, running):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(running.pid, signal.SIGKILL)
        with contextlib.suppress(ValueError):  # closed already
            running.stdout.read()  # until the traced filter has ended too, not only strace
        running.wait()
        running.stdout.close()

    def limit_descriptors(self, count):
        resource.prlimit(self.filter_pid, resource.RLIMIT_NOFILE, (count, 100))

    def count_of_filter(self, kind):
        return len(os.listdir("/proc/%d/%s" % (self.filter_pid, kind)))

    def set_up_file(self, name, backing="c:\\data"):
        self.assertEqual(tool(name, backing)[0], 0)

    def set_up_huge(self, name):
        with open("back/huge", "wb") as huge:
            for mebibyte in range(8192):  # every second chunk of the filter is zeros
                os.pwrite(huge.fileno(), b"x", mebibyte << 20)
        self.set_up_file(name, "c:\\huge")

    def start(self, name, reads=2, answer=0):
        self.assertEqual(send("--startAggressiveRestore", name, str(reads)), answer)

    def ends_with(self, name, content):
        eventually(lambda: progress(name) == (len(content),) * 2)
        self.assertEqual(Path(name).read_bytes(), content)


class SetUp(story):
    def check(self, output, *words, status=1, **options):
        self.assertEqual(tool(*words, **options), (status, output + "\n"), words)

    @staticmethod
    def record(name):
        # Wine has no named streams: it makes a file of the stream's name.
        with open(name + ":restore_filter_tag" + (":$DATA" if EMULATOR else ""), "rb") as stream:
            return stream.read()

    def test_creates_a_tagged_file_or_nothing(self):
        name = "n\xe9\u20ac\u4e2d\U0001f600"
        self.check("create tag stream: \\??\\c:\\" + name, name, "c:\\" + name, "simple", "4", status=0)
        self.assertEqual(os.path.getsize(name), 0)
        record = self.record(name)
        self.assertEqual((len(record), record[36:44]), (16376, "\\??\\".encode("utf-16-le")))
        self.check("create local file failed: 50", os.path.join("back", "data"), "c:\\x")
        self.assertEqual(Path("back/data").read_bytes(), self.content)
        self.check("create local file failed: 3", os.path.join("nodir", "f"), "c:\\x")
        if EMULATOR:  # f:restore_filter_tag begins with a drive, and the stream can't be made
            self.check("create tag stream failed: 2", "f", "c:\\x")
            self.assertFalse(os.path.exists("f"))


class SetUpOnLinux(SetUp):
    def test_bad_names_and_odd_surroundings(self):
        os.symlink("nowhere", "link")
        Path("stale:restore_filter_tag").write_text("mine")
        before = sorted(os.listdir())
        for name, failure in (
                ("back", "local file failed: 50"), ("link", "local file failed: 50"),
                ("back/data/f", "local file failed: 3"), ("x" * 4096, "local file failed: ce"),
                ("typed:$DATA", "local file failed: 7b"), ("typed:s:$DATA", "tag stream failed: 7b"),
                ("x" * 250, "tag stream failed: ce"), ("stale", "tag stream failed: 50")):
            self.check("create " + failure, name, "c:\\x")
        self.check("writing tag stream failed: df", "limited", "c:\\x",
                   preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (3, 3)))
        self.assertEqual(sorted(os.listdir()), before)
        self.assertEqual(Path("stale:restore_filter_tag").read_text(), "mine")

        name = "bad\udcff\udcc3"  # bytes that are no UTF-8
        self.check("create tag stream: \\??\\c:\\" + name, name, "c:\\" + name, status=0,
                   preexec_fn=lambda: os.umask(0))
        modes = [oct(os.stat(file).st_mode & 0o777) for file in (name, name + ":restore_filter_tag")]
        self.assertEqual(modes, ["0o666", "0o644"])  # who writes a tag chooses what is read
        self.assertEqual(tool("closed", "c:\\x", preexec_fn=lambda: os.closerange(0, 3))[0], 0)
        self.assertEqual(len(self.record("closed")), 16376)
        reading, writing = os.pipe()
        os.close(reading)
        self.assertEqual(tool("piped", "c:\\x", stdout=writing)[0], 0)
        os.close(writing)

    @unittest.skipUnless(IS_ROOT, "a full disk and NTFS (not root)")
    def test_on_other_file_systems(self):
        self.mount("tmpfs", "none", "small", "size=8k")
        self.check("writing tag stream failed: 70", "small/f", "c:\\x")
        self.assertEqual(os.listdir("small"), [])
        subprocess.run(["mount", "-o", "remount,ro", "small"], check=True)
        self.check("create local file failed: 13", "small/f", "c:\\x")

        Path("image").write_bytes(bytes(8 << 20))
        subprocess.run(["mkntfs", "-qF", "image"], check=True, capture_output=True)
        self.mount("ntfs-3g", "image", "ntfs", "streams_interface=windows,umask=022")
        tagged = "create tag stream: \\Device\\Mup\\s\\d"
        self.check(tagged, "ntfs/\xe9", "\\\\s\\d", "simple", "4", status=0)
        self.check("create local file failed: 50", "ntfs/\xe9", "\\\\s\\d")
        self.assertEqual(os.listdir("ntfs"), ["\xe9"])  # a real stream, no second file
        with contextlib.suppress(OSError):
            Path("ntfs/filler").write_bytes(bytes(7900000))
        self.check("writing tag stream failed: 70", "ntfs/nospace", "\\\\s\\d")
        self.assertEqual(sorted(os.listdir("ntfs")), ["filler", "\xe9"])
        subprocess.run(["umount", "ntfs"], check=True)
        self.check(tagged, "same", "\\\\s\\d", "simple", "4", status=0)
        read = subprocess.run(["ntfscat", "-n", "restore_filter_tag", "image", "\xe9"], check=True,
                              capture_output=True, env={**os.environ, "LC_ALL": "C.UTF-8"})
        self.assertEqual(read.stdout, self.record("same"))


class ControlUnderWine(story):
    """The executables that ship, with the fltlib.dll of the tests in Wine's System32."""

    VOLUME = "Volume{00000000-0000-0000-0000-000000000043}"  # Wine's drive C
    PORT = "\\zan_restore_filter-" + VOLUME

    def setUp(self):
        super().setUp()
        tool()  # makes Wine's drive C when it is not there yet
        drive = Path(os.environ.get("WINEPREFIX", SOURCE / "build/wine"), "drive_c")
        library = drive / "windows/system32/fltlib.dll"
        self.addCleanup(library.write_bytes, library.read_bytes())
        library.write_bytes((GIVEN.build / "tests/fltlib.dll").read_bytes())
        (drive / "local").write_text("abc")
        shutil.copy(TOOL, "tool.exe")
        Path("fltlib.dll").write_text("what lies beside the executable is never loaded")

    def control(self, *words, program="./tool.exe", **settings):
        """Status, and output with the diagnosis cut to its HRESULT."""
        status, output = tool(*words, program=[program], env={**ENVIRONMENT, "WINEDLLOVERRIDES": "fltlib=n", **settings})
        return status, re.sub(r"fsfilter.*\n.*\n.*\n(0x\w+)\[.*\n\n", r"<\1>\n", output)

    def test_tool(self):
        finding = "FindFirst zan_restore_filter 3\nFindNext\nFindClose\n"
        connecting = "Connect %s 0 %s\n" % (self.PORT, bytes(40).hex())
        steps = ("volume is: %s\n%schecking instance for volume: %s - \\Device\\HarddiskVolume1\n%ssending to instance to "
                 "port: %s\n" % (self.VOLUME, finding, self.VOLUME, connecting, self.PORT))
        for words, expected, settings in (
                (["--startAggressiveRestore", "4"], (0, steps + "Send 3 01000000010000000400000000000000 0\n"), {}),
                (["--progress"], (0, finding + connecting + "Send 3 03000000000000000000000000000000 16\n"
                                  "progress: 0x1 of 0x80000000000000ff\n"), {}),
                (["--ping"], (1, steps + "Send 3 00000000000000000000000000000000 0\n"
                              "message not sent to port: %s\n<0x80070057>\n" % self.PORT), {"FLTLIB_SEND": "80070057"})):
            with self.subTest(words):
                self.assertEqual(self.control(*words, "c:\\local", **settings), expected)

    def test_check(self):
        missing = "c:\\\u4e2d\u6587"
        self.assertEqual(self.control(missing, "back", program=CHECK),
                         (1, "zan_filter_check: %s: not a folder\n" % missing))
        for settings, ending in (
                ({"FLTLIB_FIND": "801f0013"}, r"#   expected: an instance \(Windows lists instances only in an elevated console\)\nBail out! nothing else can be tried\n.*\n"),
                ({"FLTLIB_SEND": "80070057"}, r"#   ping of file1, 24 bytes: 0x80070057\n"
                 r"#   expected: 0x00000000\n(.*\n)*#   expected: 0x00000000 for a start within the time limit\n"
                 r"Bail out! start of file3, n = 4, 24 bytes: 0x80070057; nothing else can be tried\. Does the filter .*\n.*\n")):
            status, output = self.control("--timeout", "1", "c:\\", "back", program=CHECK, **settings)
            self.assertEqual(status, 1, output[-500:])
            self.assertRegex(output, r"\A(Find.*\n)*TAP version 13\n1\.\.\d+\n# zan_filter_check \d+\.\d+\.\d+\n# backing paths .*\n# Registration\n(.*\n)*" + ending + r"\Z")


    def test_check_of_a_filter(self):
        """The filters of fltlib.cpp. The check finds what is wrong with two of them, ends, and leaves nothing."""
        drive = Path(os.environ.get("WINEPREFIX", SOURCE / "build/wine"), "drive_c")
        for name in ("files", "back"):
            (drive / name).mkdir(exist_ok=True)
        for mode, wrong in ("right", r"no statement"), ("growing", "can be read: |is kept|is gone "), ("unshared", r"that was deleted during "):
            with self.subTest(mode):
                status, output = self.control("--timeout", "2" if mode == "unshared" else "60", "c:\\files", "c:\\back", program=CHECK,
                                              FLTLIB_FILTER=mode)
                failed = re.findall("\n(not ok.*)", output)
                self.assertEqual((status, failed), (1 if failed else 0, re.findall("\n(.*ok .*(?:%s).*)" % wrong, output)), output)
                self.assertRegex(output, r"\n# 143 statements: .*\n\Z")
                self.assertEqual([os.listdir(drive / name) for name in ("files", "back")], [[], []])


class WithRestoreFilter(story):
    def setUp(self):
        super().setUp()
        self.start_filter()

    def tearDown(self):
        self.assertEqual(send("--ping", "back/data"), 0)  # it has survived
        self.log.seek(0)
        self.assertIn("ping %s/back/data: 0x00000000\n" % self.folder, self.log.read())
        self.filter.send_signal(signal.SIGTERM)
        self.assertEqual(self.filter.wait(20), 0)

    def test_keeps_the_contract(self):
        """The check against the stand-in, also with the backing folder as a drive."""
        for words in ([".", "back"], [".", "back", "c:\\"]):
            status, output = tool("--timeout", "60", "--skip-reads", *words, program=[CHECK])
            self.assertEqual((status, re.findall(r"\nnot ok.*(?:\n#  .*)*", output)), (0, []))
            self.assertRegex(output, r"\n# (\d+) statements: \d+ passed, 0 failed, 12 skipped\n\Z")
        self.assertEqual(sorted(os.listdir()), ["back"])
        self.assertEqual(os.listdir("back"), ["data"])

    def test_obeys_no_tag_that_others_may_have_chosen(self):
        changes = [lambda name, tag: os.chmod(tag, 0o620), lambda name, tag: os.chmod(tag, 0o602), lambda name, tag: os.link(tag, "link")]
        if IS_ROOT:
            changes += [lambda name, tag: os.chown(tag, 65534, 0), lambda name, tag: os.chown(name, 65534, 0)]
        for index, change in enumerate(changes):
            name = "file%d" % index
            self.set_up_file(name)
            self.assertEqual(progress(name), (0, len(self.content)))
            change(name, name + ":restore_filter_tag")
            self.start(name, 2, DENIED)
            self.assertEqual(os.path.getsize(name), 0)
        self.set_up_file("sound")
        os.symlink("sound:restore_filter_tag", "linked:restore_filter_tag")
        os.mkfifo("fifo:restore_filter_tag")
        for name in ("linked", "fifo"):
            Path(name).touch()
            self.assertGreater(progress(name), 0x80000000)

    def test_stays_in_its_folders_and_waits_for_nobody(self):
        os.symlink("/etc/passwd", "back/out")
        shutil.copy("back/data", "back/leased")
        leased = os.open("back/leased", os.O_RDWR)
        fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_WRLCK)
        signal.signal(signal.SIGIO, signal.SIG_IGN)
        for index, (backing, expected) in enumerate((
                ("d:\\data", NO_PATH), (r"\\srv\other\data", NO_PATH), (r"\\srv\shareXdata", NO_PATH), ("data", NO_PATH), ("c:\\..\\back\\data", DENIED),
                ("c:\\out", DENIED), ("c:\\leased", LEASED))):
            self.set_up_file(str(index), backing)
            self.start(str(index), 2, expected)
        os.close(leased)
        Path("back/none").touch()
        self.set_up_file("empty", "c:\\none")
        self.assertEqual(progress("empty"), (0, 1))
        self.start("empty")
        self.assertEqual(progress("empty"), (1, 1))  # at once
        shutil.copy("back/data", "back/\ufffd")
        self.set_up_file("odd", "c:\\x")
        with open("odd:restore_filter_tag", "r+b") as tag:
            os.pwrite(tag.fileno(), b"\0\xd8", 48)  # a surrogate in place of the x
        self.start("odd", 2, 0x8007000D)
        self.set_up_file("locked")
        with open("locked") as locked:
            fcntl.flock(locked, fcntl.LOCK_EX)
            self.start("locked", 2, BUSY)
        self.set_up_file("back/tagged")  # a backing file that is restored itself
        self.set_up_file("late", "c:\\tagged")
        self.start("late", 2, BUSY)
        self.assertEqual(progress("late"), BUSY)
        self.start("back/tagged")
        self.ends_with("back/tagged", self.content)
        self.start("late")
        self.ends_with("late", self.content)

    def test_survives_silent_clients(self):
        opened = self.count_of_filter("fd")
        clients = [socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) for _ in range(300)]  # more than it keeps
        for client in clients:
            client.connect("\0" + port_of("."))
        clients[-1].send(bytes(40))
        clients[-1].settimeout(0.5)
        with contextlib.suppress(OSError):  # sends without reading, until the socket takes no more
            while True:
                clients[-1].send(bytes(28))
        self.assertEqual(send("--ping", "back/data"), 0)
        for client in clients:
            client.close()
        eventually(lambda: self.count_of_filter("fd") <= opened)

    def test_restores_drives_shares_and_holes(self):
        self.assertEqual(resource.prlimit(self.filter_pid, resource.RLIMIT_NOFILE), (100, 100))
        with open("back/sparse", "wb") as sparse:
            os.pwrite(sparse.fileno(), self.content, 5 << 20)
            os.truncate("back/sparse", 20 << 20)
        shutil.copy("back/data", "back/\xe9\u4e2d")
        for name, backing, content in (
                ("drive", "C:\\data", self.content), ("unicode", "c:\\\xe9\u4e2d", self.content),
                ("share", r"\\SRV\Share\data", self.content), ("sparse", "c:\\sparse", Path("back/sparse").read_bytes())):
            self.set_up_file(name, backing)
            self.start(name, 4)
            self.ends_with(name, content)
        self.assertLess(os.stat("sparse").st_blocks * 512, 6 << 20)  # the holes are kept

    def test_writes_over_nothing_that_no_record_accounts_for(self):
        whole = {"copied": "c:\\data", "changed": "c:\\data", "retagged": "c:\\other"}
        shutil.copy("back/data", "back/other")
        for name in ("whole", *whole):
            self.set_up_file(name)
            self.start(name)
            self.ends_with(name, self.content)
        for name, backing in whole.items():
            os.rename(name, name + ".old")
            os.unlink(name + ":restore_filter_tag")
            self.set_up_file(name, backing)
            os.rename(name + ".old", name)
        shutil.copy("copied", "copy")  # the record is of another file
        os.rename("copy", "copied")
        for name, content in (("user's", b"mine"), ("made in advance", bytes(1 << 20)), ("cut record", self.content), ("notes", b"")):
            self.set_up_file(name)
            Path(name).write_bytes(content)
        shutil.copy("whole:restore_filter_progress", "cut record:restore_filter_progress")
        os.truncate("cut record:restore_filter_progress", 39)
        Path("notes:restore_filter_progress").write_text("no record")
        for name in ("copied", "retagged", "user's", "made in advance", "cut record", "notes"):
            before = Path(name).read_bytes()
            with self.subTest(name):
                self.start(name, 2, EXISTS)
                self.assertEqual((progress(name), Path(name).read_bytes()), (EXISTS, before))
        self.assertEqual(Path("notes:restore_filter_progress").read_text(), "no record")
        with open("changed", "r+b") as changed:  # its user owns a whole file, whatever becomes of the backing file
            changed.write(b"its user's")
        os.truncate("whole", 0)
        for change in (lambda: os.truncate("back/data", 5), lambda: os.unlink("back/data")):
            change()
            for name, content in ("changed", b"its user's" + self.content[10:]), ("whole", b""):
                self.start(name)
                self.assertEqual((progress(name), Path(name).read_bytes()), ((len(self.content),) * 2, content))
        self.start("whole:restore_filter_tag", 2, NOT_FOUND)
        Path("back/data").touch()

    def test_begins_again_after_a_kill_or_with_another_backing_file(self):
        def ends(by):
            self.start("local")
            eventually(lambda: by != signal.SIGKILL or progress("local")[0] > 1 << 20)
            self.filter.send_signal(by)
            self.filter.wait(20)
            self.start_filter()
            self.assertEqual(progress("local")[0], 0)

        self.set_up_huge("local")
        for by in (signal.SIGTERM, signal.SIGTERM, signal.SIGKILL):  # the first two before the first byte
            ends(by)
        opened = self.count_of_filter("fd")
        self.start("local")
        eventually(lambda: progress("local")[0] > 1 << 20)
        self.assertEqual(send("--stopAggressiveRestore", "local"), 0)
        self.assertGreater(progress("local")[0], 1 << 20)
        eventually(lambda: self.count_of_filter("fd") <= opened)  # its last sync is done
        with open("local:restore_filter_progress", "r+b") as record:
            os.pwrite(record.fileno(), bytes(7) + b"x", 40)  # another stand-in has begun a pass of its own
        self.assertEqual(progress("local")[0], 0)
        os.rename("back/data", "back/huge")
        self.assertEqual(progress("local"), (0, len(self.content)))
        self.start("local")
        self.ends_with("local", self.content)
        Path("back/data").touch()

    def test_ends_with_its_file_and_attaches_once(self):
        self.set_up_huge("local")
        opened = self.count_of_filter("fd")
        self.start("local", 4)
        os.unlink("local")
        eventually(lambda: self.count_of_filter("fd") <= opened)
        second = subprocess.run([FILTER, "."], capture_output=True, text=True)
        self.assertEqual((second.returncode, second.stdout), (1, ""))
        self.assertIn("already", second.stderr)

    @unittest.skipUnless(IS_ROOT, "NTFS with the stand-in (not root)")
    def test_knows_a_file_without_a_time_of_birth_by_its_real_streams(self):
        Path("image").write_bytes(bytes(16 << 20))
        subprocess.run(["mkntfs", "-qF", "image"], check=True, capture_output=True)
        name = "ntfs/local"
        for options, answer in ("umask=022", NOT_SUPPORTED), ("streams_interface=windows,umask=022", 0):
            self.mount("ntfs-3g", "image", "ntfs", options)
            self.start_filter(folder="ntfs")
            self.set_up_file(name)
            self.start(name, 2, answer)
            eventually(lambda: progress(name) == (answer or (len(self.content),) * 2))
            self.assertEqual(send("--stopAggressiveRestore", name), answer)
            self.assertEqual(Path(name).read_bytes(), b"" if answer else self.content)
            self.filter.terminate()
            self.filter.wait(20)
            os.unlink(name)
            subprocess.run(["umount", "ntfs"], check=True)

    @unittest.skipUnless(IS_ROOT, "a small volume, another mount name space and another user (not root)")
    def test_other_volumes_and_users(self):
        local = "sm all\\/local"
        self.mount("tmpfs", "none", "sm all\\", "size=1m")
        self.set_up_file(local)
        self.assertEqual(tool("--ping", local),
                         (1, "volume is: %s\nchecking instance for volume: %s - "
                             "\\Device\\HarddiskVolume%d\nno filter instance found for %s\n"
                          % (volume_of("sm all\\"), volume_of("."), os.stat(".").st_dev, local)))
        self.start_filter(folder="sm all\\")
        self.start(local)
        eventually(lambda: progress(local) == FULL)
        self.assertTrue(self.content.startswith(Path(local).read_bytes()))
        subprocess.run(["mount", "-o", "remount,size=9m", "sm all\\"], check=True)
        self.start(local)
        self.ends_with(local, self.content)
        self.assertEqual(send("--ping", local, program=["unshare", "-m", "--propagation", "unchanged", TOOL]), INVALID)
        self.assertEqual(tool("back", "sm all\\", program=[CHECK])[0], 1)  # too small, and left as it was
        self.assertEqual(os.listdir("back"), ["data"])

        for folder in "hidden", "above":
            os.mkdir(folder)
            self.set_up_file(folder + "/local")
        with open("hidden/local") as file, socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as client:
            self.mount("none", "above", "hidden/", "bind")  # the streams at the file's path are of another file
            client.connect("\0" + port_of("."))
            for packet, answer in (bytes(40), OK), (struct.pack("<IQIQI", 16, file.fileno(), 3, 0, 0), struct.pack("<I", NOT_FOUND)):
                client.send(packet)
                self.assertEqual(client.recv(20), answer)

        os.chmod(self.folder, 0o755)  # the user `nobody` has no access to the tool's folder
        shutil.copy(TOOL, "tool")
        with monitor() as lines:
            self.assertEqual(send("--ping", "back/data", program=["./tool"], user=65534), BAD_HANDLE)
        self.assertEqual(lines, [REFUSED % port_of(".")])


class WithPeer(story):
    def test_answers(self):
        for answers, result in (
                ((OK, OK + struct.pack("<QQ", 0xABC, 1 << 63)), (0xABC, 1 << 63)), ((OK, OK + b"\1\2"), (0x201, 0)),
                ((struct.pack("<I", 1), OK + bytes(100)), (0, 0)), ((OK, NO), DENIED), ((OK, b"\0\0"), BAD_HANDLE),
                ((OK, None), BAD_HANDLE), ((None,), BAD_HANDLE), ((NO,), BAD_HANDLE)):
            with self.subTest(answers=answers), monitor() as lines, peer(*answers) as packets:
                self.assertEqual(progress("back/data"), result)
                self.assertEqual(packets[0], bytes(40))
                if len(packets) > 1:
                    self.assertEqual(packets[1][:4] + packets[1][12:], struct.pack("<IIIiI", 16, 3, 0, 0, 0))
            self.assertEqual(len(lines), len(answers) == 1)  # only a failed connection is traced

    @unittest.skipUnless(IS_ROOT, "another user (not root)")
    def test_trusts_no_other_user(self):
        with monitor() as lines, peer(OK, OK + bytes(16), owner=65534) as packets:
            self.assertEqual(send("--ping", "back/data"), BAD_HANDLE)
        self.assertEqual(packets, [b""])
        self.assertEqual(lines, [REFUSED % port_of(".")])
        os.chmod(self.folder, 0o755)
        shutil.copy(TOOL, "tool")
        with peer(OK, OK):  # root's
            self.assertEqual(send("--ping", "back/data", program=["./tool"], user=65534), 0)

    def test_check_sees_what_programs_read_and_write(self):
        self.set_up_file("template")
        tag = Path("template:restore_filter_tag").read_bytes()
        for mistake, seen in (({}, "no statement"), ({"hides": True}, "can be read: .*|is kept|is gone .*"), ({"repeats": True}, "is kept")):
            with self.subTest(mistake), reading_filter(tag[:6] + tag[8:26], **mistake):
                status, output = tool("--timeout", "60", ".", "back", program=[CHECK])
                self.assertEqual(status, 1 if mistake else 0)
                self.assertEqual(re.findall("\n(not ok.*)", output), re.findall("\n(.*ok .*(?:%s))" % seen, output))
                self.assertEqual(output.count("SKIP --skip-reads"), 0)

    def test_traces_when_no_filter_is_loaded(self):
        with monitor() as lines, socket.socket(socket.AF_UNIX) as stream:
            stream.bind("\0" + port_of("."))  # a port is a SOCK_SEQPACKET
            stream.listen()
            self.assertEqual(tool("--progress", "back/data"),
                             (1, "no filter instance found for back/data\nqueryProgress failed\n"))
            os.mkfifo("fifo")
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other, contextlib.suppress(BlockingIOError):
                other.setblocking(False)
                while True:
                    other.sendto(b"until the monitor takes no more", "\0DBWIN_BUFFER")
            self.assertEqual(tool("--progress", "fifo")[0], 1)  # waits for neither
        self.assertEqual(lines[0], "FilterInstanceFindFirst failed: status = 0x801f0013\n")

    def test_check_tells_what_is_wrong(self):
        os.mkdir("files")
        for answers, came, asked in (((NO,), "0x80070005", "a connection"),
                                     ((), "no answer", "an answer within the time limit")):
            with peer(*answers):
                status, output = tool("--timeout", "1", "files", "back", program=[CHECK], stderr=subprocess.DEVNULL)
            self.assertEqual((status, output.splitlines()[-3:]), (
                1, ["#   connect with a context of size 40: " + came, "#   expected: " + asked,
                    "Bail out! connect with a context of size 40: %s; nothing else can be tried" % came]))
        for words, line in (
                (("--timeout", "x", "files", "back"), "zan_filter_check [--timeout SECONDS] [--skip-reads] FOLDER BACKING_FOLDER [AS]"),
                (("files", "nothing"), "zan_filter_check: %s/nothing: not a folder" % self.folder),
                (("files", "files/../files"), "zan_filter_check: FOLDER and BACKING_FOLDER are the same")):
            status, output = tool(*words, program=[CHECK])
            self.assertEqual((status, output.splitlines()[0]), (1, line))
        self.assertEqual((os.listdir("files"), os.listdir("back")), ([], ["data"]))


class WithFailingCalls(story):
    """Each of these system calls fails at its first, second, ... use. The stand-in keeps running, and
    its answers are true."""

    CALLS = {"fdatasync": 4, "ftruncate": 2, "openat": 6, "openat2": 6, "pread64": 8, "pwrite64": 9, "newfstatat": 8,
             "statx": 3, "readlink": 3, "read": 6, "recvfrom": 6, "sendmsg": 4, "accept4": 3, "poll": 4,
             "clone3": 2, "mmap": 4, "getsockopt": 2}

    def setUp(self):
        super().setUp()
        if subprocess.run(["strace", "-o", "/dev/null", "true"], stderr=subprocess.DEVNULL).returncode:
            self.skipTest("failing system calls (strace cannot trace here)")

    def test_lives_on(self):
        for call, uses in self.CALLS.items():
            for error, use in itertools.product(("EIO", "EINTR"), range(1, uses + 1)):
                with self.subTest(call=call, error=error, use=use):
                    self.live_through("inject=%s:error=%s:when=%d" % (call, error, use))

    def live_through(self, fault):
        for name in ("local", "local:restore_filter_tag"):
            Path(name).unlink(missing_ok=True)
        self.set_up_file("local")
        if self.start_filter(*STRACE, fault, mayFail=True):
            for _ in range(30):  # strace fails the call once per thread, and every start makes new threads
                send("--startAggressiveRestore", "local", "2")
                now = progress("local")
                self.assertTrue(self.content.startswith(Path("local").read_bytes()))
                if now == (len(self.content),) * 2:
                    break
            eventually(lambda: not isinstance(now := progress("local"), tuple) or now == (len(self.content),) * 2)
            eventually(lambda: send("--ping", "local") == 0)
        else:  # it could not begin, and said so
            self.assertEqual(self.filter.wait(20), 1)
        self.stop_filter(self.filter)

    def test_is_whole_when_the_record_says_so_on_the_disk(self):
        # Syncs of a thread: 1 tag and 2 record before the first byte, 3 file and 4 record at the end.
        for fault, status in (("error=EIO:when=1", IO_ERROR), ("error=EIO:when=2", IO_ERROR), ("error=EIO:when=3", IO_ERROR),
                              ("error=ENOSPC:when=4", FULL)):
            with self.subTest(fault):
                isEmpty = fault[-1] in "12"
                self.set_up_file(fault)
                self.start_filter(*STRACE, "inject=fdatasync:" + fault)
                self.start(fault)
                eventually(lambda: progress(fault) == status)
                self.assertEqual(os.path.getsize(fault), 0 if isEmpty else len(self.content))
                self.assertEqual((send("--stopAggressiveRestore", fault), progress(fault)), (0, (0, len(self.content))))
                self.stop_filter(self.filter)
                if not isEmpty:  # as if the failed sync had lost it
                    with open(fault, "r+b") as local:
                        os.pwrite(local.fileno(), bytes(4096), 1 << 20)
                self.start_filter()
                self.start(fault)
                self.ends_with(fault, self.content)
                self.stop_filter(self.filter)

    def test_stop_and_start_during_a_slow_sync(self):
        tag = "local:restore_filter_tag"
        shutil.copy("back/data", "back/other")
        self.set_up_file("other", "c:\\other")
        for fault, change, end in (
                ("delay_enter=1s:when=3", lambda: None, (len(self.content),) * 2), ("error=EIO:delay_enter=1s:when=4", lambda: None, IO_ERROR),
                ("delay_enter=1s:when=3", lambda: os.truncate("local", 5), CHANGED),
                ("delay_enter=1s:when=3", lambda: os.truncate("local:restore_filter_progress", 0), CHANGED),
                ("delay_enter=1s:when=3", lambda: os.utime("back/data", (0, 0)), CHANGED)):
            self.set_up_file("local")
            self.start_filter(*STRACE, "inject=fdatasync:" + fault)
            self.start("local")
            eventually(lambda: os.path.getsize("local") == len(self.content))
            threads = self.count_of_filter("task")
            self.start("local", 2, BUSY)
            change()
            for _ in (1, 2):
                self.assertEqual(send("--stopAggressiveRestore", "local"), 0)
                os.rename(tag, "kept")
                os.rename("other:restore_filter_tag", tag)
                self.start("local", 2, BUSY)  # the restoration from back/data has not ended yet
                os.rename(tag, "other:restore_filter_tag")
                os.rename("kept", tag)
                if end != CHANGED:
                    self.start("local")
                    self.assertLess(*progress("local"))
                    self.assertLessEqual(self.count_of_filter("task"), threads)  # no second one: the start woke the one that still syncs
            eventually(lambda: progress("local") == end)
            self.stop_filter(self.filter)
            for name in ("local", tag, "local:restore_filter_progress"):
                os.unlink(name)

    def test_stops_and_limits_while_reads_are_slow(self):
        self.start_filter(*STRACE, "inject=pread64:delay_enter=200ms")
        names = ["file%d" % i for i in range(20)]
        opened = self.count_of_filter("fd")
        for name in names:
            self.set_up_file(name)
        # When descriptors run out, starts are refused, but queries are answered.
        for limit in range(28, 33):
            self.limit_descriptors(limit)
            answers = {send("--startAggressiveRestore", name, "1") for name in names}
            self.assertEqual(answers | {0, BUSY}, {0, BUSY, TOO_MANY})
            for word in ("--ping", "--progress"):
                self.assertEqual({send(word, name) for name in names}, {0})
        self.assertEqual({send("--stopAggressiveRestore", name) for name in names}, {0})
        stopped = [os.path.getsize(name) for name in names]
        eventually(lambda: self.count_of_filter("fd") <= opened)  # when the reads that were begun are done
        self.assertEqual([os.path.getsize(name) for name in names], stopped)
        self.limit_descriptors(100)
        for name in names:
            self.start(name, 1)
        for name in names:
            self.ends_with(name, self.content)

    def test_check_compares_contents(self):
        self.start_filter(*STRACE, "inject=pread64:retval=5000")
        status, output = tool("--timeout", "5", ".", "back", program=[CHECK])
        self.assertEqual((status, output.count("\nnot ok") > 30), (1, True))

    def test_tries_to_print_each_line(self):
        with open("/dev/full", "w") as full:
            tool("--ping", "back/data", program=["strace", "-e", "write", "-o", "calls", TOOL], stdout=full)
        self.assertEqual(len(re.findall(r"write\(1, .*ENOSPC", Path("calls").read_text())), 2)

    def test_interrupted_check_leaves_nothing(self):
        self.start_filter(*STRACE, "inject=pread64:delay_enter=300ms")
        for delay in (0.2, 0.5, 2):
            running = subprocess.Popen([CHECK, ".", "back"], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
            time.sleep(delay)
            running.send_signal(signal.SIGINT)
            self.assertEqual(running.communicate(timeout=20)[1], "zan_filter_check: interrupted\n")
            self.assertEqual(running.returncode, 1)
            self.assertEqual((os.listdir(), os.listdir("back")), (["back"], ["data"]))


class WithPowerShell(story):
    @unittest.skipUnless(PWSH, "the PowerShell module (no pwsh)")
    def test_module(self):
        Path("back/none").write_bytes(b"")
        self.start_filter(*([] if GIVEN.sanitized else [*STRACE, "inject=pread64:delay_enter=100ms"]))
        self.limit_descriptors(30)
        done = subprocess.run([PWSH, "-NoProfile", "-NonInteractive", "-File", SOURCE / "tests/module_test.ps1"],
                              env={**IN_PATH, "HOME": self.folder, "NO_COLOR": "1"},
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300)
        self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    if IS_ROOT:  # a new network name space, without the port of another stand-in
        ctypes.CDLL(None).unshare(0x40000000)
    stories = ["SetUpOnLinux", "WithRestoreFilter", "WithPeer", "WithPowerShell", "WithFailingCalls"]
    if IS_WINDOWS:
        stories = ["SetUp", "ControlUnderWine"][: 1 + bool(EMULATOR)]
    elif GIVEN.sanitized:
        stories.pop()  # the leak sanitizer does not work under strace
    unittest.main(argv=[sys.argv[0], *(GIVEN.tests or stories)], verbosity=2, warnings="ignore")
