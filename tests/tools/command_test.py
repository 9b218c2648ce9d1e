#!/usr/bin/env python3
"""The command tavronet as its users see it: what it prints, its exit code, how long it takes.

Runs in the client namespace of scripts/with-lan; the gateways run in the other one. TAVRONET and TAVRONET_GATEWAY name
the programs.
"""

import json
import os
import pathlib
import pty
import select
import signal
import subprocess
import tempfile
import time
import unittest

COMMAND = os.environ["TAVRONET"]
SIMULATED = os.environ["TAVRONET_GATEWAY"]

LOCAL = "10.77.1.2"
DONE, WRONG_ARGUMENTS, INTERRUPTED, NO_GATEWAY, FAILED = 0, 2, 6, 7, 8
MAPPING_FIELDS = {"protocol", "external_port", "internal_client", "internal_port", "description", "enabled",
                  "lease_seconds", "remote_host"}
GATEWAY_FIELDS = {"name", "manufacturer", "model", "local_address", "address", "description_url", "server", "service"}


class Gateway:
    """A gateway program in the gateway namespace, with the url of its description."""

    def __init__(self, *command):
        enter = ["nsenter", "-t", os.environ["TAVRONET_LAN_GATEWAY_PID"], "-n"]
        self.process = subprocess.Popen([*enter, *command], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.urls = []
        for line in self.process.stdout:
            if "ready" in line:
                self.urls = [word for word in line.split() if word.startswith("http://")]
                break
        if not self.urls:
            self.stop()

    def stop(self):
        self.process.terminate()
        self.process.communicate(timeout=20)

    @property
    def url(self):
        return self.urls[0]


class Ran:
    def __init__(self, *arguments):
        started = time.monotonic()
        done = subprocess.run([COMMAND, *arguments], capture_output=True, text=True, timeout=60, check=False)
        self.ms = (time.monotonic() - started) * 1000
        self.code, self.out, self.err = done.returncode, done.stdout, done.stderr

    @property
    def json(self):
        return json.loads(self.out)


class Case(unittest.TestCase):
    def simulated(self, *options, address="10.77.1.1"):
        gateway = Gateway(SIMULATED, "--address", address, *options)
        self.addCleanup(gateway.stop)
        self.assertTrue(gateway.urls, "the simulated gateway does not start")
        return gateway

    def ran(self, code, *arguments):
        """Runs the command and checks its exit code."""
        ran = Ran(*arguments)
        self.assertEqual(ran.code, code, f"tavronet {' '.join(arguments)}\n{ran.out}{ran.err}")
        return ran

    def failed_json(self, code, *arguments):
        """A command that fails says so on both outputs, with the same code."""
        ran = self.ran(code, *arguments, "--json")
        self.assertEqual(ran.json["result"], code)
        self.assertIn(ran.json["error"], ran.err)
        self.assertTrue(ran.json["try"], "no advice")
        return ran.json


class Usage(Case):
    """Nothing here searches for anything."""

    def test_help_and_version(self):
        whole = self.ran(DONE, "--help").out
        for command in ("discover", "status", "list", "add", "add-range", "delete", "delete-range", "watch",
                        "doctor"):
            self.assertIn(command, whole)
            self.assertIn("Usage: tavronet " + command, self.ran(DONE, command, "--help").out)
        self.assertRegex(self.ran(DONE, "--version").out, r"^tavronet \d+\.\d+\.\d+\n$")

    def test_wrong_arguments(self):
        for wrong, said in (
                ([], "subcommand"), (["lst"], "lst"), (["add"], "port"), (["add", "65536"], "port"),
                (["add", "80", "--protocol", "icmp"], "protocol"), (["list", "--interface", "eth0"], "address"),
                (["list", "--url", "https://192.168.1.1/"], "url"), (["list", "--url", "http://192.168.1.1:0/"], "url"),
                (["list", "--timeout", "0"], "timeout")):
            with self.subTest(wrong=wrong):
                ran = self.ran(WRONG_ARGUMENTS, *wrong)
                self.assertIn(said, (ran.out + ran.err).lower())


class Queries(Case):
    def test_discover(self):
        gateway = self.simulated("--friendly-name", "Box \033[31m & Co")
        self.assertEqual(self.ran(DONE, "discover").out,
                         f"Box ?[31m & Co (Tavro tavronet-gateway) at {gateway.url}, reached from {LOCAL}\n")
        found = self.ran(DONE, "discover", "--json").json
        self.assertEqual([set(each) for each in found], [GATEWAY_FIELDS])
        self.assertEqual(found[0]["name"], "Box \033[31m & Co")

        everything = self.ran(DONE, "discover", "--all", "--timeout", "1.5", "--json")
        self.assertEqual(everything.json, found)
        self.assertGreaterEqual(everything.ms, 1500)

    def test_status_and_doctor(self):
        self.simulated("--external-ip", "100.64.7.7", "--nat", "0")
        status = self.ran(DONE, "status", "--json").json
        self.assertEqual(set(status), GATEWAY_FIELDS | {"external_address", "nat_enabled"})
        self.assertEqual((status["external_address"], status["nat_enabled"]), ("100.64.7.7", False))
        states = {check["check"]: check["state"] for check in self.ran(DONE, "doctor", "--json").json["checks"]}
        self.assertEqual((states["gateway"], states["multicast"]), ("ok", "ok"))
        self.assertRegex(self.ran(DONE, "doctor").out, r"warning +its address outside, 100\.64\.7\.7")

    def test_url_instead_of_search(self):
        with tempfile.NamedTemporaryFile() as log:
            gateway = self.simulated("--log", log.name)
            for command in (["discover"], ["status"], ["add", "8080"], ["list"], ["delete", "8080"], ["doctor"]):
                self.ran(DONE, *command, "--url", gateway.url)
            events = pathlib.Path(log.name).read_text()
        self.assertNotIn("search", events)
        self.assertIn(f"NewInternalClient={LOCAL}", events)


class Mappings(Case):
    def test_add_list_delete(self):
        self.simulated()
        self.assertEqual(self.ran(DONE, "list").out, "no mappings\n")
        self.assertEqual(self.ran(DONE, "add", "8080").out, f"mapped TCP 8080 -> {LOCAL}:8080 (tavronet)\n")
        text = 'game <1> & "2"'
        added = self.ran(DONE, "add", "5060", "--protocol", "udp", "--description", text, "--internal-port", "5061",
                         "--lease", "600", "--json").json
        self.assertEqual(set(added), MAPPING_FIELDS | {"result", "gateway"})
        self.assertEqual((added["result"], added["internal_port"]), (DONE, 5061))

        listed = self.ran(DONE, "list", "--json").json
        self.assertEqual([set(each) for each in listed], [MAPPING_FIELDS] * 2)
        self.assertEqual([each["description"] for each in listed], ["tavronet", text])
        self.assertRegex(self.ran(DONE, "list").out.splitlines()[2],
                         rf"^UDP +5060 +{LOCAL}:5061 +\d+ s +on +game <1>")
        self.assertEqual(self.ran(DONE, "delete", "8080").out, "deleted TCP port 8080\n")
        self.ran(DONE, "delete", "5060", "--protocol", "UDP")
        self.assertEqual(self.ran(DONE, "list", "--json").json, [])

    def test_refusals(self):
        self.simulated("--lowest-port", "1024", "--capacity", "1")
        self.ran(DONE, "add", "6000", "--client", "10.77.1.99")
        for arguments, code in ((["add", "80"], 606), (["add", "6000"], 718), (["delete", "7000"], 714),
                                (["add", "7000"], 501)):
            with self.subTest(arguments=arguments):
                failure = self.failed_json(FAILED, *arguments)
                self.assertEqual((failure["http_status"], failure["upnp_code"]), (500, code))
                self.assertIn(f"UPnP error {code} {failure['upnp_text']}", failure["error"])

    def test_ranges(self):
        self.simulated("--refuse", "7001:718", "--lowest-port", "1024", "--delay", "AddPortMapping:200")
        added = self.ran(DONE, "add-range", "7000", "2", "--description", "Game %d", "--json").json
        self.assertEqual([added["first_port"], *(each["description"] for each in added["mappings"])],
                         [7002, "Game 1", "Game 2"])
        self.assertEqual(self.failed_json(FAILED, "add-range", "80", "2")["upnp_code"], 606)
        self.assertIn("no room", self.failed_json(FAILED, "add-range", "65535", "2")["error"])
        self.assertIn("1 of 2 ports were", self.failed_json(FAILED, "delete-range", "7001", "2")["error"])
        self.assertEqual(self.ran(DONE, "delete-range", "7003", "1").out, "deleted TCP port 7003\n")

        controller, terminal = pty.openpty()
        added = subprocess.run([COMMAND, "add-range", "8000", "3"], stdout=subprocess.PIPE, stderr=terminal, timeout=60,
                               check=True).stdout.decode()
        self.assertIn(f"mapped TCP 8002 -> {LOCAL}:8002 (tavronet)\n", added)
        shown = os.read(controller, 65536).decode()
        self.assertRegex(shown, r"Mapping \[#{8}\.{16}\] port 2 of 3, 1 s left")
        self.assertTrue(shown.endswith("\r\033[K"), "the bar is wiped out at the end")


class Failures(Case):
    def test_nobody_answers(self):
        failure = self.failed_json(NO_GATEWAY, "add", "8080", "--timeout", "0.3")
        self.assertIn("within 0.3 s", failure["error"])
        self.assertIn("firewall", " ".join(failure["try"]))
        checks = self.ran(NO_GATEWAY, "doctor", "--timeout", "0.3", "--json").json["checks"]
        self.assertEqual(checks[-1]["state"], "failed")

    def test_no_private_address(self):
        done = subprocess.run(["unshare", "-n", COMMAND, "add", "8080"], capture_output=True, text=True, timeout=4,
                              check=False)
        self.assertEqual(done.returncode, NO_GATEWAY)
        self.assertIn("no interface with a private address", done.stderr)

    def test_classic_dialect_loses_services_on_one_line(self):
        self.simulated("--description", "one-line")
        self.ran(DONE, "status")
        failure = self.failed_json(NO_GATEWAY, "status", "--classic", "--timeout", "0.5")
        self.assertIn("without --classic", failure["try"])

    def test_description_cut_short_is_asked_for_again(self):
        self.simulated("--close-early", "description:900:1")
        self.ran(DONE, "status")

    def test_unusable_location(self):
        self.simulated("--location", "http://10.77.1.1:99999/")
        self.assertIn("no description", self.failed_json(NO_GATEWAY, "status", "--timeout", "2")["error"])

    def test_broken_answer(self):
        self.simulated("--close-early", "soap:20")
        for command in (["status"], ["list"], ["add", "8080"], ["delete", "8080"]):
            with self.subTest(command=command):
                self.assertIn("did not tell", self.failed_json(FAILED, *command)["error"])

    def test_interrupted(self):
        self.simulated("--never-answer", "soap")
        for arguments in (["add", "8080"], ["list"], ["discover", "--all"]):
            with self.subTest(arguments=arguments), subprocess.Popen(
                    [COMMAND, *arguments], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as running:
                time.sleep(0.3)
                running.send_signal(signal.SIGINT)
                _, said = running.communicate(timeout=5)
                self.assertEqual(running.returncode, INTERRUPTED, said)


class Watch(Case):
    def test_tells_what_comes_and_goes(self):
        gateway = self.simulated("--external-ip", "203.0.113.9")
        watching = subprocess.Popen([COMMAND, "watch", "--interval", "0.1", "--json"], stdout=subprocess.PIPE,
                                    bufsize=0)  # so that select sees all that is not read yet
        self.addCleanup(watching.stdout.close)
        self.addCleanup(watching.kill)

        def next_event(skipped="mappings_verified"):
            self.assertTrue(select.select([watching.stdout], [], [], 20)[0], "nothing told")
            event = json.loads(watching.stdout.readline())
            self.assertRegex(event["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
            self.assertEqual(event["gateway"], gateway.url)
            return next_event(skipped) if event["event"] == skipped else (event["event"], event["value"])

        self.assertEqual(next_event()[0], "gateway_found")
        self.assertEqual(next_event(), ("external_address", "203.0.113.9"))
        for client, end in (("10.77.1.99", "mapping_removed"), (LOCAL, "mapping_lost")):
            self.ran(DONE, "add", "8080", "--client", client)
            event, mapping = next_event()
            self.assertEqual((event, mapping["external_port"]), ("mapping_added", 8080))
            self.assertEqual(next_event(skipped=""), ("mappings_verified", 1))
            self.ran(DONE, "delete", "8080")
            self.assertEqual(next_event(), (end, mapping))
        gateway.process.send_signal(signal.SIGUSR1)
        told = [next_event()[0] for _ in range(3)]
        self.assertEqual(told, ["gateway_gone", "gateway_found", "external_address"], "says goodbye and stays")
        gateway.stop()
        self.assertEqual(next_event()[0], "gateway_gone")

        watching.send_signal(signal.SIGTERM)
        self.assertEqual(watching.wait(timeout=5), DONE)


class TwoGateways(Case):
    def test_interface_chooses(self):
        self.simulated("--external-ip", "203.0.113.1", "--uuid", "first")
        self.simulated("--external-ip", "203.0.113.2", "--uuid", "second", address="10.77.2.1")
        found = self.ran(DONE, "discover", "--json").json
        self.assertEqual({each["local_address"] for each in found}, {"10.77.1.2", "10.77.2.2"})
        for number in (1, 2):
            status = self.ran(DONE, "status", "--json", "--interface", f"10.77.{number}.2").json
            self.assertEqual(status["external_address"], f"203.0.113.{number}")
        self.assertEqual(self.ran(DONE, "add", "8080", "--interface", "10.77.2.2", "--json").json["internal_client"],
                         "10.77.2.2")

    def test_ipv6(self):
        gateway = self.simulated(address="fd77:1::1")
        self.assertIn("[fd77:1::1]", gateway.url)
        self.assertEqual(self.ran(DONE, "status", "--json").json["local_address"], "fd77:1::2")
        added = self.ran(DONE, "add", "8080", "--json", "--url", gateway.url).json
        self.assertEqual(added["internal_client"], "fd77:1::2")


if __name__ == "__main__":
    unittest.main()
