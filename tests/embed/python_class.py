#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Calls every method of the Python example's class: python_class.py LIBRARY SERVER

The server's first reply lies (first_reply_lies.py), so the first attempt is disagreeing.
"""
import pathlib
import sys
import unittest

sys.dont_write_bytecode = True  # leave the work tree as it is
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "examples/python"))
import skorra_ntp  # noqa: E402

LIMIT_S = 30


class PythonClassTest(unittest.TestCase):
    def test_one_clock_from_before_its_start_to_after_its_stop(self):
        clock = skorra_ntp.Clock(sys.argv[1])
        self.assertRegex(clock.version, r"^\d+\.\d+\.\d+$")
        before = clock.read()
        self.assertEqual((before.status, before.result, before.domain), ("unknown", "none", ""))
        self.assertFalse(before.has_time or before.has_bound)
        self.assertEqual([before.best_estimate_us, before.earliest_us, before.latest_us, before.error_bound_us],
                         [None] * 4)
        self.assertEqual((before.agreement, before.witness_count, before.agreeing_count, before.frequency_ppb),
                         ("unchecked", 0, 0, None))
        self.assertEqual(clock.now_us(), 0)
        self.assertFalse(clock.wait_until_synced(LIMIT_S), "it does not run")
        for call, code in ((lambda: clock.start(["not a name"]), 5), (lambda: clock.add_servers(["host:99999"]), 5),
                           (lambda: clock.start(interval_s=1), 4), (lambda: clock.wait_until_synced(-1), 4)):
            with self.assertRaises(skorra_ntp.SkorraNtpError) as raised:
                call()
            self.assertEqual(raised.exception.code, code)
            self.assertTrue(str(raised.exception))
        outcomes, heard_after_close = [], []
        closed = clock.observe(heard_after_close.append)
        closed.close()
        closed.close()
        with clock.observe(outcomes.append):
            clock.start()
            clock.add_servers([sys.argv[2]])
            self.assertTrue(clock.wait_until_bound(1000000, LIMIT_S))
            # Not more than a moment, but after the observer has heard what ended the wait.
            outcome = clock.sync(LIMIT_S)
        self.assertEqual([outcomes[-2].reason, outcomes[-1].reason], ["disagreeing", "ok"])
        self.assertEqual(outcomes[-1].reading.domain, sys.argv[2])
        self.assertEqual(outcome.reason, "ok")
        self.assertEqual(outcome.attempt, outcomes[-1].attempt)
        reading = clock.read()
        self.assertTrue(reading.earliest_us <= reading.best_estimate_us <= reading.latest_us)
        self.assertLess(abs(clock.now_us() - reading.best_estimate_us), 1000000)
        self.assertLess(abs(clock.manager_time_us() - reading.best_estimate_us), 1000000)
        self.assertEqual((reading.agreement, reading.witness_count), ("unchecked", 0))
        self.assertIsNone(reading.frequency_ppb)
        self.assertFalse(clock.wait_until_bound(0, 0))
        statistics = clock.take_statistics()
        self.assertGreaterEqual(statistics["attempts"]["request_count"], 2)
        self.assertFalse(statistics["deviation_found"])
        self.assertEqual(clock.counters()["clock.disagreeing"], 1)
        clock.stop()
        self.assertEqual(clock.sync(LIMIT_S).reason, "stopped")
        self.assertEqual(heard_after_close, [])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
