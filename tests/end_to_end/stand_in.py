"""restore_filter: what it answers, what it keeps, and what it survives."""

import contextlib, fcntl, itertools, os, re, resource, shutil, signal, socket, struct, subprocess
import time, unittest
from pathlib import Path

from shared import (BUSY, CHANGED, DENIED, EXISTS, FILTER, FULL, GIVEN, IO_ERROR, IS_ROOT, LEASED,
                    NO_PATH, NOT_FOUND, NOT_SUPPORTED, STRACE, TOO_LONG, TOO_MANY, eventually,
                    hresult, port_of, progress, send, story, tool, with_strace)

TAG, RECORD = ":restore_filter_tag", ":restore_filter_progress"


def unlink_all(name):
    for stream in "", TAG, RECORD:
        Path(name + stream).unlink(missing_ok=True)


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

    def test_obeys_no_tag_that_others_may_have_chosen(self):
        changes = [lambda name, tag: os.chmod(tag, 0o620), lambda name, tag: os.chmod(tag, 0o602),
                   lambda name, tag: os.link(tag, "link")]
        if IS_ROOT:
            changes += [lambda name, tag: os.chown(tag, 65534, 0),
                        lambda name, tag: os.chown(name, 65534, 0)]
        for index, change in enumerate(changes):
            name = "file%d" % index
            self.set_up_file(name)
            self.assertEqual(progress(name), (0, self.total))
            change(name, name + TAG)
            self.start(name, 2, DENIED)
            self.assertEqual(os.path.getsize(name), 0)
        self.set_up_file("sound")
        os.symlink("sound" + TAG, "linked" + TAG)
        os.mkfifo("fifo" + TAG)
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
                ("d:\\data", NO_PATH), (r"\\srv\other\data", NO_PATH),
                (r"\\srv\shareXdata", NO_PATH), ("data", NO_PATH), ("c:\\..\\back\\data", DENIED),
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
        with open("odd" + TAG, "r+b") as tag:
            os.pwrite(tag.fileno(), b"\0\xd8", 48)  # a surrogate in place of the x
        self.start("odd", 2, 0x8007000D)
        self.set_up_file("locked")
        with open("locked") as locked:
            fcntl.flock(locked, fcntl.LOCK_SH)
            self.start("locked", 2, BUSY)
        self.set_up_file("back/tagged")  # a backing file that is restored itself
        self.set_up_file("late", "c:\\tagged")
        for content in b"", b"of nobody":
            Path("back/tagged").write_bytes(content)
            self.start("late", 2, BUSY)
            self.assertEqual(progress("late"), BUSY)
        os.truncate("back/tagged", 0)
        self.start("back/tagged")
        self.ends_with("back/tagged", self.content)
        self.start("late")
        self.ends_with("late", self.content)

    def test_survives_silent_clients(self):
        opened = self.count_of_filter("fd")
        clients = [socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) for _ in range(300)]
        for client in clients:  # more than it keeps
            client.connect("\0" + port_of("."))
            client.settimeout(0.5)
        clients[-1].send(bytes(40))
        self.assertEqual((clients[-1].recv(20), clients[0].recv(20)), (hresult(0), b""))
        with contextlib.suppress(OSError):  # sends without reading, until the socket takes no more
            while True:
                clients[-1].send(bytes(28))
        self.assertEqual(send("--ping", "back/data"), 0)
        if not GIVEN.sanitized:  # the leak sanitizer opens files at the end
            self.limit_descriptors(1)
        clients[-2].close()  # wakes the poll that waits: the next one fails
        time.sleep(0.1)
        self.filter.send_signal(signal.SIGTERM)
        self.assertEqual(self.filter.wait(20), 0)
        self.start_filter()
        for client in clients:
            client.close()
        eventually(lambda: self.count_of_filter("fd") <= opened)

    def test_restores_drives_shares_links_and_holes(self):
        self.assertEqual(resource.prlimit(self.filter_pid, resource.RLIMIT_NOFILE), (100, 100))
        with open("back/sparse", "wb") as sparse:
            os.pwrite(sparse.fileno(), self.content, 5 << 20)
            os.truncate("back/sparse", 20 << 20)
        shutil.copy("back/data", "back/\xe9\u4e2d")
        os.symlink("back", "link")
        for name, backing, content in (
                ("drive", "C:\\data", self.content), ("unicode", "c:\\\xe9\u4e2d", self.content),
                ("share", r"\\SRV\Share\data", self.content),
                ("absolute", self.folder + "/link/data", self.content),
                ("named (deleted)", "c:\\data", self.content),
                ("sparse", "c:\\sparse", Path("back/sparse").read_bytes())):
            self.set_up_file(name, backing)
            self.start(name, 4)
            self.ends_with(name, content)
        self.assertLess(os.stat("sparse").st_blocks * 512, 6 << 20)  # the holes are kept
        for length, answer in (231, 0), (234, TOO_LONG), (240, NOT_FOUND):
            name = "x" * length
            Path(name).touch() if length == 240 else self.set_up_file(name)
            self.start(name, 2, answer)

    def test_tells_a_file_from_its_predecessor(self):
        for _ in range(3):  # the new one often has the inode of the old one, within a second
            self.set_up_file("again")
            self.start("again")
            self.ends_with("again", self.content)
            os.unlink("again")
            os.unlink("again" + TAG)

    def test_writes_over_nothing_that_no_record_accounts_for(self):
        whole = {"copied": "c:\\data", "changed": "c:\\data", "retagged": "c:\\other"}
        shutil.copy("back/data", "back/other")
        for name in ("whole", *whole):
            self.set_up_file(name)
            self.start(name)
            self.ends_with(name, self.content)
        for name, backing in whole.items():
            os.rename(name, name + ".old")
            os.unlink(name + TAG)
            self.set_up_file(name, backing)
            os.rename(name + ".old", name)
        shutil.copy("copied", "copy")  # the record is of another file
        os.rename("copy", "copied")
        kept = ("copied", "retagged", "user's", "made in advance", "cut record", "odd state",
                "notes")
        for name, content in (("user's", b"mine"), ("made in advance", bytes(1 << 20)),
                              ("cut record", self.content), ("odd state", self.content),
                              ("notes", b"")):
            self.set_up_file(name)
            Path(name).write_bytes(content)
        shutil.copy("whole" + RECORD, "cut record" + RECORD)
        os.truncate("cut record" + RECORD, 39)
        record = bytearray(Path("whole" + RECORD).read_bytes())
        birth = subprocess.run(["stat", "-c", "%i %.9W", "odd state"], capture_output=True,
                               text=True, check=True).stdout
        inode, seconds, nanoseconds = (int(number) for number in re.split("[ .]", birth))
        struct.pack_into("<QQQQ", record, 8, inode, seconds, nanoseconds, 2)  # whole is 1
        Path("odd state" + RECORD).write_bytes(record)
        Path("notes" + RECORD).write_text("no record")
        for name in kept:
            before = Path(name).read_bytes()
            with self.subTest(name):
                self.start(name, 2, EXISTS)
                self.assertEqual((progress(name), Path(name).read_bytes()), (EXISTS, before))
        self.assertEqual(Path("notes" + RECORD).read_text(), "no record")
        with open("changed", "r+b") as changed:  # its user owns a whole file, whatever happens
            changed.write(b"its user's")
        os.truncate("whole", 0)
        for change in (lambda: os.truncate("back/data", 5), lambda: os.unlink("back/data")):
            change()
            for name, content in ("changed", b"its user's" + self.content[10:]), ("whole", b""):
                self.start(name)
                self.assertEqual((progress(name), Path(name).read_bytes()),
                                 ((self.total,) * 2, content))
        self.start("whole" + TAG, 2, NOT_FOUND)
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
        for by in signal.SIGTERM, signal.SIGTERM, signal.SIGKILL:  # two before the first byte
            ends(by)
        opened = self.count_of_filter("fd")
        self.start("local")
        eventually(lambda: progress("local")[0] > 1 << 20)
        self.stop("local")
        self.assertGreater(progress("local")[0], 1 << 20)
        eventually(lambda: self.count_of_filter("fd") <= opened)  # its last sync is done
        os.rename("back/data", "back/huge")
        self.assertEqual(progress("local"), (0, self.total))
        self.start("local")
        self.ends_with("local", self.content)
        Path("back/data").touch()

    def test_ends_with_its_file_and_attaches_once(self):
        self.set_up_huge("local")
        opened = self.count_of_filter("fd")
        self.start("local", 4)
        os.unlink("local")
        eventually(lambda: self.count_of_filter("fd") <= opened)
        share = r"--share takes \\SERVER\SHARE=FOLDER, not '%s'"
        for words, failure in (
                ((".",), ".: its volume already has a restore filter"),
                ((), "no FOLDER is given: see --help"),
                (("--dive",), "cannot use '--dive': see --help"),
                (("--drive", "CC=back", "."), "--drive takes L=FOLDER, not 'CC=back'"),
                (("--drive", "C", "."), "--drive takes L=FOLDER, not 'C'"),
                *((("--share", name + "=back", "."), share % (name + "=back"))
                  for name in (r"\\srv", r"\\srv\share\x", r"\\\share", "\\\\srv\\",
                               r"srv\share", r"\srv\share")),
                (("--drive", "1=back", "."), "--drive takes L=FOLDER, not '1=back'"),
                (("--drive=d=nowhere", "."), "nowhere: No such file or directory")):
            done = subprocess.run([FILTER, *words], capture_output=True, text=True, timeout=20)
            self.assertEqual((done.returncode, done.stdout, done.stderr),
                             (1, "", "restore_filter: %s\n" % failure))

    @unittest.skipUnless(IS_ROOT, "NTFS with the stand-in (not root)")
    def test_knows_a_file_without_a_birth_time_by_its_real_streams(self):
        name = "ntfs/local"
        for options, answer in ("umask=022", NOT_SUPPORTED), (
                "streams_interface=windows,umask=022", 0):
            self.mount_ntfs(options)
            self.start_filter(folder="ntfs")
            opened = self.count_of_filter("fd")
            self.set_up_file(name)
            self.start(name, 2, answer)
            eventually(lambda: progress(name) == (answer or (self.total,) * 2))
            self.stop(name, answer)
            self.assertEqual(Path(name).read_bytes(), b"" if answer else self.content)
            os.unlink(name)
            if not answer:
                Path("back/zeros").touch()
                os.truncate("back/zeros", 1 << 40)  # more than the volume has: all of it a hole
                self.set_up_file(name, "c:\\zeros")
                self.start(name)
                eventually(lambda: progress(name)[0] > 0)
                os.unlink(name)  # FUSE keeps it under another name
                eventually(lambda: self.count_of_filter("fd") <= opened)
            self.filter.terminate()
            self.filter.wait(20)
            subprocess.run(["umount", "ntfs"], check=True)

    @unittest.skipUnless(IS_ROOT, "a small volume and hidden mounts (not root)")
    def test_other_volumes(self):
        local = "sm all\\/local"
        self.mount("tmpfs", "none", "sm all\\", "size=1m")
        self.set_up_file(local)
        self.start_filter(folder="sm all\\")
        self.start(local)
        eventually(lambda: progress(local) == FULL)
        self.assertTrue(self.content.startswith(Path(local).read_bytes()))
        subprocess.run(["mount", "-o", "remount,size=9m", "sm all\\"], check=True)
        self.start(local)
        self.ends_with(local, self.content)

        for folder in "hidden", "above":
            os.mkdir(folder)
            self.set_up_file(folder + "/local")
        with open("hidden/local") as file, socket.socket(socket.AF_UNIX,
                                                         socket.SOCK_SEQPACKET) as client:
            self.mount("none", "above", "hidden/", "bind")  # at the path is another file
            client.connect("\0" + port_of("."))
            query = struct.pack("<IQIQI", 16, file.fileno(), 3, 0, 0)
            for packet, answer in (bytes(40), hresult(0)), (query, hresult(NOT_FOUND)):
                client.send(packet)
                self.assertEqual(client.recv(20), answer)


class WithDelays(with_strace):
    """System calls of the stand-in take their time, or fail once."""

    def start_and_stop(self, name):
        """Stops a file in its middle. Returns the progress."""
        self.start(name, 1)
        eventually(lambda: progress(name)[0] > 1 << 20)
        self.stop(name)
        return progress(name)[0]

    def test_continues_only_what_nobody_has_changed(self):
        def rewrite():
            status = os.stat("local")
            with open("local", "r+b") as local:
                local.write(b"a program's")
            os.utime("local", ns=(status.st_atime_ns, status.st_mtime_ns))

        def touch(seconds):
            os.utime("back/data", seconds and (seconds, seconds))

        self.start_delayed_filter("pread64:delay_enter=120ms")
        opened = self.count_of_filter("fd")
        modified = os.stat("back/data").st_mtime
        for change, continues in (
                (lambda: None, True), (lambda: self.stop("local"), True),
                (lambda: touch(5), False), (lambda: touch(modified), False),
                (lambda: os.truncate("local", 5), False), (rewrite, False),
                (lambda: (rewrite(), self.stop("local")), False)):
            for waits in False, True:  # until the stopped pass has ended
                self.set_up_file("local")
                before = self.start_and_stop("local")
                self.assertFalse([link for link in self.links() if link.endswith(TAG)])
                eventually(lambda: not waits or self.count_of_filter("fd") <= opened)
                change()
                if waits:
                    self.assertEqual(progress("local")[0], before if continues else 0)
                eventually(lambda: send("--startAggressiveRestore", "local", "1") != BUSY)
                self.assertEqual(progress("local")[0] >= before, continues)
                self.ends_with("local", self.content)
                touch(modified)
                unlink_all("local")

    def links(self):
        folder = "/proc/%d/fd/" % self.filter_pid
        links = []
        for number in os.listdir(folder):
            with contextlib.suppress(FileNotFoundError):
                links.append(os.readlink(folder + number))
        return links

    def test_stops_at_every_moment(self):
        """Before the first byte, during the first read, during a write, during the last sync."""
        for faults, moment in (
                (["fdatasync:delay_enter=1s:when=1"], lambda: self.count_of_filter("task") > 1),
                (["pread64:delay_enter=500ms"], lambda: self.count_of_filter("task") > 2),
                (["pwrite64:delay_enter=1s:when=2"], lambda: os.path.exists("local" + RECORD)),
                (["pread64:delay_enter=60ms", "fdatasync:delay_enter=1s:when=3"],
                 lambda: progress("local")[0] > 1 << 20)):
            with self.subTest(faults):
                unlink_all("local")
                self.set_up_file("local")
                self.start_delayed_filter(*faults)
                self.start("local")
                eventually(moment)
                writes = "pwrite64" in faults[0]
                if writes:
                    time.sleep(0.3)
                self.stop("local")
                length = os.path.getsize("local")
                if not writes:  # it has not ended
                    os.rename("local" + TAG, "kept")
                    self.stop("local")
                    os.rename("kept", "local" + TAG)
                # Into the last sync, or longer than each other delay.
                time.sleep(0.2 if "60ms" in faults[0] else 1.2)
                self.assertLess(*progress("local"))
                self.assertEqual(os.path.getsize("local"), length)
                eventually(lambda: send("--startAggressiveRestore", "local", "2") != BUSY)
                self.ends_with("local", self.content)
                self.stop_filter(self.filter)

    def test_syncs_a_stopped_file_and_sees_it_cut(self):
        self.set_up_file("local")
        self.start_delayed_filter("pread64:delay_enter=60ms", "fdatasync:error=EIO:when=3")
        self.start_and_stop("local")
        eventually(lambda: progress("local") == IO_ERROR)
        self.start("local", 1)  # begins again, since nobody knows what was lost
        self.assertLess(progress("local")[0], 1 << 20)
        eventually(lambda: progress("local")[0] > 1 << 20)
        os.truncate("local", 5)
        eventually(lambda: progress("local") == CHANGED)

    def test_reads_at_once(self):
        self.set_up_file("local")
        self.start_delayed_filter("pread64:delay_enter=1s")
        self.start("local", 6)
        eventually(lambda: self.count_of_filter("task") >= 8)  # the two of every restoration, and 6

    def test_survives_a_log_that_nobody_reads(self):
        reading, writing = os.pipe()
        os.close(reading)
        self.log, log = os.fdopen(writing, "w"), self.log
        self.start_filter()
        for _ in (1, 2):
            self.assertEqual(send("--ping", "back/data"), 0)
        log.close()

    def test_is_whole_when_the_record_says_so(self):
        # Syncs of a thread: 1 tag and 2 record before the first byte, 3 file and 4 record at the
        # end.
        for fault, status in (("error=EIO:when=1", IO_ERROR), ("error=EIO:when=2", IO_ERROR),
                              ("error=EIO:when=3", IO_ERROR), ("error=ENOSPC:when=4", FULL)):
            with self.subTest(fault):
                is_empty = fault[-1] in "12"
                self.set_up_file(fault)
                self.start_delayed_filter("fdatasync:" + fault)
                self.start(fault)
                eventually(lambda: progress(fault) == status)
                self.assertEqual(os.path.getsize(fault), 0 if is_empty else self.total)
                self.stop(fault)
                is_whole = fault[-1] == "4"  # only the record's sync has failed
                self.assertEqual(progress(fault), (is_whole * self.total, self.total))
                self.stop_filter(self.filter)
                if fault[-1] == "3":  # as if the failed sync had lost it
                    with open(fault, "r+b") as local:
                        os.pwrite(local.fileno(), bytes(4096), 1 << 20)
                self.start_filter()
                self.start(fault)
                self.ends_with(fault, self.content)
                self.stop_filter(self.filter)

    def test_stop_and_start_during_the_last_sync(self):
        tag = "local" + TAG
        shutil.copy("back/data", "back/other")
        self.set_up_file("other", "c:\\other")
        for fault, change, end in (
                ("delay_enter=1s:when=3", lambda: None, (self.total,) * 2),
                ("error=EIO:delay_enter=1s:when=4", lambda: None, IO_ERROR),
                ("delay_enter=1s:when=3", lambda: os.truncate("local", 5), CHANGED),
                ("delay_enter=1s:when=3", lambda: os.truncate("local" + RECORD, 0), CHANGED),
                ("delay_enter=1s:when=3", lambda: os.utime("back/data", (0, 0)), CHANGED)):
            self.set_up_file("local")
            self.start_delayed_filter("fdatasync:" + fault)
            self.start("local")
            eventually(lambda: os.path.getsize("local") == self.total)
            threads = self.count_of_filter("task")
            self.start("local", 2, BUSY)
            change()
            for _ in (1, 2):
                self.stop("local")
                os.rename(tag, "kept")
                os.rename("other" + TAG, tag)
                self.start("local", 2, BUSY)  # that from back/data has not ended yet
                os.rename(tag, "other" + TAG)
                os.rename("kept", tag)
                if end != CHANGED:
                    self.start("local")
                    self.assertLess(*progress("local"))
                    # No second one: the start woke the one that still syncs.
                    self.assertLessEqual(self.count_of_filter("task"), threads)
            eventually(lambda: progress("local") == end)
            self.stop_filter(self.filter)
            unlink_all("local")

    def test_limits(self):
        self.start_delayed_filter("pread64:delay_enter=400ms")
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
        eventually(lambda: self.count_of_filter("fd") <= opened)  # when its reads are done
        self.assertEqual([os.path.getsize(name) for name in names], stopped)
        self.limit_descriptors(100)
        for name in names:
            self.start(name, 1)
        for name in names:
            self.ends_with(name, self.content)


class WithFailingCalls(with_strace):
    """Each of these system calls fails at its first, second, ... use. The stand-in keeps running,
    and its answers are true."""

    CALLS = {"fdatasync": 4, "ftruncate": 2, "openat": 6, "openat2": 6, "pread64": 8, "pwrite64": 9,
             "newfstatat": 8, "statx": 3, "readlink": 3, "read": 6, "recvfrom": 6, "sendmsg": 4,
             "accept4": 3, "poll": 4, "clone3": 2, "mmap": 4, "getsockopt": 2}

    def test_lives_on(self):
        for call, uses in self.CALLS.items():
            for error, use in itertools.product(("EIO", "EINTR"), range(1, uses + 1)):
                with self.subTest(call=call, error=error, use=use):
                    self.live_through("inject=%s:error=%s:when=%d" % (call, error, use))

    def live_through(self, fault):
        unlink_all("local")
        self.set_up_file("local")
        whole = (self.total,) * 2
        if self.start_filter(*STRACE, fault, may_fail=True):
            for _ in range(30):  # strace fails the call once per thread; a start makes new threads
                send("--startAggressiveRestore", "local", "2")
                now = progress("local")
                self.assertTrue(self.content.startswith(Path("local").read_bytes()))
                if now == whole:
                    break
            eventually(lambda: not isinstance(now := progress("local"), tuple) or now == whole)
            eventually(lambda: send("--ping", "local") == 0)
        else:  # it could not begin, and said so
            self.assertEqual(self.filter.wait(20), 1)
        self.stop_filter(self.filter)
