"""What all tests share: the programs of the build, what they print, peers, and a scratch folder."""

import argparse, contextlib, os, re, shutil, signal, socket, struct, subprocess, tempfile, threading
import time, unittest
from pathlib import Path

if os.name == "posix":
    import resource

options = argparse.ArgumentParser(description="""Runs the programs of a build folder on real file
    systems: on Linux, as root also on other file systems and as other users; on Windows; or, with
    an emulator, Windows executables on Linux with the tests' fltlib.dll.""")
options.add_argument("build", type=lambda path: Path(path).resolve())
options.add_argument("--emulator")
options.add_argument("--sanitized", action="store_true")
options.add_argument("tests", nargs="*", help="only these tests, such as WithPeer.test_answers")
GIVEN = options.parse_intermixed_args()
IS_WINDOWS = (GIVEN.build / "zan_restore.exe").exists()
TOOL, CHECK = (str(GIVEN.build / name) + ".exe" * IS_WINDOWS
               for name in ("zan_restore", "zan_filter_check"))
EMULATOR = [os.path.abspath(GIVEN.emulator)] if GIVEN.emulator else []
FILTER = str(GIVEN.build / "restore_filter")
SOURCE = Path(__file__).resolve().parents[2]
IS_ROOT = os.name == "posix" and os.geteuid() == 0
(NO_PATH, TOO_MANY, DENIED, BAD_HANDLE, LEASED, NOT_SUPPORTED, EXISTS, INVALID, FULL, BUSY,
 TOO_LONG, CHANGED, IO_ERROR, NOT_FOUND) = (
    0x80070000 | code for code in (3, 4, 5, 6, 32, 50, 80, 87, 112, 170, 206, 1006, 1117, 1168))
STRACE = "strace", "-f", "-qq", "-o", "/dev/null", "-e"
# The tool must not depend on the locale. Wine encodes the names of files by it.
ENVIRONMENT = {**os.environ, "LC_ALL": "C.UTF-8" if IS_WINDOWS else "C"}


def hresult(code):
    return struct.pack("<I", code)


def volume_of(path):
    return "Volume{00000000-0000-0000-0000-%012x}" % os.stat(path).st_dev


def port_of(path):
    return "\\zan_restore_filter-" + volume_of(path)


def tool(*words, program=(TOOL,), **settings):
    settings = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "env": ENVIRONMENT,
                "timeout": 600 if program == [CHECK] else 60, **settings}
    done = subprocess.run([*EMULATOR, *program, *words], encoding="utf-8",
                          errors="surrogateescape", **settings)
    return done.returncode, done.stdout


def send(word, path, *count, **settings):
    """0, or the HRESULT in the diagnosis of a failed send; None when nothing was sent."""
    status, output = tool(word, *count, path, **settings)
    code = re.search(r"(0x\w+)\[", output)
    return 0 if status == 0 else code and int(code[1], 16)


def progress(path):
    """What --progress prints: two numbers, or a failure's HRESULT; None when nothing was sent."""
    numbers = [int(number, 16) for number in
               re.findall("0x([0-9a-f]+)", tool("--progress", path)[1])]
    return tuple(numbers) if len(numbers) == 2 else numbers[0] if numbers else None


def eventually(condition, seconds=20):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError("still not so after %d s" % seconds)
        time.sleep(0.01)


@contextlib.contextmanager
def listening(owner=0):
    """A port of the current folder's volume, of this user."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as listener:
        listener.bind("\0" + port_of("."))
        os.seteuid(owner or os.getuid())
        listener.listen()
        os.seteuid(os.getuid())
        yield listener


@contextlib.contextmanager
def peer(*answers, owner=0):
    """A port for one connection: answers it, then one message. None closes it instead. Yields what
    it received."""
    packets = []

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

    with listening(owner) as listener:
        thread = threading.Thread(target=serve)
        thread.start()
        yield packets
        thread.join(20)


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
    """Each test in a scratch folder, with a backing file in it, and perhaps with the stand-in."""

    def setUp(self):
        self.folder = self.enterContext(tempfile.TemporaryDirectory())
        self.enterContext(contextlib.chdir(self.folder))
        os.mkdir("back")
        self.log = self.enterContext(tempfile.TemporaryFile("w+"))
        self.content = os.urandom(3 * 1024 * 1024 + 5)
        self.total = len(self.content)
        Path("back/data").write_bytes(self.content)

    def mount(self, kind, source, folder, settings):
        Path(folder).mkdir(exist_ok=True)
        subprocess.run(["mount", "-t", kind, "-o", settings, source, folder], check=True)
        self.addCleanup(subprocess.run, ["umount", folder], stderr=subprocess.DEVNULL)

    def mount_ntfs(self, settings):
        if not os.path.exists("image"):
            Path("image").write_bytes(bytes(16 << 20))
            subprocess.run(["mkntfs", "-qF", "image"], check=True, capture_output=True)
        self.mount("ntfs-3g", "image", "ntfs", settings)

    def start_filter(self, *prefix, folder=".", may_fail=False):
        """Starts a filter with few descriptors, which is given the folder twice. Returns whether it
        runs."""
        self.filter = subprocess.Popen(
            ["prlimit", "--nofile=50:100", *prefix, FILTER, "--log", "--drive=C=back", "--share",
             r"\\srv\share=back", folder, folder],
            stdout=subprocess.PIPE, stderr=self.log, text=True, start_new_session=True)
        self.addCleanup(self.stop_filter, self.filter)
        lines = [self.filter.stdout.readline() for _ in (1, 2)]
        children = Path("/proc/%d/task/%d/children" % ((self.filter.pid,) * 2)).read_text().split()
        self.filter_pid = int((children or [self.filter.pid])[0])
        is_running = lines == ["%s: %s\n" % (folder, port_of(folder))] * 2
        self.assertTrue(is_running or may_fail, lines)
        return is_running

    def start_delayed_filter(self, *faults):
        """Starts a filter whose system calls strace changes: such as "pread64:delay_enter=1s"."""
        self.start_filter(*STRACE[:-1], *(word for fault in faults
                                          for word in ("-e", "inject=" + fault)))

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

    def stop(self, name, answer=0):
        self.assertEqual(send("--stopAggressiveRestore", name), answer)

    def ends_with(self, name, content):
        eventually(lambda: progress(name) == (len(content),) * 2)
        self.assertEqual(Path(name).read_bytes(), content)


class with_strace(story):
    def setUp(self):
        super().setUp()
        if subprocess.run(["strace", "-o", "/dev/null", "true"],
                          stderr=subprocess.DEVNULL).returncode:
            self.skipTest("failing system calls (strace cannot trace here)")
