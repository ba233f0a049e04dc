#!/usr/bin/env bash
# What Doxygen reads of a header: the header, its contents members of the group of its folder (docs/groups.dox).
case "$1" in
  *.h) ;;
  *) exec cat "$1" ;;
esac
group=${1#"$PWD"/}
group=${group#src/}
case "$group" in
  pipeline/*/*) group=${group#pipeline/}; group=pipeline_${group%%/*} ;;
  *) group=${group%%/*} ;;
esac
begin="/** \\\\addtogroup $group\n@{ */"
end="/** @} */"
if grep -q '^namespace vrk {$' "$1"; then
  sed -e "s|^namespace vrk {\$|&\n$begin|" -e "s|^}  // namespace vrk\$|$end\n&|" "$1"
else
  sed "s|^#pragma once\$|$begin|" "$1"
  echo "$end"
fi
