# Sourced by the other scripts: finds a CPython 3.12 and makes the project's virtual environment
# (.venv) with the build tools and the module installed in it (rebuilt on import when the C++
# sources change).
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
venv="$root/.venv"

is_python312() {
    "$@" -c 'import sys; sys.exit(0 if sys.version_info[:2] == (3, 12) and sys.implementation.name == "cpython" else 1)' \
        >/dev/null 2>&1
}

find_python() {
    if [ -n "${PYTHON:-}" ]; then
        if is_python312 "$PYTHON"; then echo "$PYTHON"; return; fi
        echo "error: PYTHON=$PYTHON is not a CPython 3.12" >&2
        exit 1
    fi
    if is_python312 python3.12; then command -v python3.12; return; fi
    if is_python312 env PYENV_VERSION=3.12.1 python3.12; then
        PYENV_VERSION=3.12.1 python3.12 -c 'import sys; print(sys.executable)'
        return
    fi
    if command -v pyenv >/dev/null 2>&1; then
        local prefix
        for version in $(pyenv versions --bare 2>/dev/null | grep -E '^3\.12(\.|$)' | sort -rV); do
            prefix=$(pyenv prefix "$version" 2>/dev/null) || continue
            if is_python312 "$prefix/bin/python3.12"; then echo "$prefix/bin/python3.12"; return; fi
        done
    fi
    echo "error: no CPython 3.12 found; install one or set PYTHON=/path/to/python3.12" >&2
    exit 1
}

ensure_venv() {
    if [ ! -x "$venv/bin/python" ] || ! is_python312 "$venv/bin/python"; then
        local python
        python=$(find_python)
        rm -rf "$venv"
        "$python" -m venv "$venv"
    fi
    if [ ! -f "$venv/.tools-installed" ] || [ "$root/pyproject.toml" -nt "$venv/.tools-installed" ]; then
        "$venv/bin/python" -m pip install --quiet --disable-pip-version-check --upgrade pip
        # The build tools, and the project's `test`, `demo` and `sdk` extras as pyproject.toml lists them.
        local extras
        mapfile -t extras < <("$venv/bin/python" - "$root/pyproject.toml" <<'PY'
import sys, tomllib
with open(sys.argv[1], "rb") as f:
    wanted = tomllib.load(f)["project"]["optional-dependencies"]
print("\n".join(need for extra in ("test", "demo", "sdk") for need in wanted[extra]))
PY
)
        "$venv/bin/python" -m pip install --quiet --disable-pip-version-check \
            'meson-python>=0.15' 'meson>=1.3' ninja "${extras[@]}"
        touch "$venv/.tools-installed"
    fi
    # An editable install: importing the module rebuilds it when a source has changed.
    # Checked from outside the checkout: there, `engines/decision_bounds/` is only the source folder.
    if ! (cd / && "$venv/bin/python" -c 'import engines.decision_bounds as m; m.Share') >/dev/null 2>&1; then
        "$venv/bin/python" -m pip install --quiet --disable-pip-version-check --no-build-isolation \
            -Cbuild-dir=build/dev --editable "$root"
    fi
}
