"""A simulated site on one machine: access points (each its own ltrd with its own
radios, settings, store and sockets), simulated radios and one location server.

Everything runs inside fresh user, network, mount, IPC and PID namespaces, so that
the processes, interfaces, shared memory and files under /tmp that a site creates
vanish with it, and nothing needs root on the host.
"""
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time

NS_ENV = "LTR_SITE_NS"
SERVER_PORT = 7420
TLS_NAME = "ls.site.test"  # the server's name in its certificate, on a TLS site
REPO = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))


class SiteError(Exception):
    pass


def namespaces_available():
    """True when this machine lets us create the namespaces a site needs."""
    if os.environ.get(NS_ENV) == "1":
        return True
    if not shutil.which("unshare") or not shutil.which("ip"):
        return False
    try:
        r = subprocess.run(["unshare", "-Urnimp", "--fork", "--mount-proc", "sh", "-c",
                            "ip link add t0 type ifb || ip link add t0 type dummy"],
                           capture_output=True, timeout=20)
        return r.returncode == 0
    except (OSError, subprocess.SubprocessError):
        return False


def _pump(a, b):
    """Copies bytes both ways between two connected sockets until either side ends."""
    def one(src, dst):
        try:
            while data := src.recv(65536):
                dst.sendall(data)
        except OSError:
            pass
        for s in (src, dst):
            try:
                s.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
    for pair in ((a, b), (b, a)):
        threading.Thread(target=one, args=pair, daemon=True).start()


def _relay(listener, connect):
    """Accepts on listener and joins each connection to a fresh connect()."""
    def loop():
        while True:
            c, _ = listener.accept()
            try:
                t = connect()
            except OSError:
                c.close()
                continue
            _pump(c, t)
    threading.Thread(target=loop, daemon=True).start()


def serve_forward(path, port):
    """Inside the namespaces: the unix socket path leads to 127.0.0.1:port here."""
    if os.path.exists(path):
        os.unlink(path)
    lst = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    lst.bind(path)
    lst.listen(16)
    _relay(lst, lambda: socket.create_connection(("127.0.0.1", port)))


def enter_namespaces(argv, keep=(), forward=None):
    """Runs argv (a Python script and its arguments) again inside the namespaces, unless
    already there; inside, gives it a private /tmp and a loopback interface. Paths in
    keep that lie under /tmp (a checkout or build tree) stay visible there.
    forward=(port, path): this process stays outside, listens on the host's 127.0.0.1:port
    and relays each connection to the unix socket path, which the script serves inside
    with serve_forward; returns False when that port is taken (nothing is relayed)."""
    if os.environ.get(NS_ENV) != "1":
        env = dict(os.environ, **{NS_ENV: "1"})
        cmd = ["unshare", "-Urnimp", "--fork", "--kill-child", "--mount-proc", "--",
               sys.executable] + argv
        if not forward:
            os.execvpe("unshare", cmd, env)
        lst = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        try:
            lst.bind(("127.0.0.1", forward[0]))
            lst.listen(16)
        except OSError:
            env[NS_ENV + "_NO_FORWARD"] = "1"
            lst = None
        child = subprocess.Popen(cmd, env=env)
        # Ctrl-C reaches the child too; it stops the site, then we end with it.
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        signal.signal(signal.SIGTERM, lambda *_: child.terminate())
        if lst:
            def to_child():
                s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                s.connect(forward[1])
                return s
            _relay(lst, to_child)
        sys.exit(child.wait())
    old_tmp = os.open("/tmp", os.O_RDONLY | os.O_DIRECTORY)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/tmp"], check=True)
    kept = []
    for path in sorted(os.path.realpath(p) for p in keep):
        if not path.startswith("/tmp/") or any(path.startswith(k + "/") for k in kept):
            continue
        kept.append(path)
        os.makedirs(path, exist_ok=True)
        src = f"/proc/{os.getpid()}/fd/{old_tmp}/{os.path.relpath(path, '/tmp')}"
        subprocess.run(["mount", "--no-canonicalize", "--rbind", src, path], check=True)
    os.close(old_tmp)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    return os.environ.get(NS_ENV + "_NO_FORWARD") != "1"


def add_interface(name):
    """A virtual interface to play a radio: dummy where the kernel has it, else ifb."""
    subprocess.run(["ip", "link", "del", name], capture_output=True)
    for kind in ("dummy", "ifb"):
        r = subprocess.run(["ip", "link", "add", name, "type", kind], capture_output=True)
        if r.returncode == 0:
            subprocess.run(["ip", "link", "set", name, "up"], check=True)
            return kind
    raise SiteError(f"cannot create interface {name}: {r.stderr.decode().strip()}")


def wait_until(pred, timeout, what):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        v = pred()
        if v:
            return v
        time.sleep(0.05)
    raise SiteError(f"timed out after {timeout} s waiting for {what}")


class Server:
    """ltr-server with JSON output; requests go through its standard input."""

    def __init__(self, binary, workdir, port=SERVER_PORT, extra=()):
        self.messages = []
        self.cond = threading.Condition()
        self.log = open(os.path.join(workdir, "ltr-server.jsonl"), "w")
        self.proc = subprocess.Popen(
            [binary, "--listen", f"127.0.0.1:{port}", "--json", "--duration", "0", *extra],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
            bufsize=1, start_new_session=True)  # Ctrl-C is for the script, which stops it
        self.errors = []
        threading.Thread(target=self._read, daemon=True).start()
        threading.Thread(target=self._read_err, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.log.write(line)
            self.log.flush()
            try:
                msg = json.loads(line)
            except ValueError:
                continue
            msg["_t"] = time.monotonic()
            with self.cond:
                self.messages.append(msg)
                self.cond.notify_all()

    def _read_err(self):
        for line in self.proc.stderr:
            self.errors.append(line.rstrip())

    def send(self, command):
        self.proc.stdin.write(command + "\n")
        self.proc.stdin.flush()

    def mark(self):
        with self.cond:
            return len(self.messages)

    def wait_for(self, pred, timeout=10, since=0, what="a message from the server"):
        """The first message at index >= since for which pred is true."""
        end = time.monotonic() + timeout
        i = since
        with self.cond:
            while True:
                while i < len(self.messages):
                    if pred(self.messages[i]):
                        return self.messages[i]
                    i += 1
                left = end - time.monotonic()
                if left <= 0:
                    raise SiteError(f"timed out after {timeout} s waiting for {what}")
                self.cond.wait(left)

    def since(self, mark, pred=lambda m: True):
        with self.cond:
            return [m for m in self.messages[mark:] if pred(m)]

    def close(self):
        if self.proc.poll() is None:
            try:
                self.send("quit")
                self.proc.stdin.close()
            except OSError:
                pass
            try:
                self.proc.wait(timeout=3)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.log.close()


class AccessPoint:
    def __init__(self, site, index, radios=2):
        self.site = site
        self.index = index
        self.name = f"ap{index}"
        self.ip = f"127.0.0.{10 + index}"
        self.mac = f"02:fe:00:00:00:{index:02x}"
        self.dir = os.path.join(site.root, self.name)
        self.run_dir = os.path.join(self.dir, "run")
        self.radios = [f"{self.name}w{r}" for r in range(radios)]
        self.proc = None
        self.config = os.path.join(self.dir, "platform.toml")
        os.makedirs(self.dir, exist_ok=True)
        for r in self.radios:
            add_interface(r)

    def write_config(self, peers, extra="", radio_lines=('driver = "sim"',)):
        """radio_lines: the keys of every [[radio]] table after its name."""
        s = self.site
        lines = [
            f'instance = "{self.name}"',
            f'runtime_dir = "{self.run_dir}"',
            "foreground = true",
            "[log]",
            "syslog = false",
            f'file = "{self.dir}/ltrd.log"',
            "[mgt]",
            'interface = "lo"',
            f'mac = "{self.mac}"',
            f'ip = "{self.ip}"',
            "[server]",
            f'address = "127.0.0.1:{s.server_port}"',
        ]
        if s.pki:
            lines += ["tls = true", f'ca_file = "{s.pki}/ca.crt"', f'server_name = "{TLS_NAME}"',
                      f'cert_file = "{s.pki}/{self.name}.crt"', f'key_file = "{s.pki}/{self.name}.key"']
        lines += [
            "[neighbours]",
            f'bind = "{self.ip}"',
            "peers = [" + ", ".join(f'"{p}"' for p in peers) + "]",
        ]
        if s.key_file:
            lines.append(f'key_file = "{s.key_file}"')
        lines += ["[store]", f'dir = "{self.dir}/db"', "[sim]", f'ap = "{self.name}"',
                  f"seed = {s.seed}"]
        if s.world:
            lines.append(f'world = "{s.world}"')
        for r in self.radios:
            lines += ["[[radio]]", f'name = "{r}"', *radio_lines]
        with open(self.config, "w") as f:
            f.write("\n".join(lines) + "\n" + extra)

    def start(self, wait=True):
        env = dict(os.environ, QZ_PLATFORM_CONFIG=self.config)
        self.out = open(os.path.join(self.dir, "ltrd.out"), "a")
        self.proc = subprocess.Popen([self.site.bin("ltrd")], env=env, stdout=self.out,
                                     stderr=subprocess.STDOUT, start_new_session=True)
        if wait:
            wait_until(lambda: self.proc.poll() is not None or self.serving(), 10,
                       f"{self.name} to come up")
            if self.proc.poll() is not None:
                raise SiteError(f"{self.name} exited with {self.proc.returncode}: {self.log_tail()}")

    def serving(self):
        """The CLI agent accepts connections (a socket file left by a killed daemon
        does not count)."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            try:
                s.connect(self.sock("cli.sock"))
                return True
            except OSError:
                return False

    def stop(self, sig=signal.SIGTERM, timeout=10):
        if not self.proc or self.proc.poll() is not None:
            return self.proc.returncode if self.proc else None
        self.proc.send_signal(sig)
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
            raise SiteError(f"{self.name} did not stop within {timeout} s")
        finally:
            self.out.close()

    def sock(self, name):
        return os.path.join(self.run_dir, name)

    def log_tail(self, n=20):
        try:
            with open(os.path.join(self.dir, "ltrd.log")) as f:
                return "".join(f.readlines()[-n:])
        except OSError:
            return ""

    def ctl(self, *words, stdin=None, check=True):
        r = subprocess.run([self.site.bin("ltrctl"), "-s", self.sock("cli.sock")] + list(words),
                           input=stdin, capture_output=True, text=True, timeout=20)
        if check and r.returncode != 0:
            raise SiteError(f"ltrctl {' '.join(words)} on {self.name}: exit {r.returncode}: "
                            f"{r.stdout}{r.stderr}")
        return r

    def radio(self, line):
        """One radio.sock request; returns the reply lines before 'ok'."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
            s.settimeout(5)
            s.connect(self.sock("radio.sock"))
            s.sendall((line + "\n").encode())
            buf = b""
            while True:
                chunk = s.recv(4096)
                if not chunk:
                    break
                buf += chunk
                lines = buf.decode().splitlines()
                if lines and (lines[-1] == "ok" or lines[-1].startswith("error:")):
                    break
        lines = buf.decode().splitlines()
        if not lines or lines[-1] != "ok":
            raise SiteError(f"radio.sock {line!r} on {self.name}: {lines[-1] if lines else 'no reply'}")
        return lines[:-1]


_next_port = [SERVER_PORT]


class Site:
    def __init__(self, build, aps=3, radios=2, world=None, seed=1, key=None, root=None, tls=False):
        self.build = build
        self.server_port = _next_port[0]
        _next_port[0] += 1
        self.root = root or "/tmp/site"
        os.makedirs(self.root, exist_ok=True)
        self.world = world
        self.seed = seed
        self.key_file = None
        if key:
            self.key_file = os.path.join(self.root, "site.key")
            with open(self.key_file, "w") as f:
                f.write(key)
            os.chmod(self.key_file, 0o600)
        self.server = None
        # With tls, the server and every access point get certificates of a site CA
        # (scripts/site-certs), and the links run mutual TLS.
        self.pki = None
        if tls:
            self.pki = os.path.join(self.root, "pki")
            subprocess.run([os.path.join(REPO, "scripts", "site-certs"), self.pki, TLS_NAME]
                           + [f"ap{i + 1}" for i in range(aps)], check=True, capture_output=True)
        self.aps = [AccessPoint(self, i + 1, radios) for i in range(aps)]
        for ap in self.aps:
            ap.write_config([p.ip for p in self.aps if p is not ap])

    def bin(self, name):
        for sub in ("", "tools/ltrctl", "tools/ltr-server"):
            p = os.path.join(self.build, sub, name)
            if os.path.exists(p):
                return p
        raise SiteError(f"{name} not found under {self.build}")

    def start_server(self, extra=()):
        """extra: further ltr-server options (--site, --http, --mqtt...)."""
        tls_args = ()
        if self.pki:
            tls_args = ("--tls-cert", f"{self.pki}/server.crt", "--tls-key", f"{self.pki}/server.key",
                        "--tls-ca", f"{self.pki}/ca.crt")
        self.server = Server(self.bin("ltr-server"), self.root, self.server_port, (*tls_args, *extra))
        return self.server

    def start(self, enable=True, interval=None):
        """Starts the server and every access point; with enable, switches tracking on
        (after setting the report interval, which only takes effect at once then)."""
        if not self.server:
            self.start_server()
        for ap in self.aps:
            ap.start()
        mark = 0
        for ap in self.aps:
            self.server.wait_for(lambda m, n=ap.name: m.get("event") == "hello" and m.get("ap") == n,
                                 10, mark, f"{ap.name} to say hello")
        if enable:
            for ap in self.aps:
                if interval:
                    ap.ctl("location-tracking", "report-interval", str(interval))
                ap.ctl("location-tracking", "enable")

    def ap_by_mac(self, mac):
        for ap in self.aps:
            if ap.mac == mac:
                return ap
        return None

    def close(self):
        for ap in self.aps:
            try:
                ap.stop(timeout=5)
            except SiteError:
                pass
        if self.server:
            self.server.close()
        for ap in self.aps:
            for r in ap.radios:
                subprocess.run(["ip", "link", "del", r], capture_output=True)
