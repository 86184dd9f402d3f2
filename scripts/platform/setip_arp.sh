#!/bin/sh
# Stand-in for the platform's address script on stock Linux: gives $ARP_IF the
# IPv4 address $ARP_DST_IP in place of the ones it has, with the prefix length
# of its current address, or /24 when it has none (the agent flushes the
# interface first when the address moves to another subnet).
set -eu
: "${ARP_IF:?ARP_IF not set}" "${ARP_DST_IP:?ARP_DST_IP not set}"
prefix=$(ip -4 -o address show dev "$ARP_IF" | awk '{ split($4, a, "/"); print a[2]; exit }')
ip -4 address flush dev "$ARP_IF"
ip address add "$ARP_DST_IP/${prefix:-24}" dev "$ARP_IF"
