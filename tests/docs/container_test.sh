#!/usr/bin/env bash
# .devcontainer keeps no second list of packages: its Dockerfile installs only packages of the group "build" in
# packaging/packages.sh, on the system that ./dev installs into.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."
# shellcheck source=packaging/packages.sh
. packaging/packages.sh

readonly MOST=2 # packages needed to clone the repository, before ./dev can install the others
failures=0
wrong() {
  printf '%s\n' "$1"
  failures=$((failures + 1))
}

dockerfile=.devcontainer/Dockerfile
mapfile -t packages < <(sed -n 's/.*apt-get install \([^&]*\).*/\1/p' "$dockerfile" | tr -s ' ' '\n' | grep -v '^-' | grep .)
[ ${#packages[@]} -gt 0 ] || wrong "$dockerfile installs nothing"
[ ${#packages[@]} -le "$MOST" ] || wrong "$dockerfile names ${#packages[@]} packages, which packaging/packages.sh should"
for package in "${packages[@]}"; do
  kova_packages build | grep -xF -- "$package" >/dev/null || wrong "$package is not in packaging/packages.sh"
done
grep -qx 'FROM debian:12' "$dockerfile" || wrong "$dockerfile does not begin with Debian 12"

python3 - <<'PYTHON' || wrong "devcontainer.json does not start a build in that container"
import json, pathlib, sys
container = json.loads(pathlib.Path(".devcontainer/devcontainer.json").read_text())
file = pathlib.Path(".devcontainer", container["build"]["dockerfile"])
sys.exit(not (file.is_file() and container["postCreateCommand"].split()[:2] == ["./dev", "build"]))
PYTHON
echo "${#packages[@]} packages, $failures faults"
[ "$failures" -eq 0 ]
