"""What importing the module costs beyond what it imports."""

from __future__ import annotations

import os
import subprocess
import sys

from benchmarks.timing import progress

NAME = "import"

_MEASURE = """
import time
import json, logging, collections.abc, typing
import tessaly.storage.database, tessaly.storage.vector_codec, tessaly.storage.vector_index
import tessaly.storage.wiki_chunk_words, tessaly.storage.wiki_rows
start = time.perf_counter()
import tessaly.storage.repository_wiki
print(time.perf_counter() - start)
"""


def table(runs: int) -> None:
    progress("import")
    times = [
        float(subprocess.check_output([sys.executable, "-P", "-c", _MEASURE], env=os.environ))
        for _run in range(runs)
    ]
    progress("")
    print("\nImport of the module, its imports being there already")
    label = f"fastest of {runs} processes"
    print(f"{label:44}{min(times) * 1e3:7.2f} ms{2.0:9.2f} ms at most")
