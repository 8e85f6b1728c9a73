#!/usr/bin/env bash
# The code in README.md compiles with the project's warnings: the walk of "Using it" as C99
# and as C++, the walk of "C++" with cmp_ldap.hpp.   readme_check.sh README CC CXX FLAGS...
set -euo pipefail
readme=$1 cc=$2 cxx=$3
shift 3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# block SECTION LANG: the first fenced block of LANG under the heading "## SECTION".
block() {
  awk -v sect="## $1" -v fence="\`\`\`$2" '
    /^## / { here = ($0 == sect) }
    here && !code && $0 == fence { code = 1; next }
    code && $0 == "```" { exit }
    code { print }' "$readme"
}
block "Using it" c >"$work/using.c"
[ -s "$work/using.c" ] || { echo "no C block under 'Using it'"; exit 1; }
"$cc" -std=c99 -pedantic-errors -Wall -Wextra -Werror "$@" -c "$work/using.c" -o "$work/c.o"
"$cxx" -x c++ -std=c++17 -Wall -Wextra -Werror "$@" -c "$work/using.c" -o "$work/cxx.o"
{
  printf '#include <string_view>\n\n#include "cmp_ldap.hpp"\n\n'
  printf 'void use(std::string_view);\nvoid follow(std::string_view);\n'
  printf 'cmp_ldap::status walk();\ncmp_ldap::status walk()\n{\n    CMP_LDAP_FILTER uid{};\n'
  block "C++" cpp
  printf '}\n'
} >"$work/walk.cpp"
"$cxx" -std=c++17 -fno-exceptions -fno-rtti -Wall -Wextra -Werror "$@" -c "$work/walk.cpp" \
  -o "$work/walk.o"
echo "README code compiles"
