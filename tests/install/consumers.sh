# Shared by install_test.sh and deb_test.sh (sourced): build the consumer of tests/install out
# of tree against an installed hadra, with CMake and with pkg-config, in C and in C++, and
# run each. Needs: here (this folder), work (scratch directory), san (sanitizers or empty).

# Build with CMake against the package under <prefix>; run both programs.
#   consumers_cmake <prefix> <library dir for the loader>
consumers_cmake() {
  local prefix="$1" libdir="$2" out="$work/cmake-consumer"
  local flags=()
  if [ -n "$san" ]; then
    flags=(-DCMAKE_C_FLAGS="-fsanitize=$san" -DCMAKE_CXX_FLAGS="-fsanitize=$san"
           -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=$san")
  fi
  cmake -S "$here" -B "$out" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF \
    -DCMAKE_FIND_PACKAGE_NO_SYSTEM_PACKAGE_REGISTRY=ON "${flags[@]}" >"$work/cmake-configure.log" 2>&1 ||
    { cat "$work/cmake-configure.log"; echo "FAIL: CMake consumer does not configure against $prefix"; return 1; }
  cmake --build "$out" >"$work/cmake-build.log" 2>&1 ||
    { cat "$work/cmake-build.log"; echo "FAIL: CMake consumer does not build against $prefix"; return 1; }
  run_consumer "cmake, C" "$libdir" "$out/consumer_c"
  run_consumer "cmake, C++" "$libdir" "$out/consumer_cxx"
}

# Build with pkg-config (hadra.pc) against the files under <pkg-config dir>; run both.
#   consumers_pkgconfig <pkg-config dir> <sysroot or empty> <library dir for the loader>
consumers_pkgconfig() {
  local pcdir="$1" sysroot="$2" libdir="$3" out="$work/pc-consumer"
  local sanflag=()
  [ -n "$san" ] && sanflag=(-fsanitize="$san")
  mkdir -p "$out"
  local cflags libs
  cflags=$(PKG_CONFIG_LIBDIR="$pcdir" PKG_CONFIG_SYSROOT_DIR="$sysroot" pkg-config --cflags hadra)
  libs=$(PKG_CONFIG_LIBDIR="$pcdir" PKG_CONFIG_SYSROOT_DIR="$sysroot" pkg-config --libs hadra)
  case " $libs " in
    *" -lhadra_sysmgr "*"-lhadra_platform "*) ;;
    *) echo "FAIL: pkg-config --libs hadra gives '$libs' (wants -lhadra_sysmgr before -lhadra_platform)"; return 1 ;;
  esac
  # shellcheck disable=SC2086  # flags from pkg-config are words
  cc -std=c11 -Wall -Wextra -Werror -pedantic "${sanflag[@]}" $cflags "$here/consumer.c" $libs -o "$out/consumer_c" ||
    { echo "FAIL: C consumer does not build with pkg-config ($cflags $libs)"; return 1; }
  # shellcheck disable=SC2086
  c++ -std=c++20 -Wall -Wextra -Werror -pedantic "${sanflag[@]}" $cflags "$here/consumer.cc" $libs -o "$out/consumer_cxx" ||
    { echo "FAIL: C++ consumer does not build with pkg-config ($cflags $libs)"; return 1; }
  run_consumer "pkg-config, C" "$libdir" "$out/consumer_c"
  run_consumer "pkg-config, C++" "$libdir" "$out/consumer_cxx"
}

# run_consumer <label> <library dir> <program>: run with a scratch platform root.
run_consumer() {
  local label="$1" libdir="$2" prog="$3" root out
  root=$(mktemp -d "$work/root-XXXXXX")
  if ! out=$(LD_LIBRARY_PATH="$libdir" HADRA_ROOT="$root" HADRA_LOG=stderr timeout 60 "$prog" 2>&1); then
    echo "$out"
    echo "FAIL: consumer ($label) did not run: $prog"
    return 1
  fi
  echo "ok: consumer ($label): $(echo "$out" | tail -n 1)"
}
