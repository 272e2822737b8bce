#!/usr/bin/env bash
# The unit under which the service runs, where it forbids what a recorder needs.
set -euo pipefail

unit=$KESTREL_SOURCE_ROOT/packaging/kestrel-manager.service.in
families=" $(sed -n 's/^RestrictAddressFamilies=//p' "$unit") "
# Without AF_NETLINK a recorder does not learn on which device it receives a multicast group.
for family in AF_INET AF_UNIX AF_NETLINK; do
  [[ $families == *" $family "* ]] || {
    echo "$unit does not allow $family:$families" >&2
    exit 1
  }
done
