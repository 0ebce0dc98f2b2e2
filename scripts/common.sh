# shellcheck shell=bash
# For the other scripts: go to the project's top folder, and say what is going on.
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1
project=$(basename "$0")
# shellcheck disable=SC2034  # used by those who read this file
top=$PWD

say() { printf '%s: %s\n' "$project" "$*"; }
fail() {
    printf '%s: %s\n' "$project" "$*" >&2
    exit 1
}

# The files of the project, also those not added yet, so that a new file is looked at before it is committed.
# The arguments are patterns as git knows them.
project_files() {
    git ls-files --cached --others --exclude-standard --deduplicate -- "$@" | while IFS= read -r file; do
        if [ -f "$file" ]; then printf '%s\n' "$file"; fi
    done
}

cpp_files() { project_files '*.cpp' '*.h'; }
