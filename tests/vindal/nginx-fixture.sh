#!/usr/bin/env bash
# Starts or stops the nginx the module service tests download from. It
# listens on loopback only; its configuration, pid file, logs, temporary
# files, served folder and a certificate made for this run all live in <dir>,
# so no root rights and no system folder are needed.
# Usage: nginx-fixture.sh start|stop <dir> [nginx binary]
# After start, <dir>/ports.json holds {"http": port, "https": port}.
set -euo pipefail

action=$1
dir=$2
nginx=${3:-/usr/sbin/nginx}
# nginx reads NGINX as a list of inherited sockets and then stays in the
# foreground; it must not see one.
unset NGINX

stop() {
    [ -f "$dir/nginx.pid" ] || return 0
    kill "$(cat "$dir/nginx.pid")" 2>/dev/null || true
    for _ in $(seq 50); do
        [ -f "$dir/nginx.pid" ] || return 0
        sleep 0.1
    done
    rm -f "$dir/nginx.pid"
}

case $action in
stop)
    stop
    exit 0
    ;;
start)
    stop
    ;;
*)
    echo "usage: $0 start|stop <dir> [nginx binary]" >&2
    exit 2
    ;;
esac

mkdir -p "$dir/www" "$dir/logs" "$dir/tmp" "$dir/tls"
rm -f "$dir/ports.json"

# A certificate authority and a server certificate for 127.0.0.1, made anew
# for every run: tests check that the server is refused without the CA and
# accepted with it.
tls=$dir/tls
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 \
    -subj "/CN=Vindal Test CA" -addext "basicConstraints=critical,CA:TRUE" \
    -addext "keyUsage=critical,keyCertSign,cRLSign" \
    -keyout "$tls/ca.key" -out "$tls/ca.pem" 2>/dev/null
openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj "/CN=127.0.0.1" \
    -keyout "$tls/server.key" -out "$tls/server.csr" 2>/dev/null
printf 'subjectAltName=IP:127.0.0.1\nbasicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n' > "$tls/server.ext"
openssl x509 -req -in "$tls/server.csr" -CA "$tls/ca.pem" -CAkey "$tls/ca.key" -CAcreateserial \
    -days 2 -extfile "$tls/server.ext" -out "$tls/server.pem" 2>/dev/null

user=""
if [ "$(id -u)" -eq 0 ]; then
    # The served folder lies in the build tree, which workers running as
    # "nobody" may not be able to read.
    user="user root;"
fi

# A free pair of ports: try a few at random, nginx tells whether they bind.
for _ in $(seq 20); do
    http=$((20000 + RANDOM % 30000))
    https=$((http + 1))
    cat > "$dir/nginx.conf" <<CONF
$user
daemon on;
worker_processes 1;
pid "$dir/nginx.pid";
error_log "$dir/logs/error.log" warn;
events { worker_connections 64; }
http {
    access_log "$dir/logs/access.log" combined;
    client_body_temp_path "$dir/tmp/body";
    proxy_temp_path "$dir/tmp/proxy";
    fastcgi_temp_path "$dir/tmp/fastcgi";
    uwsgi_temp_path "$dir/tmp/uwsgi";
    scgi_temp_path "$dir/tmp/scgi";
    default_type application/octet-stream;
    sendfile on;
    server {
        listen 127.0.0.1:$http;
        root "$dir/www";
    }
    server {
        listen 127.0.0.1:$https ssl;
        ssl_certificate "$tls/server.pem";
        ssl_certificate_key "$tls/server.key";
        root "$dir/www";
        # The same files over plain http: a client must refuse to follow.
        rewrite ^/to-http/(.*)\$ http://127.0.0.1:$http/\$1 redirect;
    }
}
CONF
    # No descriptor of ours may stay open in the daemon: ctest waits for them.
    if "$nginx" -p "$dir" -c "$dir/nginx.conf" -e "$dir/logs/error.log" </dev/null >>"$dir/logs/start.log" 2>&1; then
        for _ in $(seq 50); do
            [ -f "$dir/nginx.pid" ] && break
            sleep 0.1
        done
        printf '{"http": %d, "https": %d}\n' "$http" "$https" > "$dir/ports.json"
        echo "nginx on 127.0.0.1:$http (http) and :$https (https), serving $dir/www"
        exit 0
    fi
done
echo "nginx could not start; see $dir/logs" >&2
exit 1
