#!/usr/bin/env bash
# Checks the card build (`make card`): what it produced is fit for the card and
# holds nothing of the emulated card.
#
#   tools/check-card-build.sh [BUILD_DIR]        (default build-aarch64)
#   tools/check-card-build.sh --self-test [BUILD_DIR]
#
# For lib/liborvdaemon.so, bin/orvdaemon and lib/liborv_message_proto.so:
#  - each is an AArch64 ELF;
#  - none names an emulated library (liborv_emu_*) among the libraries it needs,
#    nor holds any trace of the emulated card anywhere (library names, symbols
#    of orv::emu, paths of emu/ sources);
#  - each needs only the toolchain's system libraries (libc, libstdc++,
#    libgcc_s, libm, libpthread, libdl, the loader), protobuf, the build's own
#    libraries and, for a build against a card sysroot, the platform libraries;
#  - every undefined dynamic symbol is defined by those system libraries or by
#    protobuf (libprotobuf and the generated liborv_message_proto.so), or, in
#    liborvdaemon.so only, is a function declared in sdk/include/: the platform
#    seam the card's loader binds. With a card sysroot, each seam call must be
#    defined by one of its platform libraries too (weak references excepted).
# It also checks that the protoc that generated the message code and the
# AArch64 protobuf library are the same release.
#
# --self-test makes broken copies of the build (a daemon source left out of the
# library, an emulated library linked in, emulated code linked in statically, a
# host-architecture library) and fails unless the check rejects each of them.
set -euo pipefail

src=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
triple=aarch64-linux-gnu
readelf=$triple-readelf
nm=$triple-nm
cxxfilt=$triple-c++filt
cxx=$triple-g++

self_test=0
if [[ ${1:-} == --self-test ]]; then
    self_test=1
    shift
fi
build=${1:-build-aarch64}

for tool in "$readelf" "$nm" "$cxxfilt" "$cxx"; do
    if ! command -v "$tool" >/dev/null; then
        echo "check-card-build: $tool is missing (tools/install-deps.sh cross installs it)" >&2
        exit 2
    fi
done

# ---- The check --------------------------------------------------------------

# Scratch space of the whole run, subshells' included.
scratch_root=$(mktemp -d)
trap 'rm -rf "$scratch_root"' EXIT

failures=0
fail() {
    echo "check-card-build: FAIL: $*" >&2
    failures=$((failures + 1))
}

# The value of a CMake cache entry of the build, empty when unset.
cache_value() {
    sed -n "s|^$1:[A-Z]*=||p" "$2/CMakeCache.txt" 2>/dev/null | head -n 1
}

# Dynamic symbols a file defines, one "name@version" (or "name") a line.
defined_symbols() {
    "$nm" -D --defined-only "$1" | awk '$2 != "A" { sub(/@@/, "@", $3); print $3 }'
}

# Undefined dynamic symbols of a file: "U|w<TAB>name[@version]<TAB>demangled name".
undefined_symbols() {
    local raw
    raw=$("$nm" -D --undefined-only "$1" | awk '{ print ($1 == "U" ? "U" : "w") "\t" $2 }')
    [[ -n $raw ]] || return 0
    paste <(printf '%s\n' "$raw") <(printf '%s\n' "$raw" | cut -f2 | sed 's/@.*//' | "$cxxfilt")
}

# The functions sdk/include/ declares, by qualified name without parameters:
# C functions (drvGetDevNum) and members of the C++ classes
# (orv::HdcServer::GetInstance, orv::VersionVerify::~VersionVerify).
seam_functions() {
    awk '
        /^[ \t]*\/\// || /^[ \t]*#/ { next }
        /^namespace [A-Za-z_][A-Za-z0-9_:]* *\{/ { ns = $2 "::"; next }
        /^} *\/\/ *namespace/ { ns = ""; next }
        /^(class|struct) [A-Za-z_][A-Za-z0-9_]*[^;]*\{/ {
            if (ns != "") { cls = $2; sub(/[^A-Za-z0-9_].*/, "", cls); cls = cls "::" }
            next
        }
        /^};/ { cls = ""; next }
        /^typedef/ { next }
        (cls != "" && /^[ \t]/) || (cls == "" && /^[A-Za-z_]/) {
            if (match($0, /~?[A-Za-z_][A-Za-z0-9_]*[ \t]*\(/)) {
                name = substr($0, RSTART, RLENGTH)
                sub(/[ \t]*\($/, "", name)
                if (name != "__attribute__") print ns cls name
            }
        }
    ' "$src"/sdk/include/*.h | sort -u
}

# The key a demangled C++ name has in the seam list: no parameters, no ABI tag.
seam_key() {
    sed -e 's/\[abi:[a-z0-9]*\]//g' -e 's/(.*//'
}

toolchain_lib() {
    local path
    path=$("$cxx" -print-file-name="$1")
    [[ $path == /* && -e $path ]] || { echo "check-card-build: the toolchain has no $1" >&2; exit 2; }
    readlink -f "$path"
}

check_build() {
    local build=$1 lib=$1/lib/liborvdaemon.so exe=$1/bin/orvdaemon proto=$1/lib/liborv_message_proto.so
    local work file
    failures=0
    work=$(mktemp -d -p "$scratch_root")

    for file in "$lib" "$exe" "$proto"; do
        [[ -f $file ]] || { fail "$file is missing; build with 'make card' first"; return 1; }
    done

    # What may be needed and where undefined symbols may come from.
    local system_sonames="libc.so.6 libm.so.6 libstdc++.so.6 libgcc_s.so.1 libpthread.so.0 libdl.so.2
        ld-linux-aarch64.so.1"
    local soname protobuf_lib
    : >"$work/system.syms"
    for soname in $system_sonames; do
        defined_symbols "$(toolchain_lib "$soname")" >>"$work/system.syms"
    done
    protobuf_lib=$(cache_value Protobuf_LIBRARY_RELEASE "$build")
    [[ -n $protobuf_lib ]] || protobuf_lib=$(cache_value Protobuf_LIBRARY "$build")
    [[ -n $protobuf_lib ]] || { fail "$build/CMakeCache.txt names no protobuf library"; return 1; }
    protobuf_lib=$(readlink -f "$protobuf_lib")
    local protobuf_soname
    protobuf_soname=$("$readelf" -d "$protobuf_lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
    { defined_symbols "$protobuf_lib"; defined_symbols "$proto"; } >"$work/protobuf.syms"
    defined_symbols "$lib" >"$work/daemon.syms"
    seam_functions >"$work/seam.txt"
    [[ -s $work/seam.txt ]] || { fail "found no functions in $src/sdk/include"; return 1; }

    local sysroot platform_sonames="" platform_lib name
    sysroot=$(cache_value ORV_PLATFORM_SYSROOT "$build")
    : >"$work/platform.syms"
    if [[ -n $sysroot ]]; then
        for name in $(cache_value ORV_PLATFORM_LIBRARY_NAMES "$build" | tr ';' ' '); do
            platform_lib=$(readlink -f "$(cache_value "ORV_PLATFORM_LIB_$name" "$build")")
            soname=$("$readelf" -d "$platform_lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
            platform_sonames+=" ${soname:-$(basename "$platform_lib")}"
            defined_symbols "$platform_lib" >>"$work/platform.syms"
        done
    fi

    local platform_text="left to the card's loader"
    [[ -z $sysroot ]] || platform_text="the libraries of $sysroot"
    echo "check-card-build: $build (sdk seam: $(wc -l <"$work/seam.txt") functions; platform: $platform_text)"
    for file in "$lib" "$exe" "$proto"; do
        local what=${file#"$build"/}

        # AArch64 ELF.
        local header class machine
        header=$("$readelf" -h "$file" 2>/dev/null || true)
        class=$(awk -F: '/^ *Class:/ { gsub(/ /, "", $2); print $2 }' <<<"$header")
        machine=$(awk -F: '/^ *Machine:/ { sub(/^ */, "", $2); print $2 }' <<<"$header")
        if [[ $class != ELF64 || $machine != AArch64 ]]; then
            fail "$what is not an AArch64 ELF (class '${class:-none}', machine '${machine:-none}')"
            continue
        fi

        # No trace of the emulated card.
        local needed trace
        needed=$("$readelf" -d "$file" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
        if grep -q '^liborv_emu_' <<<"$needed"; then
            fail "$what needs emulated libraries: $(grep '^liborv_emu_' <<<"$needed" | paste -sd ' ')"
        fi
        for trace in liborv_emu_ 3orv3emu "$src/emu/"; do
            if grep -aqF -- "$trace" "$file"; then
                fail "$what holds '$trace' (a trace of the emulated card)"
            fi
        done

        # Only the expected libraries.
        local allowed=" $system_sonames $protobuf_soname liborv_message_proto.so liborvdaemon.so $platform_sonames "
        allowed=$(tr -s ' \n' ' ' <<<"$allowed")
        for soname in $needed; do
            [[ $soname == liborv_emu_* ]] && continue
            [[ $allowed == *" $soname "* ]] || fail "$what needs $soname, which is none of the card's expected libraries"
        done

        # Every undefined symbol accounted for.
        local providers="system protobuf"
        [[ $file == "$exe" ]] && providers="system protobuf daemon"
        local seam_ok=0
        [[ $file == "$lib" ]] && seam_ok=1
        undefined_symbols "$file" >"$work/undefined.txt"
        paste "$work/undefined.txt" <(cut -f3 "$work/undefined.txt" | seam_key) >"$work/undefined-keyed.txt"
        local report
        report=$(awk -F'\t' -v providers="$providers" -v seam_ok="$seam_ok" -v sysroot="$sysroot" \
                     -v what="$what" -v work="$work" '
            function load(category, path,   line, base) {
                while ((getline line < path) > 0) {
                    defined[category, line] = 1
                    base = line; sub(/@.*/, "", base)
                    defined[category, base] = 1
                }
                close(path)
            }
            # An unversioned reference binds to any version; a versioned one to that version.
            function provided(category, sym) { return (category, sym) in defined }
            BEGIN {
                n = split(providers, list, " ")
                for (i = 1; i <= n; i++) load(list[i], work "/" list[i] ".syms")
                load("platform", work "/platform.syms")
                while ((getline line < (work "/seam.txt")) > 0) seam[line] = 1
                # Weak references the toolchain'"'"'s start files make in every shared object.
                crt["__gmon_start__"] = crt["_ITM_registerTMCloneTable"] = crt["_ITM_deregisterTMCloneTable"] = 1
            }
            {
                kind = $1; sym = $2; demangled = $3; key = $4
                found = ""
                for (i = 1; i <= n && found == ""; i++) if (provided(list[i], sym)) found = list[i]
                if (found != "") { count[found]++; next }
                if (seam_ok && (key in seam)) {
                    count["seam"]++
                    if (sysroot != "" && kind == "U" && !provided("platform", sym))
                        printf "FAIL\t%s: platform call %s is in no platform library of %s\n", what, demangled, sysroot
                    next
                }
                if (kind == "w" && (sym in crt)) { count["start files"]++; next }
                printf "FAIL\t%s: undefined symbol %s (%s) is provided by no system library nor protobuf%s\n",
                    what, demangled, sym, seam_ok ? ", and sdk/include declares no such function" : ""
            }
            END {
                line = ""
                for (c in count) line = line sprintf(" %s %d,", c, count[c])
                sub(/,$/, "", line)
                printf "SUMMARY\t%s: %d undefined symbols:%s\n", what, NR, line
            }
        ' "$work/undefined-keyed.txt")
        while IFS=$'\t' read -r tag message; do
            if [[ $tag == FAIL ]]; then fail "$message"; else echo "  $message"; fi
        done <<<"$report"
    done

    # Needed glibc release, for comparing with the card's.
    local glibc
    glibc=$("$nm" -D --undefined-only "$lib" "$exe" "$proto" | sed -n 's/.*@GLIBC_\([0-9.]*\).*/\1/p' | sort -V | tail -n 1)
    [[ -z $glibc ]] || echo "  the outputs need glibc $glibc or later on the card"

    # protoc and the AArch64 protobuf library: one release.
    local generated_by library_release package
    generated_by=$(sed -n 's/^#if \([0-9]*\) < PROTOBUF_MIN_PROTOC_VERSION/\1/p' "$build/orv_message.pb.h" | head -n 1)
    if [[ -n $generated_by ]]; then
        generated_by=$((generated_by / 1000000)).$((generated_by / 1000 % 1000)).$((generated_by % 1000))
    fi
    package=$(dpkg-query -S "$protobuf_lib" 2>/dev/null | head -n 1 | cut -d: -f1,2 || true)
    if [[ -n $package ]]; then
        library_release=$(dpkg-query -W -f='${Version}' "$package" | sed -e 's/^[0-9]*://' -e 's/-[^-]*$//')
    fi
    if [[ -z $generated_by || -z $library_release ]]; then
        echo "  protobuf: could not tell the releases apart (protoc ${generated_by:-?}, library ${library_release:-?})"
    elif [[ $generated_by != "$library_release" ]]; then
        fail "the message code was generated by protoc $generated_by but links protobuf $library_release ($package)"
    else
        echo "  protobuf: protoc $generated_by generated the message code, $package $library_release links it"
    fi

    if ((failures > 0)); then
        echo "check-card-build: $build FAILED ($failures problems)" >&2
        return 1
    fi
    echo "check-card-build: $build is fit for the card"
}

# ---- Self-test -----------------------------------------------------------------

# Copies the build's outputs to a scratch build directory whose liborvdaemon.so
# the caller then replaces.
scratch_build() {
    local from=$1 to=$2
    mkdir -p "$to/lib" "$to/bin"
    cp "$from/CMakeCache.txt" "$from/orv_message.pb.h" "$to/"
    cp "$from/lib/liborvdaemon.so" "$from/lib/liborv_message_proto.so" "$to/lib/"
    cp "$from/bin/orvdaemon" "$to/bin/"
}

# Links liborvdaemon.so again from the build's objects, with extra arguments.
relink_daemon() {
    local from=$1 to=$2
    shift 2
    local objects
    objects=$(find "$from/CMakeFiles/orvdaemon_lib.dir" -name '*.o' | sort)
    # shellcheck disable=SC2086
    "$cxx" -shared -Wl,-soname,liborvdaemon.so -o "$to/lib/liborvdaemon.so" "$@" \
        -L"$from/lib" -lorv_message_proto -lprotobuf -pthread
}

# Runs the check on a broken build; it must fail and say `expected`.
expect_rejected() {
    local name=$1 dir=$2 expected=$3 output
    if output=$(check_build "$dir" 2>&1); then
        echo "check-card-build: SELF-TEST FAILED: the check passed $name" >&2
        return 1
    fi
    if ! grep -qF -- "$expected" <<<"$output"; then
        echo "check-card-build: SELF-TEST FAILED: the check rejected $name without saying '$expected':" >&2
        echo "$output" >&2
        return 1
    fi
    echo "  rejected $name: $(grep -F -- "$expected" <<<"$output" | head -n 1 | sed 's/^check-card-build: //')"
}

self_test() {
    local build=$1 scratch objects status=0
    scratch=$(mktemp -d -p "$scratch_root")
    check_build "$build" >/dev/null || { echo "check-card-build: the build itself fails the check" >&2; return 1; }
    objects=$(find "$build/CMakeFiles/orvdaemon_lib.dir" -name '*.o' | sort)
    echo "check-card-build: self-test on copies of $build"

    # A daemon source left out: its functions stay undefined in the library.
    scratch_build "$build" "$scratch/missing"
    # shellcheck disable=SC2086
    relink_daemon "$build" "$scratch/missing" $(grep -v '/package/package_worker.cc.o$' <<<"$objects")
    expect_rejected "a library without package_worker.cc" "$scratch/missing" \
        "is provided by no system library nor protobuf, and sdk/include declares no such function" || status=1

    # An emulated library linked in.
    scratch_build "$build" "$scratch/emulated"
    echo 'int orv_emu_marker(void) { return 0; }' >"$scratch/emu.c"
    $triple-gcc -shared -fPIC -Wl,-soname,liborv_emu_slog.so -o "$scratch/liborv_emu_slog.so" "$scratch/emu.c"
    # shellcheck disable=SC2086
    relink_daemon "$build" "$scratch/emulated" $objects -Wl,--no-as-needed "$scratch/liborv_emu_slog.so"
    expect_rejected "a library linked with liborv_emu_slog.so" "$scratch/emulated" \
        "needs emulated libraries: liborv_emu_slog.so" || status=1

    # Emulated code linked in statically (as from liborv_emu_common.a): no
    # library is needed for it, but its symbols are there.
    scratch_build "$build" "$scratch/static"
    echo 'namespace orv::emu { int Marker() { return 0; } }' >"$scratch/emu.cc"
    "$cxx" -c -fPIC -o "$scratch/emu.o" "$scratch/emu.cc"
    # shellcheck disable=SC2086
    relink_daemon "$build" "$scratch/static" $objects "$scratch/emu.o"
    expect_rejected "a library with emulated code linked in" "$scratch/static" "holds '3orv3emu'" || status=1

    # A library built for the host.
    scratch_build "$build" "$scratch/host"
    g++ -shared -fPIC -o "$scratch/host/lib/liborvdaemon.so" -x c++ /dev/null
    expect_rejected "a host-architecture library" "$scratch/host" "lib/liborvdaemon.so is not an AArch64 ELF" ||
        status=1

    ((status == 0)) && echo "check-card-build: self-test passed"
    return $status
}

if ((self_test)); then
    self_test "$build"
else
    check_build "$build"
fi
