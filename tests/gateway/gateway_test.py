"""The simulated gateway, asked over plain sockets: what the tests of everything else rely on."""

import socket
import time
import urllib.parse

from gateways import GatewayCase

GET = "GET /rootDesc.xml HTTP/1.1\r\nHost: gateway\r\n\r\n"
WANTED = "urn:schemas-upnp-org:device:WANConnectionDevice:1"


def action(name, **arguments):
    service = "urn:schemas-upnp-org:service:WANIPConnection:1"
    inside = "".join(f"<New{argument}>{value}</New{argument}>" for argument, value in arguments.items())
    body = (f'<s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/"><s:Body>'
            f'<u:{name} xmlns:u="{service}">{inside}</u:{name}></s:Body></s:Envelope>')
    return (f'POST /ctl/IPConn HTTP/1.1\r\nHost: gateway\r\nSOAPAction: "{service}#{name}"\r\n'
            f"Content-Type: text/xml\r\nContent-Length: {len(body)}\r\n\r\n{body}")


def exchange(gateway, request):
    """What is answered until the gateway closes; behind it "(endless)", or the error that ends the reading."""
    target, answer = urllib.parse.urlsplit(gateway.urls[0]), bytearray()
    try:
        with socket.create_connection((target.hostname, target.port), timeout=1) as peer:
            peer.sendall(request.encode())
            while part := peer.recv(65536):
                answer += part
                if len(answer) > 4 << 20:
                    return answer.decode() + "(endless)"
    except OSError as error:
        return answer.decode() + f"({type(error).__name__})"
    return answer.decode()


class SimulatedGateway(GatewayCase):
    def test_each_option_does_what_its_name_says_to_the_requests_that_it_names(self):
        status, ask, ip = action("GetStatusInfo"), action("GetExternalIPAddress"), "NewExternalIPAddress>"
        missing = action("GetSpecificPortMappingEntry", RemoteHost="", ExternalPort=80, Protocol="TCP")
        for options, request, present, absent, seconds in (
                # what is in the answer and what is not, and how long it takes at least
                ("--description one-line", GET, "<serviceList><service><serviceType>", "\n<device>", 0),
                ("--description ppp,version2", GET, "WANPPPConnection:2<", "WANIPConnection", 0),
                ("--description dsl-forum", GET, "<deviceType>urn:dslforum-org:device:Internet", "Device:2", 0),
                ("--soap-style classic", ask, f"\r\n      <{ip}203.0.113.7</{ip}\r\n", "<m:", 0),
                ("--soap-style prefixed", ask, f"<m:{ip}203.0.113.7</m:{ip}", "<" + ip, 0),
                ("--transfer chunked", GET, "\r\n0\r\n\r\n", "Content-Length", 0),
                ("--transfer no-header", GET, "<root", "HTTP/1.1", 0),
                ("--nat 1", missing, "<errorCode>714<", " 200 OK", 0),
                ("--nat 1", action("GetGenericPortMappingEntry", PortMappingIndex=0), "<errorCode>713<", " 200 OK", 0),
                ("--nat 1", action("NoSuchAction"), "<errorCode>401<", " 200 OK", 0),
                ("--refuse-connection", GET, "(ConnectionRefusedError)", "HTTP", 0),
                ("--delay GetStatusInfo:300:1", status, " 200 OK", "Error)", 0.3),
                ("--slow soap:1000:1", status, "</s:Envelope>", "Error)", 0.4),
                ("--close-early description:20:1", GET, "HTTP/1.1 200 OK\r\nCon", "root", 0),
                ("--reset soap:30:1", status, "(ConnectionResetError)", "Envelope", 0),
                ("--never-answer GetStatusInfo:1", status, "(TimeoutError)", "HTTP", 1),
                ("--status GetStatusInfo:503:1", status, "HTTP/1.1 503 ", " 200 OK", 0),
                ("--refuse-action GetStatusInfo:501:1", status, "<errorCode>501<", " 200 OK", 0),
                ("--content-length soap:-5:1", status, "Content-Length: -5\r\n", "Error)", 0),
                ("--endless-body description:1", GET, "(endless)", "Error)", 0),
                ("--endless-header description:1", GET, "(endless)", "\r\n\r\n", 0)):
            with self.subTest(options):
                gateway = self.simulated("--no-ssdp " + options)
                start = time.monotonic()
                answer = exchange(gateway, request)
                self.assertGreaterEqual(time.monotonic() - start, seconds)
                self.assertIn(present, answer)
                self.assertNotIn(absent, answer)
                if options.endswith(":1"):
                    self.assertIn(" 200 OK", exchange(gateway, request), "once")

    def test_searches_for_this_gateway_are_answered_by_its_own_address(self):
        gateway = self.simulated("--address fd77:1::1")
        for family, address, url in zip((socket.AF_INET, socket.AF_INET6), ("10.77.1.1", "fd77:1::1"), gateway.urls):
            with self.subTest(address), socket.socket(family, socket.SOCK_DGRAM) as searcher:
                searcher.settimeout(5)
                searcher.connect((address, 1900))  # takes no answer of another address
                for target in ("urn:x:device:MediaServer:1", WANTED):
                    search = f'M-SEARCH * HTTP/1.1\r\nST: {target}\r\nMX: 5\r\nMAN: "ssdp:discover"\r\n\r\n'
                    searcher.send(search.encode())
                answer = searcher.recv(2048).decode()
                self.assertTrue(answer.startswith("HTTP/1.1 200 OK\r\n"))
                self.assertIn(f"\r\nLOCATION: {url}\r\n", answer)
                self.assertIn(f"\r\nST: {WANTED}\r\n", answer)
