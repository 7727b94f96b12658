"""zan_filter_check against right and wrong filters."""

import os, re, signal, subprocess, time, unittest
from pathlib import Path

from control import under_wine
from filters import careless_filter, hiding_filter, repeating_filter, right_filter
from shared import CHECK, DENIED, IS_ROOT, hresult, peer, story, tool, with_strace


def check(*words, seconds=60, **settings):
    return tool("--timeout", str(seconds), *words, program=[CHECK], **settings)


def failed(output):
    """The statements that failed, without their numbers."""
    return re.findall(r"\nnot ok \d+ - (.*)", output)


NONE = "^$"
def matching(output, wrong):
    """The statements that match a pattern."""
    statements = re.findall(r"^(?:not )?ok \d+ - (.*?)(?: # .*)?$", output, re.M)
    return [each for each in statements if re.search(wrong, each)]


READS = r"can be read: |is kept$|is gone "


class CheckOfFilters(story):
    def setUp(self):
        super().setUp()
        self.set_up_file("template")
        self.tag = Path("template:restore_filter_tag").read_bytes()

    def test_the_stand_in_keeps_the_contract(self):
        """Also with the backing folder as a drive, and in a volume that is small."""
        self.start_filter()
        words = [["--skip-reads", ".", "back"]]
        if IS_ROOT:
            self.mount("tmpfs", "none", "small", "size=400m")
            words.append(["--skip-reads", "small", "back", "c:\\"])
            self.start_filter(folder="small")
        for each in words:
            status, output = check(*each)
            self.assertEqual((status, failed(output)), (0, []), output[-2000:])
            skipped = 11 + (each[1] == ".")
            self.assertRegex(output, r"\n# 143 statements: \d+ passed, 0 failed, %d skipped\n\Z"
                             % skipped)
            for line in re.findall(".*# choice.*", output):
                self.assertRegex(line, "is answered|is refused|nothing is restored|writes nothing"
                                 "|hard link")
        self.assertEqual((os.listdir("back"), os.listdir("small") if IS_ROOT else []),
                         (["data"], []))
        self.assertEqual([name for name in os.listdir() if name.startswith("zan")], [])

    def test_right_and_wrong_filters(self):
        for kind, words, wrong in (
                (right_filter, [], NONE), (hiding_filter, [], READS),
                (repeating_filter, [], "is kept$"),
                (careless_filter, ["--skip-reads"], "|".join(careless_filter.MISTAKES))):
            with self.subTest(kind), kind(self.tag).running():
                seconds = 5 if kind is careless_filter else 60
                status, output = check(*words, ".", "back", seconds=seconds)
                self.assertEqual(failed(output), matching(output, wrong))
                self.assertEqual(status, 0 if kind is right_filter else 1)
                self.assertRegex(output, r"\n# 143 statements: .*\n\Z")

    def test_tells_what_is_wrong(self):
        os.mkdir("files")
        for answers, came, asked in (
                ((hresult(DENIED),), "0x80070005", "a connection"),
                ((), "no answer", "an answer within the time limit")):
            with peer(*answers):
                status, output = check("files", "back", seconds=1, stderr=subprocess.DEVNULL)
            last = "connect with a context of size 40: " + came
            self.assertEqual((status, output.splitlines()[-3:]), (
                1, ["#   " + last, "#   expected: " + asked,
                    "Bail out! %s; nothing else can be tried" % last]))
        usage = "zan_filter_check [--timeout SECONDS] [--skip-reads] FOLDER BACKING_FOLDER [AS]"
        for words, line in (
                (("--timeout", "x", "files", "back"), usage), (("--skip", "files", "back"), usage),
                (("files", "nothing"),
                 "zan_filter_check: %s/nothing: not a folder" % self.folder),
                (("files", "files/../files"),
                 "zan_filter_check: FOLDER and BACKING_FOLDER are the same")):
            status, output = tool(*words, program=[CHECK])
            self.assertEqual((status, output.splitlines()[0]), (1, line))
        self.assertEqual((os.listdir("files"), os.listdir("back")), ([], ["data"]))

    @unittest.skipUnless(IS_ROOT, "a small volume (not root)")
    def test_needs_space(self):
        self.mount("tmpfs", "none", "small", "size=9m")
        self.assertEqual(check("back", "small"), (
            1, "zan_filter_check: %s/small: less than 256 MiB free\n" % self.folder))
        self.assertEqual((os.listdir("back"), os.listdir("small")), (["data"], []))


class CheckWithStrace(with_strace):
    def test_compares_contents(self):
        self.start_delayed_filter("pread64:retval=5000")  # without reading
        status, output = check("--skip-reads", ".", "back", seconds=5)
        self.assertEqual((status, failed(output)), (1, ["a file is restored"]))

    def test_leaves_nothing_when_interrupted(self):
        self.start_delayed_filter("pread64:delay_enter=300ms")
        for delay in (0.2, 0.5, 2):
            running = subprocess.Popen([CHECK, ".", "back"], stdout=subprocess.DEVNULL,
                                       stderr=subprocess.PIPE, text=True)
            time.sleep(delay)
            running.send_signal(signal.SIGINT)
            self.assertEqual(running.communicate(timeout=20)[1], "zan_filter_check: interrupted\n")
            self.assertEqual(running.returncode, 1)
            self.assertEqual((os.listdir(), os.listdir("back")), (["back"], ["data"]))


class CheckUnderWine(under_wine):
    def check(self, *words, **settings):
        return self.control(*words, program=CHECK, **settings)

    def test_check(self):
        missing = "c:\\\u4e2d\u6587"
        self.assertEqual(self.check(missing, "back"),
                         (1, "zan_filter_check: %s: not a folder\n" % missing))
        for settings, ending in (
                ({"FLTLIB_FIND": "801f0013"},
                 r"#   expected: an instance \(Windows lists instances only in an elevated "
                 r"console\)\nBail out! nothing else can be tried\n.*\n"),
                ({"FLTLIB_SEND": "80070057"},
                 r"#   ping of file1, 24 bytes: 0x80070057\n#   expected: 0x00000000\n(.*\n)*"
                 r"#   expected: 0x00000000 for a start within the time limit\nBail out! start of "
                 r"file3, n = 4, 24 bytes: 0x80070057; nothing else can be tried\. Does .*\n.*\n")):
            status, output = self.check("--timeout", "1", "c:\\", "back", **settings)
            self.assertEqual(status, 1, output[-500:])
            self.assertRegex(output, r"\A(Find.*\n)*TAP version 13\n1\.\.143\n# zan_filter_check "
                             r"\d+\.\d+\.\d+\n# backing paths .*\n# Registration\n(.*\n)*%s\Z"
                             % ending)

    def test_filters(self):
        """Those of fltlib.cpp. The check finds what is wrong, ends, and leaves nothing."""
        for name in ("files", "back"):
            (self.drive / name).mkdir(exist_ok=True)
        for mode, seconds, wrong in (
                ("right", "60", NONE), ("growing", "60", READS),
                ("unshared", "2", "that was deleted during ")):
            with self.subTest(mode):
                status, output = self.check("--timeout", seconds, "c:\\files", "c:\\back",
                                            FLTLIB_FILTER=mode)
                self.assertEqual(failed(output), matching(output, wrong))
                self.assertEqual(status, 0 if mode == "right" else 1)
                self.assertRegex(output, r"\n# 143 statements: .*\n\Z")
                self.assertEqual([os.listdir(self.drive / name) for name in ("files", "back")],
                                 [[], []])
