# shellcheck shell=bash
# Fetching of npm packages, pinned by version and checksum; sourced in the root of the sources, not
# run. No script of a package runs, and nothing that has another checksum is unpacked.

# has_sum FILE SUM
has_sum() {
  echo "$2  $1" | sha256sum --check --status
}

# npm_reason LOG: what npm says about its failure, without its numbers and what is about its own files.
npm_reason() {
  sed -nE 's/^npm (ERR!|error) //p' "$1" | awk '
    !reason && !/^(code|errno|syscall|path|dest) |^A complete log|^ *$|^  / { reason = $0 }
    END { print reason ? reason : "it gives no reason" }'
}

# fetch_npm FOLDER PACKAGE VERSION ARCHIVE_SUM MEMBER...: puts members of the package's archive into
# FOLDER, each by its base name, a folder whole; fails after one line when it cannot.
fetch_npm() {
  local folder=$1 package=$2 version=$3 sum=$4
  shift 4
  mkdir -p "$folder"
  # A process of its own tidies up, whatever ends it.
  (
    fresh=$(mktemp -d "$folder/fetch.XXXXXX") || exit 1
    trap 'rm -rf "$fresh"' EXIT
    refuse() { echo "${0##*/}: $*" >&2; exit 1; }
    npm pack --loglevel=error --fetch-retry-mintimeout=1000 --fetch-retry-maxtimeout=5000 \
      --cache "$fresh/cache" --pack-destination "$fresh" "$package@$version" > "$fresh/log" 2>&1 ||
      refuse "npm could not fetch $package@$version: $(npm_reason "$fresh/log")"
    archive=$(echo "$fresh"/*.tgz)
    has_sum "$archive" "$sum" ||
      refuse "what npm fetched as $package@$version has a wrong checksum, so it is not used"
    tar -xzf "$archive" -C "$fresh" "$@" || exit 1
    for member; do mv -T "$fresh/$member" "$folder/${member##*/}" || exit 1; done
  )
}
