# Wi-Fi control: the device among access points, a scan, a wrong key and a right one, and the
# network gate of requests opening as the link comes up.

start_test_server
demo_wifi_server=$server_pid wifi_http=$server_http

section "The air around the device (set on the host; every process of the sandbox sees it)"
show "qvtool host wifi air 'Home 5G' --security wpa2 --passphrase 'correct horse battery' --signal 85 --level -42 --channel 36"
show "qvtool host wifi air 'Café Ünïcødé' --signal 55 --level -63 --channel 1"
show "qvtool host wifi air Neighbours --security wpa2 --passphrase 'not ours at all' --signal 30 --level -81"
show "qvtool host wifi air Attic --security wpa2 --passphrase 'battery staple' --signal 95 --hidden"
show "qvtool host wifi behave --delay 1500 >/dev/null && qvtool wifi manager off"

section "Scanning, and requests while the device is offline"
show "qvtool wifi manager on"
show "qvtool wifi scan"
show_fails "qvtool http GET $wifi_http/echo"

section "A wrong key, then the right one (the connect blocks a worker, not the loop)"
show_fails "qvtool wifi connect 'Home 5G' --key 'correct horse batter'"
show "qvtool wifi connect 'Home 5G' --key 'correct horse battery'"
show "qvtool wifi status"
show "qvtool http GET $wifi_http/echo"

section "A hidden network, stored networks first in the list, forgetting"
show "qvtool wifi connect Attic --hidden --key 'battery staple'"
show "qvtool wifi scan --order level"
show "qvtool host wifi stored"
show "qvtool wifi forget Attic && qvtool wifi status"
show "qvtool wifi connect 'Home 5G'"

section "A network that does not answer, and the radio off"
show "qvtool host wifi behave --delay 300 --outcome timeout | tail -1"
show_fails "qvtool wifi connect 'Café Ünïcødé'"
show "qvtool host wifi behave --delay 0 --outcome natural | tail -1 && qvtool wifi power off"
show_fails "qvtool wifi scan"
show "qvtool wifi power on && qvtool wifi manager on && qvtool wifi status | grep -E 'network |requests'"

kill "$demo_wifi_server" 2>/dev/null || true
wait "$demo_wifi_server" 2>/dev/null || true
