"""Every Python block of the README runs as it stands, each in a fresh interpreter."""

import re
import subprocess
import sys
from pathlib import Path

import pytest

README = Path(__file__).resolve().parent.parent / "README.md"
BLOCKS = re.findall(r"^```python\n(.*?)^```$", README.read_text(), flags=re.DOTALL | re.MULTILINE)


def test_the_readme_has_python_blocks():
    assert len(BLOCKS) >= 2


@pytest.mark.parametrize("block", BLOCKS, ids=lambda block: block.strip().splitlines()[-1][:40])
def test_readme_block_runs(block, tmp_path):
    done = subprocess.run(
        [sys.executable, "-c", block], cwd=tmp_path, capture_output=True, text=True, timeout=60
    )
    assert done.returncode == 0, done.stderr


@pytest.mark.parametrize("block", BLOCKS, ids=lambda block: block.strip().splitlines()[-1][:40])
def test_readme_block_type_checks_against_the_stubs(block, tmp_path):
    pytest.importorskip("mypy", reason="mypy is not installed in this environment")
    (tmp_path / "block.py").write_text(block)
    done = subprocess.run(
        [sys.executable, "-m", "mypy", "--strict", "--no-incremental", str(tmp_path / "block.py")],
        cwd=README.parent,  # where `engines` and its stubs are found
        capture_output=True,
        text=True,
        timeout=120,
    )
    assert done.returncode == 0, done.stdout + done.stderr
