#!/usr/bin/env bash
# Fails when a shared library in LIBDIR exports a dynamic symbol outside the
# rule: inside namespace qlt, starting with one of our prefixes, or listed in
# ALLOWLIST (cmake/exported_names.txt). Every lib*.so* file in LIBDIR is
# checked, so a new library joins the check by being built there.
# Usage: check_symbols.sh LIBDIR ALLOWLIST
set -euo pipefail
libdir=$1
allowlist=$2
prefixes='(qlt::|QLCT_|QLT_|Qlt|Kx|qlt)'
special='(typeinfo for |typeinfo name for |vtable for |VTT for |virtual thunk to |non-virtual thunk to )'

mapfile -t names < <(grep -v '^[[:space:]]*#' "$allowlist" | sed 's/[[:space:]]*$//' | grep -v '^$')

allowed() {
  local s=$1 n
  [[ $s =~ ^$special ]] && s=${s#"${BASH_REMATCH[1]}"}
  [[ $s =~ ^$prefixes ]] && return 0
  for n in "${names[@]}"; do
    [[ $s == "$n" || $s == "$n::"* ]] && return 0
  done
  return 1
}

mapfile -t libs < <(find "$libdir" -maxdepth 1 -type f -name 'lib*.so*' | sort)
if ((${#libs[@]} == 0)); then
  echo "no shared libraries in $libdir" >&2
  exit 1
fi
bad=0
for lib in "${libs[@]}"; do
  count=0
  while IFS= read -r sym; do
    count=$((count + 1))
    if ! allowed "$sym"; then
      echo "$(basename "$lib"): $sym"
      bad=$((bad + 1))
    fi
  done < <(nm -D --defined-only "$lib" | awk 'NF >= 3 { print $3 }' | c++filt)
  echo "checked $(basename "$lib"): $count symbols"
done
if ((bad > 0)); then
  echo "$bad exported names break the rule (prefix them, hide them, or list them in $allowlist)" >&2
  exit 1
fi
