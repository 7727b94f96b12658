"""Runs the tests that fit the build folder."""

import ctypes, os, sys, unittest

from shared import EMULATOR, GIVEN, IS_ROOT, IS_WINDOWS
from set_up import SetUp, SetUpOnLinux

stories = [SetUp]
if os.name == "posix":
    from check import CheckOfFilters, CheckUnderWine, CheckWithStrace
    from control import ToolUnderWine, WithPeer
    from module import WithPowerShell
    from stand_in import WithDelays, WithFailingCalls, WithRestoreFilter

    if IS_ROOT:  # a new network name space, without the port of another stand-in
        ctypes.CDLL(None).unshare(0x40000000)
    if EMULATOR:
        stories += [ToolUnderWine, CheckUnderWine]
    elif not IS_WINDOWS:
        stories = [SetUpOnLinux, WithPeer, WithRestoreFilter, CheckOfFilters, WithPowerShell]
        if not GIVEN.sanitized:  # the leak sanitizer does not work under strace
            stories += [WithDelays, WithFailingCalls, CheckWithStrace]
unittest.main(argv=[sys.argv[0], *(GIVEN.tests or [story.__name__ for story in stories])],
              verbosity=2, warnings="ignore")
