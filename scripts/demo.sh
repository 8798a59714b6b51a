#!/usr/bin/env bash
# The package path of the engine's main job, on a bundled example: a product
# folder is made into a signed package, published to a static repository,
# served by nginx on loopback, fetched with resume and checks, verified and
# unpacked safely, and compared with the source.
# (The full install through the engine's facade arrives with the client tool.)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh
build=${CORBETH_BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja >/dev/null
cmake --build "$build" --target corbeth-pack >/dev/null
pack=$PWD/$build/tools/corbeth-pack/corbeth-pack

work=$(mktemp -d /tmp/corbeth-demo-XXXXXX)
export VINDAL_STATE_FILE=$work/state.json
cleanup() {
    [ -f "$work/nginx/nginx.pid" ] && kill "$(cat "$work/nginx/nginx.pid")" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

echo "== the product: the bundled example configuration and plug-in sources"
mkdir -p "$work/product"
cp -r examples/product examples/plugins "$work/product/"
step() { echo; echo "== $*"; }

step "create a package and its .verify companion"
"$pack" create "$work/product" -o "$work/demo.tolmpkg"
cat "$work/demo.tolmpkg.verify"; echo

step "make a signing key and publish version 1.0.0 to a repository folder"
"$pack" keygen "$work/demo"
"$pack" publish "$work/demo.tolmpkg" --repo "$work/repo" --module demo --version 1.0.0 --key "$work/demo.key"
find "$work/repo" -type f | sed "s|$work/||"

step "serve the repository with nginx on a free loopback port"
mkdir -p "$work/nginx/logs" "$work/nginx/tmp"
user=""
[ "$(id -u)" -eq 0 ] && user="user root;"
# A random high port; another one is tried when it is taken.
for _ in 1 2 3 4 5 6 7 8 9 10; do
    port=$((20000 + RANDOM % 40000))
    cat > "$work/nginx/nginx.conf" <<CONF
$user
worker_processes 1;
pid $work/nginx/nginx.pid;
error_log $work/nginx/logs/error.log;
events { worker_connections 64; }
http {
    access_log $work/nginx/logs/access.log;
    client_body_temp_path $work/nginx/tmp;
    proxy_temp_path $work/nginx/tmp;
    fastcgi_temp_path $work/nginx/tmp;
    uwsgi_temp_path $work/nginx/tmp;
    scgi_temp_path $work/nginx/tmp;
    server { listen 127.0.0.1:$port; root $work/repo; }
}
CONF
    env -u NGINX /usr/sbin/nginx -p "$work/nginx" -c "$work/nginx/nginx.conf" 2>/dev/null && break
    port=""
done
[ -n "$port" ] || { echo "nginx could not start: see $work/nginx/logs/error.log" >&2; exit 1; }
echo "http://127.0.0.1:$port/"

step "fetch it as the engine would (signature, size and SHA-256 checked)"
"$pack" fetch --server "http://127.0.0.1:$port/" --module demo -o "$work/download" \
    --public-key "$(cat "$work/demo.pub")"

step "verify the download against its .verify companion and the index"
downloaded=$(find "$work/download" -name '*.tolmpkg' | head -n 1)
"$pack" verify "$downloaded" --repo "$work/repo" --module demo

step "unpack it safely and compare with the source"
"$pack" extract "$downloaded" -C "$work/installed"
diff -r "$work/product" "$work/installed" && echo "identical: $(find "$work/installed" -type f | wc -l) files"
