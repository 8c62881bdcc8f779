# HTTP through the library: the request runner against a loopback server, the network gate, and
# request signatures.

start_test_server
demo_http_server=$server_pid http_base=$server_http https_base=$server_https

section "Requests as the applications send them (a loopback test server answers)"
show "qvtool http GET '$http_base/echo?lang=de&q=e-ink reader' -H 'X-Client: demo'"
show "qvtool http POST $http_base/echo --form 'title=Die Verwandlung' --form pages=96"
show "qvtool http --stream GET $http_base/redirect/2"
show "qvtool http --no-redirect GET $http_base/redirect/2"
show "qvtool http --stream GET $http_base/bytes/20000000 -o /tmp/body.bin && ls -l /tmp/body.bin"

section "TLS is verified unless a request opts out"
show_fails "qvtool http GET $https_base/echo"
show "qvtool http --insecure GET $https_base/status/204"

section "No network, no request"
show "qvtool host network down"
show_fails "qvtool http GET $http_base/echo"
show "qvtool host network up"

section "Signed requests"
show "qvtool sign GET 'https://api.example/v1/books?page=2&lang=de' shared-secret"
show "qvtool sign POST 'https://api.example/v1/books' shared-secret --form 'lang=de' --form 'page=2'"
show "qvtool nonce"

kill "$demo_http_server"
wait "$demo_http_server" 2>/dev/null || true
