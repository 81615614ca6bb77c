#!/usr/bin/env python3
"""Plays a device against the local service, shows what happens, and balances the account."""

import argparse
import collections
import json
import os
import queue
import random
import shutil
import sys
import tempfile
import threading
import time

import stage

GROUP = "shop"
NAMES = ("look", "search", "basket", "share", "buy")
DEEPLINK = "shop://offer/7"
# The size trigger: this many stored events make a batch.
BATCH_EVENTS = 10
# The delay of the retry after a failed conversion.
CONVERSION_RETRY_SECONDS = 10
# A session that ended less than a minute ago is kept.
WITHIN_A_MINUTE_SECONDS = 20
OVER_A_MINUTE_SECONDS = 90
# The modules registered with the device: their calls are printed.
MODULES = ("Fendo", "FendoLib", "QuintPush")
CAMPAIGN, LATER_CAMPAIGN = 501, 502
LONG_ARGUMENTS = 120
COMMERCE_CLICK = "click-77"
AGE, USER = 27, "user 7"
# A crash concerns the kit if its text names one of its modules.
OUR_CRASH, OTHER_CRASH = "fendo broke", "the shop broke"


class Failed(Exception):
    """A step failed."""


class Screen:
    """The printed lines: who did what, one short line each, in order."""

    STYLES = {"bold": "1", "dim": "2", "red": "31", "green": "32", "yellow": "33", "blue": "34", "cyan": "36"}

    def __init__(self, stream):
        self._stream = stream
        self._coloured = stream.isatty() and "NO_COLOR" not in os.environ
        self._lock = threading.Lock()
        self._steps = 0

    def paint(self, text, style):
        return f"\x1b[{self.STYLES[style]}m{text}\x1b[0m" if self._coloured else text

    def write(self, text=""):
        with self._lock:
            print(text, file=self._stream, flush=True)

    def step(self, title):
        self._steps += 1
        self.write()
        self.write(self.paint(f"{self._steps:2}  {title}", "bold"))

    def line(self, who, style, text):
        self.write(f"    {self.paint(f'{who:<8}', style)} {text}")

    def device(self, text):
        self.line("device", "cyan", text)

    def app(self, text):
        self.line("app", "blue", text)

    def service(self, text, answer, well):
        arrow = self.paint(f"-> {answer}", "green" if well else "yellow")
        self.line("service", "yellow", f"{text}  {arrow}")

    def note(self, text):
        self.line("", "dim", self.paint(text, "dim"))

    def good(self, text):
        self.line("", "dim", f"{self.paint('ok', 'green')}  {text}")

    def bad(self, text):
        self.line("", "dim", f"{self.paint('NO', 'red')}  {text}")

    def detail(self, label, text):
        for line in text.splitlines():
            self.line("", "dim", self.paint(f"{label} {line}", "dim"))


def numbered(count, thing):
    return f"{count} {thing}" if count == 1 else f"{count} {thing}s"


def in_short(entries):
    """What a batch carries: "session/start, shop/look x3"."""
    counts = collections.Counter(f"{entry['group']}/{entry['activity']}" for entry in entries)
    return ", ".join(name if count == 1 else f"{name} x{count}" for name, count in counts.items())


def received(request):
    """What the service received, decoded and summarized."""
    payload = request["payload"]
    what = f"#{request['id']} {request['endpoint'] or request['path']}"
    if payload is None:
        return f"{what} without payload"
    if request["endpoint"] == "tracking":
        text = f"{what}: {numbered(len(payload['activity_info']), 'event')} ({in_short(payload['activity_info'])})"
        impressions = len(payload["impression_info"])
        return text + (f", {numbered(impressions, 'impression')}" if impressions else "")
    if request["endpoint"] == "crash":
        return f"{what}: {numbered(len(payload), 'report')} ({', '.join(one['exception_reason'] for one in payload)})"
    if request["endpoint"] == "demographics":
        told = payload.get("user_demo_info", [])
        return f"{what}: " + ", ".join(f"{one['demo_key']} {one['demo_value']}" for one in told)
    if request["endpoint"] == "schedule":
        return f"{what}: checksum {payload['checksum'][:8]}"
    if request["endpoint"] == "erasure":
        return f"{what}: {payload['subject_request_type']}, {payload['subject_request_id'][:8]}"
    if request["endpoint"] == "commerce-conversion":
        return f"{what}: {numbered(len(payload), 'click')} ({', '.join(click['clickId'] for click in payload)})"
    if "deeplink_info" in payload:
        link = payload["deeplink_info"]
        return f"{what}: campaign {link['conversion_key']}, {link['deeplink_uri']}"
    return f"{what}: app {payload['appkey']}, install {payload['install_id'][:8]}"


def answered(request):
    """A summary of the service's answer, and whether it was a good one."""
    answer = request["answer"]
    asked = f", as asked ({request['behaviour']['kind']})" if request["behaviour"] else ""
    if not answer["sent"]:
        counted = "after counting" if request["counted"] else "before counting"
        return f"connection closed {counted}{asked}", False
    if request["refusal"]:
        return f"{answer['status']} refused: {request['refusal']['error']}", False
    if answer["status"] >= 300:
        return f"{answer['status']}{asked}", False
    text = f"{answer['status']}"
    if request["endpoint"] == "tracking":
        text += f", {request['events_new']} new"
        text += f", {request['events_again']} seen before" if request["events_again"] else ""
    else:
        text += said(json.loads(answer["body"]))
    return text + asked, True


def said(answer):
    """A summary of what an answer tells the device."""
    data = answer.get("Data", {})
    if "user_no" in data:
        return f", user {data['user_no']}, campaign {data['referralKey']}"
    if "conversion_result" in data:
        return f", re-engaged by campaign {data['conversion_result']['conversion_key']}"
    if answer.get("ResultCode") == 1001:
        return ", unchanged"
    if "CheckSum" in data:
        return f", schedule {data['CheckSum'][:8]}"
    if "commerce" in answer:
        return f", premium postback {answer['commerce']['premium_postback']}"
    return ""


def cause_of_repetition(request, killed):
    """Why the content of this request was sent again; None if there is no reason."""
    if request["id"] in killed:
        return f"the process was killed before the answer to #{request['id']} arrived"
    if not request["answer"]["sent"]:
        return f"the answer to #{request['id']} was lost"
    if request["refusal"]:
        return f"#{request['id']} was refused"
    if request["answer"]["status"] >= 300:
        return f"#{request['id']} was answered {request['answer']['status']}"
    return None


def show_ledger(ledger, screen):
    """The device's own account, by kind."""
    columns = ("recorded", "delivered", "stored", "under_way", "given_up")
    screen.write()
    headings = "".join(f"{name.replace('_', ' '):>11}" for name in columns)
    screen.write("    " + f"{'the device itself says':<24}" + headings)
    for account in ledger["accounts"]:
        screen.write("    " + f"{account['kind']:<24}" + "".join(f"{account[name]:>11}" for name in columns))
    for each in ledger["given_up"]:
        screen.note(f"given up: {each['count']} of {each['kind']}, {each['reason']}")


class Account:
    """What was recorded, and what became of it."""

    def __init__(self):
        self.answered = []  # parameters of the app's events whose recording was answered
        self.attempted = []  # those that were asked for when the process was killed, without an answer
        self.starts = 0
        self.ends = 0
        self.ends_left_out = 0
        self.seen = {}  # by id: records that were seen in the store
        self.killed = set()  # numbers of requests that were under way when the process was killed

    def saw(self, records):
        for record in records:
            self.seen[record["activityEventID"]] = record

    def settle(self, requests, events, stored, ledger, screen):
        """Prints the account and what the device says of it (`ledger`); true if both balance and agree."""
        self.saw(stored)
        delivered = {event["event_id"]: event for event in events}
        stored_ids = {record["activityEventID"] for record in stored}
        recorded = {event_id: (record["activityGroupName"], record["activityName"], record.get("activityParam", ""))
                    for event_id, record in self.seen.items()}
        recorded.update({event_id: (event["group"], event["activity"], event["param"])
                         for event_id, event in delivered.items()})
        gone = {event_id: recorded[event_id] for event_id in recorded.keys() - delivered.keys() - stored_ids}
        left_out = {event_id for event_id, (group, name, _) in gone.items() if (group, name) == ("session", "end")}
        row = self._rows(recorded, delivered, stored_ids, left_out, screen)
        problems = self._problems(recorded, gone, left_out, row)
        problems += self._repetitions(requests, events, screen)
        show_ledger(ledger, screen)
        problems += self._contradictions(ledger, row)
        screen.write()
        for problem in problems:
            screen.bad(problem)
        if not problems:
            screen.write(screen.paint(
                f"The account balances: {row['recorded']} recorded = {row['delivered']} delivered + "
                f"{row['stored']} still stored + {row['left out']} left out by rule.", "green"))
        return not problems

    @staticmethod
    def _rows(recorded, delivered, stored_ids, left_out, screen):
        kinds = {"events of the app": lambda group, name: group != "session"}
        for name in ("start", "end", "retention"):
            kinds[f"session {name}"] = lambda group, other, name=name: (group, other) == ("session", name)
        columns = ("recorded", "delivered", "stored", "left out")
        screen.write("    " + f"{'':<20}" + "".join(f"{column:>11}" for column in columns))
        totals = collections.Counter()
        for kind, matches in kinds.items():
            ids = {event_id for event_id, (group, name, _) in recorded.items() if matches(group, name)}
            # An event both stored and delivered still waits for its answer; it counts once, as delivered.
            numbers = (len(ids), len(ids & delivered.keys()), len((ids & stored_ids) - delivered.keys()),
                       len(ids & left_out))
            totals.update(dict(zip(columns, numbers)))
            screen.write("    " + f"{kind:<20}" + "".join(f"{number:>11}" for number in numbers))
        screen.write("    " + screen.paint(f"{'together':<20}" + "".join(f"{totals[c]:>11}" for c in columns), "bold"))
        for event_id in sorted(left_out):
            screen.note(f"left out by rule: the end of a session that was kept, {event_id}")
        return totals

    def _problems(self, recorded, gone, left_out, totals):
        problems = []
        by_param = collections.Counter(param for group, _, param in recorded.values() if group != "session")
        for param in self.answered:
            if by_param[param] != 1:
                problems.append(f"event {param} was recorded once and is known under {by_param[param]} ids")
        for param in by_param.keys() - set(self.answered) - set(self.attempted):
            problems.append(f"event {param} was never recorded and is there")
        for event_id in gone.keys() - left_out:
            problems.append(f"{'/'.join(gone[event_id])} was stored as {event_id} and is gone, and never arrived")
        sessions = collections.Counter(name for group, name, _ in recorded.values() if group == "session")
        for name, wanted in (("start", self.starts), ("end", self.ends)):
            if sessions[name] != wanted:
                problems.append(f"{wanted} sessions had to record their {name}, {sessions[name]} did")
        if sessions["retention"] < 1:
            problems.append("the first day of use was not recorded")
        if len(left_out) != self.ends_left_out:
            problems.append(f"{self.ends_left_out} ends had to be left out, {len(left_out)} were")
        if totals["recorded"] != totals["delivered"] + totals["stored"] + totals["left out"]:
            problems.append("the columns do not add up")
        return problems

    @staticmethod
    def _contradictions(ledger, totals):
        """What is not sound in the device's own ledger, or differs from this account."""
        problems = []
        if not ledger["balances"]:
            problems.append("the device's ledger does not balance")
        elif not ledger["sound"]:
            problems.append("the device's ledger is not sound: something went against the rules")
        activities = {account["kind"]: account for account in ledger["accounts"]}["activities"]
        for name, member in (("recorded", "recorded"), ("delivered", "delivered"), ("stored", "stored"),
                             ("left out", "given_up")):
            if activities[member] != totals[name]:
                problems.append(f"the device's ledger says that {activities[member]} activities were {name}, "
                                f"and {totals[name]} were")
        return problems

    def _repetitions(self, requests, events, screen):
        by_id = {request["id"]: request for request in requests}
        causes, problems = collections.Counter(), []
        for event in events:
            for number in event["requests"][:-1]:
                cause = cause_of_repetition(by_id[number], self.killed)
                if cause is None:
                    problems.append(f"{event['event_id']} arrived again after #{number}, which was answered well")
                else:
                    causes[cause] += 1
        for cause, count in causes.items():
            screen.note(f"arrived twice, counted once: {numbered(count, 'event')}; {cause}")
        return problems


class Life:
    """The device, the service and the output."""

    def __init__(self, build_dir, folder, seed, verbose, screen, started):
        self.build_dir = build_dir
        self.folder = folder
        self.verbose = verbose
        self.screen = screen
        self.random = random.Random(seed)
        self.account = Account()
        self.device = None
        self.service = None
        self._started = started  # in seconds since 1970
        self._first_event_told = False
        self._recorded = 0
        self._shown = 0
        self._showing = threading.Lock()

    # --- the service

    def start_service(self):
        keys = stage.write_keys(self.folder)
        folder = os.path.join(self.folder, "service")
        os.makedirs(folder)
        self._arrived = threading.Condition()
        self._arrivals = collections.Counter()
        self.service = stage.Service(self.build_dir, folder, keys, on_line=self._service_wrote)
        self._arguments = ["--store", os.path.join(self.folder, "device"), "--service", self.service.url, "--ca",
                           self.service.ca_file, "--keys", keys, "--report-ledger"]
        for module in MODULES:
            self._arguments += ["--module", module]
        if self.verbose:
            self._arguments += ["--log-level", "5"]

    def _service_wrote(self, _):
        # Each log line of the service is a request that it has received; its content comes from the service itself.
        if self.service is not None:
            self.show_requests()

    def show_requests(self):
        with self._showing:
            requests = self.service.requests(self._shown)
            for request in requests:
                self._shown = request["id"]
                self.screen.service(received(request), *answered(request))
                self.tell_first_event(request)
                if self.verbose:
                    self.screen.detail("received", json.dumps(request["payload"], indent=2))
                    self.screen.detail("answered", request["answer"]["body"])
        with self._arrived:
            self._arrivals.update(request["endpoint"] for request in requests)
            self._arrived.notify_all()

    def tell_first_event(self, request):
        if self._first_event_told or not request["events_new"]:
            return
        self._first_event_told = True
        self.screen.note(f"the first event is seen, {time.time() - self._started:.1f} s after the start")

    def wait_for_arrivals(self, endpoint, count):
        with self._arrived:
            if not self._arrived.wait_for(lambda: self._arrivals[endpoint] >= count, stage.PATIENCE_SECONDS):
                raise Failed(f"{numbered(count, endpoint + ' request')} had to arrive")

    def arrivals(self, endpoint):
        with self._arrived:
            return self._arrivals[endpoint]

    def misbehave(self, text, endpoint, kind, **more):
        self.service.behave(endpoint, kind, **more)
        self.screen.note(f"from here on {text}")

    # --- the device

    def start_device(self):
        started = time.monotonic()
        self.device = stage.Device(self.build_dir, self._arguments, on_callback=self._callback,
                                   on_log=self._device_wrote)
        self.device.store()
        self.screen.device(f"the app starts ({(time.monotonic() - started) * 1000:.0f} ms)")

    def _device_wrote(self, line):
        with open(os.path.join(self.folder, "device.log"), "a", encoding="utf-8") as file:
            file.write(line + "\n")
        if self.verbose:
            self.screen.detail("log", line)

    def _callback(self, entry):
        self.show_requests()  # the answer that made the device call
        who = f"module {entry['module']}" if "module" in entry else ""
        args = json.dumps(entry["args"])
        if len(args) > LONG_ARGUMENTS and not self.verbose:
            args = args[:LONG_ARGUMENTS] + "..."
        self.screen.app(f"{who} is told {entry['callback']} {args}".strip())

    def do(self, line, text):
        answer = self.device.do(line)
        if not answer["ok"]:
            raise Failed(f"'{line}' was refused: {answer['error']}")
        self.screen.device(text)
        return answer

    def next_event(self):
        self._recorded += 1
        param = f"{self._recorded:03}"
        return param, f"event {GROUP} {self.random.choice(NAMES)} {param}"

    def record(self, count):
        """Records events one after the other."""
        params = []
        for _ in range(count):
            param, line = self.next_event()
            if not self.device.do(line)["ok"]:
                raise Failed(f"'{line}' was refused")
            self.account.answered.append(param)
            params.append(param)
        which = params[0] if count == 1 else f"{params[0]} to {params[-1]}"
        self.screen.device(f"records {numbered(count, 'event')} ({which})")

    def settle(self):
        """Waits until nothing is under way, and reads what is stored."""
        answer = self.device.do("settle")
        if not answer["ok"]:
            raise Failed(f"the device does not come to rest: {answer['error']}")
        self.show_requests()
        stored = self.device.stored_events()
        self.account.saw(stored)
        return stored

    def become_active(self, text, kept):
        self.do("active", f"becomes active {text}")
        if kept:
            self.account.ends_left_out += 1
        else:
            self.account.starts += 1
        self.account.saw(self.device.stored_events())

    def enter_background(self):
        self.do("background", "enters the background")
        stored = self.settle()
        self.account.ends += 1
        return stored

    def expect(self, holds, text):
        if not holds:
            raise Failed(text)
        self.screen.good(text)

    # --- the steps

    def play(self):
        self.fresh_install()
        self.attributed()
        self.tenth_event()
        self.kept_session()
        self.new_session()
        self.campaign_click()
        self.commerce_click()
        self.click_without_network()
        self.killed_while_recording()
        self.failing_service()
        self.demographics()
        self.crashes()
        self.last_look()
        self.forgotten()

    def fresh_install(self):
        self.screen.step("A fresh install starts; the service fails at its first question")
        self.service.call("POST", "/inspect/attribution", {"deeplink": DEEPLINK})
        self.misbehave("the next conversion is answered 500", "conversion", "status", status=500)
        self.start_device()
        self.become_active("for the first time", kept=False)
        self.settle()
        self.record(self.random.randint(3, 6))
        stored = self.settle()
        self.expect(self.arrivals("tracking") == 0, f"{numbered(len(stored), 'event')} held: nobody knows the "
                                                    "install yet, so nothing is tracked")

    def attributed(self):
        self.screen.step(f"It asks again after {CONVERSION_RETRY_SECONDS} seconds, and is attributed")
        self.device.wait_for_callback("didReceiveDeeplink:")
        stored = self.settle()
        link = self.device.wait_for_callback("didReceiveDeeplink:")
        self.expect(link == [DEEPLINK], "the deferred deep link reached the delegate")
        self.expect(self.device.store("fendoUserInfo_referralKey")["fendoUserInfo_referralKey"] > 0,
                    "the campaign that brought the install is stored")
        self.expect(not stored and self.arrivals("tracking") >= 1, "what was held went out after it")

    def tenth_event(self):
        self.screen.step("The tenth stored event makes a batch")
        before = self.arrivals("tracking")
        self.record(BATCH_EVENTS - 1)
        self.settle()
        self.expect(self.arrivals("tracking") == before, f"{BATCH_EVENTS - 1} are stored and nothing leaves")
        self.record(1)
        stored = self.settle()
        self.expect(self.arrivals("tracking") == before + 1 and not stored, f"with the tenth all {BATCH_EVENTS} leave")

    def kept_session(self):
        self.screen.step("Into the background and back within a minute: the session is kept")
        self.record(1)
        self.enter_background()
        self.record(1)
        self.do(f"clock {WITHIN_A_MINUTE_SECONDS}", f"its clock moves on by {WITHIN_A_MINUTE_SECONDS} s")
        self.become_active("again", kept=True)
        self.expect(not self.settle(), "the event went out, the end of the kept session was left out")
        self.screen.step("The same with nothing to send")
        before = self.arrivals("tracking")
        self.enter_background()
        self.do(f"clock {WITHIN_A_MINUTE_SECONDS}", f"its clock moves on by {WITHIN_A_MINUTE_SECONDS} s")
        self.become_active("again", kept=True)
        self.expect(not self.settle() and self.arrivals("tracking") == before,
                    "the end was left out, and no request was made for it")

    def new_session(self):
        self.screen.step("Into the background and back after more than a minute: a new session")
        self.record(2)
        stored = self.enter_background()
        self.expect([event["activityName"] for event in stored] == ["end"], "the end waits for the next batch")
        self.do(f"clock {OVER_A_MINUTE_SECONDS}", f"its clock moves on by {OVER_A_MINUTE_SECONDS} s")
        self.become_active("again", kept=False)
        self.expect(not self.settle(), "the end of the old session went out with the start of the new one")

    def stored(self, name):
        return self.device.store(name).get(name)

    def campaign_click(self):
        self.screen.step("A campaign link opens the app")
        self.do(f"open-url shop://offer?ck={CAMPAIGN}&sn=9001&mrvk_eng=1&sub_referral=summer", "opens a campaign link")
        self.settle()
        self.expect(self.stored("fendoUserInfo_reengagement_conversion_key") == CAMPAIGN,
                    f"the click became a re-engagement by campaign {CAMPAIGN}")

    def commerce_click(self):
        self.screen.step("A shop's link opens the app")
        self.do(f"open-url shop://sale?cid={COMMERCE_CLICK}", "opens a commerce link")
        self.settle()
        self.expect(self.arrivals("commerce-conversion") == 1 and self.stored("commerceConversionInfos") == [],
                    "the commerce click arrived, and nothing of it is left to send")

    def click_without_network(self):
        self.screen.step("A campaign link opens the app while the network is down")
        self.misbehave("clicks find no service, twice", "reengagement-conversion", "close_before", count=2)
        self.do(f"open-url shop://offer?ck={LATER_CAMPAIGN}&sn=9002&mrvk_eng=1", "opens another campaign link")
        self.settle()
        self.expect(self.failures() == {LATER_CAMPAIGN: 1}, "the click is kept: it failed once")
        self.enter_background()
        self.expect(self.failures() == {LATER_CAMPAIGN: 2}, "sent again as the session ended, and kept")
        self.do(f"clock {OVER_A_MINUTE_SECONDS}", f"its clock moves on by {OVER_A_MINUTE_SECONDS} s")
        self.become_active("again", kept=False)
        self.enter_background()
        self.expect(self.failures() == {} and
                    self.stored("fendoUserInfo_reengagement_conversion_key") == LATER_CAMPAIGN,
                    "the click arrived as the next session ended")
        self.do(f"clock {OVER_A_MINUTE_SECONDS}", f"its clock moves on by {OVER_A_MINUTE_SECONDS} s")
        self.become_active("again", kept=False)
        self.settle()

    def failures(self):
        """How often each stored click has failed, by campaign."""
        clicks = {click["conversion_key"] for click in self.stored("reEngagementInfos")}
        counts = {count["conversion_key"]: count["failure_cnt"]
                  for count in self.stored("reEngagementConversionFailedCnt")}
        if clicks != counts.keys():
            raise Failed(f"clicks {clicks} are kept, and counts for {counts}")
        return counts

    def killed_while_recording(self):
        self.screen.step("The process is killed in the middle of recording")
        self.misbehave("the next tracking answer takes a minute", "tracking", "delay", milliseconds=60000)
        before = self.arrivals("tracking")
        self.record(BATCH_EVENTS)
        self.wait_for_arrivals("tracking", before + 1)
        self.account.killed.add(self._shown)
        self.kill_while_recording()
        self.screen.step("It starts again: nothing of what was recorded is lost")
        self.start_device()
        stored = self.device.stored_events()
        self.account.saw(stored)
        params = {event.get("activityParam") for event in stored}
        self.expect(set(self.account.answered[-BATCH_EVENTS:]) <= params, "every event that was answered is stored")
        self.become_active("after the kill", kept=False)
        self.expect(not self.settle(), "all of them went out; those that had arrived are not counted again")

    def kill_while_recording(self):
        count = self.random.randint(20, 40)
        events = [self.next_event() for _ in range(count)]
        until = self.random.randint(1, count - 5)
        self.device.say(*(line for _, line in events))
        for param, _ in events[:until]:
            if self.device.answer() is None:
                raise Failed("the device ended on its own")
            self.account.answered.append(param)
        status, late = self.device.kill()
        done = until + len(late)
        self.account.answered += [param for param, _ in events[until:done]]
        self.account.attempted += [param for param, _ in events[done:]]
        self.screen.device(f"is killed (signal {-status}) while it records {count} events: {done} answered")
        self.show_requests()

    def failing_service(self):
        self.screen.step("The service fails for a while, loses an answer, and recovers")
        self.misbehave("two tracking answers are 500, and one is lost", "tracking", "status", status=500, count=2)
        self.service.behave("tracking", "close_after")
        recorded = BATCH_EVENTS + 2
        self.record(recorded)
        stored = self.settle()
        for attempt in ("", " again", " once more"):
            if not stored:
                break
            self.do("push", f"sends what it has{attempt}")
            stored = self.settle()
        self.expect(not stored, f"the {recorded} events went out as soon as they could, and were counted once")

    def last_look(self):
        self.screen.step("Into the background, with something left to send")
        self.record(1)
        self.enter_background()
        self.record(1)

    def demographics(self):
        self.screen.step("The app tells who its user is")
        for line in (f"age {AGE}", "gender 1", f"user-id {stage.quoted(USER)}"):
            self.do(line, f"is told {line}")
        self.enter_background()
        self.expect(self.arrivals("demographics") == 1 and self.stored("fendoUserDemoInfo_age") == -1,
                    "it arrived as the session ended, and nothing of it is left to send")
        before = self.schedules()
        self.do(f"clock {OVER_A_MINUTE_SECONDS}", f"its clock moves on by {OVER_A_MINUTE_SECONDS} s")
        self.become_active("again", kept=False)
        self.settle()
        self.screen.step("The campaign schedule is fetched once, and played again where it is unchanged")
        schedules = self.schedules()
        self.expect(len(schedules) == len(before) + 1 and len({json.dumps(one) for one in schedules}) == 1,
                    "the module has it again, and it is the same")

    def schedules(self):
        return [entry["args"] for entry in self.device.callbacks if entry["callback"] == "didGetSchedule:"]

    def crashes(self):
        self.screen.step("The app crashes in the kit, and the next process reports it")
        self.die(OUR_CRASH)
        self.start_device()
        crashes = self.stored("MorvikCoreUserInfo_Crash")
        self.expect([OUR_CRASH in crash["exception_reason"] for crash in crashes] == [True],
                    "the report was stored by the process that died")
        self.become_active("after the crash", kept=False)
        self.settle()
        self.expect(self.arrivals("crash") == 1 and not self.stored("MorvikCoreUserInfo_Crash"),
                    "it arrived, and is not kept any longer")
        self.screen.step("The app crashes on its own: that is none of the kit's business")
        self.die(OTHER_CRASH)
        self.start_device()
        self.become_active("after the crash", kept=False)
        self.settle()
        self.expect(self.arrivals("crash") == 1 and not self.stored("MorvikCoreUserInfo_Crash"), "nothing is reported")

    def die(self, text):
        self.device.say(f"crash {stage.quoted(text)}")
        status, _ = self.device.rest()
        self.device = None
        if status >= 0:
            raise Failed(f"the device had to crash and ended with status {status}")
        self.screen.device(f"dies of \"{text}\" (signal {-status})")

    def forgotten(self):
        self.screen.step("The user asks to be forgotten: nothing leaves any more but that wish")
        self.do("forget-me true", "is told that its user wants to be forgotten")
        self.settle()
        self.expect(self.arrivals("erasure") == 1, "the wish arrived")
        last = self._shown
        self.expect(not self.device.do(f"event {GROUP} look later")["ok"], "events of the app are refused")
        self.quit()
        self.start_device()
        self.expect(self.do("is-forgotten", "is asked whether its user is forgotten")["value"], "so it is, also now")
        for line in ("active", "push", f"open-url shop://offer?ck={CAMPAIGN}&sn=9003&mrvk_eng=1", f"age {AGE}",
                     "background"):
            self.do(line, f"does {line}")
        self.settle()
        self.expect(self._shown == last, "no request left, whatever happened")
        self.quit()

    def quit(self):
        status, _ = self.device.end_input()
        self.device = None
        if status != 0:
            raise Failed(f"the device ended with status {status}")
        self.screen.device("ends in order")

    def settle_account(self):
        self.screen.step("The account")
        self.device = stage.Device(self.build_dir, self._arguments)
        stored = self.device.stored_events()
        ledger = self.device.do("ledger")
        self.device.end_input()
        self.device = None
        return self.account.settle(self.service.requests(), self.service.events(), stored, ledger, self.screen)

    # --- the end

    def device_log(self):
        return self.device.log[-10:] if self.device else []

    def end(self, keep):
        if self.device is not None:
            self.device.kill()
        if self.service is None:
            return
        if keep:
            self.screen.write()
            self.screen.write(f"The service goes on: open {self.service.url} in a browser")
            self.screen.write(f"  look   curl --cacert {self.service.ca_file} {self.service.url}inspect/events")
            self.screen.write(f"  end    kill {self.service.child.pid}")
            self.screen.write(f"  files  {self.folder}")
        else:
            self.service.stop()


def arguments_of(words):
    here = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build-dir", default=os.path.join(here, "build", "release"), help="where the programs lie")
    parser.add_argument("--folder", help="folder for store, certificates and logs; kept (else one that is removed)")
    parser.add_argument("--keep", action="store_true", help="leave the service running at the end")
    parser.add_argument("--seed", type=int, help="play the same life again")
    parser.add_argument("--started", type=float, default=time.time(),
                        help="when the command began that plays it, in seconds since 1970 (else now)")
    parser.add_argument("-v", "--verbose", action="store_true", help="show the device's log and every request whole")
    return parser.parse_args(words)


def prepare_folder(given):
    if given is None:
        return tempfile.mkdtemp(prefix="morvik-life-")
    folder = os.path.abspath(given)
    os.makedirs(folder, exist_ok=True)
    for name in ("device", "service"):
        if os.path.exists(os.path.join(folder, name)):
            raise stage.StageError(f"{folder} holds an earlier life; remove it, or name another with --folder")
    return folder


def main():
    options = arguments_of(sys.argv[1:])
    seed = options.seed if options.seed is not None else random.randrange(1_000_000)
    screen = Screen(sys.stdout)
    try:
        stage.program(options.build_dir, "morvik-device")
        folder = prepare_folder(options.folder)
    except (stage.StageError, OSError) as error:
        print(f"life.py: {error}", file=sys.stderr)
        return 2
    life = Life(options.build_dir, folder, seed, options.verbose, screen, options.started)
    status = 1
    try:
        life.start_service()
        screen.write(screen.paint("The life of a device", "bold") + f"   service {life.service.url}   seed {seed}")
        life.play()
        status = 0 if life.settle_account() else 1
    except (Failed, stage.StageError, OSError, queue.Empty) as error:
        screen.bad(str(error) or "the device did not answer in time")
        screen.detail("log", "\n".join(life.device_log()))
    except KeyboardInterrupt:
        screen.bad("interrupted")
    finally:
        life.end(options.keep)
        if options.folder is None and not options.keep:
            shutil.rmtree(folder, ignore_errors=True)
    return status


if __name__ == "__main__":
    sys.exit(main())
