#!/usr/bin/env bash
# Fails when a shared library in LIBDIR exports a dynamic symbol outside the
# rule: inside namespace qlt, starting with one of our prefixes, or listed in
# ALLOWLIST (cmake/exported_names.txt). Every lib*.so* file in LIBDIR is
# checked, so a new library joins the check by being built there. A folder of
# Windows DLLs is checked the same way through each DLL's export table, and
# each DLL may import nothing but system DLLs and our own.
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
pe=0
if ((${#libs[@]} == 0)); then
  mapfile -t libs < <(find "$libdir" -maxdepth 1 -type f -name '*.dll' | sort)
  pe=1
fi
objdump=${OBJDUMP:-x86_64-w64-mingw32-objdump}
# The names in a DLL's export table.
pe_exports() {
  "$objdump" -p "$1" | sed -n '/^\[Ordinal\/Name Pointer\] Table/,/^$/p' | sed -n 's/^[[:space:]]*\[[[:space:]]*[0-9]*\] //p'
}
# DLLs our libraries may import: the system's and the SDK's own.
system_dll='^(kernel32|msvcrt|ucrtbase|oleaut32|ole32|advapi32|ws2_32|crypt32|secur32|bcrypt|wldap32|normaliz|user32|shell32|iphlpapi|qltplatform|qltutilbase|qltlogbooku|qvfvirtualfileu|qltfsdk)\.dll$'
if ((pe)); then
  for lib in "${libs[@]}"; do
    while IFS= read -r dll; do
      if ! [[ ${dll,,} =~ $system_dll ]]; then
        echo "$(basename "$lib") imports $dll (the runtime must be linked statically)"
        bad_imports=1
      fi
    done < <("$objdump" -p "$lib" | sed -n 's/^[[:space:]]*DLL Name: //p')
  done
  if [ -n "${bad_imports:-}" ]; then exit 1; fi
fi
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
  done < <(if ((pe)); then pe_exports "$lib"; else nm -D --defined-only "$lib" | awk 'NF >= 3 { print $3 }'; fi | c++filt)
  echo "checked $(basename "$lib"): $count symbols"
done
if ((bad > 0)); then
  echo "$bad exported names break the rule (prefix them, hide them, or list them in $allowlist)" >&2
  exit 1
fi
