#!/usr/bin/env bash
# orvun-httpd against the same server on plain POSIX calls (bench/posix-httpd)
# and nginx, serving one 1 KiB file to ApacheBench with keep-alive:
#   ab -k -c 20 -n 50000, the three servers interleaved, 5 rounds,
# then a table of requests/s and p99 latency (medians over the rounds) and the
# medians of the per-round ratios against the targets (orvun/posix >= 0.95,
# orvun/nginx >= 1.00). Builds Release (presets release and bench,
# incrementally); installs apache2-utils and nginx-light when missing and says
# so when nginx cannot be had (its column is then left out). nginx runs as its
# own process from a temporary configuration: 2 workers, access log off,
# loopback only. Takes a few minutes on 2 cores.
#
#   bash scripts/bench-http.sh [--clean]
#   ROUNDS=5 REQUESTS=50000 CONCURRENCY=20   the defaults
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
parse_clean_flag "bash scripts/bench-http.sh [--clean]" "$@"
rounds=${ROUNDS:-5}
requests=${REQUESTS:-50000}
concurrency=${CONCURRENCY:-20}

bash scripts/install-deps.sh cmake g++ make python3 apache2-utils curl
nginx_bin=$(command -v nginx || echo /usr/sbin/nginx)
if [ ! -x "$nginx_bin" ]; then
    echo "bench-http: installing nginx-light for the comparison"
    timeout 600 bash scripts/install-deps.sh nginx-light ||
        echo "bench-http: nginx-light could not be installed; the nginx column is left out" >&2
fi

configure_preset release >/dev/null
build_preset release --target orvun-httpd >/dev/null
configure_preset bench >/dev/null
build_preset bench --target posix-httpd >/dev/null

work=$(mktemp -d)
pids=()
cleanup() {
    for pid in "${pids[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap cleanup EXIT
# nginx's workers drop root and must read the file.
chmod 755 "$work"
mkdir -m 755 "$work/www"
head -c 1024 /dev/urandom | od -An -tx1 | tr -d ' \n' | head -c 1024 >"$work/www/1k.txt"
chmod 644 "$work/www/1k.txt"

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }
# Waits until the server answers; fails after 10 s.
wait_ready() {
    for _ in $(seq 100); do
        curl -sf -o /dev/null "http://127.0.0.1:$1/1k.txt" && return 0
        sleep 0.1
    done
    echo "bench-http: nothing answers on port $1" >&2
    return 1
}

servers=()
declare -A port
start_listed() { # name, command...; the server prints "listening on ... port N"
    local name=$1 log="$work/$1.log"
    shift
    "$@" 2>"$log" &
    pids+=($!)
    for _ in $(seq 100); do
        port[$name]=$(sed -n 's/.*listening on .* port \([0-9]*\).*/\1/p' "$log")
        [ -z "${port[$name]}" ] || break
        sleep 0.1
    done
    wait_ready "${port[$name]}"
    servers+=("$name")
}
start_listed orvun build/release/examples/orvun-httpd -p 0 "$work/www"
start_listed posix build/bench/bench/posix-httpd -p 0 "$work/www"

if [ -x "$nginx_bin" ]; then
    port[nginx]=$(free_port)
    mkdir -p "$work/nginx"
    # keepalive_requests: nginx closes a kept-alive connection after 1000
    # requests by default; the others never do.
    cat >"$work/nginx/nginx.conf" <<EOF
worker_processes 2;
daemon off;
pid $work/nginx/nginx.pid;
error_log $work/nginx/error.log;
events { worker_connections 1024; }
http {
    access_log off;
    keepalive_requests 1000000;
    client_body_temp_path $work/nginx/body;
    proxy_temp_path $work/nginx/proxy;
    fastcgi_temp_path $work/nginx/fastcgi;
    uwsgi_temp_path $work/nginx/uwsgi;
    scgi_temp_path $work/nginx/scgi;
    default_type application/octet-stream;
    server {
        listen 127.0.0.1:${port[nginx]};
        root $work/www;
    }
}
EOF
    "$nginx_bin" -p "$work/nginx" -c "$work/nginx/nginx.conf" -e "$work/nginx/error.log" &
    pids+=($!)
    wait_ready "${port[nginx]}"
    servers+=(nginx)
    echo "nginx: $("$nginx_bin" -v 2>&1)"
fi

echo "machine: $(lscpu | sed -n 's/^Model name: *//p'), $(nproc) CPUs, Linux $(uname -r)"
echo "load: ab -k -c $concurrency -n $requests, a 1 KiB file, $rounds rounds interleaved"
results="$work/results.txt"
for round in $(seq "$rounds"); do
    # Each round starts with another server, so none always runs first.
    count=${#servers[@]}
    for i in $(seq 0 $((count - 1))); do
        name=${servers[$(((i + round) % count))]}
        log="$work/ab-$name-$round.txt"
        # -e: the percentiles with fractions of a millisecond (the report rounds them).
        ab -q -k -c "$concurrency" -n "$requests" -e "$log.csv" "http://127.0.0.1:${port[$name]}/1k.txt" \
            >"$log" 2>&1 || true
        rps=$(sed -n 's/^Requests per second: *\([0-9.]*\).*/\1/p' "$log")
        p99=$(sed -n 's/^99,\([0-9.]*\).*/\1/p' "$log.csv" 2>/dev/null || true)
        failed=$(sed -n 's/^Failed requests: *\([0-9]*\).*/\1/p' "$log")
        non2xx=$(sed -n 's/^Non-2xx responses: *\([0-9]*\).*/\1/p' "$log")
        if [ -z "$rps" ] || [ -z "$p99" ] || [ "${failed:-1}" != 0 ] || [ -n "$non2xx" ]; then
            echo "bench-http: $name failed in round $round:" >&2
            tail -n 20 "$log" >&2
            exit 1
        fi
        echo "round $round $name $rps $p99" | tee -a "$results"
    done
done

python3 - "$results" <<'EOF'
import statistics, sys
rows = [line.split() for line in open(sys.argv[1])]
rps, p99 = {}, {}
for _, rnd, name, r, p in rows:
    rps.setdefault(name, {})[int(rnd)] = float(r)
    p99.setdefault(name, {})[int(rnd)] = float(p)
print()
print("| server | requests/s (median) | min - max | p99 latency ms (median) |")
print("| --- | ---: | ---: | ---: |")
for name in rps:
    values = list(rps[name].values())
    print("| %s | %.0f | %.0f - %.0f | %.3f |" % (name, statistics.median(values), min(values), max(values),
                                             statistics.median(p99[name].values())))
print()
print("| ratio (median of per-round ratios) | value | target | |")
print("| --- | ---: | ---: | --- |")
for other, target in (("posix", 0.95), ("nginx", 1.00)):
    if other not in rps:
        print("| orvun / %s | - | %.2f | not measured |" % (other, target))
        continue
    ratio = statistics.median(rps["orvun"][r] / rps[other][r] for r in rps["orvun"])
    print("| orvun / %s | %.3f | %.2f | %s |" % (other, ratio, target, "met" if ratio >= target else "MISSED"))
EOF
