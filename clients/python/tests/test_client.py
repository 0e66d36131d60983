"""The library against the real server on the simulated instrument."""

import socket
import threading
import time
import unittest

import numpy as np

from simserver import SimServer
from velaclient import ConnectionClosed, Instrument, InstrumentError, PowerState, RequestTimeout, ScanError
from velaclient.profile import expected_samples


class ServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = SimServer()

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def connect(self, **kw):
        inst = Instrument("127.0.0.1", self.server.port, **kw)
        self.addCleanup(inst.close)
        return inst

    def advance_until(self, request):
        """Moves board time on in steps until the request has a reply line
        (a 4 s scan is far from done when its first samples arrive)."""
        for _ in range(20):
            self.server.ctl("clock", "advance", "100ms")
            if request.poll(0.05):
                return
        self.fail(f"no reply to {request.command} in 2 s of board time")

    def test_channels_are_typed_by_the_capabilities(self):
        inst = self.connect()
        caps = inst.capabilities()
        self.assertEqual(len(caps), 30)
        self.assertEqual((caps["pstate"].kind, caps["pstate"].symbols[-1]), ("int", "meas"))
        self.assertEqual((caps["w_scale"].kind, caps["opto_rs232"].kind), ("float", "str"))
        values = inst.get_many("batt", "batt_v", "machine", "speed")
        self.assertEqual([type(v) for v in values.values()], [int, float, str, float])
        inst.ch.blight = 37
        inst.set(speed=0.25)
        self.assertEqual((inst.ch.blight, inst.get("speed")), (37, 0.25))
        inst.set(speed=0.5)
        # More names than one request may carry are split over several.
        names = [n for n, c in caps.items() if c.readable and n not in ("w", "z", "sin_freq")]
        self.assertEqual(list(inst.get_many(*names)), names)
        self.assertGreater(len(names), 19)
        info = inst.machine()
        self.assertEqual((info.model, info.components["velatool"]), ("VELAL", "1.00-32"))

    def test_errors_carry_the_instruments_text(self):
        inst = self.connect()
        inst.set_pstate("ready")
        for call, text in ((lambda: inst.get("nonsense"), "unknown channel"),
                           (lambda: inst.set(blight=500), "value out of range"),
                           (lambda: inst.get("z"), "invalid pstate"),
                           (lambda: inst.scan(length_mm=1).wait(), "invalid pstate"),
                           (lambda: inst.command("frobnicate"), "unknown command")):
            with self.assertRaises(InstrumentError) as cm:
                call()
            self.assertEqual(cm.exception.text, text)
        with self.assertRaisesRegex(ValueError, "longer than 255"):
            inst.command("get " + "batt " * 60)
        self.assertEqual(inst.get("batt_state"), 4)  # the connection goes on

    def test_replies_interleave_with_a_scan_and_an_autoinfo(self):
        inst = self.connect()
        inst.ensure_meas()
        inst.move_home()
        # Board time moves only when told, so the scan is surely running
        # while the other requests are answered.
        self.server.ctl("clock", "mode", "step")
        self.addCleanup(self.server.ctl, "clock", "mode", "warp")
        scan = inst.scan(length_mm=2.0)
        chunks = iter(scan)
        self.advance_until(scan.request)
        first = next(chunks)
        info = inst.autoinfo(50, "pstate", "batt")
        self.advance_until(info.request)
        report = next(iter(info))
        self.assertEqual(inst.pstate(), PowerState.MEAS)
        with self.assertRaises(InstrumentError) as cm:
            inst.set(speed=0.3)
        self.assertEqual(cm.exception.text, "command already active")
        # The abort's own ready needs board time (the acquisition restarts).
        abort = inst.send(f"abort {scan.id}")
        self.server.ctl("clock", "mode", "warp")
        abort.wait()
        with self.assertRaises(ScanError) as cm:
            list(chunks)
        self.assertEqual(cm.exception.text, "aborted")
        profile = cm.exception.profile
        self.assertTrue(len(first) <= len(profile) < expected_samples(0.5, length_mm=2.0))
        np.testing.assert_array_equal(profile.raw[:len(first)], first)
        self.assertEqual(report["pstate"], 5)
        self.assertIsInstance(report["batt"], int)
        info.stop()
        self.assertTrue(info.request.done)
        with inst.autoinfo(50, "batt") as again:  # the subscription is free again
            self.assertIn("batt", next(iter(again)))

    def test_events_reach_callbacks_and_the_queue(self):
        seen = []
        inst = self.connect(on_event=seen.append)
        deadline = time.time() + 10  # the greeting's two events arrive after the connect
        while len(seen) < 2 and time.time() < deadline:
            time.sleep(0.01)
        self.assertEqual([e.text for e in seen[:2]], ["on battery", "battery good"])
        t0 = time.time()
        self.server.ctl("button", "press")
        self.server.ctl("button", "release")
        inst.wait_event("START released", timeout=10, since=t0)
        texts = []
        while not inst.events.empty():
            texts.append(inst.events.get_nowait().text)
        self.assertEqual(texts, ["on battery", "battery good", "START pressed", "START released"])

    def test_busy_server_and_clean_close(self):
        others = [self.connect() for _ in range(4)]
        self.connect()
        with self.assertRaises(ConnectionClosed) as cm:
            Instrument("127.0.0.1", self.server.port)
        self.assertEqual(cm.exception.server_text, "ERROR: Sorry, server is too busy.")
        for inst in others:
            inst.close()
        with self.assertRaises(ConnectionClosed):
            others[0].get("batt")


class DroppedConnectionTest(unittest.TestCase):
    def test_a_scan_keeps_its_samples_when_the_connection_drops(self):
        server = SimServer()
        self.addCleanup(server.stop)
        with Instrument("127.0.0.1", server.port) as inst:
            inst.ensure_meas()
            scan = inst.scan(length_mm=17.5)
            with self.assertRaises(ConnectionClosed):
                for _ in scan:
                    server.proc.kill()
            self.assertTrue(scan.profile.partial)
            self.assertGreater(len(scan.profile), 0)
            self.assertLess(len(scan.profile), scan.expected)


class SilentServerTest(unittest.TestCase):
    """A peer that greets and then never answers."""

    def test_a_server_that_never_greets_costs_one_timeout(self):
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)
        t0 = time.monotonic()
        with self.assertRaises(ConnectionClosed) as cm:
            Instrument("127.0.0.1", listener.getsockname()[1], timeout=1.0)
        self.assertTrue(cm.exception.silent)
        self.assertLess(time.monotonic() - t0, 1.9)

    def test_request_times_out(self):
        listener = socket.create_server(("127.0.0.1", 0))
        self.addCleanup(listener.close)

        def serve():
            conn, _ = listener.accept()
            conn.sendall(b"0 event on battery\n")
            while conn.recv(4096):
                pass
            conn.close()

        threading.Thread(target=serve, daemon=True).start()
        with Instrument("127.0.0.1", listener.getsockname()[1], timeout=0.2) as inst:
            with self.assertRaises(RequestTimeout):
                inst.get_many("batt")


if __name__ == "__main__":
    unittest.main()
