# shellcheck shell=bash disable=SC2034,SC2154 # variables are shared
# Fetches Debian's packages for 64-bit ARM and all they depend on, without installing them. They come from the Debian
# archives that apt is configured for on this machine, and are verified as ever; apt works in a folder of its own, so the
# machine's packages and its list of architectures stay as they are, and no privilege is needed.
#
# Who sources this sets `apt`, that folder, and `packages`, their names, and has a function "die".

readonly ARCHITECTURE=arm64 TRIPLET=aarch64-linux-gnu

# list_archives: prints the configured archives of Debian as lines of sources.list(5). Other archives need not have
# this architecture.
list_archives() {
  # shellcheck disable=SC2016  # apt's own placeholders
  apt-get indextargets --format '$(ORIGIN)|$(SITE)|$(RELEASE)|$(COMPONENT)' 'Created-By: Packages' |
    sed -nE 's/^Debian\|([^|]*)\|([^|]*)\|([^|]*)$/deb \1 \2 \3/p' | sort -u
}

# write_apt_configuration: what differs from the machine's own: a folder of its own, that architecture, nothing
# installed, and no hooks, which refresh what else the machine keeps about packages.
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
    die "apt knows no archive of Debian here; see that /etc/apt/sources.list names one, and run \"apt-get update\""
  arm64_apt -o APT::Update::Error-Mode=any update ||
    die "the list of packages for $ARCHITECTURE cannot be had: is there a network, and has the mirror $ARCHITECTURE?
$(sed 's/^/  /' "$apt/sources.list")"
}

# plan: prints the files to unpack, each with its version in its name. With an empty cache, since apt leaves out those
# that it has already.
plan() {
  mkdir -p "$apt/empty/partial"
  arm64_apt -o "Dir::Cache::archives=$apt/empty" --print-uris install "${packages[@]}" | cut -d ' ' -f 2 | sort ||
    die "the packages cannot be had for $ARCHITECTURE: ${packages[*]}"
}

# fetch_packages: prepares apt, downloads, and sets `files` to the plan.
fetch_packages() {
  prepare_apt
  files=$(plan)
  [ -n "$files" ] || die "nothing to unpack for ${packages[*]}"
  echo "$(wc -l <<<"$files") packages for $ARCHITECTURE" >&2
  arm64_apt --yes --download-only install "${packages[@]}" >&2 || die "the packages cannot be downloaded"
}

# unpack_packages FOLDER PATTERN...: unpacks `files` into FOLDER, without what matches a PATTERN.
unpack_packages() {
  local folder=$1 name
  shift
  # As on any Debian since 12: what packages install below /lib stands below /usr/lib.
  mkdir -p "$folder/usr/lib"
  ln -s usr/lib "$folder/lib"
  while read -r name; do
    dpkg-deb --fsys-tarfile "$apt/cache/archives/$name" |
      tar -x -C "$folder" --keep-directory-symlink --no-same-owner "${@/#/--exclude=}"
  done <<<"$files"
}
