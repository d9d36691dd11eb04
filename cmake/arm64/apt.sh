# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared
# Downloads Debian packages for 64-bit ARM and their dependencies, without installing them, from the Debian archives in
# this machine's apt configuration. apt verifies them as usual, but keeps its state in a separate folder: the machine's
# packages and architectures do not change, and no privileges are needed.
#
# The caller sets `apt`, the folder, and `packages`, the names of the packages, and defines the function "die".

readonly ARCHITECTURE=arm64 TRIPLET=aarch64-linux-gnu

# list_archives: prints the configured Debian archives as lines of sources.list(5). Skips other archives, which may lack
# this architecture.
list_archives() {
  # shellcheck disable=SC2016  # placeholders of apt
  apt-get indextargets --format '$(ORIGIN)|$(SITE)|$(RELEASE)|$(COMPONENT)' 'Created-By: Packages' |
    sed -nE 's/^Debian\|([^|]*)\|([^|]*)\|([^|]*)$/deb \1 \2 \3/p' | sort -u
}

# write_apt_configuration: overrides the machine's configuration: a separate folder, the other architecture, no
# installed packages, and no hooks, which would update other package indexes of the machine.
write_apt_configuration() {
  cat >"$apt/apt.conf" <<TEXT
APT::Architecture "$ARCHITECTURE";
#clear APT::Architectures;
APT::Architectures { "$ARCHITECTURE"; };
APT::Install-Recommends "false";
APT::Sandbox::User "$(id -un)";
Dir::State "$apt/state";
Dir::State::status "$apt/status";
Dir::Cache "$apt/cache";
Dir::Etc::SourceList "$apt/sources.list";
Dir::Etc::SourceParts "/dev/null";
Dir::Etc::Preferences "/dev/null";
Dir::Etc::PreferencesParts "/dev/null";
#clear APT::Update::Pre-Invoke;
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
TEXT
}

arm64_apt() { apt-get -qq -c "$apt/apt.conf" "$@"; }

prepare_apt() {
  mkdir -p "$apt"/{state/lists/partial,cache/archives/partial}
  : >"$apt/status"
  list_archives >"$apt/sources.list"
  write_apt_configuration
  [ -s "$apt/sources.list" ] ||
    die "apt has no Debian archive here; add one to /etc/apt/sources.list and run \"apt-get update\""
  arm64_apt -o APT::Update::Error-Mode=any update ||
    die "cannot download the list of packages for $ARCHITECTURE; check the network and whether the mirror has them:
$(sed 's/^/  /' "$apt/sources.list")"
}

# plan: prints the names of the files to unpack; they include the version. Uses an empty cache, since apt omits files
# that are already in the cache.
plan() {
  mkdir -p "$apt/empty/partial"
  arm64_apt -o "Dir::Cache::archives=$apt/empty" --print-uris install "${packages[@]}" | cut -d ' ' -f 2 | sort ||
    die "apt cannot resolve these packages for $ARCHITECTURE: ${packages[*]}"
}

# fetch_packages: prepares apt, downloads, and sets `files` to the plan.
fetch_packages() {
  prepare_apt
  files=$(plan)
  [ -n "$files" ] || die "nothing to unpack for ${packages[*]}"
  echo "$(wc -l <<<"$files") packages for $ARCHITECTURE" >&2
  arm64_apt --yes --download-only install "${packages[@]}" >&2 || die "cannot download the packages"
}

# unpack_packages FOLDER PATTERN...: unpacks `files` into FOLDER, except for paths that match a PATTERN.
unpack_packages() {
  local folder=$1 name
  shift
  # Merged /usr, as in Debian since 12: files in /lib go to /usr/lib.
  mkdir -p "$folder/usr/lib"
  ln -s usr/lib "$folder/lib"
  while read -r name; do
    dpkg-deb --fsys-tarfile "$apt/cache/archives/$name" |
      tar -x -C "$folder" --keep-directory-symlink --no-same-owner "${@/#/--exclude=}"
  done <<<"$files"
}
