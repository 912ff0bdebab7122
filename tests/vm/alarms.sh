#!/bin/bash
# A failing member is one mail, one call of a program, one post to a webhook, one record of the journal and one alert of
# Prometheus; what replaces it is one clearing each; a restart repeats nothing; and a member that is missing since the
# start is told with the serial number that it had.
source "$RVX_SOURCE/tests/vm/lib.sh"

server=
start_server() {
    "$RVX_BUILD/sbin/rvxd" --metrics 127.0.0.1:9634 >>/tmp/rvxd.log 2>&1 &
    server=$!
    check "rvxd serves $1" wait_for 60 'rvx api GET /v1/health >/tmp/health 2>&1'
}
stop_server() {
    local status=0
    kill -TERM "$server"
    wait "$server" || status=$?
    expect_eq "rvxd ends in order" 0 "$status"
}
# counts: mails, calls of the program, posts to the webhook, records of the journal.
counts() {
    echo "$(find /tmp/mails -type f | wc -l) $(wc -l </tmp/calls) $(wc -l </tmp/posts) $(grep -ac '^MESSAGE_ID=' /tmp/journal)"
}
# told N WHAT: so many by each channel, and no more.
told() {
    check "$2" wait_for 90 "[ \"\$(counts)\" = '$1 $1 $1 $1' ]"
    sleep 6
    expect_eq "$2, and nothing else" "$1 $1 $1 $1" "$(counts)"
}
# alerts: the names of those that fire.
alerts() { curl -s http://127.0.0.1:9090/api/v1/alerts | jq -r '[.data.alerts[] | select(.state == "firing") | .labels.alertname] | sort | join(" ")'; }

mkdir -p /etc/zq /etc/rvx/notify.d /run/rvx /tmp/mails /run/systemd/journal
touch /tmp/calls /tmp/posts /tmp/journal
ip link set lo up
printf '#!/bin/sh\ncat >/tmp/mail.$$ && mv /tmp/mail.$$ /tmp/mails/$$\n' >/usr/local/bin/sendmail
printf '#!/bin/sh\necho "$* $RVX_PHASE $RVX_SERIAL" >>/tmp/calls\n' >/usr/local/bin/alarm
chmod 755 /usr/local/bin/sendmail /usr/local/bin/alarm
umask 077
printf 'type = mail\nto = root\nsendmail = /usr/local/bin/sendmail\ncleared = 2s\n' >/etc/rvx/notify.d/mail.conf
printf 'type = program\nprogram = /usr/local/bin/alarm\ncleared = 2s\n' >/etc/rvx/notify.d/program.conf
printf 'type = webhook\nurl = http://127.0.0.1:8080/\ncleared = 2s\n' >/etc/rvx/notify.d/webhook.conf
printf 'type = journal\ncleared = 2s\n' >/etc/rvx/notify.d/journal.conf
umask 022
/usr/bin/python3 - <<'PYTHON' &
import http.server, socket, threading
journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
journal.bind("/run/systemd/journal/socket")
class Hook(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        with open("/tmp/posts", "ab") as posts:
            posts.write(self.rfile.read(int(self.headers["Content-Length"])) + b"\n")
        self.send_response(204)
        self.end_headers()
    def log_message(self, *_): pass
threading.Thread(target=http.server.HTTPServer(("127.0.0.1", 8080), Hook).serve_forever, daemon=True).start()
while True:
    record = journal.recv(65536)
    with open("/tmp/journal", "ab") as records:
        records.write(record + b"\n")
PYTHON
listener=$!
mkdir /tmp/prometheus
sed -E 's/\b(keep_firing_)?for: [0-9]+[smh]/\1for: 1s/' "$RVX_SOURCE/contrib/prometheus/rvx.rules.yml" >/tmp/prometheus/rules.yml
cat >/tmp/prometheus/prometheus.yml <<'YAML'
global: {scrape_interval: 2s, evaluation_interval: 2s}
rule_files: [rules.yml]
scrape_configs: [{job_name: rvx, static_configs: [{targets: ["127.0.0.1:9634"]}]}]
YAML
(cd /tmp/prometheus && exec "$RVX_SOURCE/.cache/monitoring/usr/bin/prometheus" --config.file=prometheus.yml \
    --web.listen-address=127.0.0.1:9090 >/tmp/prometheus/log 2>&1) &
prometheus=$!

first=${disk[AHCI-0]} second=${disk[SAS-0]} third=${disk[AHCI-1]}
check "the plug-in is told to look every two seconds" rvx prop set plugin poll-interval 2
make raid1 - "$first" "$second" >/tmp/made
check "the first sync ends" wait_for 120 '! grep -q resync /proc/mdstat'
start_server "at first"
check "Prometheus has what rvxd tells" wait_for 120 \
    'curl -s "http://127.0.0.1:9090/api/v1/query?query=rvx_array_members_missing" | jq -e ".data.result[0].value[1] == \"0\"" >/dev/null'
expect_eq "nothing is wrong, and nobody is told anything" "0 0 0 0 ok" "$(counts) $(rvx api GET /v1/health | jq -r .level)"

mdadm --manage /dev/md_d0 --fail "/dev/$second" >/dev/null 2>&1
told 1 "each channel tells of the failing member once"
expect_match "the mail's subject names machine, array, level and disk" \
    "Subject: [^ ]+ md_d0 CRITICAL: array degraded.*; $second, serial number SAS-0" "$(cat /tmp/mails/*)"
expect_match "the mail says what to do" "'rvxctl spare release $second', replace the disk" "$(tr '\n' ' ' </tmp/mails/* | tr -s ' ')"
expect_eq "the program is called as mdadm's monitor does it" "Fail /dev/md_d0 /dev/$second began SAS-0" "$(cat /tmp/calls)"
expect_eq "the webhook has all of it" "critical array-degraded md_d0 SAS-0" "$(jq -r '"\(.level) \(.condition) \(.object) \(.serial)"' /tmp/posts)"
for field in PRIORITY=2 RVX_CODE=10078 RVX_CONDITION=array-degraded RVX_OBJECT=md_d0 RVX_SERIAL=SAS-0; do
    check "the journal's record has $field" grep -aqx "$field" /tmp/journal
done
check "one alert fires" wait_for 60 '[ "$(alerts)" = ArrayDegraded ]'
sleep 4
expect_eq "and no other one" ArrayDegraded "$(alerts)"
stop_server
start_server "again"
told 1 "a restart repeats nothing"

check "the failed member is released" rvx spare release "$second" --yes
check "another disk takes its place" rvx spare add "$third" md_d0 --yes --wait
told 2 "each channel tells once that it is over"
expect_match "the mail says so" "Subject: [^ ]+ md_d0 OK: .*: over" "$(cat /tmp/mails/*)"
expect_eq "the program is told" "RebuildFinished" "$(tail -n1 /tmp/calls | cut -d' ' -f1)"
check "no alert fires any more" wait_for 60 '[ -z "$(alerts)" ]'

# As after a start without one of the disks; and as under a service manager, which starts what delivers.
stop_server
mdadm --stop /dev/md_d0 >/dev/null 2>&1
echo 1 >"/sys/block/$third/device/delete"
# mdadm gives it a name of its own.
check "the array starts with one member" mdadm --assemble --run /dev/md_d0 "/dev/$first"
systemd-socket-activate --accept --inetd -l /run/rvx/notify.sock "$RVX_BUILD/libexec/rvx-notify" >/tmp/activate 2>&1 &
activate=$!
check "messages are waited for" wait_for 10 'test -S /run/rvx/notify.sock'
start_server "where a disk is missing"
told 3 "the member that is missing since the start is announced"
expect_eq "by the serial number that it had" "DegradedArray /dev/md0 began AHCI-1" "$(tail -n1 /tmp/calls)"
check "they were delivered by what the service manager starts" grep -q rvx-notify /tmp/activate
status=0
rvx notify test >/tmp/tested || status=$?
expect_match "a test shows what each channel says" '^0 journal +delivered +written to the journal.*mail +delivered.*program +delivered.*webhook +delivered +HTTP 204' \
    "$status $(tr '\n' ' ' </tmp/tested)"
stop_server
kill "$listener" "$prometheus" "$activate"
