# Debian packages, for the scripts beside this file; sourced, not run.

# What building the tool and running the examples takes.
build_packages=(g++ cmake ninja-build libprotobuf-c-dev protobuf-c-compiler libopencv-dnn-dev
                libonnx-dev nlohmann-json3-dev python3)

# What building and running the tests takes on top.
test_packages=(libgtest-dev libbenchmark-dev python3-onnx python3-numpy libonnx-testdata locales
               binutils clang-format clang-tidy clang libclang-rt-14-dev llvm)

# Installs those of the named packages that are missing; needs root or sudo only then.
install_missing() {
  local package missing=()
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  echo "Installing: ${missing[*]}"
  local as_root=()
  [ "$(id -u)" = 0 ] || as_root=(sudo)
  "${as_root[@]}" apt-get -q update
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -qq install -y --no-install-recommends "${missing[@]}"
}
