# User agents per client type and host, from the device configuration; random UUIDs.

section "User agents: shipped defaults, filled from the device"
show "grep '^useragent_' /zelgrot/config/device.cfg"
show "qvtool useragent --webengine 5.15 browser www.example.org"
show "qvtool useragent store books.example.org"

section "Host templates written at start-up (/var/run/device.cfg); the first fragment in sorted order wins"
show "printf '%s\n' 'useragent_store_store.=QuorvelStore/[fw] ([device_name]; [locale])' \\
    'useragent_store_api.=QuorvelApi/[fw] ([resolution])' > /var/run/device.cfg"
show "qvtool useragent store api.store.example.org"
show "qvtool useragent --template store books.store.example.org"
show "qvtool config set /mnt/ext1/system/config/global.cfg language gr && qvtool useragent store store.example.org"
show_fails "qvtool useragent kiosk store.example.org"

section "The caller puts the text into its request"
start_test_server
demo_ua_server=$server_pid ua_base=$server_http
show "qvtool http GET $ua_base/echo -H \"User-Agent: \$(qvtool useragent store 127.0.0.1)\" | grep -i user-agent"
kill "$demo_ua_server"
wait "$demo_ua_server" 2>/dev/null || true

section "Random UUIDs"
show "qvtool uuid --count 3"
