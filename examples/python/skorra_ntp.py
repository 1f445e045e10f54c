#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The clock of skorra NTP for Python, by ctypes and the shared library; nothing needs to be compiled.

    clock = Clock("build/libskorra_ntp.so")
    clock.start(["ntp.example.org", "192.0.2.1:123"])
    if clock.wait_until_synced(limit_s=30):
        reading = clock.read()
        ...  # reading.earliest_us <= the true time <= reading.latest_us, while reading.has_bound

c/skorra_ntp.h says what each function promises. As a program it syncs with the servers given and prints a table:

usage: skorra_ntp.py [--library PATH] [--limit SECONDS] SERVER...
"""
import argparse
import ctypes
import dataclasses
import sys
import time

NO_FREQUENCY = -2 ** 63
NOT_REACHED = (7, 8)  # SKORRA_NTP_ERROR_TIMED_OUT, SKORRA_NTP_ERROR_NOT_RUNNING


class _Sized(ctypes.Structure):
    """A struct that tells the library its size."""

    def __init__(self, **members):
        super().__init__(struct_size=ctypes.sizeof(self), **members)


class _Options(_Sized):
    _fields_ = [("struct_size", ctypes.c_size_t), ("servers", ctypes.POINTER(ctypes.c_char_p)),
                ("server_count", ctypes.c_size_t), ("vmclock_path", ctypes.c_char_p), ("interval_s", ctypes.c_uint32),
                ("frequency_error_ppm", ctypes.c_uint32), ("max_error_us", ctypes.c_int64)]


class _Reading(_Sized):
    _fields_ = [("struct_size", ctypes.c_size_t), ("status", ctypes.c_int32), ("result", ctypes.c_int32),
                ("agreement", ctypes.c_int32), ("has_time", ctypes.c_bool), ("has_bound", ctypes.c_bool),
                ("reserved", ctypes.c_uint8 * 2), ("domain", ctypes.c_char_p), ("best_estimate_us", ctypes.c_int64),
                ("earliest_us", ctypes.c_int64), ("latest_us", ctypes.c_int64), ("error_estimate_us", ctypes.c_int64),
                ("error_bound_us", ctypes.c_int64), ("age_us", ctypes.c_int64), ("witness_count", ctypes.c_uint32),
                ("agreeing_count", ctypes.c_uint32), ("frequency_ppb", ctypes.c_int64)]


class _Outcome(_Sized):
    _fields_ = [("struct_size", ctypes.c_size_t), ("reason", ctypes.c_int32), ("attempt", ctypes.c_uint64)]


class _RequestStatistics(ctypes.Structure):
    _fields_ = [(name, ctypes.c_uint32) for name in ("request_count", "success_count", "failure_count",
                                                     "average_cost_ms", "max_cost_ms", "total_cost_ms")]


class _Statistics(_Sized):
    _fields_ = [("struct_size", ctypes.c_size_t), ("start_count", ctypes.c_uint32),
                ("deviation_found", ctypes.c_uint32), ("other_domains", _RequestStatistics),
                ("default_domain", _RequestStatistics), ("attempts", _RequestStatistics)]


_OUTCOME_FUNCTION = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.POINTER(_Outcome), ctypes.POINTER(_Reading))
_COUNTER_FUNCTION = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_char_p, ctypes.c_uint64)


class SkorraNtpError(Exception):
    """A function of the library failed. `code` is its error code, and the text is the library's."""

    def __init__(self, code, text):
        super().__init__(text)
        self.code = code


@dataclasses.dataclass(frozen=True)
class Reading:
    """One consistent reading. Times are microseconds since 1970 UTC; None stands for what is not known."""

    status: str  # "unknown", "provisional", "synchronized", "free_running", "disrupted", "conflicting"
    result: str  # how the manager grades the sync: "none", "success", "maybe_inaccurate"
    has_time: bool
    has_bound: bool
    domain: str  # the server, as it was given
    best_estimate_us: int | None
    earliest_us: int | None
    latest_us: int | None
    error_estimate_us: int | None  # what the error probably is
    error_bound_us: int | None  # what the error is at most
    age_us: int  # since the sync
    agreement: str  # what the other servers say: "unchecked", "agrees", "conflict", "outvoted"
    witness_count: int  # how many others have answered
    agreeing_count: int  # how many of them agree with the server
    frequency_ppb: int | None  # how much faster the true time runs than the machine's clock


@dataclasses.dataclass(frozen=True)
class Outcome:
    """How one sync ended: `reason` is "ok", "silent", ..., `attempt` its number in this process, 0 for none."""

    reason: str
    attempt: int
    reading: Reading


class Subscription:
    """An observer, until `close` or the end of a with statement. Afterwards no call of it is running."""

    def __init__(self, clock, handle, function):
        self._clock, self._handle, self._function = clock, handle, function

    def close(self):
        """Ends it. Not while holding a lock that the observer takes."""
        if self._handle is not None:
            handle, self._handle = self._handle, None
            self._clock._check(self._clock._library.skorra_ntp_unsubscribe(handle))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Clock:
    """The clock of this process. Objects of this class share it. Any thread may call any method.

    `library` is the path of the shared library, or a name that the system's linker finds. A call that fails raises
    SkorraNtpError; the limits of waits are in seconds.
    """

    def __init__(self, library="libskorra_ntp.so.0"):
        self._library = ctypes.CDLL(library)
        for name in ("version", "error_text", "status_name", "result_name", "reason_name", "agreement_name"):
            getattr(self._library, f"skorra_ntp_{name}").restype = ctypes.c_char_p
        for name in ("now_us", "manager_time_us"):
            getattr(self._library, f"skorra_ntp_{name}").restype = ctypes.c_int64
        us, pointer, count = ctypes.c_int64, ctypes.c_void_p, ctypes.c_size_t
        for name, types in (("add_servers", (pointer, count)), ("sync_and_wait", (us, pointer, pointer)),
                            ("wait_until_synced", (us,)), ("wait_until_bound", (us, us)), ("unsubscribe", (pointer,)),
                            ("subscribe", (_OUTCOME_FUNCTION, pointer, pointer)),
                            ("each_counter", (_COUNTER_FUNCTION, pointer))):
            getattr(self._library, f"skorra_ntp_{name}").argtypes = types

    @property
    def version(self):
        """The version of the library: "0.1.0"."""
        return self._library.skorra_ntp_version().decode()

    def start(self, servers=(), interval_s=0, max_error_us=0, frequency_error_ppm=0):
        """Starts the clock, or gives a running one new options; 0 is each option's default. Returns at once."""
        texts, count = self._texts(servers)
        options = _Options(servers=texts, server_count=count, interval_s=interval_s, max_error_us=max_error_us,
                           frequency_error_ppm=frequency_error_ppm)
        self._check(self._library.skorra_ntp_start(ctypes.byref(options)))

    def add_servers(self, servers):
        """Adds servers to those that are known already."""
        self._check(self._library.skorra_ntp_add_servers(*self._texts(servers)))

    def stop(self):
        """Ends the clock's work. Readings go on, with a growing bound."""
        self._check(self._library.skorra_ntp_stop())

    def now_us(self):
        """The best estimate of the time in microseconds since 1970 UTC, or 0 while there is none."""
        return self._library.skorra_ntp_now_us()

    def manager_time_us(self):
        """The manager's own reading, which has a grade and no bound; 0 while nothing is known."""
        return self._library.skorra_ntp_manager_time_us()

    def read(self):
        """The whole reading of this moment."""
        reading = _Reading()
        self._check(self._library.skorra_ntp_read(ctypes.byref(reading)))
        return self._reading(reading)

    def sync(self, limit_s):
        """Syncs now, and returns the Outcome, at the latest after the limit."""
        outcome, reading = _Outcome(), _Reading()
        self._check(self._library.skorra_ntp_sync_and_wait(int(limit_s * 1000000), ctypes.byref(outcome),
                                                           ctypes.byref(reading)))
        return self._outcome(outcome, reading)

    def wait_until_synced(self, limit_s):
        """Waits until there is a time. Returns whether there is one."""
        return self._is_reached(self._library.skorra_ntp_wait_until_synced(int(limit_s * 1000000)))

    def wait_until_bound(self, max_error_us, limit_s):
        """Waits until the bound of a reading is `max_error_us` at most. Returns whether it is."""
        return self._is_reached(self._library.skorra_ntp_wait_until_bound(max_error_us, int(limit_s * 1000000)))

    def observe(self, observer):
        """Calls `observer` with the Outcome of each attempt, on the library's thread. Close what this returns."""
        function = _OUTCOME_FUNCTION(lambda _, outcome, reading: observer(self._outcome(outcome[0], reading[0])))
        handle = ctypes.c_void_p()
        self._check(self._library.skorra_ntp_subscribe(function, None, ctypes.byref(handle)))
        return Subscription(self, handle, function)

    def take_statistics(self):
        """What happened since the report before, as a dictionary; the three kinds of requests are dictionaries."""
        taken = _Statistics()
        self._check(self._library.skorra_ntp_take_statistics(ctypes.byref(taken)))
        report = {"start_count": taken.start_count, "deviation_found": bool(taken.deviation_found)}
        for kind in ("other_domains", "default_domain", "attempts"):
            report[kind] = {name: getattr(getattr(taken, kind), name) for name, _ in _RequestStatistics._fields_}
        return report

    def counters(self):
        """All counters that are not 0, by name."""
        counted = {}

        def note(_, name, value):
            counted[name.decode()] = value

        self._check(self._library.skorra_ntp_each_counter(_COUNTER_FUNCTION(note), None))
        return counted

    def _check(self, error):
        if error != 0:
            raise SkorraNtpError(error, self._library.skorra_ntp_error_text(error).decode())

    def _is_reached(self, error):
        if error not in NOT_REACHED:
            self._check(error)
        return error == 0

    def _outcome(self, outcome, reading):
        return Outcome(self._library.skorra_ntp_reason_name(outcome.reason).decode(), outcome.attempt,
                       self._reading(reading))

    def _reading(self, reading):
        def known(value, is_known):
            return value if is_known else None

        has_time, has_bound = reading.has_time, reading.has_bound
        return Reading(status=self._library.skorra_ntp_status_name(reading.status).decode(),
                       result=self._library.skorra_ntp_result_name(reading.result).decode(),
                       has_time=has_time, has_bound=has_bound, domain=reading.domain.decode(),
                       best_estimate_us=known(reading.best_estimate_us, has_time),
                       earliest_us=known(reading.earliest_us, has_bound),
                       latest_us=known(reading.latest_us, has_bound),
                       error_estimate_us=known(reading.error_estimate_us, has_time),
                       error_bound_us=known(reading.error_bound_us, has_bound), age_us=reading.age_us,
                       agreement=self._library.skorra_ntp_agreement_name(reading.agreement).decode(),
                       witness_count=reading.witness_count, agreeing_count=reading.agreeing_count,
                       frequency_ppb=known(reading.frequency_ppb, reading.frequency_ppb != NO_FREQUENCY))

    @staticmethod
    def _texts(servers):
        return (ctypes.c_char_p * len(servers))(*[server.encode() for server in servers]), len(servers)


def print_table(rows):
    """Prints rows of texts in columns."""
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    for row in rows:
        print("  ".join(text.ljust(width) for text, width in zip(row, widths)).rstrip())


def main():
    """Syncs with the servers of the command line, prints a table, and returns the exit status."""
    parser = argparse.ArgumentParser(description="Syncs with NTP servers and prints a table.")
    parser.add_argument("--library", default="libskorra_ntp.so.0", help="path of the shared library")
    parser.add_argument("--limit", type=float, default=10, metavar="SECONDS", help="how long to wait (default: 10)")
    parser.add_argument("servers", nargs="+", metavar="SERVER", help="host, host:port or address")
    arguments = parser.parse_args()
    clock = Clock(arguments.library)
    attempts = []
    try:
        with clock.observe(attempts.append):
            clock.start(arguments.servers)
            has_time = clock.wait_until_synced(arguments.limit)
    except SkorraNtpError as error:
        print(f"skorra_ntp.py: {error}", file=sys.stderr)
        return 2
    print_table([("attempt", "reason", "status", "bound")] +
                [(str(a.attempt), a.reason, a.reading.status, f"{a.reading.error_bound_us} us") for a in attempts])
    if not has_time:
        print("no time within the limit", file=sys.stderr)
        return 1
    reading, system_us = clock.read(), time.time_ns() // 1000
    costs = clock.take_statistics()["attempts"]
    print()
    print_table([("server", reading.domain),
                 ("status", reading.status),
                 ("offset", f"{reading.best_estimate_us - system_us} us"),
                 ("at least", f"{reading.earliest_us - system_us} us"),
                 ("at most", f"{reading.latest_us - system_us} us"),
                 ("probable error", f"{reading.error_estimate_us} us"),
                 ("age", f"{reading.age_us} us"),
                 ("agreement", f"{reading.agreement} ({reading.agreeing_count} of {reading.witness_count} others)"),
                 ("rate", "not known yet" if reading.frequency_ppb is None else f"{reading.frequency_ppb / 1000} ppm"),
                 ("attempts", f"{costs['request_count']}, {costs['success_count']} successful"),
                 ("counters", f"{len(clock.counters())}"),
                 ("library", clock.version)])
    clock.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
