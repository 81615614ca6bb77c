"""The local service and the device app as child processes of a script.

For tools/life.py and the end-to-end tests. Nothing here sleeps: everything waits for a line or an answer.
"""

import collections
import http.client
import json
import os
import queue
import signal
import ssl
import subprocess
import threading
import urllib.parse

APP_KEY = "stage-app"
HASH_KEY = "stage-hash-key"
TRACKING_KEY = "stage-tracking-key"

# Longer than any of our programs takes, even with a sanitizer on a busy machine; only a hanging one gets there.
PATIENCE_SECONDS = 90.0
# Number of a child's log lines that are kept for people.
KEPT_LOG_LINES = 400


class StageError(Exception):
    """A program failed; the text is for people."""


def program(build_dir, name):
    """The path of one of our programs."""
    path = os.path.join(build_dir, "bin", name)
    if not os.access(path, os.X_OK):
        raise StageError(f"there is no program {path}; build it, or name another folder with --build-dir")
    return path


def write_keys(folder, app_key=APP_KEY, hash_key=HASH_KEY, tracking_key=TRACKING_KEY):
    """Writes a file with the keys that device and service share; returns its path."""
    path = os.path.join(folder, "keys")
    with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w", encoding="utf-8") as file:
        file.write(f"app-key={app_key}\nhash-key={hash_key}\ntracking-key={tracking_key}\n")
    return path


class Lines:
    """The lines of a child's pipe, read by a thread and returned one by one; None at the end."""

    def __init__(self, pipe, on_line=None):
        self._pipe = pipe
        self._on_line = on_line
        self._queue = queue.Queue()
        self.kept = collections.deque(maxlen=KEPT_LOG_LINES)
        self._thread = threading.Thread(target=self._read, daemon=True)
        self._thread.start()

    def _read(self):
        for raw in self._pipe:
            line = raw.decode("utf-8", "replace").rstrip("\n")
            self.kept.append(line)
            if self._on_line:
                self._on_line(line)
            else:
                self._queue.put(line)
        self._queue.put(None)

    def next(self, timeout):
        """The next line, or None at the end. Raises queue.Empty if none comes in time."""
        line = self._queue.get(timeout=timeout)
        if line is None:
            self._queue.put(None)
        return line

    def finish(self):
        """Waits for the end of the pipe, and closes it."""
        self._thread.join(PATIENCE_SECONDS)
        self._pipe.close()


class Service:
    """A morvik-service on a free loopback port, with its own certificate and its store in `folder`."""

    def __init__(self, build_dir, folder, keys_file, on_line=None, environment=None):
        self.folder = folder
        tls = os.path.join(folder, "tls")
        self.ca_file = os.path.join(tls, "ca.pem")
        self.child = subprocess.Popen(
            [program(build_dir, "morvik-service"), "--port", "0", "--make-cert", tls, "--store",
             os.path.join(folder, "store"), "--keys", keys_file],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True,
            env=None if environment is None else {**os.environ, **environment})
        self._errors = Lines(self.child.stderr, on_line or (lambda line: None))
        self._output = Lines(self.child.stdout)
        line = self._output.next(PATIENCE_SECONDS)
        if line is None:
            self._errors.finish()
            raise StageError("the service did not start: " + " ".join(self._errors.kept))
        self.url = json.loads(line)["listening"]
        self._lock = threading.Lock()
        self._connection = self._connect()

    def _connect(self):
        address = urllib.parse.urlsplit(self.url)
        return http.client.HTTPSConnection(address.hostname, address.port, timeout=PATIENCE_SECONDS,
                                           context=ssl.create_default_context(cafile=self.ca_file))

    def call(self, method, path, body=None):
        """Calls an inspection path; returns the decoded JSON of the answer."""
        text = None if body is None else json.dumps(body)
        headers = {} if body is None else {"Content-Type": "application/json"}
        with self._lock:
            try:
                self._connection.request(method, path, text, headers)
                answer = self._connection.getresponse()
                content = answer.read()
            except (http.client.HTTPException, OSError):  # the service may close what was idle
                self._connection.close()
                self._connection.request(method, path, text, headers)
                answer = self._connection.getresponse()
                content = answer.read()
        if answer.status != 200:
            raise StageError(f"{method} {path}: the service answered {answer.status} {content.decode()}")
        return json.loads(content)

    def behave(self, endpoint, kind, count=1, **more):
        """Makes the next answers of the endpoint misbehave."""
        self.call("POST", "/inspect/behaviour", {"endpoint": endpoint, "kind": kind, "count": count, **more})

    def _all(self, name, after):
        entries, complete = [], False
        while not complete:
            page = self.call("GET", f"/inspect/{name}?after={after}")
            entries += page[name]
            complete, after = page["complete"], page["next_after"]
        return entries

    def requests(self, after=0):
        """The requests received since number `after`, oldest first."""
        return self._all("requests", after)

    def events(self, after=0):
        """The distinct events since number `after`, in the order of their first arrival."""
        return self._all("events", after)

    def stop(self):
        """Stops the service; returns its exit status."""
        if self.child.poll() is None:
            self.child.send_signal(signal.SIGTERM)
        status = self.child.wait(PATIENCE_SECONDS)
        self._connection.close()
        self._output.finish()
        self._errors.finish()
        return status


class Device:
    """A morvik-device driven by verbs. `on_log` gets each line of its log, on a separate thread."""

    def __init__(self, build_dir, arguments, on_callback=None, on_log=None, environment=None):
        self.callbacks = []
        self._on_callback = on_callback
        self.child = subprocess.Popen([program(build_dir, "morvik-device"), *arguments], stdin=subprocess.PIPE,
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                      env=None if environment is None else {**os.environ, **environment})
        self._lines = Lines(self.child.stdout)
        self._log = Lines(self.child.stderr, on_log or (lambda line: None))

    @property
    def log(self):
        """The last lines of its log."""
        return list(self._log.kept)

    def say(self, *lines):
        """Writes verbs without waiting for their answers."""
        self.child.stdin.write("".join(line + "\n" for line in lines).encode())
        self.child.stdin.flush()

    def _next(self, timeout):
        line = self._lines.next(timeout)
        if line is None:
            return None
        entry = json.loads(line)
        if "callback" in entry:
            self.callbacks.append(entry)
            if self._on_callback:
                self._on_callback(entry)
        return entry

    def answer(self, timeout=PATIENCE_SECONDS):
        """The next answer of a verb; None if the device is gone. Raises queue.Empty if none comes in time."""
        while True:
            entry = self._next(timeout)
            if entry is None or "verb" in entry:
                return entry

    def do(self, line):
        """Writes a verb and returns its answer."""
        self.say(line)
        answer = self.answer()
        if answer is None:
            raise StageError(f"the device ended at '{line}': " + "; ".join(self.log[-5:]))
        return answer

    def store(self, *names):
        """These stored properties, or all."""
        return self.do(" ".join(("store",) + names))["values"]

    def stored_events(self):
        return self.store("fendoActivityInfos").get("fendoActivityInfos", [])

    def wait_for_callback(self, selector, timeout=PATIENCE_SECONDS):
        """Waits until the delegate was called like this; returns the arguments."""
        while True:
            for entry in self.callbacks:
                if entry["callback"] == selector:
                    return entry["args"]
            if self._next(timeout) is None:
                raise StageError(f"the device ended before it called {selector}: " + "; ".join(self.log[-5:]))

    def rest(self):
        """Waits for the end of the process and returns (exit status, the unread answers)."""
        answers = []
        while (entry := self.answer()) is not None:
            answers.append(entry)
        status = self.child.wait(PATIENCE_SECONDS)
        self._close_input()
        self._lines.finish()
        self._log.finish()
        return status, answers

    def _close_input(self):
        try:
            self.child.stdin.close()
        except BrokenPipeError:
            pass

    def end_input(self):
        """Ends the input, which shuts the device down; returns as rest()."""
        self._close_input()
        return self.rest()

    def kill(self):
        """Sends SIGKILL; returns as rest()."""
        self.child.kill()
        return self.rest()


def quoted(word):
    """A word in the form of the device's lines."""
    return '"' + word.replace("\\", "\\\\").replace('"', '\\"') + '"'
