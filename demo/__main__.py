"""Entry point of ``python -m demo``, which the command ``wiki`` runs."""

import sys

from demo.cli import main

sys.exit(main())
