"""Entry point of ``python -m demo``."""

import sys

from demo.cli import main

sys.exit(main())
