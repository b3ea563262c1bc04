"""The tests import their shared helpers as `from support import Reply`: pytest imports the test
files by path (importlib mode) and puts no folder on sys.path, so this folder goes there."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
