# shellcheck shell=bash
# What the scripts that build have in common; sourced in the root of the sources, not run.

# Waits until no other script builds here: two builds in one folder break each other. The lock ends
# with the process, however that ends; scripts that this one starts see that it is held.
lock_build() {
  [ -z "${QUILMRUN_BUILD_LOCK:-}" ] || return 0
  local foreign
  mkdir -p build
  foreign=$(find build -maxdepth 1 -type d ! -writable -print -quit)
  if [ -n "$foreign" ]; then
    echo "$foreign belongs to $(stat -c %U "$foreign"); make it yours: sudo chown -R $(id -un) build" >&2
    return 1
  fi
  exec 9< build
  flock --nonblock 9 || { echo "Waiting for another build in $PWD"; flock 9; }
  export QUILMRUN_BUILD_LOCK=held
}

# configure PRESET: makes build/PRESET ready to build, with the packages that are installed by now. A
# library that QUILMRUN_ONNXRUNTIME names replaces the one that an earlier run has named.
configure() {
  cmake --preset "$1" --no-warn-unused-cli \
    ${QUILMRUN_ONNXRUNTIME:+-DQUILMRUN_ONNXRUNTIME="$QUILMRUN_ONNXRUNTIME"} > "build/configured.$1" ||
    { cat "build/configured.$1"; return 1; }
}

# Lets other scripts build again, while this one goes on.
unlock_build() {
  unset QUILMRUN_BUILD_LOCK
  exec 9>&-
}
