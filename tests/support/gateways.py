"""Gateways on the private LAN of scripts/with-lan, for tests of programs, which are in the folder TAVRONET_PROGRAMS."""

import os
import subprocess
import unittest


class Gateway:
    """A program in the gateway namespace that tells the `urls` of its descriptions when it is ready."""

    def __init__(self, *command):
        enter = os.path.join(os.path.dirname(__file__), "in-gateway-namespace")
        self.process = subprocess.Popen([enter, *command], stdout=subprocess.PIPE, text=True)
        ready = next((line for line in self.process.stdout if "ready" in line), "")
        self.urls = [word for word in ready.split() if word.startswith("http://")]

    def stop(self):
        """Ends it. Returns the rest of its output."""
        self.process.terminate()
        rest, _ = self.process.communicate(timeout=20)
        assert self.process.returncode == 0, "the gateway ended badly"
        return rest


class GatewayCase(unittest.TestCase):
    def simulated(self, options="", *texts, address="10.77.1.1"):
        """A simulated gateway until the end of the test."""
        program = os.environ["TAVRONET_PROGRAMS"] + "/tavronet-gateway"
        gateway = Gateway(program, "--address", address, *options.split(), *texts)
        self.addCleanup(gateway.stop)
        return gateway
