# Sourced by the benchmarks that serve files over HTTP.
#   need_tools <tool...>     exits 2 naming the first tool that is missing
#   work_folder <name>       a fresh $work under ${TMPDIR:-/tmp}, removed on
#                            exit together with the nginx serve_folder starts
#   serve_folder <root> <nginx-dir>
#                            serves a folder with nginx on a free loopback
#                            port; sets $port and $nginx_pid; each request
#                            is logged to <nginx-dir>/access.log as
#                            "<status> <bytes sent> <uri>"

need_tools() {
    local tool
    for tool in "$@"; do
        command -v "$tool" >/dev/null || { echo "missing $tool" >&2; exit 2; }
    done
}

work_folder() {
    work=$(mktemp -d "${TMPDIR:-/tmp}/$1.XXXXXX")
    nginx_pid=
    trap 'stop_serving; rm -rf "$work"' EXIT
}

stop_serving() {
    [[ -n $nginx_pid ]] && kill "$nginx_pid" 2>/dev/null && wait "$nginx_pid" 2>/dev/null
    nginx_pid=
}

free_port() {
    local candidate
    for candidate in $(shuf -i 20000-60000 -n 50); do
        (exec 3<>"/dev/tcp/127.0.0.1/$candidate") 2>/dev/null || { echo "$candidate"; return; }
    done
    echo "no free port" >&2
    exit 1
}

serve_folder() {
    local root=$1 dir=$2
    port=$(free_port)
    mkdir -p "$dir"
    cat > "$dir/nginx.conf" <<CONF
$( [[ $(id -u) == 0 ]] && echo "user root;" )
worker_processes 1;
daemon off;
pid "$dir/nginx.pid";
error_log "$dir/error.log";
events { worker_connections 64; }
http {
    log_format sent '\$status \$body_bytes_sent \$uri';
    access_log "$dir/access.log" sent;
    sendfile on;
    client_body_temp_path "$dir/body";
    proxy_temp_path "$dir/proxy";
    fastcgi_temp_path "$dir/fastcgi";
    uwsgi_temp_path "$dir/uwsgi";
    scgi_temp_path "$dir/scgi";
    types { application/octet-stream tolmpkg; application/json json; }
    server { listen 127.0.0.1:$port; root "$root"; }
}
CONF
    nginx -p "$dir" -c "$dir/nginx.conf" &
    nginx_pid=$!
    local _
    for _ in $(seq 50); do (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return; sleep 0.1; done
    echo "nginx did not start on port $port" >&2
    exit 1
}
