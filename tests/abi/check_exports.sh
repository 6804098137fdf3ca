#!/usr/bin/env bash
# Checks the dynamic symbols of libarbor.so. The transport's functions may be
# imported (undefined) but never defined, so that a host can link the
# transport of its choice; the ones the engine calls today must show up as
# imports. The engine's C names must be exported unmangled.
# Usage: check_exports.sh <libarbor.so> --imports <name>... --exports <name>...
set -euo pipefail
lib=$1; shift
imports=(); exports=(); mode=
for arg in "$@"; do
  case $arg in
    --imports) mode=imports ;;
    --exports) mode=exports ;;
    *) if [ "$mode" = imports ]; then imports+=("$arg"); else exports+=("$arg"); fi ;;
  esac
done
transport=(NetOpen NetClose InitWAN UnInitWAN ConRemoteHostInfo NetWrite
           InitLAN UnInitLAN LANNetWrite LANReFlash AddLANEP LANConRemoteHostInfo)
undefined=$(nm -D --undefined-only "$lib" | awk '{print $NF}')
defined=$(nm -D --defined-only "$lib" | awk '{print $NF}')
status=0
for f in "${transport[@]}"; do
  if grep -qx "$f" <<<"$defined"; then echo "defined, must only be imported: $f"; status=1; fi
done
for f in "${imports[@]}"; do
  grep -qx "$f" <<<"$undefined" || { echo "not imported: $f"; status=1; }
done
for f in "${exports[@]}"; do
  grep -qx "$f" <<<"$defined" || { echo "not exported: $f"; status=1; }
done
# Nothing of our own C++ leaks out; the standard library's inline variables
# (std::...) may appear and do no harm.
own=$(grep '^_Z' <<<"$defined" | grep -vE '^_Z(N?St|GVZ?N?St)' || true)
if [ -n "$own" ]; then
  echo "mangled names exported:"; echo "$own" | head; status=1
fi
[ $status -eq 0 ] && echo "exports ok"
exit $status
