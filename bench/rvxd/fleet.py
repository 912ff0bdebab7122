#!/usr/bin/python3
"""What one Prometheus takes for the metrics of many machines.

fleet.py RVXD [MACHINES [SECONDS]]    1000 machines for 300 s unless said otherwise

Each machine is the answer of one real rvxd, of a simulated machine with eight disks and four mirrors, under names of its own
and with the figures moving on; all are scraped every 15 s, with contrib's rules. The first minute is not counted. Prometheus
is what tools/monitoring.sh unpacks. Prints lines "NAME NUMBER".
"""
import http.server
import json
import os
import pathlib
import re
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

from load import Unix, Daemon, ask

ROOT = pathlib.Path(__file__).resolve().parents[2]
INTERVAL = 15
WARM_UP = 60  # seconds


def machine():
    disks = [{"name": f"sd{letter}", "controller": "sata", "size": 65536, "medium": "solid-state", "model": "INTEL SSDSC2BB480G4",
              "serial": f"PHWL{i:04}SERIAL", "smart": {"attributes": [{"id": 9, "raw": 8760}, {"id": 232, "value": 99},
                                                                      {"id": 233, "value": 93}, {"id": 241, "raw": 655360}]}}
             for i, letter in enumerate("abcdefgh")]
    arrays = [{"name": f"md_d{i}", "level": "raid1", "members": [f"sd{a}", f"sd{b}"]} for i, (a, b) in enumerate(("ab", "cd", "ef", "gh"))]
    return {"controllers": [{"name": "sata", "pci": "0000:00:1f.2", "driver": "ahci"}], "disks": disks, "arrays": arrays}


class Machines(http.server.BaseHTTPRequestHandler):
    """GET /17: what the 17th machine tells at the moment."""
    protocol_version = "HTTP/1.1"
    text = ""  # with a place for the machine, for its last pass (they come every 10 s) and for what grows
    start = time.time()

    def do_GET(self):
        number, now = self.path[1:], time.time()
        text = self.text.replace("PHWL", f"M{number}X").replace("@UUID@", f"{int(number):032x}")
        text = text.replace("@PASS@", f"{now - (now + int(number)) % 10:.3f}")
        body = text.replace("@GROWN@", str(int(now - self.start))).encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/plain; version=0.0.4; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


class Server(http.server.ThreadingHTTPServer):
    request_queue_size = 1024
    daemon_threads = True


def template(text):
    text = re.sub(r'uuid="[^"]*"', 'uuid="@UUID@"', text)
    text = re.sub(r"^(rvx_pass_last_success_timestamp_seconds) .*", r"\1 @PASS@", text, flags=re.M)
    return re.sub(r"^((?:rvx_passes_total|rvx_http_requests_total|rvx_disk_\w+_total).*) \S+$", r"\1 @GROWN@", text, flags=re.M)


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def size(folder):
    return sum(one.stat().st_size for one in folder.rglob("*") if one.is_file())


def answer(daemon):
    """The metrics, and how long rvxd takes for them."""
    connection, times = Unix(daemon.socket), []
    for _ in range(500):
        begin = time.perf_counter()
        text = ask(connection, "GET", "/metrics")[1].decode()
        times.append(time.perf_counter() - begin)
    print(f"scrape_median_ms {statistics.median(times) * 1000:.2f}")
    print(f"scrape_99th_ms {sorted(times)[-6] * 1000:.2f}")
    return text


def main():
    program, count, seconds = sys.argv[1], *(int(given) for given in (sys.argv[2:] + ["1000", "300"][len(sys.argv[2:]):]))
    tools = pathlib.Path(subprocess.run([ROOT / "tools/monitoring.sh"], stdout=subprocess.PIPE, text=True, check=True).stdout.strip())
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / "machine.json").write_text(json.dumps(machine()))
        with Daemon(os.path.abspath(program), name + "/machine.json") as daemon:
            text = answer(daemon)
        Machines.text = template(text)
        print(f"machines {count}")
        print(f"series_of_a_machine {sum(line[0] != '#' for line in text.splitlines())}")
        print(f"bytes_of_a_scrape {len(text)}")
        server = Server(("127.0.0.1", 0), Machines)
        threading.Thread(target=server.serve_forever, daemon=True).start()
        targets = [{"targets": [f"127.0.0.1:{server.server_port}"], "labels": {"__metrics_path__": f"/{i}", "instance": f"machine-{i}"}}
                   for i in range(count)]
        (folder / "prometheus.yml").write_text(json.dumps(
            {"global": {"scrape_interval": f"{INTERVAL}s", "evaluation_interval": f"{INTERVAL}s"},
             "rule_files": [str(ROOT / "contrib/prometheus/rvx.rules.yml")], "scrape_configs": [{"job_name": "rvx", "static_configs": targets}]}))
        port = free_port()
        with open(folder / "log", "wb") as log:
            prometheus = subprocess.Popen([tools / "prometheus", f"--config.file={folder}/prometheus.yml", f"--storage.tsdb.path={folder}/data",
                                           f"--web.listen-address=127.0.0.1:{port}", "--web.enable-admin-api"], stdout=log, stderr=log)
        try:
            measure(prometheus.pid, f"http://127.0.0.1:{port}", folder / "data", seconds)
        finally:
            prometheus.terminate()
            prometheus.wait()
            server.shutdown()


def measure(process, url, data, seconds):
    def figure(query):
        with urllib.request.urlopen(f"{url}/api/v1/query?query={query}", timeout=60) as reply:
            return float(json.load(reply)["data"]["result"][0]["value"][1])

    def own(name):
        with urllib.request.urlopen(f"{url}/metrics", timeout=60) as reply:
            return sum(float(one) for one in re.findall(rf"^{name}(?:{{.*}})? (\S+)$", reply.read().decode(), re.M))

    def taken():
        words = pathlib.Path(f"/proc/{process}/stat").read_text().rsplit(") ", 1)[1].split()
        return (int(words[11]) + int(words[12])) / os.sysconf("SC_CLK_TCK")

    def memory(key):
        return int(re.search(rf"{key}:\s+(\d+)", pathlib.Path(f"/proc/{process}/status").read_text())[1])

    samples = "prometheus_tsdb_head_samples_appended_total"
    time.sleep(WARM_UP)
    begin, cpu, appended = time.monotonic(), taken(), own(samples)
    time.sleep(seconds)
    passed = time.monotonic() - begin
    print(f"measured_seconds {passed:.0f}")
    print(f"machines_up {figure('sum(up)'):.0f}")
    print(f"alerts {figure('count(ALERTS)%20or%20vector(0)'):.0f}")
    print(f"series {own('prometheus_tsdb_head_series'):.0f}")
    print(f"samples_per_second {(own(samples) - appended) / passed:.0f}")
    print(f"cpu_seconds_per_minute {(taken() - cpu) / passed * 60:.2f}")
    print(f"resident_mib {memory('VmRSS') / 1024:.0f}")
    print(f"resident_peak_mib {memory('VmHWM') / 1024:.0f}")
    total = own(samples)
    print(f"log_bytes_per_sample {size(data / 'wal') / total:.2f}")
    # A block as it is kept, of what there is so far: its index, which is the same for a longer time, weighs more than usual.
    urllib.request.urlopen(urllib.request.Request(f"{url}/api/v1/admin/tsdb/snapshot", method="POST"), timeout=120).close()
    blocks = [one for one in (data / "snapshots").glob("*/*") if one.is_dir()]
    print(f"block_chunk_bytes_per_sample {sum(size(one / 'chunks') for one in blocks) / total:.2f}")
    print(f"block_index_bytes_per_series {sum((one / 'index').stat().st_size for one in blocks) / own('prometheus_tsdb_head_series'):.0f}")


if __name__ == "__main__":
    main()
