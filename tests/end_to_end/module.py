"""The PowerShell module, with the stand-in."""

import os, shutil, subprocess, unittest
from pathlib import Path

from shared import GIVEN, SOURCE, story

PWSH = shutil.which("pwsh", path=str(SOURCE / "build/tools")) or shutil.which("pwsh")


class WithPowerShell(story):
    @unittest.skipUnless(PWSH, "the PowerShell module (no pwsh)")
    def test_module(self):
        Path("back/none").write_bytes(b"")
        if GIVEN.sanitized:
            self.start_filter()
        else:
            self.start_delayed_filter("pread64:delay_enter=100ms")
        self.limit_descriptors(30)
        script = SOURCE / "tests/module_test.ps1"
        done = subprocess.run(
            [PWSH, "-NoProfile", "-NonInteractive", "-File", script],
            env={**os.environ, "PATH": str(GIVEN.build) + os.pathsep + os.environ["PATH"],
                 "HOME": self.folder, "NO_COLOR": "1"},
            text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=300)
        self.assertEqual(done.returncode, 0, done.stdout)
