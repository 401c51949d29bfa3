"""Entry point of ``python -m tessaly_wiki_check``."""

import sys

from tessaly_wiki_check.cli import main

sys.exit(main())
