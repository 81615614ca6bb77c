"""The device app as users run it: the real program, its store, and the local service over TLS."""

import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.environ["MORVIK_SOURCE_DIR"], "tools"))

import stage  # noqa: E402

BUILD = os.environ["MORVIK_BUILD_DIR"]
IDFA = "6d92078a-8246-4ba4-ae5b-76104861e7dc"
LAUNCH_COUNTER = "com.morvik.core.appLaunchCount"


class DeviceTest(unittest.TestCase):
    """A service for the class; a folder, and devices on it, for each test."""

    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.keys = stage.write_keys(folder.name)
        cls.service = stage.Service(BUILD, folder.name, cls.keys)
        cls.addClassCleanup(cls.service.stop)

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.store_folder = os.path.join(self.folder, "device")
        self.service.call("DELETE", "/inspect/behaviour")
        self.service.call("POST", "/inspect/attribution", {})
        known = self.service.requests()
        self.known_requests = known[-1]["id"] if known else 0

    def arguments(self, *more, without=()):
        options = {"--store": self.store_folder, "--service": self.service.url, "--ca": self.service.ca_file,
                   "--keys": self.keys}
        given = [word for name, value in options.items() if name not in without for word in (name, value)]
        return given + list(more)

    def device(self, *more, without=(), environment=None):
        device = stage.Device(BUILD, self.arguments(*more, without=without), environment=environment)
        self.addCleanup(lambda: device.child.poll() is None and device.kill())
        return device

    def do(self, device, *lines):
        """Verbs that must succeed; returns the last answer."""
        for line in lines:
            answer = device.do(line)
            self.assertTrue(answer["ok"], answer)
        return answer

    def test_no_program_writes_the_secrets_of_its_connections(self):
        def named(who):
            return {"SSLKEYLOGFILE": os.path.join(self.folder, who + "-secrets")}

        keys = stage.write_keys(self.folder)
        service = stage.Service(BUILD, self.folder, keys, environment=named("service"))
        self.addCleanup(service.stop)
        options = ["--store", self.store_folder, "--service", service.url, "--ca", service.ca_file, "--keys", keys]
        device = stage.Device(BUILD, options, environment=named("device"))
        self.addCleanup(lambda: device.child.poll() is None and device.kill())
        self.do(device, "active", "settle", "quit")
        self.assertTrue(service.requests(), "something went over TLS")
        expect = [stage.program(BUILD, "morvik-service"), "expect", "id > 0", "--within", "60s"]
        subprocess.run(expect + ["--url", service.url, "--ca", service.ca_file], check=True,
                       env={**os.environ, **named("expect")}, stdout=subprocess.DEVNULL)
        self.assertEqual([], [name for name in os.listdir(self.folder) if name.endswith("secrets")])

    def attributed(self, *more):
        """A device whose install is attributed, with nothing stored."""
        device = self.device(*more)
        self.do(device, "active", "settle")
        self.assertEqual(device.stored_events(), [])
        return device

    def requests(self, endpoint):
        return [r for r in self.service.requests(self.known_requests) if r["endpoint"] == endpoint]

    def delivered(self):
        """The distinct events that arrived since the test started."""
        return [event for event in self.service.events() if event["requests"][0] > self.known_requests]

    def write(self, name, text):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def run_once(self, arguments, text=""):
        """A complete run: (status, lines of standard output, lines of standard error)."""
        done = subprocess.run([stage.program(BUILD, "morvik-device"), *arguments], input=text.encode(),
                              capture_output=True, timeout=stage.PATIENCE_SECONDS, check=False)
        return done.returncode, done.stdout.decode().splitlines(), done.stderr.decode().splitlines()


class Verbs(DeviceTest):
    def test_active_starts_a_session_and_tells_the_delegates(self):
        self.service.call("POST", "/inspect/attribution",
                          {"user_no": 77, "referralKey": 12, "subreferralKey": 34, "refusn": "r", "channel_type": 5,
                           "deeplink": "shop://a"})
        device = self.device()
        self.assertEqual(device.do("active"), {"verb": "active", "ok": True})
        self.do(device, "settle")
        self.assertEqual(device.callbacks, [
            {"callback": "didSaveFendoUserInfo:andReferralKey:andSubReferralKey:andRefUSN:andChannelType:",
             "args": [77, 12, 34, "r", 5]},
            {"callback": "didSaveConversionKey:subReferralKey:", "args": [12, "34"]},
            {"callback": "didReceiveDeeplink:", "args": ["shop://a"]},
            {"callback": "didDeliver:", "args": [2]}])
        sent = self.requests("tracking")[0]["payload"]["activity_info"]
        self.assertEqual([event["activity"] for event in sent], ["start", "retention"])

    def test_background_ends_the_session(self):
        device = self.attributed()
        self.do(device, "event shop look")
        self.assertEqual(device.do("background"), {"verb": "background", "ok": True})
        self.assertEqual(device.do("settle")["background_tasks"], 0)
        self.assertEqual([e["activityName"] for e in device.stored_events()], ["end"])

    def test_event_records_an_activity_with_and_without_parameter(self):
        device = self.device()
        self.assertEqual(device.do("event shop look"), {"verb": "event", "ok": True})
        self.do(device, 'event "my shop" "gro\u00df \\"x\\"" "a  b"', 'event shop buy ""')
        stored = [(e["activityGroupName"], e["activityName"], e.get("activityParam")) for e in device.stored_events()]
        self.assertEqual(stored, [("shop", "look", None), ("my shop", 'gro\u00df "x"', "a  b"), ("shop", "buy", "")])

    def test_impression_appends_a_record_whose_date_is_a_date(self):
        device = self.attributed()
        record = {"campaignKey": 7, "spaceKey": "top", "resourceKey": 8, "conversionKey": 9, "isFirstTime": True,
                  "createdAt": "2024-05-01T12:00:00Z"}
        self.assertEqual(device.do("impression " + json.dumps(record)), {"verb": "impression", "ok": True})
        self.do(device, "impression " + json.dumps(dict(record, campaignKey=6, createdAt="2024-05-01T11:00:00Z")))
        self.assertEqual(device.store("fendoImpressionInfos")["fendoImpressionInfos"][0], record)
        self.do(device, "event shop look", "push", "settle")
        sent = self.requests("tracking")[-1]["payload"]["impression_info"]
        self.assertEqual([(i["campaign_key"], i["isFirstTime"]) for i in sent], [(6, True), (7, True)])
        self.assertRegex(sent[0]["created_at"], r"^20240501(1959|2000)\d\d$")

    def test_an_impression_of_no_date_is_refused_and_the_program_goes_on(self):
        device = self.device()
        answer = device.do('impression {"campaignKey":7,"createdAt":"yesterday"}')
        self.assertFalse(answer["ok"])
        self.assertIn("an impression's time is a date", answer["error"])
        self.assertEqual(device.store("fendoImpressionInfos"), {})

    def test_an_impression_without_a_time_is_recorded_as_of_now(self):
        device = self.device()
        self.do(device, 'impression {"campaignKey":7,"spaceKey":"top"}')
        stored = device.store("fendoImpressionInfos")["fendoImpressionInfos"]
        self.assertEqual([(each["campaignKey"], each["spaceKey"]) for each in stored], [(7, "top")])
        self.assertRegex(stored[0]["createdAt"], r"^20\d\d-")

    def test_a_user_id_is_taken_back_also_before_it_was_sent(self):
        device = self.device()
        self.do(device, "user-id anna", "clear-user-id")
        stored = device.store("fendoUserDemoInfo_userId", "fendoUserDemoInfoForComplete_userId")
        self.assertEqual(stored, {})

    def test_an_event_without_a_group_is_refused_and_says_why(self):
        device = self.device()
        answer = device.do('event "" look')
        self.assertEqual((answer["ok"], answer["error"]), (False, "refused: no group or no name"))
        self.assertEqual(device.stored_events(), [])

    def test_an_impression_that_is_no_object_is_refused_and_the_program_goes_on(self):
        device = self.device()
        answer = device.do("impression [1]")
        self.assertFalse(answer["ok"])
        self.assertIn("an impression record is a JSON object", answer["error"])
        self.do(device, "event shop look")

    def test_push_sends_what_is_stored(self):
        device = self.attributed()
        self.do(device, "event shop look one", "settle")
        before = len(self.requests("tracking"))
        self.assertEqual(device.do("push"), {"verb": "push", "ok": True})
        self.do(device, "settle")
        self.assertEqual(self.requests("tracking")[before]["payload"]["activity_info"][0]["param"], "one")
        self.assertEqual(device.stored_events(), [])

    def test_wait_lets_time_pass_while_the_main_queue_runs(self):
        device = self.device()
        self.do(device, "active")
        started = time.monotonic()
        self.assertEqual(device.do("wait 0.3"), {"verb": "wait", "ok": True})
        self.assertGreaterEqual(time.monotonic() - started, 0.3)
        self.wait_until(device, "didSaveConversionKey:subReferralKey:")

    def wait_until(self, device, callback):
        """Lets time pass until the app was called back: nothing else runs the main queue meanwhile."""
        for _ in range(200):
            if callback in [c["callback"] for c in device.callbacks]:
                return
            self.do(device, "wait 0.3")
        self.fail(f"{callback} does not come")

    def test_clock_moves_the_wall_clock_for_this_process(self):
        device = self.device()
        self.do(device, "event a a", "clock 86400.5")
        self.do(device, "event a b", "clock -172801", "event a c")
        days = [e["activityCreatedAt"][:10] for e in device.stored_events()]
        self.assertEqual(sorted(set(days)), [days[2], days[0], days[1]])
        device.end_input()
        device = self.device()
        self.do(device, "event a d")
        times = [event["activityCreatedAt"] for event in device.stored_events()]
        self.assertGreater(times[3], times[0])
        self.assertLess(times[3], times[1])

    def test_settle_waits_for_the_answer(self):
        device = self.attributed()
        self.service.behave("tracking", "delay", milliseconds=300)
        self.do(device, "event shop look", "push")
        self.assertEqual(device.do("settle"), {"verb": "settle", "ok": True, "background_tasks": 0, "retries": 0})
        self.assertEqual(device.stored_events(), [])

    def test_settle_past_its_limit_says_what_is_still_busy(self):
        device = self.attributed()
        self.service.behave("tracking", "delay", milliseconds=60000)
        self.do(device, "event shop look", "push")
        self.assertEqual(device.do("settle 0.1"),
                         {"verb": "settle", "ok": False, "error": "still busy: 1 requests in flight",
                          "background_tasks": 0, "retries": 0})

    def test_settle_waits_for_the_half_second_of_a_session_end_and_not_for_background_tasks(self):
        device = self.attributed()
        self.do(device, "background")
        self.assertEqual(device.do("settle"), {"verb": "settle", "ok": True, "background_tasks": 1, "retries": 0})
        self.assertEqual([e["activityName"] for e in device.stored_events()], ["end"])

    def test_settle_counts_retries_and_does_not_wait_for_them(self):
        self.service.behave("conversion", "status", status=500)
        device = self.device()
        self.do(device, "active")
        self.assertEqual(device.do("settle"), {"verb": "settle", "ok": True, "background_tasks": 0, "retries": 1})

    def test_store_shows_all_that_is_not_absent(self):
        device = self.device()
        values = device.store()
        self.assertEqual(values["fendoUserInfo_referralKey"], -1)
        self.assertEqual(values["fendoUserInfo_isApplicationPortrait"], "true")
        self.assertIs(values["MorvikCoreUserInfo_isGDPRForgetMe"], False)
        for absent in ("fendoActivityInfos", "fendoUserInfo_refUSN", LAUNCH_COUNTER,
                       "com.morvik.reengagement.passopenurl"):
            self.assertNotIn(absent, values)

    def test_store_shows_those_that_are_named_and_the_plain_entries_by_their_keys(self):
        device = self.device()
        self.do(device, "active")
        self.assertEqual(device.do(f"store fendoUserDemoInfo_age {LAUNCH_COUNTER} fendoUserDemoInfo_userId"),
                         {"verb": "store", "ok": True, "values": {"fendoUserDemoInfo_age": -1, LAUNCH_COUNTER: 1}})
        self.assertRegex(device.store("fendoUserInfo_last_app_launched_date")["fendoUserInfo_last_app_launched_date"],
                         r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z$")

    def test_store_refuses_a_name_that_is_none_and_the_program_goes_on(self):
        device = self.device()
        self.assertEqual(device.do("store fendoUserInfo_referalKey"),
                         {"verb": "store", "ok": False,
                          "error": '"fendoUserInfo_referalKey" is not a stored property; "store" alone shows them all'})
        self.do(device, "store fendoUserInfo_referralKey")

    def test_status_tells_how_the_kit_stands_and_the_delegate_what_failed(self):
        device = self.attributed()
        self.service.behave("tracking", "status", status=503)
        self.do(device, "event shop look", "push", "settle", "age 30")
        self.assertEqual(device.callbacks[-1], {
            "callback": "didFailToDeliver:reason:triedAgain:",
            "args": [503, "batch of activities: The server answered with status 503.", True]})
        status = device.do("status")
        self.assertEqual((status["ok"], status["running"], status["session_open"], status["attributed"]),
                         (True, True, True, True))
        self.assertEqual(status["waiting"], {"activities": 1, "impressions": 0, "re-engagement clicks": 0,
                                             "commerce clicks": 0, "crash reports": 0, "demographics": 1})
        self.assertRegex(status["last_success"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z$")
        self.assertEqual((status["last_failure"]["http_status"], status["last_failure"]["tried_again"]), (503, True))
        self.assertEqual((status["sending"], status["forgotten"]), (True, False))
        self.service.behave("erasure", "status", status=500)
        self.do(device, "forget-me true", "settle")
        self.assertEqual(device.callbacks[-1], {"callback": "didAnswerErasure:", "args": [False]})

    def test_ledger_tells_what_became_of_all_that_was_recorded_and_inspect_says_the_same(self):
        device = self.attributed()
        self.do(device, "event shop look", "push", "settle", "event shop buy", "age 30")
        ledger = device.do("ledger")
        self.assertEqual((ledger["ok"], ledger["balances"], ledger["sound"], ledger["given_up"]),
                         (True, True, True, []))
        accounts = {account.pop("kind"): account for account in ledger["accounts"]}
        self.assertEqual(accounts["activities"], {"recorded": 4, "delivered": 3, "stored": 1, "under_way": 0,
                                                  "given_up": 0, "found_uncounted": 0})
        self.assertEqual(accounts["demographics"]["stored"], 1)
        self.assertEqual(accounts["impressions"]["recorded"], 0)
        self.assertEqual(accounts["activities"]["delivered"], len(self.delivered()))
        status, output, _ = self.run_once(["inspect", "--json", self.store_folder])
        self.assertEqual(status, 0)
        inspected = json.loads(output[0])["ledger"]
        told = device.do("ledger")
        self.assertEqual((inspected["accounts"]["newest"], inspected["given_up"]["newest"], inspected["sound"]),
                         (told["accounts"], told["given_up"], told["sound"]))

    def explained_by_inspect(self, event_id):
        command = [stage.program(BUILD, "morvik-device"), "inspect", self.store_folder, "--json", "--explain", event_id]
        done = subprocess.run(command, capture_output=True, text=True, timeout=stage.PATIENCE_SECONDS, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return json.loads(done.stdout)

    def test_explain_follows_an_event_over_a_refusal_and_a_kill_and_the_service_says_what_it_saw(self):
        device = self.attributed()
        self.do(device, "event shop look")
        event_id = device.stored_events()[-1]["activityEventID"]
        self.assertEqual(self.do(device, f"explain {event_id}")["state"], "pending")
        self.service.call("POST", "/inspect/behaviour", {"endpoint": "tracking", "kind": "status", "status": 503})
        self.do(device, "push", "settle")
        explained = self.do(device, f"explain {event_id}")
        self.assertEqual([each["http_status"] for each in explained["exchanges"]], [503])
        device.kill()
        self.assertEqual(self.explained_by_inspect(event_id)["sentence"], explained["sentence"], "of a dead store")
        device = self.device()
        self.do(device, "active", "settle", "push", "settle")
        explained = self.do(device, f"explain {event_id}")
        self.assertEqual(explained["state"], "delivered", explained)
        self.assertEqual([each["outcome"] for each in explained["exchanges"]], ["failed", "accepted"])
        for each in explained["exchanges"]:
            self.assertTrue(explained["recorded"] <= each["begun"] <= each["left"] <= each["ended"], explained)
        self.assertEqual(self.explained_by_inspect(event_id)["sentence"], explained["sentence"], "of a live store")
        seen = self.service.call("GET", f"/inspect/event?id={event_id}")
        self.assertEqual([(each["arrival"], each["status"]) for each in seen["requests"]],
                         [("not counted", 503), ("first", 200)], seen["sentence"])

    def test_explain_says_what_is_wrong_with_an_id_and_what_it_does_not_know(self):
        device = self.device()
        answer = device.do("explain 7")
        self.assertFalse(answer["ok"])
        self.assertIn("not an event id: 36 characters are expected", answer["error"])
        answer = self.do(device, "explain 018f3406-9e00-7abc-8def-0123456789ab")
        self.assertRegex(answer["sentence"], "^not known: delivered or given up before [-0-9]+T[:0-9]+Z, "
                                             "or never recorded here$")

    def test_a_batch_that_no_longer_balances_ends_the_process_in_every_build_for_tests(self):
        device = self.attributed()
        self.do(device, "event shop look")
        self.service.behave("tracking", "delay", milliseconds=1500)
        self.do(device, "push", "event shop buy")
        # While the batch is under way, the noted ids are changed to some that it does not carry.
        later = device.stored_events()[1]["activityEventID"]
        self.do(device, f'set fendoActivityInfosSentEventKeys ["{later}"]')
        device.say("settle")
        self.assertEqual(device.rest(), (-signal.SIGABRT, []))
        line = "an invariant is broken: records went that no rule gives up (activities)"
        self.assertTrue(any(line in each for each in device.log), device.log)

    def test_kill_ends_the_process_at_once(self):
        device = self.device()
        device.say("kill", "event shop look")
        self.assertEqual(device.rest(), (-9, []))

    def test_quit_ends_in_order_and_runs_nothing_that_follows(self):
        device = self.device()
        device.say("event shop look", "quit", "event shop buy")
        self.assertEqual(device.rest(), (0, [{"verb": "event", "ok": True}, {"verb": "quit", "ok": True}]))
        self.assertEqual([e["activityName"] for e in self.device().stored_events()], ["look"])

    def test_quit_does_not_wait_for_a_server_that_does_not_answer(self):
        device = self.attributed()
        self.service.behave("tracking", "delay", milliseconds=60000)
        self.do(device, "event shop look", "push")
        started = time.monotonic()
        self.do(device, "quit")
        self.assertEqual(device.rest()[0], 0)
        self.assertLess(time.monotonic() - started, 10)
        self.assertEqual([e["activityName"] for e in self.device().stored_events()], ["look"])

    def test_quit_with_seconds_delivers_first(self):
        device = self.attributed()
        self.do(device, "event shop look", "quit 30")
        self.assertEqual(device.rest()[0], 0)
        self.assertEqual(self.device().stored_events(), [])
        self.assertIn("look", [e["activity"] for r in self.requests("tracking") for e in r["payload"]["activity_info"]])

    def test_quit_with_seconds_waits_no_longer_for_a_server_that_does_not_answer(self):
        device = self.attributed()
        self.service.behave("tracking", "delay", milliseconds=60000)
        started = time.monotonic()
        self.do(device, "event shop look", "quit 0.5")
        self.assertEqual(device.rest()[0], 0)
        self.assertLess(time.monotonic() - started, 10)
        self.assertEqual([e["activityName"] for e in self.device().stored_events()], ["look"])

    def test_wait_delivered_returns_when_all_is_delivered(self):
        device = self.attributed()
        self.assertEqual(self.do(device, "event shop look", "wait-delivered"),
                         {"verb": "wait-delivered", "ok": True, "waiting": 0})
        self.assertEqual(device.stored_events(), [])

    def test_with_sending_off_from_the_start_nothing_leaves_until_it_is_on(self):
        device = self.device("--no-sending")
        self.do(device, "active", "event shop look", "open-url app://open?ck=42", "settle")
        for endpoint in ("conversion", "reengagement-conversion", "tracking", "configuration"):
            self.assertEqual(self.requests(endpoint), [], endpoint)
        self.do(device, "sending on", "settle", "wait-delivered")
        self.assertEqual(len(self.requests("conversion")), 1)
        self.assertEqual(len(self.requests("reengagement-conversion")), 1)
        self.assertEqual(device.stored_events(), [])

    def test_erase_leaves_nothing_of_what_was_recorded_and_runs_nothing_that_follows(self):
        device = self.device()
        self.do(device, "event shop look", "age 30")
        device.say("erase", "event shop buy")
        self.assertEqual(device.rest(), (0, [{"verb": "erase", "ok": True}]))
        device = self.device()
        self.assertEqual(device.stored_events(), [])
        self.assertEqual(device.store("fendoUserDemoInfo_age"), {"fendoUserDemoInfo_age": -1})

    def test_erase_keeps_the_wish_to_be_forgotten(self):
        device = self.device()
        self.do(device, "forget-me true", "erase")
        self.assertEqual(device.rest()[0], 0)
        self.assertTrue(self.do(self.device(), "is-forgotten")["value"])

    def test_erase_says_when_something_is_in_the_way_and_so_does_the_next_start(self):
        device = self.device()
        self.do(device, "event shop look")
        in_the_way = os.path.join(self.store_folder, "crash-reports")
        os.makedirs(os.path.join(in_the_way, "something"))
        answer = device.do("erase")
        self.assertEqual((answer["ok"], answer["error"]),
                         (False, "not all was erased; the log says why, and the next start goes on"))
        device.rest()
        status, output, errors = self.run_once(self.arguments())
        self.assertEqual((status, output), (2, []))
        self.assertIn("cannot be erased (crash-reports: ", errors[0])
        shutil.rmtree(in_the_way)
        self.assertEqual(self.device().stored_events(), [])

    def test_the_end_of_the_input_is_an_orderly_end(self):
        device = self.device()
        self.do(device, "event shop look")
        self.assertEqual(device.end_input(), (0, []))


class OpenedUrls(DeviceTest):
    def told(self, device):
        """The calls of modules, as (module, selector, arguments)."""
        return [(c["module"], c["callback"], c["args"]) for c in device.callbacks if "module" in c]

    def test_a_campaign_url_is_a_re_engagement_and_its_modules_are_told(self):
        device = self.attributed("--module", "FendoLib")
        self.assertEqual(device.do("open-url shop://x?ck=12&sn=3&sub_referral=s"), {"verb": "open-url", "ok": True})
        self.do(device, "settle")
        self.assertEqual([r["payload"]["deeplink_info"] for r in self.requests("reengagement-conversion")],
                         [{"session_no": 3, "conversion_key": 12, "deeplink_uri": "shop://x?ck=12&sn=3&sub_referral=s",
                           "sub_conversion_key": "s", "is_first_launch": True}])
        self.assertEqual(self.told(device), [
            ("FendoLib", "resetRetainedConversionCache:", [{"ck": "12", "sn": "3", "sub_referral": "s"}]),
            ("FendoLib", "saveRetainedConversionKey:", [12])])
        self.assertEqual(device.store("fendoUserInfo_reengagement_conversion_key"),
                         {"fendoUserInfo_reengagement_conversion_key": 12})

    def test_without_the_module_a_campaign_url_is_sent_all_the_same(self):
        device = self.attributed("--module", "FendoLib2")
        self.do(device, "open-url shop://x?ck=12", "settle")
        self.assertEqual(len(self.requests("reengagement-conversion")), 1)
        self.assertEqual(self.told(device), [])

    def test_store_url_keeps_a_url_for_the_next_session_start(self):
        device = self.attributed()
        self.do(device, "background", "settle", "store-url shop://first?ck=1", "store-url shop://x?cid=shoe&ck=12")
        self.assertEqual(self.requests("reengagement-conversion"), [])
        device.kill()
        device = self.device()
        self.do(device, "active", "settle")
        self.assertEqual([r["payload"]["deeplink_info"]["conversion_key"]
                          for r in self.requests("reengagement-conversion")], [12])
        self.assertEqual([r["payload"][0]["clickId"] for r in self.requests("commerce-conversion")], ["shoe"])
        self.assertEqual(device.store("com.morvik.reengagement.passopenurl", "commerceConversionInfos"),
                         {"commerceConversionInfos": []})

    def test_facebook_url_is_reported_unless_its_key_was_converted(self):
        device = self.attributed()
        self.do(device, "set fendoConversionInfoForCaches [7]", "facebook-url https://f.example/?ck=7", "settle")
        self.assertEqual(self.requests("thirdparty-conversion"), [])
        self.assertEqual(device.do("facebook-url https://f.example/?ck=8&sub_referral=s"),
                         {"verb": "facebook-url", "ok": True})
        self.do(device, "settle")
        sent = [r["payload"] for r in self.requests("thirdparty-conversion")]
        self.assertEqual([payload["deeplink_info"] for payload in sent],
                         [{"conversion_key": 8, "deeplink_uri": "https://f.example/?ck=8&sub_referral=s",
                           "sub_conversion_key": "s"}])

    def test_third_party_conversion_sends_what_a_conversion_sends(self):
        device = self.attributed()
        self.assertEqual(device.do("third-party-conversion"), {"verb": "third-party-conversion", "ok": True})
        self.do(device, "settle")
        payloads = [dict(self.requests(endpoint)[0]["payload"]) for endpoint in ("conversion", "thirdparty-conversion")]
        for payload in payloads:
            self.assertRegex(payload["activity_info"][0].pop("created_at"), r"^\d{14}$")
        self.assertEqual(payloads[0], payloads[1])

    def test_a_url_of_any_bytes_is_kept_and_sent(self):
        script = os.path.join(self.folder, "any-bytes")
        self.assertEqual(self.attributed().end_input()[0], 0)
        url = b'shop://\xff?ck=12&sub_referral=%ff&a=\xc3&' + b"k=%&" * 16_000
        # A different key: the answer to the first one may come first, and its key is not reported again.
        facebook_url = url.replace(b"ck=12", b"ck=13")
        with open(script, "wb") as file:
            file.write(b'open-url "' + url + b'"\nfacebook-url "' + facebook_url + b'"\nstore-url "' + url +
                       b'"\nsettle\n')
        status, output, _ = self.run_once(self.arguments("--script", script))
        self.assertEqual((status, len(output)), (0, 4 + 2))  # a third-party answer calls two delegates
        self.do(self.device(), "active", "settle")
        sent = [r["payload"]["deeplink_info"] for endpoint in ("reengagement-conversion", "thirdparty-conversion")
                for r in self.requests(endpoint)]
        self.assertEqual([click["conversion_key"] for click in sent], [12, 12, 13])
        for click in sent:
            self.assertEqual(click["sub_conversion_key"], "\ufffd")
            of_key = facebook_url if click["conversion_key"] == 13 else url
            self.assertEqual(click["deeplink_uri"], of_key.decode("utf-8", "replace"))


class Input(DeviceTest):
    def test_a_script_runs_verb_by_verb(self):
        script = self.write("life.txt", "# a short life\nactive\n\nevent shop look\nstore fendoUserDemoInfo_age\n")
        status, output, _ = self.run_once(self.arguments("--script", script))
        self.assertEqual(status, 0)
        self.assertEqual([line for line in output if "callback" not in line],
                         ['{"verb":"active","ok":true}', '{"verb":"event","ok":true}',
                          '{"verb":"store","ok":true,"values":{"fendoUserDemoInfo_age":-1}}'])

    def test_a_script_is_checked_whole_before_its_first_verb(self):
        script = self.write("life.txt", "active\nevent shop look\nevnt shop buy\n")
        status, output, errors = self.run_once(self.arguments("--script", script))
        self.assertEqual((status, output), (2, []))
        self.assertEqual(errors, [f'morvik-device: {script}, line 3: "evnt" is not a verb; use one of: active, '
                                  "background, event, impression, open-url, store-url, facebook-url, "
                                  "third-party-conversion, age, gender, user-id, clear-user-id, forget-me, "
                                  "is-forgotten, offline, online, set, push, flush, wait-delivered, sending, wait, "
                                  "clock, settle, store, status, ledger, explain, crash, crash-signal, kill, "
                                  "erase, quit"])
        self.assertFalse(os.path.exists(self.store_folder))

    def test_a_bad_line_on_standard_input_touches_nothing(self):
        for bad, mistake in (("evnt shop look", '"evnt" is not a verb; use one of: '),
                             ("event shop", "event: an argument is missing; write: event GROUP NAME [PARAM]"),
                             ('event "shop look', "event: a double quote is opened and not closed; close it"),
                             ("wait soon", 'wait: "soon" is not a number of seconds; write: wait SECONDS'),
                             ("impression {", "impression: the rest of the line is not JSON (")):
            with self.subTest(bad):
                status, output, errors = self.run_once(self.arguments(), f"event a one\n{bad}\nevent a two\n")
                self.assertEqual((status, output), (2, ['{"verb":"event","ok":true}']))
                self.assertEqual(len(errors), 1, errors)
                self.assertIn(f"morvik-device: standard input, line 2: {mistake}", errors[0])
        self.assertEqual([e["activityName"] for e in self.device().stored_events()], ["one"] * 5)

    def test_a_store_that_another_process_holds_is_one_clear_line(self):
        device = self.device()
        self.do(device, "event shop look")
        status, output, errors = self.run_once(self.arguments(), "event shop buy\n")
        self.assertEqual((status, output), (2, []))
        self.assertEqual(len(errors), 1, errors)
        self.assertIn(self.store_folder, errors[0])
        self.do(device, "event shop share")
        self.assertEqual([e["activityName"] for e in device.stored_events()], ["look", "share"])

    def test_an_output_that_nobody_reads_ends_the_program(self):
        read_end, write_end = os.pipe()
        os.close(read_end)
        try:
            done = subprocess.run([stage.program(BUILD, "morvik-device"), *self.arguments()], input=b"store\nstore\n",
                                  stdout=write_end, stderr=subprocess.PIPE, timeout=stage.PATIENCE_SECONDS, check=False)
        finally:
            os.close(write_end)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr.decode(),
                         "morvik-device: standard output cannot be written; keep its reader open\n")

    def test_an_event_that_was_answered_outlives_a_kill_right_after_it(self):
        for count in range(1, 6):
            device = self.device()
            self.do(device, f"event shop look {count}")
            self.assertEqual(device.kill(), (-9, []))
            self.assertEqual([e["activityParam"] for e in self.device_once().stored_events()],
                             [str(number) for number in range(1, count + 1)])
            self.last_device.end_input()

    def device_once(self):
        self.last_device = self.device()
        return self.last_device


class Options(DeviceTest):
    def refusal(self, arguments):
        """The one line about bad options."""
        status, output, errors = self.run_once(arguments)
        self.assertEqual((status, output), (2, []))
        self.assertEqual(len(errors), 1, errors)
        self.assertTrue(errors[0].startswith("morvik-device: "), errors[0])
        self.assertFalse(os.path.exists(self.store_folder))
        return errors[0]

    def test_each_bad_option_is_one_line_that_says_how_to_fix_it(self):
        bad = (((), ("--store",), "--store is required; give the folder"),
               ((), ("--service",), "--service is required; give the base URL"),
               ((), ("--keys",), "--app-key is required; give it, or a file"),
               (("--app-key", "a"), ("--keys",), "--hash-key is required; give it, or a file"),
               (("--app-key", "a", "--hash-key", "b"), ("--keys",), "--tracking-key is required; give it, or a file"),
               (("--keys", "/no/keys"), ("--keys",), "--keys: there is no file /no/keys; name one that exists"),
               (("--ca", "/no/ca"), ("--ca",), "--ca: there is no file /no/ca; name one that exists"),
               (("--script", "/no/script"), (), "--script: there is no file /no/script; name one that exists"),
               (("--endpoint", "kGdprReqUrl"), (), "has no URL; write --endpoint NAME=URL"),
               (("--endpoint", "kNone=https://a.example"), (), "kFendoTrackingBaseLiveUrl"),
               (("--service", "ftp://a.example"), ("--service",), "--service: "),
               (("--service", "http://a.example"), ("--service",), "--service: "),
               (("--log-level", "7"), (), "--log-level: "),
               (("--idfa", "me"), (), '--idfa: "me" is not a UUID; write one like'),
               (("--orientation", "5"), (), "--orientation: "),
               (("--search-ads", "some"), (), "--search-ads: the details are not JSON ("),
               (("--iad", "some"), (), '--iad: "some" is not understood; write none,'),
               (("--colour",), (), "--colour"),
               (("--script",), (), "--script"))
        for more, without, mistake in bad:
            with self.subTest(more=more, without=without):
                self.assertIn(mistake, self.refusal(self.arguments(*more, without=without)))

    def test_a_file_of_keys_that_lacks_one_is_one_line(self):
        keys = self.write("some", "app-key=a\nhash-key=b\n")
        self.assertIn("tracking-key", self.refusal(self.arguments("--keys", keys, without=("--keys",))))

    def test_help_tells_all(self):
        for arguments, words in ((["--help"], ("run", "simulate", "fleet", "inspect", "verbs", "completion")),
                                 (["run", "--help"], ("--store", "--service", "--endpoint", "--search-ads")),
                                 (["verbs"], ("settle [SECONDS]", "event GROUP NAME [PARAM]"))):
            status, output, errors = self.run_once(arguments)
            self.assertEqual((status, errors), (0, []))
            for word in words:
                self.assertIn(word, "\n".join(output))

    def conversion(self, *more, without=()):
        """The content of a new install's conversion; None if there is none."""
        device = self.device(*more, without=without)
        self.do(device, "active", "settle")
        device.end_input()
        sent = self.requests("conversion")
        return sent[0]["payload"] if sent else None

    def test_an_option_wins_over_the_file_of_keys(self):
        keys = self.write("others", f"app-key=another\nhash-key={stage.HASH_KEY}\ntracking-key=another\n")
        payload = self.conversion("--keys", keys, "--app-key", stage.APP_KEY, "--tracking-key", stage.TRACKING_KEY,
                                  without=("--keys",))
        self.assertEqual(payload["appkey"], stage.APP_KEY)
        self.assertIsNone(self.requests("tracking")[0]["refusal"])

    def test_an_empty_tracking_key_sends_no_events(self):
        self.assertIsNotNone(self.conversion("--tracking-key", ""))
        self.assertEqual(self.requests("tracking"), [])

    def test_a_missing_slash_at_the_end_of_a_url_is_added(self):
        self.assertIsNotNone(self.conversion("--service", self.service.url.rstrip("/"), without=("--service",)))

    def test_one_endpoint_is_given_by_its_name(self):
        self.assertIsNotNone(self.conversion(
            "--service", "https://127.0.0.1:1/", "--endpoint",
            "kFendoConversionBaseLiveUrl=" + self.service.url.rstrip("/"), without=("--service",)))
        self.assertEqual(self.requests("tracking"), [])

    def test_the_advertising_identifier_is_made_and_kept(self):
        first = self.device()
        self.do(first, "active")
        made = first.store("MorvikCoreUserInfo_IDFA")["MorvikCoreUserInfo_IDFA"]
        self.assertRegex(made, r"^[0-9A-Fa-f]{8}(-[0-9A-Fa-f]{4}){3}-[0-9A-Fa-f]{12}$")
        first.end_input()
        self.assertEqual(self.conversion()["idfa"], made)

    def test_the_advertising_identifier_is_given_or_none(self):
        self.assertEqual(self.conversion("--idfa", IDFA)["idfa"], IDFA)

    def test_without_advertising_identifier_a_deep_link_is_dropped(self):
        self.service.call("POST", "/inspect/attribution", {"deeplink": "shop://a"})
        device = self.device("--idfa", "none")
        self.do(device, "active", "settle")
        self.assertEqual(self.requests("conversion")[0]["payload"]["idfa"], "")
        self.assertNotIn("didReceiveDeeplink:", [c["callback"] for c in device.callbacks])

    def test_search_ads_details_ride_in_the_conversion(self):
        details = {"Version3.1": {"iad-attribution": "true", "iad-keyword": "shoes"}}
        self.assertEqual(self.conversion("--search-ads", json.dumps(details))["searchads_response"],
                         details["Version3.1"])

    def test_search_ads_errors_send_the_conversion_without_details(self):
        for form in ("none", "error", 'error:{"Version3.1":{"iad-attribution":"true"}}'):
            with self.subTest(form):
                self.store_folder = os.path.join(self.folder, form[:8].replace(":", ""))
                self.assertEqual(self.conversion("--search-ads", form)["searchads_response"], "")

    def test_without_search_ads_no_conversion_is_made(self):
        self.assertIsNone(self.conversion("--search-ads", "absent"))

    def test_an_old_system_makes_no_conversion(self):
        self.assertIsNone(self.conversion("--system-version", "9.3"))

    def iad_payloads(self, form):
        device = self.device("--iad", form, "--search-ads", "absent")
        self.do(device, "active", "settle")
        device.end_input()
        return [request["payload"] for request in self.requests("iad-attribution")]

    def test_iad_dates_are_sent(self):
        payloads = self.iad_payloads("lookup:2024-05-01T12:00:00Z,2024-05-01T15:00:00+01:00")
        self.assertEqual(payloads[0]["iAd"],
                         {"appPurchaseDate": "20240501210000", "iAdImpressionDate": "20240501230000"})

    def test_iad_without_impression_sends_nothing(self):
        self.assertEqual(self.iad_payloads("lookup:2024-05-01T12:00:00Z,none"), [])

    def test_iad_determined_is_sent_without_dates(self):
        self.assertNotIn("iAd", self.iad_payloads("determine:yes")[0])

    def test_iad_determined_no_sends_nothing(self):
        self.assertEqual(self.iad_payloads("determine:no"), [])

    def test_the_persistent_identifier_is_sent_as_given(self):
        self.assertEqual(self.conversion("--puid", "somebody")["puid"], "somebody")

    def test_without_persistent_identifier_none_is_sent(self):
        self.assertEqual(self.conversion("--puid", "none")["puid"], "")

    def test_the_system_version_is_sent(self):
        self.assertEqual(self.conversion("--system-version", "14.2")["os_version"], "14.2")

    def test_without_multitasking_no_session_ends(self):
        device = self.attributed("--no-multitasking")
        self.do(device, "background", "settle")
        self.assertEqual(device.stored_events(), [])
        self.assertNotIn("MorvikCoreUserInfo_endSessoinDate", device.store())

    def test_the_orientation_is_stored(self):
        name = "fendoUserInfo_isApplicationPortrait"
        self.assertEqual(self.device("--orientation", "2").store(name), {name: "false"})

    def test_on_demand_the_ledger_is_told_to_the_service(self):
        silent = self.attributed()
        install = self.requests("conversion")[0]["payload"]["install_id"]
        self.do(silent, "event shop look", "push", "settle")
        self.assertEqual(self.service.call("GET", f"/inspect/ledger?install={install}"), {"ledgers": []})
        self.assertEqual(silent.end_input()[0], 0)
        before = len(self.service.requests(self.known_requests))

        device = self.device("--report-ledger")
        self.do(device, "event shop buy", "ledger")  # the ledger is sent before the next verb starts
        told, = self.service.call("GET", f"/inspect/ledger?install={install}")["ledgers"]
        self.assertEqual((told["balances"], told["sound"]), (True, True))
        activities = told["accounts"][0]
        self.assertEqual((activities["recorded"], activities["delivered"], activities["stored"]), (4, 3, 1))
        self.assertEqual(activities["arrived"], 3)
        self.assertEqual(len(self.service.requests(self.known_requests)), before, "the kit itself sent nothing more")
        self.do(device, "push", "settle")
        self.assertEqual(device.end_input()[0], 0)
        told, = self.service.call("GET", f"/inspect/ledger?install={install}")["ledgers"]
        self.assertEqual((told["accounts"][0]["delivered"], told["accounts"][0]["arrived"]), (4, 4))

    def test_the_log_goes_to_standard_error_at_its_level(self):
        status, output, errors = self.run_once(self.arguments("--log-level", "6"), "active\nactive\n")
        self.assertEqual(status, 0)
        self.assertIn('{"verb":"active","ok":true}', output)
        self.assertTrue(any("Already startSession be called" in line for line in errors), errors)
        self.assertTrue(any(line.startswith("TRACE Kesmo:lifecycle.cpp:") for line in errors), errors)
        for level in ("0", "2"):
            self.assertFalse(any("startSession" in line for line in
                                 self.run_once(self.arguments("--log-level", level), "active\nactive\n")[2]))

    def test_the_zone_is_that_of_the_environment(self):
        device = self.device(environment={"TZ": "Asia/Seoul"})
        self.do(device, "active", "settle")
        self.assertIn(self.requests("conversion")[0]["payload"]["timezone"], ("Asia/Seoul", "KST"))


if __name__ == "__main__":
    unittest.main()
