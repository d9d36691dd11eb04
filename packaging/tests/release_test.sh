#!/usr/bin/env bash
# release_test.sh SOURCE PROGRAM: makes releases of a small repository with the versioned files of this one, and checks
# them against docs/releasing.md. Its packages contain a stripped copy of PROGRAM: compressing debugging information
# would take minutes.
set -euo pipefail

readonly SOURCE=$1 PROGRAM=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=packaging/tests/expect.sh
. "$(dirname "$(readlink -f "$0")")/expect.sh"

readonly version=1.2.3 title=kova_ctlserver-1.2.3
readonly repository=$work/repository made=$work/repository/build/dist/1.2.3
# Do not use the keys and settings of the user who runs the test.
export HOME=$work GNUPGHOME=$work/gnupg GIT_CONFIG_NOSYSTEM=1
export GIT_AUTHOR_NAME=Test GIT_AUTHOR_EMAIL=test@kova.invalid GIT_COMMITTER_NAME=Test GIT_COMMITTER_EMAIL=test@kova.invalid
unset KOVA_RELEASE_KEY XDG_CONFIG_HOME

# Replaces ./dev, which takes minutes to build packages. The package of this one is reproducible if release sets
# SOURCE_DATE_EPOCH.
write_dev() {
  cat >"$repository/dev" <<TEXT
#!/bin/sh -e
cd "\$(dirname "\$0")"
rm -rf build/root
mkdir -p build/root/DEBIAN build/root/usr/bin build/package/dbgsym
cp "$work/kovactl" build/root/usr/bin/kovactl
printf 'Package: kovactl\nVersion: $version\nArchitecture: %s\nMaintainer: test\nDescription: test\n' \
  "\$(dpkg --print-architecture)" >build/root/DEBIAN/control
dpkg-deb -Znone --root-owner-group --build build/root build/package >/dev/null
mv build/root/usr build/debug && mkdir -p build/root/usr/lib && mv build/debug build/root/usr/lib/debug
sed -i 's/^Package: kovactl/&-dbgsym/' build/root/DEBIAN/control
dpkg-deb -Znone --root-owner-group --build build/root build/package/dbgsym >/dev/null
TEXT
  chmod 755 "$repository/dev"
}

make_repository() {
  strip -o "$work/kovactl" "$PROGRAM"
  mkdir "$repository"
  (cd "$SOURCE" && cp -r --parents CMakeLists.txt CHANGELOG.md debian/changelog packaging docs/man "$repository")
  write_dev
  echo /build/ >"$repository/.gitignore"
  set_version "$version"
  git -C "$repository" init -q
  commit
}

# set_version VERSION: changes the version in all files that contain it.
set_version() {
  local old
  old=$("$repository/packaging/release/version")
  (cd "$repository" && sed -i "s/\b${old//./\\.}\b/$1/" CMakeLists.txt CHANGELOG.md debian/changelog docs/man/*)
}

commit() { git -C "$repository" add --all && git -C "$repository" commit -q --message change; }
release() { "$repository/packaging/release/release" "$@"; }
state() { (cd "$repository" && git status --porcelain && git rev-parse HEAD && git tag && find build -type f -exec sha256sum {} + | sort); }

# refuses TEXT REASON ARGUMENT...: expects that the release is refused for this reason and changes nothing.
refuses() {
  local text=$1 reason=$2
  shift 2
  mkdir -p "$repository/build"
  state >"$work/before"
  expect_not "$text" release "$@"
  cp "$work/output" "$work/said"
  expect "  the message gives the reason" grep -F -- "$reason" "$work/said"
  state | grep -v dist/lock >"$work/after"
  expect "  nothing is changed" diff <(grep -v dist/lock "$work/before") "$work/after"
}

bad_input_is_refused() {
  local bad
  refuses "a missing version is refused" "VERSION is missing: ./dev release 1.2.3"
  for bad in 1.2 v1.2.3 1.2.3.4 01.2.3 1.2.x ../1.2.3 "1.2.3 "; do
    refuses "the version \"$bad\" is refused" "a version has the form 1.2.3" "$bad"
  done
  refuses "a version other than that of the sources is refused" "the sources have the version 1.2.3" 1.2.4
  echo >"$repository/new"
  refuses "an untracked file is refused" "?? new" "$version"
  rm "$repository/new"
  echo >>"$repository/CMakeLists.txt"
  refuses "an uncommitted change is refused" " M CMakeLists.txt" "$version"
  git -C "$repository" checkout -q CMakeLists.txt
  KOVA_RELEASE_KEY=nobody refuses "a missing key is refused" 'no secret key "nobody"' "$version"
  git -C "$repository" config user.signingkey nobody
  refuses "a missing key in git's settings is refused" 'no secret key "nobody"' "$version"
  git -C "$repository" config --unset user.signingkey
  git -C "$repository" tag v1.2.3
  git -C "$repository" commit -q --allow-empty --message later
  refuses "a version with a tag on another commit is refused" "v1.2.3 exists already" "$version"
  git -C "$repository" tag -d v1.2.3 >/dev/null
}

in_sums() { grep -qE "^[0-9a-f]{64}  $1\$" "$made/SHA256SUMS"; }

is_made() {
  expect "a release can be made" release "$version"
  cp "$work/output" "$work/said"
  expect "it warns that it is not signed" grep -F "NOT SIGNED" "$work/said"
  expect "all checksums are right" sh -c "cd '$made' && sha256sum --check SHA256SUMS"
  local file
  for file in "$title.tar.gz" "$title.spdx.json" "kovactl_${version}_.*.deb" "kovactl-dbgsym_${version}_.*.deb"; do
    expect "SHA256SUMS lists $file" in_sums "$file"
  done
  expect "the archive contains the committed files" diff <(tar -tf "$made/$title.tar.gz" | grep -v '/$' | sort) \
    <(git -C "$repository" ls-files | sed "s,^,$title/," | sort)
}

contents_are_listed() {
  expect "the bill of materials is valid SPDX 2.3 and correct" "$SOURCE/packaging/tests/sbom_check.py" "$made" \
    kovactl:DYNAMIC_LINK:libc6 kovactl:DYNAMIC_LINK:libsystemd0 kovactl:STATIC_LINK:libcli11-dev \
    kovactl:STATIC_LINK:nlohmann-json3-dev
}

# Builds in another clone, at another time, with another time zone, locale and umask.
is_the_same_elsewhere() {
  git clone -q "$repository" "$work/elsewhere"
  git -C "$work/elsewhere" config user.signingkey nobody
  expect "another clone can make it, unsigned on request" sh -c \
    "umask 077; KOVA_RELEASE_KEY= TZ=Asia/Tokyo LC_ALL=C.UTF-8 '$work/elsewhere/packaging/release/release' $version"
  expect "its files are identical" diff -r "$made" "$work/elsewhere/build/dist/$version"
  cp -a "$made" "$work/first"
  git -C "$repository" config user.signingkey nobody
  git -C "$repository" config gpg.format ssh
  expect "it can be made again, with ssh as git's signing format" release "$version"
  expect "the files are unchanged" diff -r "$work/first" "$made"
}

what_is_there_is_not_replaced() {
  git -C "$repository" commit -q --allow-empty --message later
  refuses_replacement "a release of another commit with the same version is refused"
  expect "the first release is unchanged" diff -r "$work/first" "$made"
  git -C "$repository" reset -q --hard HEAD^
  printf x >>"$made/$title.tar.gz"
  refuses_replacement "a damaged file is detected"
  cp "$work/first/$title.tar.gz" "$made"
}

refuses_replacement() { expect_not "$1" release "$version"; }

is_signed() {
  mkdir -m 700 "$GNUPGHOME"
  gpg --batch --quiet --passphrase '' --quick-generate-key release@kova.invalid ed25519 sign never 2>/dev/null
  expect "the release is not signed yet" test -e "$made/SHA256SUMS" -a ! -e "$made/SHA256SUMS.asc"
  expect "it can be made again with a key" env KOVA_RELEASE_KEY=release@kova.invalid \
    "$repository/packaging/release/release" "$version"
  expect "the signature is valid" gpg --batch --verify "$made/SHA256SUMS.asc" "$made/SHA256SUMS"
  expect "the signed file is unchanged" cmp "$made/SHA256SUMS" "$work/first/SHA256SUMS"
  gpgconf --kill gpg-agent
}

make_repository
bad_input_is_refused
is_made
contents_are_listed
is_the_same_elsewhere
what_is_there_is_not_replaced
is_signed
report
