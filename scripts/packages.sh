# Debian packages, for the scripts beside this file; sourced, not run.
# shellcheck shell=bash
# shellcheck disable=SC2034  # the lists are for the scripts that source this file

# What building the tool and running the examples takes.
build_packages=(g++ cmake ninja-build libprotobuf-c-dev protobuf-c-compiler libonnx-dev
                nlohmann-json3-dev python3)

# What the companions in Python take.
companion_packages=(python3 python3-numpy python3-pil python3-tqdm python3-jinja2 python3-onnx)

# What running on boards of this machine takes, as the demonstration of quilmrun-boards does.
loopback_packages=(parallel openssh-client openssh-server)

# Checks and sanitizers are those of one version of clang, which Debian 12 and 13 both have.
clang_version=19
# Sanitizers name functions by this program, which they look for without a version only.
export ASAN_SYMBOLIZER_PATH=/usr/bin/llvm-symbolizer-$clang_version

# What building and running the tests takes on top.
test_packages=(libgtest-dev libbenchmark-dev python3-onnx python3-numpy libonnx-testdata locales
               binutils chromium "clang-format-$clang_version" "clang-tidy-$clang_version"
               "clang-$clang_version" "libclang-rt-$clang_version-dev" "llvm-$clang_version"
               mypy pylint shellcheck busybox "${loopback_packages[@]}")

# What building for a board and making packages takes on top.
board_packages=(g++-aarch64-linux-gnu libprotobuf-c-dev:arm64 dpkg-dev file)

# What running the board's executable here, and its tests, takes on top.
emulation_packages=(qemu-user libstdc++6:arm64 libgtest-dev:arm64 mandoc)

# Installs those of the named packages that are missing; needs root or sudo only then.
# Names may end in an architecture, as in libstdc++6:arm64.
install_missing() {
  local package architecture missing=()
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "Installing: ${missing[*]}"
  local as_root=()
  [ "$(id -u)" = 0 ] || as_root=(sudo)
  "${as_root[@]}" true 2> /dev/null || { echo "Run this as root, or with sudo installed, once." >&2; return 1; }
  for architecture in $(printf '%s\n' "${missing[@]}" | sed -n 's/.*://p' | sort -u); do
    dpkg --print-foreign-architectures | grep -qx "$architecture" ||
      "${as_root[@]}" dpkg --add-architecture "$architecture"
  done
  local said status=0
  said=$(mktemp)
  { "${as_root[@]}" apt-get -q update && "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -q install -y --no-install-recommends "${missing[@]}"; } > "$said" 2>&1 || status=$?
  [ "$status" = 0 ] || tail -n 20 "$said" >&2
  rm -f "$said"
  return "$status"
}
