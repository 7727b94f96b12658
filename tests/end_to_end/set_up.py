"""Set-ups on real file systems."""

import contextlib, os, subprocess, unittest
from pathlib import Path

if os.name == "posix":
    import resource

from shared import EMULATOR, IS_ROOT, story, tool


class SetUp(story):
    def check(self, output, *words, status=1, **settings):
        self.assertEqual(tool(*words, **settings), (status, output + "\n"), words)

    @staticmethod
    def record(name):
        # Wine has no named streams: it makes a file of the stream's name.
        with open(name + ":restore_filter_tag" + (":$DATA" if EMULATOR else ""), "rb") as stream:
            return stream.read()

    def test_creates_a_tagged_file_or_nothing(self):
        name = "n\xe9\u20ac\u4e2d\U0001f600"
        self.check("create tag stream: \\??\\c:\\" + name, name, "c:\\" + name, "simple", "4",
                   status=0)
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
                ("typed:$DATA", "local file failed: 7b"),
                ("typed:s:$DATA", "tag stream failed: 7b"),
                ("x" * 250, "tag stream failed: ce"), ("stale", "tag stream failed: 50")):
            self.check("create " + failure, name, "c:\\x")
        self.check("writing tag stream failed: df", "limited", "c:\\x",
                   preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (3, 3)))
        self.assertEqual(sorted(os.listdir()), before)
        self.assertEqual(Path("stale:restore_filter_tag").read_text(), "mine")

        name = "bad\udcff\udcc3"  # bytes that are no UTF-8
        self.check("create tag stream: \\??\\c:\\" + name, name, "c:\\" + name, status=0,
                   preexec_fn=lambda: os.umask(0))
        modes = [oct(os.stat(file).st_mode & 0o777)
                 for file in (name, name + ":restore_filter_tag")]
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

        self.mount_ntfs("streams_interface=windows,umask=022")
        tagged = "create tag stream: \\Device\\Mup\\s\\d"
        self.check(tagged, "ntfs/\xe9", "\\\\s\\d", "simple", "4", status=0)
        self.check("create local file failed: 50", "ntfs/\xe9", "\\\\s\\d")
        self.assertEqual(os.listdir("ntfs"), ["\xe9"])  # a real stream, no second file
        with contextlib.suppress(OSError), open("ntfs/filler", "wb", buffering=0) as filler:
            for size in (1 << 16, 1 << 12):
                with contextlib.suppress(OSError):
                    while filler.write(bytes(size)):
                        pass
        self.check("writing tag stream failed: 70", "ntfs/nospace", "\\\\s\\d")
        self.assertEqual(sorted(os.listdir("ntfs")), ["filler", "\xe9"])
        subprocess.run(["umount", "ntfs"], check=True)
        self.check(tagged, "same", "\\\\s\\d", "simple", "4", status=0)
        read = subprocess.run(["ntfscat", "-n", "restore_filter_tag", "image", "\xe9"], check=True,
                              capture_output=True, env={**os.environ, "LC_ALL": "C.UTF-8"})
        self.assertEqual(read.stdout, self.record("same"))
