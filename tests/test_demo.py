"""The demo decision client, run as a person runs it: its options, its report and its Ctrl-C."""

import contextlib
import re
import signal
import sqlite3
import subprocess
import sys
import time
from pathlib import Path

import pytest

pytest.importorskip("rich", reason="the demo's dependency group is not installed in this environment")

DEMO = Path(__file__).resolve().parent.parent / "examples" / "decision_client.py"


def demo(*args):
    return subprocess.run([sys.executable, str(DEMO), *args], capture_output=True, text=True, timeout=120)


@pytest.mark.parametrize("args, named", [
    (["--threads", "-1"], "--threads"), (["--threads", "0"], "--threads"), (["--threads", "many"], "--threads"),
    (["--cap", "lots"], "--cap"), (["--cap", "nan"], "--cap"), (["--cap", "-5"], "--cap"),
    (["--days", "0"], "--days"), (["--deadline", "0"], "--deadline"),
    (["--ledger", "{tmp}/no/such/folder/ledger.sqlite3"], "ledger"),
    (["--ledger", "{tmp}"], "ledger"),  # a folder
    (["--ledger", "{tmp}/not-a-database"], "ledger"),
    (["--plot", "{tmp}/no/such/folder/spend.png"], "--plot"), (["--plot", "{tmp}/spend.jpg"], "--plot"),
])
def test_bad_option_is_one_line_and_status_2_before_any_work(tmp_path, args, named):
    (tmp_path / "not-a-database").write_text("these are not the ledger's rows\n" * 100)
    before = sorted(p.name for p in tmp_path.iterdir())
    done = demo(*(arg.format(tmp=tmp_path) for arg in args))
    assert done.returncode == 2
    assert done.stdout == ""
    lines = done.stderr.splitlines()
    assert len(lines) == 1 and lines[0].startswith("decision_client: error:") and named in lines[0]
    assert sorted(p.name for p in tmp_path.iterdir()) == before  # nothing written


def dollars(row):
    """The dollar figures of one row of the demo's table, in their order."""
    return [float(figure) for figure in re.findall(r"\$(\d+\.\d+)", row)]


def table_row(output, day):
    return next(line for line in output.splitlines() if line.startswith(f"│ {day}"))


def ledger_rows(path):
    with contextlib.closing(sqlite3.connect(path)) as db:
        return db.execute("SELECT day, SUM(cost), COUNT(*) FROM paid_replies GROUP BY day ORDER BY day").fetchall()


def has_paid_replies(path):
    """Whether the running demo has recorded a paid reply yet: its ledger file and table may not be
    there yet (connecting would make the file)."""
    try:
        return path.exists() and bool(ledger_rows(path))
    except sqlite3.OperationalError:  # the file is there, its table not yet
        return False


def test_a_run_reports_each_day_and_keeps_the_promise(tmp_path):
    ledger, picture = tmp_path / "ledger.sqlite3", tmp_path / "spend.png"
    args = ["--days", "2", "--threads", "4", "--calls", "60", "--cap", "0.08", "--seed", "7"]
    done = demo(*args, "--ledger", str(ledger), "--plot", str(picture))
    assert done.returncode == 0, done.stdout + done.stderr
    rows = ledger_rows(ledger)
    assert len(rows) == 2 and all(count > 0 for _, _, count in rows)
    for day, spent, _ in rows:
        # Each day's row shows the spend the ledger has, and the account agrees with the ledger.
        row = table_row(done.stdout, day)
        started, spend = dollars(row)
        assert started == 0.0 and spend == pytest.approx(spent, abs=1e-4)
        assert row.rstrip(" │").endswith("agrees")
    assert "held on every day" in done.stdout
    assert picture.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"

    # A second run on the same dates starts its first day from what the ledger says the paid
    # calls since that date cost: all that the first run recorded.
    again = demo(*args, "--ledger", str(ledger))
    assert again.returncode == 0, again.stdout + again.stderr
    started, _ = dollars(table_row(again.stdout, rows[0][0]))
    assert started == pytest.approx(sum(spent for _, spent, _ in rows), abs=1e-4)


def test_ctrl_c_stops_the_pass_and_leaves_the_ledger_consistent(tmp_path):
    ledger = tmp_path / "ledger.sqlite3"
    # Leaving the with block closes the pipes, also when the test fails before reading them.
    with subprocess.Popen(
        [sys.executable, str(DEMO), "--days", "200", "--ledger", str(ledger)],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        # A Ctrl-C reaches a program that has not been told to ignore it, as in a terminal.
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),
    ) as process:
        try:
            give_up = time.monotonic() + 60
            while time.monotonic() < give_up and not has_paid_replies(ledger):
                time.sleep(0.1)
            time.sleep(0.3)
            process.send_signal(signal.SIGINT)
            out, err = process.communicate(timeout=60)
        finally:
            if process.poll() is None:
                process.kill()
                process.wait(10)
    assert process.returncode == 130, out + err
    assert "Interrupted" in out and "interrupted" in out
    assert "DIFFERS" not in out and "agrees" in out

