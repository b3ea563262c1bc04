# Sourced by the other scripts: finds a CPython 3.12 and makes the project's virtual environment
# (.venv) with pyproject.toml's dependency groups and the module installed in it (rebuilt on import
# when the C++ sources change).
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

# install_groups VENV GROUP...: installs pyproject.toml's dependency groups into VENV, once; again
# only when pyproject.toml changes.
install_groups() {
    local into=$1 groups=() group
    shift
    if [ -f "$into/.tools-installed" ] && [ ! "$root/pyproject.toml" -nt "$into/.tools-installed" ]; then
        return 0
    fi
    for group in "$@"; do groups+=(--group "$group"); done
    # A pip that knows dependency groups (25.1 or later): a new venv's own may be older.
    "$into/bin/python" -m pip install --quiet --disable-pip-version-check --upgrade 'pip>=25.1'
    (cd "$root" && "$into/bin/python" -m pip install --quiet --disable-pip-version-check "${groups[@]}")
    touch "$into/.tools-installed"
}

# The setting of the editable install's build (build/dev), as meson reports it; empty without one.
dev_build_option() {
    [ -f "$root/build/dev/build.ninja" ] || return 0
    "$venv/bin/meson" introspect "$root/build/dev" --buildoptions | "$venv/bin/python" -c '
import json, sys
print(next((str(o["value"]).lower() for o in json.load(sys.stdin) if o["name"] == sys.argv[1]), ""))
' "$1"
}

# ensure_venv [--werror]: with --werror, the module is built with warnings as errors, as CI builds
# it (scripts/test); an existing build without them is set up again. Without it, any build will do.
ensure_venv() {
    local werror=false
    if [ "${1:-}" = --werror ]; then werror=true; fi
    if [ ! -x "$venv/bin/python" ] || ! is_python312 "$venv/bin/python"; then
        local python
        python=$(find_python)
        rm -rf "$venv"
        "$python" -m venv "$venv"
    fi
    # The build tools first: the editable install below builds without isolation.
    install_groups "$venv" build test typecheck demo sdk
    # An editable install: importing the module rebuilds it when a source has changed, with the
    # settings that build/dev was set up with. Checked from outside the checkout: there,
    # `engines/decision_bounds/` is only the source folder.
    if ! (cd / && "$venv/bin/python" -c 'import engines.decision_bounds as m; m.Share') >/dev/null 2>&1 \
        || { [ "$werror" = true ] && [ "$(dev_build_option werror)" != true ]; }; then
        local setup=()
        if [ "$werror" = true ]; then setup=(-Csetup-args=-Dwerror=true); fi
        "$venv/bin/python" -m pip install --quiet --disable-pip-version-check --no-build-isolation \
            -Cbuild-dir=build/dev "${setup[@]}" --editable "$root"
    fi
}
