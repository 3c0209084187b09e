#!/bin/sh
# Wired ports of a node, from the files of its board directory: ports/wan_num, ports/N/link and ports/N/speed.
ports="$TELEMETRY_SYSROOT/lab/board/ports"
case "$1" in
    wan_num) exec cat "$ports/wan_num" ;;
    port_link_status) exec cat "$ports/$2/link" ;;
    port_speed) exec cat "$ports/$2/speed" ;;
    *)
        echo "usage: wire_port_info.sh wan_num | port_link_status PORT | port_speed PORT" >&2
        exit 2
        ;;
esac
