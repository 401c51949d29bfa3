"""What the commands say on a machine that lacks something, played by programs put on PATH."""

import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
RUN = f"exec {shlex.quote(sys.executable)} -c"
FREE_THREADED = "import sysconfig; sysconfig.get_config_vars()['Py_GIL_DISABLED'] = 1; "
ABOVE = "what it said stands above."
NEEDED = "g++ cmake python3.13-dev"


class Tools(unittest.TestCase):
    def run_tool(self, words: str, programs: dict[str, str]) -> tuple[int, str]:
        folder = Path(self.enterContext(tempfile.TemporaryDirectory()))
        for name in ("cat", "grep", "head", "mktemp", "rm", "sed"):
            folder.joinpath(name).symlink_to(shutil.which(name) or name)
        for name, script in programs.items():
            folder.joinpath(name).write_text(f"#!/bin/sh\n{script}\n")
            folder.joinpath(name).chmod(0o755)
        path = {"PATH": str(folder), "HOME": str(folder)}
        command = ["/bin/sh", *words.split()]
        out, both = subprocess.PIPE, subprocess.STDOUT
        done = subprocess.run(command, cwd=ROOT, env=path, stdout=out, stderr=both, text=True)
        return done.returncode, done.stdout

    def test_python_that_does_not_serve_is_refused_in_a_line_with_the_reason(self) -> None:
        for script, reason in {
            f'{RUN} "{FREE_THREADED}$2"': "it is free-threaded, and",
            "exit 0": "it does not answer",
            "echo no such option >&2; exit 2": "no such option",
        }.items():
            code, said = self.run_tool("tools/find_python.sh given", {"given": script})
            self.assertEqual((code, said.count("\n"), reason in said), (1, 1, True), said)

    def test_what_is_missing_is_told_at_once_or_installed(self) -> None:
        telling = f"Needed and not installed: {NEEDED}; apt-get installs this ...\n"
        for user, install, outcome in (
            (1, "", (1, f"Needed and not installed; as root: apt-get install {NEEDED}\n")),
            (0, "echo noise", (0, telling)),
            (0, "exit 100", (1, f"{telling}apt-get could not install {NEEDED}; {ABOVE}\n")),
        ):
            debian = {"id": f"echo {user}", "apt-cache": "echo Packages", "apt-get": install}
            done = self.run_tool("tools/require.sh c++=g++ cmake python", debian)
            self.assertEqual(done, outcome)
