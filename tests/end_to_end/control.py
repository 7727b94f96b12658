"""The commands that send: against a scripted peer on Linux, and under Wine."""

import contextlib, os, re, shutil, socket, struct, subprocess, unittest
from pathlib import Path

from shared import (BAD_HANDLE, DENIED, ENVIRONMENT, GIVEN, INVALID, IS_ROOT, SOURCE, TOOL,
                    hresult, monitor, peer, port_of, progress, send, story, tool, volume_of)

OK, NO = hresult(0), hresult(DENIED)
REFUSED = "FilterConnectCommunicationPort failed: portName = %s, error = 0x80070005\n"


class WithPeer(story):
    def test_answers(self):
        for answers, result in (
                ((OK, OK + struct.pack("<QQ", 0xABC, 1 << 63)), (0xABC, 1 << 63)),
                ((OK, OK + b"\1\2"), (0x201, 0)), ((hresult(1), OK + bytes(100)), (0, 0)),
                ((OK, NO), DENIED), ((OK, b"\0\0"), BAD_HANDLE), ((OK, None), BAD_HANDLE),
                ((None,), BAD_HANDLE), ((NO,), BAD_HANDLE)):
            with self.subTest(answers=answers), monitor() as lines, peer(*answers) as packets:
                self.assertEqual(progress("back/data"), result)
                self.assertEqual(packets[0], bytes(40))
                if len(packets) > 1:
                    self.assertEqual(packets[1][:4] + packets[1][12:],
                                     struct.pack("<IIIiI", 16, 3, 0, 0, 0))
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

    @unittest.skipUnless(IS_ROOT, "other volumes and users (not root)")
    def test_finds_the_port_of_the_files_volume(self):
        self.mount("tmpfs", "none", "sm all\\", "size=1m")
        Path("sm all\\/local").touch()
        self.start_filter()
        self.assertEqual(tool("--ping", "sm all\\/local"),
                         (1, "volume is: %s\nchecking instance for volume: %s - \\Device\\Harddisk"
                             "Volume%d\nno filter instance found for sm all\\/local\n"
                          % (volume_of("sm all\\"), volume_of("."), os.stat(".").st_dev)))
        os.chmod(self.folder, 0o755)  # the user `nobody` has no access to the tool's folder
        shutil.copy(TOOL, "tool")
        with monitor() as lines:
            self.assertEqual(send("--ping", "back/data", program=["./tool"], user=65534),
                             BAD_HANDLE)
        self.assertEqual(lines, [REFUSED % port_of(".")])
        unshared = ["unshare", "-m", "--propagation", "unchanged", TOOL]
        self.assertEqual(send("--ping", "back/data", program=unshared), INVALID)

    def test_traces_when_no_filter_is_loaded(self):
        with monitor() as lines, socket.socket(socket.AF_UNIX) as stream:
            stream.bind("\0" + port_of("."))  # a port is a SOCK_SEQPACKET
            stream.listen()
            self.assertEqual(tool("--progress", "back/data"),
                             (1, "no filter instance found for back/data\nqueryProgress failed\n"))
            os.mkfifo("fifo")
            with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as other:
                other.setblocking(False)
                with contextlib.suppress(BlockingIOError):
                    while True:
                        other.sendto(b"until the monitor takes no more", "\0DBWIN_BUFFER")
            self.assertEqual(tool("--progress", "fifo")[0], 1)  # waits for neither
        self.assertEqual(lines[0], "FilterInstanceFindFirst failed: status = 0x801f0013\n")

    def test_tries_to_print_each_line(self):
        traced = ["strace", "-e", "write", "-o", "calls", TOOL]
        with open("/dev/full", "w") as full:
            if subprocess.run(["strace", "-o", "/dev/null", "true"]).returncode:
                self.skipTest("writes of the tool (strace cannot trace here)")
            tool("--ping", "back/data", program=traced, stdout=full)
        self.assertEqual(len(re.findall(r"write\(1, .*ENOSPC", Path("calls").read_text())), 2)


class under_wine(story):
    """The executables that ship, with the fltlib.dll of the tests in Wine's System32."""

    VOLUME = "Volume{00000000-0000-0000-0000-000000000043}"  # Wine's drive C
    PORT = "\\zan_restore_filter-" + VOLUME

    def setUp(self):
        super().setUp()
        tool()  # makes Wine's drive C when it is not there yet
        self.drive = Path(os.environ.get("WINEPREFIX", SOURCE / "build/wine"), "drive_c")
        library = self.drive / "windows/system32/fltlib.dll"
        self.addCleanup(library.write_bytes, library.read_bytes())
        library.write_bytes((GIVEN.build / "tests/fltlib.dll").read_bytes())

    def control(self, *words, program="./tool.exe", **settings):
        """Status, and output with the diagnosis cut to its HRESULT."""
        environment = {**ENVIRONMENT, "WINEDLLOVERRIDES": "fltlib=n", **settings}
        status, output = tool(*words, program=[program], env=environment)
        return status, re.sub(r"fsfilter.*\n.*\n.*\n(0x\w+)\[.*\n\n", r"<\1>\n", output)


class ToolUnderWine(under_wine):
    def test_tool(self):
        (self.drive / "local").write_text("abc")
        shutil.copy(TOOL, "tool.exe")
        Path("fltlib.dll").write_text("what lies beside the executable is never loaded")
        finding = "FindFirst zan_restore_filter 3\nFindNext\nFindClose\n"
        connecting = "Connect %s 0 %s\n" % (self.PORT, bytes(40).hex())
        steps = ("volume is: %s\n%schecking instance for volume: %s - \\Device\\HarddiskVolume1\n"
                 "%ssending to instance to port: %s\n"
                 % (self.VOLUME, finding, self.VOLUME, connecting, self.PORT))
        for words, expected, settings in (
                (["--startAggressiveRestore", "4"],
                 (0, steps + "Send 3 01000000010000000400000000000000 0\n"), {}),
                (["--progress"],
                 (0, finding + connecting + "Send 3 03000000000000000000000000000000 16\n"
                  "progress: 0x1 of 0x80000000000000ff\n"), {}),
                (["--ping"],
                 (1, steps + "Send 3 00000000000000000000000000000000 0\nmessage not sent to port: "
                  "%s\n<0x80070057>\n" % self.PORT), {"FLTLIB_SEND": "80070057"})):
            with self.subTest(words):
                self.assertEqual(self.control(*words, "c:\\local", **settings), expected)
