"""The command tavronet as its users see it: what it prints, its exit code, how long it takes."""

import json
import os
import pty
import signal
import subprocess
import time

from gateways import GatewayCase

COMMAND = os.environ["TAVRONET_PROGRAMS"] + "/tavronet"
LOCAL = "10.77.1.2"
DONE, WRONG_ARGUMENTS, INTERRUPTED, NO_GATEWAY, FAILED = 0, 2, 6, 7, 8
MAPPING = "protocol external_port internal_client internal_port description enabled lease_seconds remote_host"
GATEWAY = "name manufacturer model local_address address description_url server service"


class Command(GatewayCase):
    def ran(self, code, *arguments, within=()):
        """Runs the command, which must end with this code. Returns its standard output and error."""
        done = subprocess.run([*within, COMMAND, *arguments], capture_output=True, text=True, timeout=60, check=False)
        self.assertEqual(done.returncode, code, f"{arguments}\n{done.stdout}{done.stderr}")
        return done.stdout, done.stderr

    def said(self, *arguments):
        return self.ran(DONE, *arguments)[0]

    def value(self, *arguments):
        return json.loads(self.said(*arguments, "--json"))

    def test_usage(self):
        whole = self.said("--help")
        for name in ("discover", "status", "list", "add", "add-range", "delete", "delete-range", "watch", "doctor"):
            self.assertIn(name, whole)
            self.assertIn("Usage: tavronet " + name, self.said(name, "--help"))
        self.assertRegex(self.said("--version"), r"^tavronet \d+\.\d+\.\d+\n$")
        for wrong, word in (
                ("", "subcommand"), ("lst", "lst"), ("add", "port"), ("add 65536", "port"),
                ("add 80 --protocol x", "protocol"), ("list --interface x", "address"), ("list --timeout 0", "timeout"),
                ("list --url https://10.0.0.1/", "url"), ("list --url http://10.0.0.1:0/", "url")):
            with self.subTest(wrong):
                self.assertIn(word, " ".join(self.ran(WRONG_ARGUMENTS, *wrong.split())).lower())

    def test_gateways(self):
        # the description is cut short, and asked for again
        gateway = self.simulated("--external-ip 100.64.7.7 --nat 0 --close-early description:900:1",
                                 "--friendly-name", "Box \033[31m & Co")
        self.assertEqual(self.said("discover"),
                         f"Box ?[31m & Co (Tavro tavronet-gateway) at {gateway.urls[0]}, reached from {LOCAL}\n")
        found = self.value("discover")
        self.assertEqual((" ".join(found[0]), found[0]["name"]), (GATEWAY, "Box \033[31m & Co"))
        start = time.monotonic()
        self.assertEqual(self.value("discover", "--all", "--timeout", "1.5"), found)
        self.assertGreaterEqual(time.monotonic() - start, 1.5)

        status = self.value("status")
        self.assertEqual(" ".join(status), GATEWAY + " external_address nat_enabled")
        self.assertEqual((status["external_address"], status["nat_enabled"]), ("100.64.7.7", False))
        states = [check["state"] for check in self.value("doctor")["checks"]]
        self.assertEqual((set(states[:-2]), states[-2:]), ({"ok"}, ["warning", "ok"]))
        self.assertRegex(self.said("doctor"), r"warning +its address outside, 100\.64\.7\.7")

    def test_url_instead_of_search(self):
        gateway = self.simulated("--log -")
        for command in ("discover", "status", "add 8080", "list", "delete 8080", "doctor"):
            self.said(*command.split(), "--url", gateway.urls[0])
        events = gateway.stop()
        self.assertNotIn("search", events)
        self.assertIn(f"NewInternalClient={LOCAL}", events)

    def test_mappings(self):
        self.simulated("--refuse 7001:718 --delay AddPortMapping:200")
        self.assertEqual(self.said("list"), "no mappings\n")
        self.assertEqual(self.said("add", "8080"), f"mapped TCP 8080 -> {LOCAL}:8080 (tavronet)\n")
        text = 'game <1> & "2"'
        added = self.value("add", "5060", "--protocol", "udp", "--description", text, "--internal-port", "5061",
                           "--lease", "600")
        self.assertEqual(" ".join(added), f"result {MAPPING} gateway")
        listed = self.value("list")
        self.assertEqual([" ".join(each) for each in listed], [MAPPING] * 2)
        self.assertEqual([each["description"] for each in listed], ["tavronet", text])
        self.assertRegex(self.said("list").splitlines()[2], rf"^UDP +5060 +{LOCAL}:5061 +\d+ s +on +game <1>")
        self.assertEqual(self.said("delete", "8080"), "deleted TCP port 8080\n")
        self.assertEqual(self.said("delete", "5060", "--protocol", "UDP"), "deleted UDP port 5060\n")
        self.assertEqual(self.value("list"), [])

        added = self.value("add-range", "7000", "2", "--description", "Game %d")["mappings"]
        self.assertEqual([each["external_port"] for each in added], [7002, 7003])
        self.assertEqual([each["description"] for each in added], ["Game 1", "Game 2"])
        self.assertEqual(self.said("delete-range", "7003", "1"), "deleted TCP port 7003\n")
        controller, terminal = pty.openpty()
        self.ran(DONE, "add-range", "8000", "3", within=["sh", "-c", f'"$@" 2>/proc/{os.getpid()}/fd/{terminal}', "sh"])
        shown = os.read(controller, 65536).decode()
        self.assertRegex(shown, r"Mapping \[#{8}\.{16}\] port 2 of 3, 1 s left")
        self.assertTrue(shown.endswith("\r\033[K"), "the bar is wiped out at the end")

    def test_failures(self):
        self.assertIn("no interface", self.ran(NO_GATEWAY, "add", "8080", within=["timeout", "4", "unshare", "-n"])[1])
        self.assertIn("failed", self.ran(NO_GATEWAY, "doctor", "--timeout", "0.3")[0])
        for options, code, said, *commands in (
                ("--no-ssdp", NO_GATEWAY, "within 0.3 s", "add 8080 --timeout 0.3"),
                ("--description one-line", NO_GATEWAY, "no usable gateway", "status --classic --timeout 0.5"),
                ("--location http://10.77.1.1:99999/", NO_GATEWAY, "no description", "status --timeout 2"),
                ("--close-early soap:20", FAILED, "did not answer", "status", "list", "add 80", "delete 80"),
                ("--lowest-port 1024", FAILED, "UPnP error 606 ", "add 80", "add-range 80 2"),
                ("--refuse 6000:718", FAILED, "UPnP error 718 ConflictInMappingEntry", "add 6000"),
                ("--capacity 0", FAILED, "UPnP error 501 ", "add 7000"),
                ("--nat 1", FAILED, "UPnP error 714 ", "delete 7000"),
                ("--nat 1", FAILED, "; 0 of 2 ports were deleted", "delete-range 7000 2"),
                ("--nat 1", FAILED, "no room", "add-range 65535 2")):
            self.simulated(options)
            for command in commands:
                with self.subTest(options, command=command):
                    out, error = self.ran(code, *command.split(), "--json")
                    failure = json.loads(out)
                    self.assertIn(said, failure["error"])
                    self.assertIn(failure["error"], error)
                    self.assertEqual((failure["result"], failure["try"] != []), (code, True), "and no advice")
                    if said.startswith("UPnP error"):
                        self.assertEqual((failure["http_status"], failure["upnp_code"]), (500, int(said.split()[2])))
            self.doCleanups()

    def test_interrupted(self):
        self.simulated("--never-answer soap")
        for command in ("add 8080", "list", "discover --all"):
            with self.subTest(command):
                self.ran(INTERRUPTED, *command.split(), within=["timeout", "--preserve-status", "-s", "INT", "0.3"])

    def test_watch_tells_what_comes_and_goes(self):
        gateway = self.simulated("--external-ip 203.0.113.9")
        watching = subprocess.Popen([COMMAND, "watch", "--interval", "0.1", "--json"], stdout=subprocess.PIPE)
        self.addCleanup(watching.communicate)
        self.addCleanup(watching.kill)

        def next_event(skipped="mappings_verified"):
            event = next(event for event in map(json.loads, watching.stdout) if event["event"] != skipped)
            self.assertRegex(event["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
            self.assertEqual(event["gateway"], gateway.urls[0])
            return event["event"], event["value"]

        self.assertEqual(next_event()[0], "gateway_found")
        self.assertEqual(next_event(), ("external_address", "203.0.113.9"))
        for client, end in (("10.77.1.99", "mapping_removed"), (LOCAL, "mapping_lost")):
            self.said("add", "8080", "--client", client, "--lease", "600")
            event, mapping = next_event()
            self.assertEqual((event, mapping["external_port"]), ("mapping_added", 8080))
            for _ in range(12):  # more than a second of the lease
                self.assertEqual(next_event(skipped=""), ("mappings_verified", 1))
            self.said("delete", "8080")
            event, lost = next_event()
            self.assertEqual((event, lost["internal_client"]), (end, client))
        gateway.process.send_signal(signal.SIGUSR1)  # it says goodbye and stays
        self.assertEqual([next_event()[0] for _ in range(3)], ["gateway_gone", "gateway_found", "external_address"])
        gateway.stop()
        self.assertEqual(next_event()[0], "gateway_gone")
        watching.terminate()
        self.assertEqual(watching.wait(timeout=5), DONE)

    def test_two_gateways_by_interface_and_one_by_ipv6(self):
        for i in "12":
            self.simulated(f"--external-ip 203.0.113.{i} --uuid {i}", address=f"10.77.{i}.1")
        self.assertEqual({each["local_address"] for each in self.value("discover")}, {"10.77.1.2", "10.77.2.2"})
        for i in "12":
            status = self.value("status", "--interface", f"10.77.{i}.2")
            self.assertEqual(status["external_address"], f"203.0.113.{i}")
        self.doCleanups()
        gateway = self.simulated(address="fd77:1::1")
        self.assertEqual(self.value("status")["local_address"], "fd77:1::2")
        self.assertEqual(self.value("add", "8080", "--url", gateway.urls[0])["internal_client"], "fd77:1::2")
