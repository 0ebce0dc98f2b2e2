# shellcheck shell=bash
# For the other scripts: go to the project's top folder, install what is missing, offer to run a Python module.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
case " $* " in
    *" --help "* | *" -h "* | *" --list "*) ;;
    *) scripts/setup --quiet ${TAVIK_BUILT:+--run} ;;
esac

# The caller's display, proxies, library paths and temporary folder are left out, so that no result depends on them.
run() {
    exec env -u DISPLAY -u http_proxy -u https_proxy -u no_proxy -u LIBRARY_PATH -u TMPDIR PYTHONDONTWRITEBYTECODE=1 /usr/bin/python3 -m "$@"
}
