#!/usr/bin/python3
"""usage: faults.py BRIDGE COMMAND [TEXT]

Faults for a running pinwatchd-mqtt, with the real broker, in namespaces of their own, with which
everything ends. After each, the file must raise what the broker holds, and what others raised. With
TEXT only the faults with this text."""
import fcntl
import json
import os
import pty
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
from signal import SIGCONT, SIGKILL, SIGSTOP, SIGTERM

import paho.mqtt.publish

TOPIC = "pinwatchd/alarms"
SILENCE = 5
LIMIT = 100
SILENT = "[mqtt] alarm1"

os.environ["PATH"] += ":/usr/sbin"  # where the broker is, which users do not look for
if "PINWATCHD_FAULTS" not in os.environ:
    new = "unshare --map-root-user --net --mount --pid --fork --kill-child --mount-proc".split()
    if not shutil.which("mosquitto") or subprocess.run(new + ["true"]).returncode != 0:
        print("faults.py: skipped, needs mosquitto and user namespaces")
        sys.exit(77)
    # For a build with sanitizers: what is freed is kept from being used again, but not for ever.
    os.environ["ASAN_OPTIONS"] = "quarantine_size_mb=1"
    with tempfile.TemporaryDirectory() as os.environ["PINWATCHD_FAULTS"]:
        sys.exit(subprocess.run(new + sys.argv).returncode)

program, command = map(os.path.realpath, sys.argv[1:3])
only = sys.argv[3] if len(sys.argv) > 3 else ""
os.chdir(os.environ["PINWATCHD_FAULTS"])
log = ""


def output(*words):
    return subprocess.run(words, capture_output=True, text=True).stdout


def wait_until(condition, *arguments):
    """For as long as a busy machine may need."""
    end = time.monotonic() + 120
    while not condition(*arguments):
        assert time.monotonic() < end, f"awaited in vain: {condition.__name__} {arguments}"
        time.sleep(0.1)


def start_broker():
    global broker
    broker = subprocess.Popen(["mosquitto", "-c", "broker.conf"], stderr=open("broker.log", "a"))
    wait_until(lambda: socket.socket().connect_ex(("127.0.0.1", 1883)) == 0)


def start_bridge(*settings):
    """With these settings of the broker's section. A terminal sees what goes to the system log."""
    global bridge
    with open("conf", "w") as conf:
        print("[alarms]", f"File={os.getcwd()}/alarms", f"Limit={LIMIT}",
              "[status]", "Name=lamp", "Discovery=homeassistant",
              "[broker]", "Host=10.0.0.1", f"Silence={SILENCE}", "User=bridge", "PasswordFile=right",
              *settings, sep="\n", file=conf)
    terminal, end = pty.openpty()
    bridge = subprocess.Popen([program, "--config", "conf"], stderr=end)
    os.close(end)
    threading.Thread(target=read_log, args=[terminal], daemon=True).start()


def read_log(terminal):
    global log
    try:
        while True:
            log += os.read(terminal, 4096).decode()
    except OSError:  # the bridge has ended
        os.close(terminal)


def stop(process, signal):
    process.send_signal(signal)
    if signal != SIGSTOP:
        assert process.wait() in (0, -SIGKILL), "ended badly"


def restart_bridge(*settings):
    stop(bridge, SIGTERM)
    start_bridge(*settings)


def publish(*names_and_payloads, retain=True, topic=TOPIC):
    pairs = zip(names_and_payloads[::2], names_and_payloads[1::2])
    paho.mqtt.publish.multiple([(f"{topic}/{name}", payload, 1, retain) for name, payload in pairs],
                               auth={"username": "admin", "password": "right"})


def received(topic, *options):
    return output("mosquitto_sub", "-h", "127.0.0.1", "-u", "admin", "-P", "right", "-t", topic, *options)


def held():
    """What the broker holds, in the form of raised()."""
    messages = received(f"{TOPIC}/#", "-F", "%t %p", "--retained-only", "-W", "1")
    alarms = re.findall(rf"^{TOPIC}/(.+) (ALARM[12])(?: .*)?$", messages, re.M | re.I)
    return {f"[mqtt/{name}] {alarm}".lower() for name, alarm in alarms}


def raised():
    """What the file raises, as "[section] alarm1"."""
    alarms = set()
    for line in output(command, "--file", "alarms", "show").lower().splitlines():
        if line.startswith("["):
            section = line
        elif line.startswith("    "):
            alarms.add(f"{section} {line.split()[0]}")
    return alarms


def is_raised(alarm):
    return alarm in raised()


def is_logged(text):
    """By this fault."""
    return text in log


def status_is(what, payload):
    return received(f"pinwatchd/status/lamp/{what}", "-C", "1") == payload + "\n"


# ---- Faults ----


def bridge_stops(signal):
    stop(bridge, signal)
    if signal == SIGSTOP:
        time.sleep(SILENCE * 3)
    publish("a/door", "", "b/new", "ALARM1 meanwhile")
    if signal == SIGSTOP:
        bridge.send_signal(SIGCONT)
    else:
        start_bridge()


def bridge_restarts_unchanged():
    """Nothing is cleared before all is known."""
    publish("a/door", "ALARM1")
    wait_until(is_raised, "[mqtt/a/door] alarm1")
    before = os.stat("alarms")
    restart_bridge()
    wait_until(status_is, "bridge", "online")
    assert os.path.samestat(before, os.stat("alarms")), "was written without need"


def broker_stops(signal, loses_store=False):
    publish("a/door", "", "a/gate", "ALARM1")
    saved = time.time()
    wait_until(lambda: os.path.exists(STORE) and os.stat(STORE).st_mtime > saved)
    stop(broker, signal)
    wait_until(is_raised, SILENT)
    if loses_store:
        os.remove(STORE)
    if signal == SIGSTOP:
        broker.send_signal(SIGCONT)
    else:
        start_broker()
    publish("b/new", "ALARM2 after")


def network_stops():
    publish("a/door", "ALARM1")
    output("ip", "address", "del", "10.0.0.1/32", "dev", "lo")
    wait_until(is_raised, SILENT)
    publish("a/door", "", "a/gate", "ALARM2")
    output("ip", "address", "add", "10.0.0.1/32", "dev", "lo")


def line_is_slow():
    """The replay takes three times the silence."""
    names = [word for number in range(90) for word in (f"slow/{number}", "ALARM1 " + "x" * 200)]
    publish(*names)
    wait_until(is_raised, "[mqtt/slow/89] alarm1")
    stop(bridge, SIGTERM)
    expected = len(held())
    output(*"tc qdisc add dev lo root tbf rate 16kbit burst 2000 latency 1000s".split())
    start_bridge()
    wait_until(is_logged, "which holds")
    assert is_logged(f"which holds {expected} alarms"), "takes a part for the whole"
    output(*"tc qdisc del dev lo root".split())
    publish(*(name if name.startswith("slow") else "" for name in names))


def file_changes(*words):
    publish("a/door", "ALARM1")
    wait_until(is_raised, "[mqtt/a/door] alarm1")
    output(*words)
    output(command, "--file", "alarms", "raise", "local")


def file_is_locked(path):
    publish("a/door", "ALARM1")
    wait_until(is_raised, "[mqtt/a/door] alarm1")
    locked = os.open(path, os.O_RDONLY)
    fcntl.flock(locked, fcntl.LOCK_EX)
    time.sleep(SILENCE)  # in which it only looks
    publish("a/door", "", "a/gate", "ALARM2")
    wait_until(is_logged, "cannot update the alarms file")
    os.close(locked)


def refused(reason, name, payload, retain=True):
    publish("a/door", "ALARM1 before")
    publish(name, payload, retain=retain)
    publish("a/gate", "ALARM2 behind")
    wait_until(is_logged, reason)
    publish(name, "")


def too_large():
    """The broker keeps it to itself."""
    publish("large", "x" * 3000000, "a/gate", "ALARM1 behind")


def most_memory():
    """In kB."""
    return int(re.search(r"VmHWM:\s*(\d+)", open(f"/proc/{bridge.pid}/status").read())[1])


def is_at_limit(alarm):
    alarms = raised()
    return sum("[mqtt/" in line for line in alarms) == LIMIT and f"[mqtt] {alarm}" in alarms


def many_topics():
    before = most_memory()
    publish(*(word for number in range(10000) for word in (f"many/{number}", "ALARM1")))
    publish("zz/last", "ALARM2 beyond the limit")
    wait_until(is_at_limit, "alarm2")
    stop(bridge, SIGKILL)
    os.remove("alarms")
    start_bridge()
    wait_until(is_at_limit, "alarm2")
    output(command, "--file", "alarms", "raise", "local")
    publish("zz/last", "")
    wait_until(is_at_limit, "alarm1")
    stop(broker, SIGKILL)
    os.remove(STORE)
    start_broker()
    assert most_memory() - before < 16384, f"from {before} to {most_memory()} kB"


def many_messages():
    publish(*(word for number in range(5000) for word in ("busy", f"ALARM{number % 2 + 1} {number}")))


def cannot_connect(reason, *settings):
    """An alarm of its own says so beside those known, one line of the log why, and it waits."""
    publish("a/door", "ALARM1")
    wait_until(is_raised, "[mqtt/a/door] alarm1")
    restart_bridge(*settings)
    wait_until(is_raised, SILENT)
    assert is_raised("[mqtt/a/door] alarm1"), "cleared what it does not know"
    wait_until(is_logged, reason)
    assert log.count(reason) == 1, "is told more than once"
    # User and system time, in hundredths of the seconds of silence.
    times = open(f"/proc/{bridge.pid}/stat").read().split()[13:15]
    assert sum(map(int, times)) < 100, "does not wait"
    restart_bridge()


def encrypted():
    restart_bridge("Port=8883", "CaFile=own.crt")
    publish("a/encrypted", "ALARM1")
    wait_until(is_raised, "[mqtt/a/encrypted] alarm1")
    publish("a/encrypted", "")


STORE = "store/mosquitto.db"
NO_ALARM = "is not ALARM1, ALARM2 or empty"
FAULTS = [
    (publish, "a/door", "ALARM2 open", "b/boiler", "alarm1"),
    (publish, "a/door", "", "a/gate", "ALARM1 line\n\tand more", "ä/grüße.[1] x", 'ALARM2 "q"'),
    (publish, "Case", "ALARM1 one", "case", "ALARM2 two"),
    (publish, "case", ""),
    (bridge_stops, SIGKILL),
    (bridge_stops, SIGSTOP),
    (bridge_restarts_unchanged,),
    (broker_stops, SIGTERM),
    (broker_stops, SIGKILL),
    (broker_stops, SIGSTOP),
    (broker_stops, SIGKILL, "loses its store"),
    (network_stops,),
    (line_is_slow,),
    (file_changes, "rm", "alarms"),
    (file_changes, command, "--file", "alarms", "clear", "--all"),
    (file_is_locked, "."),
    (file_is_locked, "alarms"),
    (refused, NO_ALARM, "a/door", "ALARM2" + "0" * 1000000),
    (refused, "ends in a blank or a bracket", "a/b]", "ALARM1"),
    (refused, "is not retained", "a/event", "ALARM2", False),
    (too_large,),
    (many_topics,),
    (many_messages,),
    (cannot_connect, "Not authorized", "PasswordFile=wrong"),
    (cannot_connect, "Connection refused", "Port=1"),
    (cannot_connect, "certificate verify failed", "Port=8883", "CaFile=other.crt"),
    (cannot_connect, "published below", "User=reader", "PasswordFile=right"),
    (encrypted,),
]

output("ip", "link", "set", "lo", "up", "mtu", "1500")
output("ip", "address", "add", "10.0.0.1/32", "dev", "lo")
os.mkdir("store")
for name in ("own", "other"):
    output(*f"openssl req -x509 -newkey rsa:2048 -nodes -keyout {name}.key -out {name}.crt -days 2"
           " -subj /CN=pinwatchd -addext subjectAltName=IP:10.0.0.1".split())
files = {
    "right": "right",
    "wrong": "wrong",
    "passwords": "admin:right\nbridge:right\nreader:right\n",
    "rights": f"user admin\ntopic readwrite #\nuser reader\ntopic read #\nuser bridge\n"
              f"topic read {TOPIC}/#\ntopic readwrite pinwatchd/status/lamp/#\ntopic write homeassistant/#\n",
    "broker.conf": f"user root\npassword_file passwords\nacl_file rights\npersistence true\n"
                   f"persistence_location {os.getcwd()}/store/\nautosave_interval 1\nlistener 1883\n"
                   "listener 8883\ncertfile own.crt\nkeyfile own.key\n",
}
for name, content in files.items():
    with open(name, "w") as file:
        file.write(content)
output("mosquitto_passwd", "-U", "passwords")
start_broker()
start_bridge()
output(command, "--file", "alarms", "raise", "local")
for fault, *arguments in FAULTS:
    title = f"{fault.__name__}{arguments}"[:100]
    if only not in title:
        continue
    began = time.monotonic()
    log = ""
    try:
        fault(*arguments)
        expected = held() | {"[local] alarm1"}
        wait_until(lambda: raised() == expected)
    except BaseException:
        print(f"failed: {title}\n{log}\nraised: {sorted(raised())[:10]}\nheld: {sorted(held())[:10]}")
        raise
    print(f"ok {title}, {time.monotonic() - began:.0f} s, {len(expected)} alarms", flush=True)
stop(bridge, SIGTERM)
sensor = json.loads(received("homeassistant/sensor/pinwatchd_lamp/alarm/config", "-C", "1"))
assert received(sensor["availability_topic"], "-C", "1") == "offline\n", "is not offline"
assert only or received(sensor["state_topic"], "-C", "1") == "ALARM2\n", "tells another alarm"
output(program, "--config", "conf", "--clear")
assert raised() == {"[local] alarm1"}, "did not clear its own alone"
