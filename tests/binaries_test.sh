#!/bin/sh
# binaries_test.sh PROGRAM...: the hardening that cmake/hardening.cmake asks for is in the programs.
status=0
for program in "$@"; do
    facts=$(readelf --wide --file-header --program-headers --dynamic --dyn-syms "$program")
    for fact in 'Type: +DYN' 'GNU_RELRO' 'FLAGS.* NOW' 'GNU_STACK .* RW ' '__stack_chk_fail' \
        '__[a-z]+_chk@GLIBC|libc\.musl'; do
        echo "$facts" | grep -Eq "$fact" || { echo "$program: no $fact" && status=1; }
    done
    # The start files of the C library may lack the mark that says so for the whole program.
    landings=$(LC_ALL=C grep -aoP '\xf3\x0f\x1e\xfa' "$program" | wc -l)
    if echo "$facts" | grep -q 'Machine:.*X86-64' && [ "$landings" -lt 100 ]; then
        echo "$program: $landings places where an indirect call may land" && status=1
    fi
done
exit $status
