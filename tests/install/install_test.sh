#!/usr/bin/env bash
# The package as a user gets it: the Debian package (native build) or the zip
# (Windows build), made with cpack and unpacked into a scratch folder. Its
# programs run from there; a C program builds against the unpacked files with
# the C driver, through find_package(hostkit) in a C-only CMake project and
# through pkg-config (gcc and clang, with and without link-time optimisation),
# and prints the lines the unpacked hostkit prints.
# Arguments: BUILD SOURCE VERSION [TOOLCHAIN WINE-RUN VERSION-PROBE]
set -u
build=$1 src=$2 version=$3 toolchain=${4:-} run=${5:-} probe=${6:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail=0
bad() { echo "FAIL: $*"; fail=1; }
lf() { tr -d '\r'; }

cpack --config "$build/CPackConfig.cmake" -B "$work/pkg" > "$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log"; echo "FAIL: cpack"; exit 1; }
mkdir "$work/root"
if [ -n "$toolchain" ]; then
  (cd "$work/root" && cmake -E tar xf "$work"/pkg/hostkit-"$version"-win64.zip) || exit 1
  prefix=$work/root/hostkit-$version-win64 exe=.exe nm=x86_64-w64-mingw32-nm
  cc_list=(x86_64-w64-mingw32-gcc)
  export PKG_CONFIG_LIBDIR=$prefix/lib/pkgconfig
  [ "$(grep -c $'\r$' "$prefix/README.txt")" -eq "$(wc -l < "$prefix/README.txt")" ] ||
    bad "README.txt has lines without CR LF"
  # The version resource as Windows reads it.
  { echo "Fixed=${version}.0"
    echo "ProductName=hostkit"
    echo "ProductVersion=$version"
    echo "FileVersion=$version"
    grep -m1 '^Copyright' "$src/LICENSE" | sed 's/^/LegalCopyright=/'
    echo "OriginalFilename=hostkit.exe"; } | sort > "$work/resource.expected"
  $run "$probe" "$prefix/bin/hostkit.exe" | lf > "$work/resource"
  grep -q '^FileDescription=..*' "$work/resource" || bad "no file description in hostkit.exe"
  grep -v '^FileDescription=' "$work/resource" | sort | diff "$work/resource.expected" - ||
    bad "version resource of hostkit.exe"
else
  deb=$work/pkg/hostkit_${version}_amd64.deb
  lintian --fail-on error "$deb" > "$work/lintian.log" 2>&1 || bad "lintian: $(cat "$work/lintian.log")"
  dpkg -x "$deb" "$work/root" || exit 1
  prefix=$work/root/usr exe="" nm=nm cc_list=(gcc clang)
  export PKG_CONFIG_PATH=$prefix/lib/pkgconfig
  for page in hostkit cpuinfo-replay cpuinfo-dump; do
    out=$(mandoc -T lint -W warning "$prefix/share/man/man1/$page.1.gz" 2>&1) || bad "$page(1): ${out:-missing}"
  done
fi

# The unpacked programs.
$run "$prefix/bin/hostkit$exe" | lf > "$work/report"
grep -qx "HOSTkit information" "$work/report" || bad "the unpacked hostkit printed no report"
for tool in cpuinfo-replay cpuinfo-dump; do
  got=$($run "$prefix/bin/$tool$exe" --version | lf)
  [ "$got" = "$tool (hostkit) $version" ] || bad "$tool --version: '$got'"
done

# The libraries need nothing of the C++ runtime.
for lib in "$prefix"/lib/lib*.a; do
  [ "${lib##*/}" = libzstd.a ] || $nm -A -u "$lib"
done | grep -E ' (_Z(n[wa]|d[la]|N?K?St|T[ISV]N?(St|10__cxxabiv1))|__cxa_|__gxx_personality|_Unwind)' \
  > "$work/cxx" && bad "the libraries need the C++ runtime:"$'\n'"$(cat "$work/cxx")"

# The C consumer: its lines must be the report's.
consumer() {  # consumer NAME EXE
  $run "$2" | lf > "$work/$1.out"
  if ! grep -qx "consumer: ok" "$work/$1.out" ||
     grep -vx "consumer: ok" "$work/$1.out" | grep -Fvxq -f "$work/report"; then
    bad "consumer ($1) printed:"$'\n'"$(cat "$work/$1.out")"
  fi
}
args=(-S "$src/tests/install/consumer" -B "$work/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release
      -DCMAKE_PREFIX_PATH="$prefix" -Dhostkit_DIR="$prefix/lib/cmake/hostkit")
[ -n "$toolchain" ] && args+=(-DCMAKE_TOOLCHAIN_FILE="$toolchain")
if cmake "${args[@]}" > "$work/cmake.log" 2>&1 && cmake --build "$work/cmake" >> "$work/cmake.log" 2>&1; then
  consumer cmake "$work/cmake/consumer$exe"
else
  bad "the C-only CMake project:"$'\n'"$(grep -o "undefined reference to .*\|[Ee]rror.*" "$work/cmake.log" | sort -u | head -n 8)"
fi
for cc in "${cc_list[@]}"; do
  for lto in -fno-lto -flto; do
    # shellcheck disable=SC2046
    if $cc -std=c11 -Wall -Wextra -Wpedantic -Werror -O2 $lto "$src/tests/install/consumer/main.c" \
         -o "$work/$cc$lto$exe" $(pkg-config --cflags --libs hostkit) > "$work/cc.log" 2>&1; then
      consumer "$cc $lto" "$work/$cc$lto$exe"
    else
      bad "$cc $lto with pkg-config:"$'\n'"$(grep -o "undefined reference to .*\|[Ee]rror.*" "$work/cc.log" | sort -u | head -n 8)"
    fi
  done
done

[ $fail -eq 0 ] && echo "package: ok"
exit $fail
