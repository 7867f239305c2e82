#!/bin/bash
# The installed tree, used as a stranger would. Usage: consumer_test.sh SOURCE-DIRECTORY WORK-DIRECTORY CASE [ARGUMENT]...
set -euo pipefail
source=$1 work=$2 case=$3
shift 3
prefix=$work/moved/prefix
standards="17 20 23"
unset CXXFLAGS LDFLAGS DESTDIR

# Somewhere else than it was configured for, and then moved: nothing in it may know where it is.
case_installs() { # CMAKE BUILD-DIRECTORY
    rm -rf "$work/installed" "$work/moved"
    "$1" --install "$2" --prefix "$work/installed/prefix" >/dev/null
    mv "$work/installed" "$work/moved"
    ! grep -rIl -e "$work/installed" -e "$source" "$prefix"
}

case_internal_headers() {
    local found
    found=$(cd "$prefix/include" && find . -name internal.h -o -path './zt/ztpipe/*' -o -name failure.h -o \
        -name errno_guard.h -o -name transition_lock.h)
    [ -z "$found" ] || { echo "$found"; return 1; }
    [ "$(cd "$prefix/include" && ls)" = zt ]
}

# Each alone, and nothing that is not installed beside it.
case_headers() { # COMPILER
    local header
    for header in "$prefix"/include/zt/*.h "$prefix"/include/zt/runtime/*.h; do
        echo "#include \"$header\"" | "$1" -std=c++17 -pedantic-errors -Wall -Wextra -Werror -fsyntax-only \
            -I"$prefix/include" -x c++ -
    done
}

case_program() {
    [ "$(printf '6*7\n' | "$prefix/bin/ztpipe" bc)" = 42 ]
    "$prefix/bin/ztpipe" --version | grep -F "$(header_version)" >/dev/null
}

header_version() {
    sed -n 's/.*ZT_PIPE_VERSION = \([0-9]\)\([0-9][0-9]\)\([0-9][0-9]\);.*/\1 \2 \3/p' "$prefix/include/zt/ztpipe.h" |
        awk '{ printf "%d.%d.%d", $1, $2, $3 }'
}

# The built consumer must work and must use the library as it was asked to.
check() { # PROGRAM static|shared
    local needed
    [ "$(LD_LIBRARY_PATH=$(libdir) "$1" pear apple fig)" = $'apple\nfig\npear' ]
    needed=$(readelf -d "$1" | sed -n 's/.*NEEDED.*\[\(libzt.*\)\]/\1/p')
    if [ "$2" = shared ]; then [ "$needed" = libzt.so.1 ]; else [ -z "$needed" ]; fi
}

libdir() { dirname "$(find "$prefix" -name libzt.a)"; }

with_cmake() { # NAME COMPILER static|shared CMAKE-ARGUMENT...
    local name=$1 compiler=$2 kind=$3 standard
    shift 3
    local build=$work/$name-$compiler
    for standard in $standards; do
        CXX=$compiler cmake -S "$source/examples/consumer" -B "$build" -DCMAKE_CXX_STANDARD="$standard" \
            -DCMAKE_CXX_STANDARD_REQUIRED=ON -DCMAKE_CXX_EXTENSIONS=OFF \
            -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror" "$@" >"$build.log" 2>&1 &&
            cmake --build "$build" --parallel 2 >>"$build.log" 2>&1 || { cat "$build.log"; return 1; }
        check "$build/consumer" "$kind"
    done
}
case_find_package_static() { with_cmake static "$1" static -DCMAKE_PREFIX_PATH="$prefix" -DBUILD_SHARED_LIBS=OFF; }
case_find_package_shared() { with_cmake shared "$1" shared -DCMAKE_PREFIX_PATH="$prefix" -DBUILD_SHARED_LIBS=ON; }
case_add_subdirectory() { with_cmake subdirectory "$1" static -DZT_SOURCE="$source"; }

with_pkg_config() { # COMPILER KIND COMPILER-ARGUMENT...
    local compiler=$1 kind=$2 standard flags
    shift 2
    export PKG_CONFIG_PATH
    PKG_CONFIG_PATH=$(libdir)/pkgconfig
    [ "$(pkg-config --modversion zt)" = "$(header_version)" ]
    flags=$(pkg-config --cflags --libs "$@" zt)
    for standard in $standards; do
        # clang 14 knows the youngest standard by its working title.
        if [ "$standard" = 23 ]; then standard=2b; fi
        # shellcheck disable=SC2086  # a list of flags
        "$compiler" -std=c++$standard -Wall -Wextra -Wpedantic -Werror "$source/examples/consumer/consumer.cpp" \
            -o "$work/pkg-config-$compiler-$kind" ${linking:-} $flags
        check "$work/pkg-config-$compiler-$kind" "$kind"
    done
}
case_pkg_config() { with_pkg_config "$1" shared; }
case_pkg_config_static() { linking=-static with_pkg_config "$1" static --static; }

"case_$case" "$@"
