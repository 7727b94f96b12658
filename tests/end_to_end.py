#!/usr/bin/env python3
"""End to end: the built program on real file systems, and filter control against the
built restore_filter and a peer that speaks the ports' framing and says what a test wants.

    end_to_end.py ZAN_RESTORE RESTORE_FILTER         # Linux; as root more file systems and users
    end_to_end.py ZAN_RESTORE RESTORE_FILTER PWSH    # the PowerShell module alone
    end_to_end.py WINE ZAN_RESTORE.EXE               # control against the fltlib.dll of the tests
"""

import contextlib, ctypes, fcntl, itertools, os, pty, random, re, resource, shutil, signal, socket, struct
import subprocess, sys, tempfile, threading, time, unittest
from pathlib import Path

TOOL, FILTER = map(os.path.abspath, sys.argv[1:3])
IS_WINDOWS = FILTER.endswith(".exe")
PROGRAM = [TOOL, FILTER] if IS_WINDOWS else [TOOL]
SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
IS_ROOT = os.geteuid() == 0
IS_SANITIZED = b"libasan" in Path(FILTER).read_bytes()
CONTEXT = bytes(40)
NOT_FOUND, NO_PATH, TOO_MANY, DENIED, BAD_HANDLE, NOT_WHOLE, LEASED, INVALID, FULL, BUSY, TOO_SHORT, \
    IO_ERROR, NOT_TAGGED = (0x80070000 | code for code in (2, 3, 4, 5, 6, 13, 32, 87, 112, 170, 1006, 1117, 1168))
# A user's locale must make no difference; Wine's own names of files follow it.
STRACE = "strace", "-f", "-qq", "-o", "/dev/null", "-e"
ENVIRONMENT = {**os.environ, "LC_ALL": "C.UTF-8" if IS_WINDOWS else "C"}


def volume_of(path):
    return "Volume{00000000-0000-0000-0000-%012x}" % os.stat(path).st_dev


PORT = "\\zan_restore_filter-" + volume_of(tempfile.gettempdir())


def tool(*words, program=PROGRAM, **options):
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "env": ENVIRONMENT, **options}
    done = subprocess.run([*program, *words], timeout=60, encoding="utf-8", errors="surrogateescape",
                          **options)
    return done.returncode, done.stdout


def send(word, path, *count, **options):
    """0, or the HRESULT in the diagnosis of a failed send; None when nothing was sent."""
    status, output = tool(word, *count, path, **options)
    line = next((line for line in output.splitlines() if "FilterSendMessage" in line), None)
    return 0 if status == 0 else line and int(line.split("[")[0], 16)


def eventually(condition, seconds=20):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("still not so after %d s" % seconds)
        time.sleep(0.01)


def progress(path):
    """What --progress prints, as two numbers; None when the query failed."""
    status, output = tool("--progress", path)
    if status != 0:
        return None
    words = output.split()
    return int(words[1], 16), int(words[3], 16)


class connection:
    """A client of a port that sends what it likes."""

    def __init__(self, context=CONTEXT):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(20)
        self.socket.connect("\0" + PORT)
        self.result = self.exchange(context)

    def exchange(self, packet):
        self.socket.send(packet)
        answer = self.socket.recv(64)
        return struct.unpack("<I", answer[:4])[0] if answer else None

    def send(self, handle, operation, kind=0, reads=0):
        return self.exchange(struct.pack("<IQIIiI", 16, handle, operation, kind, reads, 0))


@contextlib.contextmanager
def peer(*answers, owner=os.geteuid()):
    """A port that answers a connection and a message with these packets; None closes the
    connection instead. Gives the packets that it got."""
    packets = []
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
        listener.bind("\0" + PORT)
        os.seteuid(owner)
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
                client.recv(1)

        thread = threading.Thread(target=serve)
        thread.start()
        yield packets
        thread.join(20)


@contextlib.contextmanager
def monitor():
    """What a debug monitor shows meanwhile."""
    lines = []
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as listener:
        listener.bind("\0DBWIN_BUFFER")
        listener.setblocking(False)
        yield lines
        with contextlib.suppress(BlockingIOError):
            while True:
                lines.append(listener.recv(4096).decode())


def mount(kind, source, folder, options, test):
    os.mkdir(folder)
    subprocess.run(["mount", "-t", kind, "-o", options, source, folder], check=True)
    test.addCleanup(subprocess.run, ["umount", folder], stderr=subprocess.DEVNULL)


class story(unittest.TestCase):
    """Each test in a scratch folder, with backing files in it."""

    def setUp(self):
        self.folder = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.folder)
        self.addCleanup(os.chdir, "/")
        os.chdir(self.folder)
        os.makedirs("back/sub")
        self.content = os.urandom(3 * 1024 * 1024 + 5)
        Path("back/data").write_bytes(self.content)

    def start_filter(self, *prefix, folder="."):
        """A filter with few descriptors; whether it has attached to the folder's volume, once."""
        self.filter = subprocess.Popen(
            ["prlimit", "--nofile=50:100", *prefix, FILTER, "--drive", "C=back",
             "--share", r"\\srv\share=back", folder, folder],
            stdout=subprocess.PIPE, text=True, start_new_session=True)
        self.addCleanup(self.stop_filter, self.filter)
        port = "\\zan_restore_filter-" + volume_of(folder)
        has_attached = [self.filter.stdout.readline() for _ in (1, 2)] == ["%s: %s\n" % (folder, port)] * 2
        traced = Path("/proc/%d/task/%d/children" % ((self.filter.pid,) * 2)).read_text().split()
        self.filter_pid = int((traced or [self.filter.pid])[0])
        return has_attached

    def limit_descriptors(self, count):
        resource.prlimit(self.filter_pid, resource.RLIMIT_NOFILE, (count, count))

    def stop_filter(self, running):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(running.pid, signal.SIGKILL)
        running.wait()
        running.stdout.close()

    def set_up_file(self, name, backing):
        self.assertEqual(tool(name, backing)[0], 0)

    def set_up_huge(self, name):
        with open("back/huge", "wb") as huge:  # a byte in each chunk: no chunk is a hole
            for chunk in range(8192):
                os.pwrite(huge.fileno(), b"x", chunk << 20)
        self.set_up_file(name, "c:\\huge")

    def start(self, name, reads=2, answer=0):
        self.assertEqual(send("--startAggressiveRestore", name, str(reads)), answer)

    def ends_with(self, name, content):
        eventually(lambda: progress(name) == (len(content),) * 2)
        self.assertEqual(Path(name).read_bytes(), content)

    def restore_many(self, *words, text, **options):
        done = subprocess.run([SOURCE + "/examples/restore-many.sh", *words], input=text.encode(), timeout=60,
                              env={**os.environ, "PATH": os.path.dirname(TOOL) + ":" + os.environ["PATH"],
                                   "STALL_SECONDS": "1"},
                              **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})
        return done.returncode, sorted(done.stdout.decode().splitlines()), sorted((done.stderr or b"").decode().splitlines())

    def files_of_filter(self):
        return len(os.listdir("/proc/%d/fd" % self.filter_pid))


class SetUp(story):
    def check(self, output, *words, status=1, **options):
        self.assertEqual(tool(*words, **options), (status, output + "\n"), words)

    @staticmethod
    def record(name):
        # Wine has no named streams: it makes a file of the stream's name.
        return Path(name + ":restore_filter_tag" + (":$DATA" if IS_WINDOWS else ""))

    def test_creates_a_tagged_file_or_nothing(self):
        self.check("create tag stream: \\??\\c:\\dir\\foo.txt", "file", "c:\\dir\\foo.txt", status=0,
                   preexec_fn=lambda: os.umask(0o022))
        self.assertEqual((os.path.getsize("file"), oct(os.stat("file").st_mode)), (0, "0o100644"))
        self.assertEqual(len(self.record("file").read_bytes()), 16376)
        self.assertEqual(self.record("file").read_bytes()[24:44], b"\x08\0\x24\0" + bytes(8) +
                         "\\??\\".encode("utf-16-le"))
        self.check("create local file failed: 50", "back/data", "c:\\x")
        self.assertEqual(Path("back/data").read_bytes(), self.content)
        self.assertFalse(self.record("back/data").exists())
        self.check("create local file failed: 3", "nodir/f", "c:\\x")
        name = "n\xe9\u20ac\u4e2d\U0001f600"
        self.check("create tag stream: \\??\\c:\\" + name, name, "c:\\" + name, "simple", "4", status=0)
        self.assertTrue(os.path.exists(name))
        with open("/dev/full", "w") as full:  # what can't be printed changes nothing
            self.assertEqual(tool("full", "c:\\x", stdout=full)[0], 0)
        self.assertEqual(len(self.record("full").read_bytes()), 16376)

    @unittest.skipUnless(IS_WINDOWS, "for the Windows executable")
    def test_under_wine(self):
        # f:restore_filter_tag begins with a drive, and the stream can't be made.
        self.check("create tag stream failed: 2", "f", "c:\\x")
        self.assertFalse(os.path.exists("f"))

    @unittest.skipIf(IS_WINDOWS, "for Linux")
    def test_on_linux(self):
        os.symlink("nowhere", "link")
        Path("stale:restore_filter_tag").write_text("mine")
        before = sorted(os.listdir())
        for name, failure in (
                ("back", "local file failed: 50"), ("link", "local file failed: 50"),
                ("back/data/f", "local file failed: 3"), ("", "local file failed: 3"),
                ("x" * 256, "local file failed: ce"), ("x" * 4096, "local file failed: ce"),
                ("typed:$DATA", "local file failed: 7b"), ("typed:s:$DATA", "tag stream failed: 7b"),
                ("x" * 250, "tag stream failed: ce"), ("stale", "tag stream failed: 50")):
            self.check("create " + failure, name, "c:\\x")
        def limit(which):
            return lambda: resource.setrlimit(which, (3, 3))
        self.check("writing tag stream failed: df", "limited", "c:\\x",
                   preexec_fn=limit(resource.RLIMIT_FSIZE))
        if "Where" in tool(preexec_fn=limit(resource.RLIMIT_NOFILE))[1]:  # it could start at all
            self.check("create local file failed: 4", "new", "c:\\x",
                       preexec_fn=limit(resource.RLIMIT_NOFILE))
        self.assertEqual(sorted(os.listdir()), before)
        self.assertEqual(Path("stale:restore_filter_tag").read_text(), "mine")

        name = "bad\udcff\udcc3"  # bytes that are no UTF-8
        self.check("create tag stream: \\??\\c:\\" + name, name, "c:\\" + name, status=0)
        self.assertIn(b"bad\xff\xc3", os.listdir(b"."))
        closed = {"preexec_fn": lambda: os.closerange(0, 3)}
        self.assertEqual(tool("closed", "c:\\x", **closed)[0], 0)
        self.assertEqual(len(self.record("closed").read_bytes()), 16376)
        self.assertEqual(tool("closed", "c:\\x", **closed)[0], 1)
        reading, writing = os.pipe()
        os.close(reading)
        self.assertEqual(tool("piped", "c:\\x", stdout=writing)[0], 0)
        os.close(writing)

    @unittest.skipIf(IS_WINDOWS, "for Linux")
    @unittest.skipUnless(IS_ROOT, "a full disk and NTFS need root")
    def test_on_other_file_systems(self):
        mount("tmpfs", "none", "small", "size=8k", self)
        self.check("writing tag stream failed: 70", "small/f", "c:\\x")
        self.assertEqual(os.listdir("small"), [])
        subprocess.run(["mount", "-o", "remount,ro", "small"], check=True)
        self.check("create local file failed: 13", "small/f", "c:\\x")

        Path("image").write_bytes(bytes(8 << 20))
        subprocess.run(["mkntfs", "-qF", "image"], check=True, capture_output=True)
        mount("ntfs-3g", "image", "ntfs", "streams_interface=windows,umask=022", self)
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
        self.assertEqual(read.stdout, self.record("same").read_bytes())


@unittest.skipUnless(IS_WINDOWS, "for the Windows executable")
class WindowsControl(story):
    """The executable that ships, with the fltlib.dll of the tests in Wine's System32."""

    VOLUME = "Volume{00000000-0000-0000-0000-000000000043}"  # Wine's drive C
    PORT = "\\zan_restore_filter-" + VOLUME

    def setUp(self):
        super().setUp()
        tool()  # makes Wine's drive C when it is not there yet
        self.drive = Path(os.environ.get("WINEPREFIX", SOURCE + "/build/wine"), "drive_c")
        library = self.drive / "windows/system32/fltlib.dll"
        self.addCleanup(library.write_bytes, library.read_bytes())
        library.write_bytes(Path(FILTER).with_name("tests").joinpath("fltlib.dll").read_bytes())
        (self.drive / "local").write_text("abc")
        shutil.copy(FILTER, "tool.exe")
        Path("fltlib.dll").write_text("what lies beside the executable is never loaded")

    def control(self, words, settings):
        """Status, output with the diagnosis cut to its HRESULT, calls of fltlib, trace lines."""
        given = {"FLTLIB_LOG": "log", "FLTLIB_DEVICE": "\\Device\\HarddiskVolume1", "FLTLIB_SIZE": "900",
                 "WINEDLLOVERRIDES": "fltlib=n", "WINEDEBUG": "warn+seh", **settings}
        Path("log").write_text("")
        with open("trace", "w+") as trace:
            status, output = tool(*words.split(), "c:\\local", program=[TOOL, "./tool.exe"], stderr=trace,
                                  env={**ENVIRONMENT, **given})
        traces = re.findall(r'OutputDebugStringA "(.*)\\n"', Path("trace").read_text(errors="replace"))
        output = re.sub(r"fsfilter.*\n.*\n.*\n(0x\w+)\[.*\n\n", r"<\1>\n", output)
        return status, output, Path("log").read_text().splitlines(), [t.replace("\\\\", "\\") for t in traces]

    def test_control(self):
        volume, none = "volume is: %s\n" % self.VOLUME, "no filter instance found for c:\\local\n"
        checking = "checking instance for volume: %s - \\Device\\HarddiskVolume%d\n"
        sending = volume + checking % (self.VOLUME, 1) + "sending to instance to port: %s\n" % self.PORT
        not_sent = "message not sent to port: %s\n" % self.PORT
        first, larger = ("FindFirst zan_restore_filter 3 %d" % size for size in (512, 1024))
        find = [first, larger, "FindNext 1024", "FindClose"]
        sent = [*find, "Connect %s 0 %s" % (self.PORT, bytes(40).hex())]
        refused = "FilterConnectCommunicationPort failed: portName = %s, error = 0x80070005" % self.PORT
        table = (
            ("--ping", {}, 0, sending, [*sent, "Send 3 00000000000000000000000000000000 0"]),
            ("--startAggressiveRestore 4", {}, 0, sending,
             [*sent, "Send 3 01000000010000000400000000000000 0"]),
            ("--stopAggressiveRestore", {}, 0, sending, [*sent, "Send 3 02000000000000000000000000000000 0"]),
            ("--progress", {"FLTLIB_REPLY": "0100000000000000ff00000000000080"}, 0,
             "progress: 0x1 of 0x80000000000000ff\n", [*sent, "Send 3 03000000000000000000000000000000 16"]),
            ("--ping", {"FLTLIB_FIND": "801f0013"}, 1, volume + none, [first, "FindClose"],
             "FilterInstanceFindFirst failed: status = 0x801f0013"),
            ("--ping", {"FLTLIB_DEVICE": "\\Device\\HarddiskVolume9"}, 1, volume + checking % ("", 9) + none, find),
            ("--ping", {"FLTLIB_SEND": "80070057"}, 1, sending + not_sent + "<0x80070057>\n",
             [*sent, "Send 3 00000000000000000000000000000000 0"]),
            ("--ping", {"FLTLIB_CONNECT": "80070005"}, 1, sending + not_sent + "<0x80070006>\n",
             [*sent, "Send 3 00000000000000000000000000000000 0"], refused))
        for words, settings, status, output, calls, *traces in table:
            with self.subTest(words, **settings):
                self.assertEqual(self.control(words, settings), (status, output, calls, traces),
                                 Path("trace").read_text(errors="replace")[-2000:])


@unittest.skipIf(IS_WINDOWS, "for Linux")
class WithRestoreFilter(story):
    def setUp(self):
        super().setUp()
        self.assertTrue(self.start_filter())

    def tearDown(self):
        self.assertEqual(send("--ping", "back/data"), 0)  # it has survived
        self.filter.send_signal(signal.SIGTERM)
        self.assertEqual(self.filter.wait(20), 0)

    def test_obeys_no_tag_that_others_may_have_chosen(self):
        def linked(name):
            os.link(name + ":restore_filter_tag", "link")
        others = (("writable", lambda name: os.chmod(name + ":restore_filter_tag", 0o620)), ("linked", linked),
                  *((("tag", lambda name: os.chown(name + ":restore_filter_tag", 65534, 0)),
                     ("file", lambda name: os.chown(name, 65534, 0))) if IS_ROOT else ()))
        for name, change in others:
            with self.subTest(name):
                status = tool(name, "c:\\data", preexec_fn=lambda: os.umask(0))[0]
                self.assertEqual((status, send("--progress", name)), (0, 0))
                change(name)
                self.start(name, 2, DENIED)
                self.assertEqual(os.path.getsize(name), 0)

    def test_restores_from_every_form_of_backing_path(self):
        self.assertEqual(resource.prlimit(self.filter_pid, resource.RLIMIT_NOFILE), (100, 100))
        Path("back/none").write_bytes(b"")
        with open("back/sparse", "wb") as sparse:
            os.pwrite(sparse.fileno(), self.content, 5 << 20)
            os.truncate("back/sparse", 20 << 20)
        Path("back/chunk").write_bytes(self.content[: 1 << 20])
        Path("back/sub/\xe9\u4e2d").write_bytes(self.content)
        opened = self.files_of_filter()
        table = (("C:\\data", "1"), ("c:\\sub\\\xe9\u4e2d", "4"), (r"\\SRV\Share\data", "64"),
                 (self.folder + "/back/data", "1000"), ("c:\\none", "3"), ("c:\\chunk", "2"),
                 ("c:\\sparse", "2"))
        for index, (backing, reads) in enumerate(table):
            with self.subTest(backing=backing):
                name = "local%d" % index
                self.set_up_file(name, backing)
                is_drive = backing[1] == ":"
                source = "back/" + (backing[3:].replace("\\", "/") if is_drive else "data")
                size = os.path.getsize(source)
                self.assertEqual(progress(name), (0, size) if size else (1, 1))
                status, output = tool("--startAggressiveRestore", reads, name)
                self.assertEqual((status, output.count("\n")), (0, 3))
                eventually(lambda: progress(name) == ((size,) * 2 if size else (1, 1)))
                self.assertEqual(Path(name).read_bytes(), Path(source).read_bytes())
                self.assertEqual(send("--stopAggressiveRestore", name), 0)
        self.assertLess(os.stat(name).st_blocks * 512, 6 << 20)  # the holes are kept
        self.set_up_file("crashed", "c:\\data")
        Path("crashed").write_bytes(self.content[:1 << 20])
        # As if what was written last had not come to the disk, and somebody had read it.
        subprocess.run(["fallocate", "-l", "3MiB", "crashed"], check=True)
        Path("crashed").read_bytes()
        self.assertEqual(progress("crashed"), (1 << 20, len(self.content)))
        self.start("crashed")
        self.ends_with("crashed", self.content)
        # Made in advance, and used by somebody already.
        self.set_up_file("reserved", "c:\\data")
        subprocess.run(["fallocate", "-l", str(len(self.content)), "reserved"], check=True)
        with open("reserved", "r+b") as reserved:
            os.pwrite(reserved.fileno(), bytes(4096), 2 << 20)
        self.start("reserved")
        self.ends_with("reserved", self.content[:2 << 20] + bytes(4096) + self.content[(2 << 20) + 4096:])
        eventually(lambda: self.files_of_filter() <= opened)

    def test_example_restores_many(self):
        Path("taken").write_bytes(b"mine")
        Path("back/none").touch()
        self.set_up_file("other", "c:\\none")
        listed = ("one\tc:\\data\r\ntwo \xe9\t\\\\srv\\share\\data\n-dash\tc:\\data\ntaken\tc:\\data\n\n"
                  "other\tc:\\data\nempty\tc:\\none\nbad\tc:\\x\nno tab\nnopath\t")  # no line end at the end
        for _ in (1, 2):
            self.assertEqual(self.restore_many("4", text=listed), (
                1, ["./-dash: whole", "empty: whole", "one: whole", "two \xe9: whole"],
                ["bad: not started: message not sent to port: %s; 0x80070002 FilterSendMessage" % PORT,
                 "no tab: not set up: no tab and backing path behind it",
                 "nopath: not set up: the backing path is empty or too long",
                 *("%s: not set up: exists, and has no tag for this backing path" % name for name in ("other", "taken"))]))
        for name, content in (("one", self.content), ("two \xe9", self.content), ("taken", b"mine")):
            self.assertEqual(Path(name).read_bytes(), content)
        terminal, other_end = pty.openpty()
        zeros = "a\tb\0c:\\data\0c\nd\0c:\\data\0"
        self.assertEqual(self.restore_many("-0", "4", text=zeros, stderr=other_end)[0], 0)
        self.assertEqual(self.restore_many("-0", "4", text=zeros + "lost\0c:\\data")[0], 1)
        self.assertIn(b"2 of 2 files whole, ", os.read(terminal, 10000))
        for name in ("a\tb", "c\nd"):
            self.assertEqual(Path(name).read_bytes(), self.content)
        for words in ((), ("x",), ("-0",), ("4", "extra")):
            self.assertEqual(self.restore_many(*words, text=""), (1, [], ["usage: restore-many.sh [-0] READS < LIST"]))

    def test_refuses_and_leaves_untouched(self):
        os.symlink("/etc/passwd", "back/out")
        os.mkfifo("back/pipe")
        self.assertEqual(send("--ping", "back/pipe"), INVALID)
        shutil.copy("back/data", "back/leased")
        leased = os.open("back/leased", os.O_RDWR)
        fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_WRLCK)
        signal.signal(signal.SIGIO, signal.SIG_IGN)
        self.set_up_file("good", "c:\\data")
        tag = Path("good:restore_filter_tag").read_bytes()
        broken = [b"", tag[:-1], tag + b"x"]
        for at, new in ((0, b"\x54"), (8, b"\0"), (24, b"\x09"), (26, b"\xd2\x3f"), (26, b"\x03"),
                        (26, b"\0\0"), (26, b"\x18\0")):
            broken.append(tag[:at] + new + tag[at + len(new):])
        table = [(None, NOT_TAGGED), *((tag, NOT_WHOLE) for tag in broken),
                 ("c:\\nothing", NOT_FOUND), ("c:\\", NOT_FOUND), ("d:\\data", NO_PATH),
                 (r"\\srv\other\data", NO_PATH), ("data", NO_PATH), ("c:\\..\\back\\data", DENIED),
                 ("c:\\sub\\..\\..\\x", DENIED), ("c:\\out", DENIED), ("c:\\sub", DENIED),
                 ("c:\\pipe", INVALID), ("c:\\leased", LEASED)]
        for index, (given, expected) in enumerate(table):
            with self.subTest(tag=given and given[:40]):
                name = "bad%d" % index
                if isinstance(given, str):
                    self.set_up_file(name, given)
                else:
                    Path(name).write_bytes(b"")
                    if given is not None:
                        Path(name + ":restore_filter_tag").write_bytes(given)
                for words in (("--startAggressiveRestore", name, "2"), ("--progress", name)):
                    self.assertEqual(send(*words), expected)
                self.assertEqual(os.path.getsize(name), 0)
        for make in (lambda name: os.symlink("good:restore_filter_tag", name), os.mkfifo):
            Path("linked").write_bytes(b"")
            make("linked:restore_filter_tag")
            self.assertNotIn(send("--progress", "linked"), (0, None))
            os.unlink("linked:restore_filter_tag")
        self.set_up_file("itself", os.path.abspath("itself"))
        self.start("itself", 2, INVALID)
        self.start("good", 0, INVALID)
        self.start("good", -1, INVALID)

    def test_survives_any_client(self):
        opened = self.files_of_filter()
        handle = os.open("back/data", os.O_RDONLY)
        pipe, _ = os.pipe()
        silent = [connection() for _ in range(300)]  # more than it keeps
        client = connection()
        self.assertEqual(client.send(handle, 0), 0)
        self.assertEqual(client.send(handle, 4), INVALID)
        self.assertEqual(client.send(handle, 1, 0, 4), NOT_TAGGED)
        for bad, expected in ((os.open("back", os.O_RDONLY), DENIED), (pipe, INVALID),
                              (client.socket.fileno(), INVALID), (999, INVALID), (1 << 40, INVALID), (os.open("/proc/self/stat", 0), INVALID)):
            self.assertEqual(client.send(bad, 0), expected)
        self.assertEqual(tool("--ping", "back"), (1, "Cannot open local file: path = back\n"))
        self.set_up_file("gone (deleted)", "c:\\data")
        with open("gone", "wb") as gone:
            os.unlink("gone")
            self.assertEqual(client.send(gone.fileno(), 1, 1, 4), NOT_TAGGED)
        for size in (1, 3, 4, 27, 29, 64, 65, 5000):
            self.assertEqual(client.exchange(b"\xff" * size), INVALID)
        for _ in range(300):
            self.assertEqual(client.exchange(random.randbytes(28)), INVALID)
        silent[-1].socket.settimeout(0.5)
        with contextlib.suppress(OSError):  # it reads no answer, until nothing more is taken
            while True:
                silent[-1].socket.send(bytes(28))
        self.assertEqual(client.send(handle, 0), 0)
        for context in (b"x", bytes(39), bytes(41), bytes(4096)):
            self.assertEqual(connection(context).result, INVALID)
        gone = connection()
        gone.socket.send(bytes(28))
        gone.socket.close()
        del silent, client, gone
        eventually(lambda: self.files_of_filter() <= opened)

    def test_two_starts_stop_kill_and_go_on(self):
        self.set_up_huge("local")
        self.start("local")
        self.start("local", answer=BUSY)
        eventually(lambda: progress("local")[0] > 0)
        self.assertEqual(send("--stopAggressiveRestore", "local"), 0)
        kept = progress("local")
        self.assertTrue(0 < kept[0] < kept[1])
        self.start("local", 4)
        eventually(lambda: progress("local")[0] > kept[0])
        self.filter.kill()
        self.filter.wait()
        kept = os.path.getsize("local")
        self.assertTrue(self.start_filter())
        os.truncate("back/huge", kept + 3)
        self.assertEqual(progress("local"), (kept, kept + 3))
        self.start("local")
        eventually(lambda: progress("local") == (kept + 3, kept + 3))
        os.truncate("back/huge", kept + 9)  # grown
        self.start("local")
        eventually(lambda: progress("local") == (kept + 9, kept + 9))
        os.truncate("back/huge", 5)
        self.start("local")
        eventually(lambda: send("--progress", "local") == TOO_SHORT)
        os.unlink("back/huge")
        self.start("local", answer=NOT_FOUND)

    def test_ends_with_its_file_and_attaches_once(self):
        self.set_up_huge("local")
        opened = self.files_of_filter()
        self.start("local", 4)
        os.unlink("local")
        eventually(lambda: self.files_of_filter() <= opened)
        # Descriptors that run out refuse a start, but nobody who asks.
        self.limit_descriptors(opened + 25)
        names = ["file%d" % i for i in range(20)]
        for name in names:
            self.set_up_file(name, "c:\\huge")
        answers = [send("--startAggressiveRestore", name, "1") for name in names]
        self.assertEqual(answers, sorted(answers))
        self.assertEqual({answers[0], answers[-1]}, {0, TOO_MANY})
        for name in names:
            for word in ("--ping", "--progress", "--stopAggressiveRestore"):
                self.assertEqual(send(word, name), 0)
        second = subprocess.run([FILTER, "."], capture_output=True, text=True)
        self.assertEqual((second.returncode, second.stdout), (1, ""))
        self.assertIn("already", second.stderr)

    @unittest.skipUnless(IS_ROOT, "a small volume and another mount name space need root")
    def test_full_disk_and_other_volume(self):
        local = "sm all\\/local"
        mount("tmpfs", "none", "sm all\\", "size=1m", self)
        self.set_up_file(local, "c:\\data")
        self.assertEqual(tool("--ping", local),
                         (1, "volume is: %s\nchecking instance for volume: %s - "
                             "\\Device\\HarddiskVolume%d\nno filter instance found for %s\n"
                          % (volume_of("sm all\\"), volume_of("."), os.stat(".").st_dev, local)))
        self.assertTrue(self.start_filter(folder="sm all\\"))
        self.start(local)
        eventually(lambda: send("--progress", local) == FULL)
        self.assertTrue(self.content.startswith(Path(local).read_bytes()))
        subprocess.run(["mount", "-o", "remount,size=9m", "sm all\\"], check=True)
        self.start(local)
        self.ends_with(local, self.content)
        Path("sm all\\/longest").touch()
        self.set_up_file("sm all\\/whole", os.path.abspath("sm all\\/longest"))
        for name in ("longest", "whole"):
            os.truncate("sm all\\/" + name, (1 << 63) - 1)
        self.start("sm all\\/whole")
        eventually(lambda: progress("sm all\\/whole") == ((1 << 63) - 1,) * 2)
        self.assertEqual(send("--ping", local, program=["unshare", "-m", "--propagation", "unchanged", TOOL]), INVALID)

    @unittest.skipUnless(IS_ROOT, "another user needs root")
    def test_serves_no_other_user(self):
        os.chmod(self.folder, 0o755)  # and nobody may not come to where the tool is
        shutil.copy(TOOL, "tool")
        with monitor() as lines:
            self.assertEqual(send("--ping", "back/data", program=["./tool"], user=65534), BAD_HANDLE)
        self.assertEqual(lines, ["FilterConnectCommunicationPort failed: portName = %s, "
                                 "error = 0x80070005\n" % PORT])


@unittest.skipUnless(sys.argv[3:], "in a test of its own")
class WithPowerShell(story):
    def test_module(self):
        Path("back/none").write_bytes(b"")
        self.start_filter(*([] if IS_SANITIZED else [*STRACE, "inject=pread64:delay_enter=100ms"]))
        self.limit_descriptors(30)
        done = subprocess.run([sys.argv[3], "-NoProfile", "-NonInteractive", "-File", SOURCE + "/tests/module_test.ps1"],
                              env={**os.environ, "PATH": os.path.dirname(TOOL) + ":" + os.environ["PATH"],
                                   "HOME": self.folder, "NO_COLOR": "1"}, text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300)
        self.assertEqual(done.returncode, 0, done.stdout)


@unittest.skipIf(IS_WINDOWS, "for Linux")
class WithPeer(story):
    def test_answers(self):
        ok, no = struct.pack("<I", 0), struct.pack("<I", 0x80070005)
        table = (
            ((ok, ok + struct.pack("<QQ", 0xABC, 1 << 63)), 0, (0xABC, 1 << 63)),
            ((ok, ok + b"\1\2"), 0, (0x201, 0)), ((ok, ok), 0, (0, 0)),
            ((struct.pack("<I", 1), ok + bytes(100)), 0, (0, 0)),
            ((ok, no), 0x80070005, None), ((ok, struct.pack("<I", 1)), 1, None),
            ((ok, b"\0\0"), BAD_HANDLE, None), ((ok, None), BAD_HANDLE, None),
            ((None,), BAD_HANDLE, None), ((no,), BAD_HANDLE, None))
        for answers, result, values in table:
            with self.subTest(answers=answers):
                with peer(*answers):
                    self.assertEqual(progress("back/data"), values)
                with peer(*answers) as packets:
                    self.assertEqual(send("--startAggressiveRestore", "back/data", "-3"), result)
                self.assertEqual(packets[0], CONTEXT)
                if len(packets) > 1:
                    self.assertEqual(packets[1][:4] + packets[1][12:],
                                     struct.pack("<IIIiI", 0, 1, 1, -3, 0))

    @unittest.skipUnless(IS_ROOT, "another user needs root")
    def test_trusts_no_other_user(self):
        ok = struct.pack("<I", 0)
        for word in ("--ping", "--progress"):
            with monitor() as lines, peer(ok, ok + bytes(16), owner=65534) as packets:
                self.assertEqual(send(word, "back/data"), BAD_HANDLE)
            self.assertEqual(packets, [b""])
            self.assertEqual(lines, ["FilterConnectCommunicationPort failed: portName = %s, "
                                     "error = 0x80070005\n" % PORT])

    def test_traces_when_no_filter_is_loaded(self):
        with monitor() as lines, socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as idle, \
                socket.socket(socket.AF_UNIX) as stream:
            idle.bind("\0" + PORT)  # and does not listen
            stream.bind("\0" + PORT)
            stream.listen()
            self.assertEqual(tool("--progress", "back/data"),
                             (1, "no filter instance found for back/data\nqueryProgress failed\n"))
        self.assertEqual(lines, ["FilterInstanceFindFirst failed: status = 0x801f0013\n"])


@unittest.skipIf(IS_WINDOWS, "for Linux")
class WithFailingCalls(story):
    """Each call of the stand-in to its system fails, by index: it lives on, and what it
    says is true."""

    CALLS = {"fdatasync": 2, "lseek": 6, "openat": 6, "openat2": 2, "pread64": 4, "pwrite64": 3, "newfstatat": 8, "statx": 3,
             "readlink": 2, "read": 6, "recvfrom": 6, "sendmsg": 4, "accept4": 3, "poll": 4,
             "clone3": 2, "mmap": 4, "getsockopt": 2}

    def test_lives_on(self):
        if IS_SANITIZED:
            self.skipTest("with sanitizers")
        if subprocess.run(["strace", "-o", "/dev/null", "true"], stderr=subprocess.DEVNULL).returncode:
            self.skipTest("failing system calls: strace cannot trace here")
        for call, uses in self.CALLS.items():
            for error, use in itertools.product(("EIO", "EINTR", "ENOMEM"), range(1, uses + 1)):
                fault = "inject=%s:error=%s:when=%d" % (call, error, use)
                with self.subTest(fault):
                    self.live_through(fault)

    @unittest.skipIf(IS_SANITIZED, "with sanitizers")
    def test_is_whole_when_it_is_on_the_disk(self):
        self.set_up_file("local", "c:\\data")
        self.start_filter(*STRACE, "inject=fdatasync:error=EIO")
        self.start("local")
        eventually(lambda: send("--progress", "local") == IO_ERROR)
        self.assertEqual(os.path.getsize("local"), 0)  # what was lost can't be told
        self.stop_filter(self.filter)
        self.start_filter(*STRACE, "inject=fdatasync:delay_enter=2s")
        self.start("local")
        eventually(lambda: os.path.getsize("local") >= len(self.content) - 4096)
        self.assertLess(os.path.getsize("local"), len(self.content))  # the last block waits for the others
        self.assertLess(*progress("local"))
        self.start("local")  # not busy: it is about to end
        eventually(lambda: os.path.getsize("local") == len(self.content))  # and is not there yet
        self.assertLess(*progress("local"))
        self.ends_with("local", self.content)

    @unittest.skipIf(IS_SANITIZED, "with sanitizers")
    def test_loses_nothing_that_was_there(self):
        self.set_up_file("local", "c:\\data")
        Path("local").write_bytes(b"changed by its user" + self.content[19:2000000])
        kept = Path("local").read_bytes()
        self.start_filter(*STRACE, "inject=fdatasync:error=ENOSPC:when=2+")
        self.start("local")
        eventually(lambda: send("--progress", "local") == FULL)
        self.assertEqual(Path("local").read_bytes(), kept)
        self.stop_filter(self.filter)

        self.start_filter(*STRACE, "inject=fdatasync:error=EIO:when=2:delay_enter=2s")
        for starts in (1, 2):  # once the failure is known, and while it is still to come
            self.start("local")
            eventually(lambda: os.path.getsize("local") >= len(self.content) - 4096)
            self.assertEqual(send("--stopAggressiveRestore", "local"), 0)
            if starts == 2:
                break
            with open("local", "r+b") as local:
                os.pwrite(local.fileno(), b"user", 2500000)
            stopped = Path("local").read_bytes()
            eventually(lambda: send("--progress", "local") == IO_ERROR)
            self.assertEqual(send("--stopAggressiveRestore", "local"), 0)
            self.assertEqual(send("--progress", "local"), IO_ERROR)
            self.assertEqual(Path("local").read_bytes(), stopped)
        self.start("local")
        eventually(lambda: send("--progress", "local") == IO_ERROR and Path("local").read_bytes() == kept)
        self.stop_filter(self.filter)
        self.start_filter()
        self.start("local")
        self.ends_with("local", kept + self.content[len(kept):])

    @unittest.skipIf(IS_SANITIZED, "with sanitizers")
    def test_lists_go_on_when_the_filter_is_at_its_limit(self):
        self.start_filter(*STRACE, "inject=pread64:delay_enter=200ms")
        self.limit_descriptors(30)
        names = ["file%d" % i for i in range(20)]
        listed = "".join("%s\tc:\\data\n" % name for name in names)
        self.assertEqual(self.restore_many("1", text=listed), (0, sorted(name + ": whole" for name in names), []))

    @unittest.skipIf(IS_SANITIZED, "with sanitizers")
    def test_writes_nothing_after_a_stop(self):
        self.set_up_file("local", "c:\\data")
        self.start_filter(*STRACE, "inject=pread64:delay_enter=1s")
        self.start("local")  # and its reads are under way
        self.assertEqual(send("--stopAggressiveRestore", "local"), 0)
        eventually(lambda: len(os.listdir("/proc/%d/task" % self.filter_pid)) == 1)
        self.assertEqual(progress("local"), (0, len(self.content)))

    def live_through(self, fault):
        for name in ("local", "local:restore_filter_tag"):
            Path(name).unlink(missing_ok=True)
        self.set_up_file("local", "c:\\data")
        if self.start_filter(*STRACE, fault):
            for _ in range(30):  # a fault comes once in each thread, and every start has new ones
                send("--startAggressiveRestore", "local", "2")
                now = progress("local")
                self.assertTrue(self.content.startswith(Path("local").read_bytes()))
                if now == (len(self.content),) * 2:
                    break
            eventually(lambda: progress("local") in (None, (os.path.getsize("local"), len(self.content))))
            eventually(lambda: send("--ping", "local") == 0)
        else:  # it could not begin, and said so
            self.assertEqual(self.filter.wait(20), 1)
        self.stop_filter(self.filter)


if __name__ == "__main__":
    if IS_ROOT:  # a network name space of its own: no port of another stand-in is in the way
        ctypes.CDLL(None).unshare(0x40000000)
    unittest.main(argv=[sys.argv[0], *["WithPowerShell" for _ in sys.argv[3:]]], verbosity=2, warnings="ignore")
