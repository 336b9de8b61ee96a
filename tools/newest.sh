#!/bin/sh
# Builds the wheel for the newest Python that can be had here, and runs the tests on it with the
# newest NumPy, as tools/matrix.sh does, whose environment variables hold here too:
#
#   tools/newest.sh [version...]     by default 3.15, and 3.14 where that cannot be had
#
# That the first cannot be had is no failure. A banner says so, and says it again at the very end.
set -eu

cd "$(dirname "$0")/.."
table=build/matrix/table.txt
[ $# -gt 0 ] || set -- 3.15 3.14

# Prints what it is given, a line for each argument, so that nobody overlooks it.
banner() {
    edge=$(printf '%80s' '' | tr ' ' '#')
    printf '\n%s\n##\n' "$edge"
    printf '##   %s\n' "$@"
    printf '##\n%s\n' "$edge"
}

missed() {
    echo "PYTHON $1 COULD NOT BE HAD: NOTHING HAS BEEN TESTED ON IT"
}

newest=$1
had=
why=
status=0
for version; do
    status=0
    MATRIX_NUMPY=newest tools/matrix.sh "$version" || status=$?
    reason=$(grep -E "^$version[. ].*(not run:|COULD NOT BE INSTALLED)" "$table") || {
        had=$version
        break
    }
    [ -n "$why" ] || why=$reason
    banner "$(missed "$version")" "$reason"
    status=0
done

if [ -z "$had" ]; then
    banner "$(missed "$newest")" "$why" "NOR HAS ANYTHING BEEN TESTED ON AN OLDER ONE IN ITS PLACE"
elif [ "$had" != "$newest" ]; then
    banner "$(missed "$newest")" "$why" "PYTHON $had WAS TESTED IN ITS PLACE"
fi
exit "$status"
