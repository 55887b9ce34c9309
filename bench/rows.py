"""The rows of the tables: what is compared with what, and the goal for the ratio."""

import dataclasses
from collections.abc import Callable

from arithmetic import Goal
from rounds import PREPARATION_PAUSES_MICROSECONDS


@dataclasses.dataclass(frozen=True)
class Row:
    """`ours` and `other` compute one figure from the figures of a round. A row without a goal explains another row."""

    what: str
    ours: Callable
    other: Callable
    needs: tuple
    unit: str
    goal: Goal | None = None
    less_is_better: bool = True


def plain(what, ours, other, unit, goal=None, less_is_better=True):
    """A row that compares two figures directly."""
    return Row(what, lambda f: f[ours], lambda f: f[other], (ours, other), unit, goal, less_is_better)


def at_most(bound):
    return Goal(bound)


def at_least(bound):
    return Goal(bound, at_most=False)


# fmt: off
AGAINST_THE_PEER = (
    plain("`IsDeviceOpen`; `Peer.Ping`", "call", "call peer", "µs", at_most(1 / 12)),
    plain("the same from 10 connections", "load", "load peer", "calls/s", at_least(6), less_is_better=False),
    plain("listing 8 devices", "list8", "list8 peer", "µs", at_most(1 / 8)),
    plain("listing 64 devices", "list64", "list64 peer", "µs", at_most(1 / 8)),
    plain("six answers about a device", "answers", "answers peer", "µs", at_most(1 / 4)),
    plain("the same; two `GetAll`", "answers", "answers together", "µs"),
    plain("`OpenDevice`; `Mount`", "open", "open peer", "µs", at_most(1 / 12)),
    plain("`OpenDevice`; mount(8)", "open", "open program", "µs", at_most(1)),
    plain("`CloseDevice`; `Unmount`", "close", "close peer", "µs", at_most(1 / 12)),
    plain("`CloseDevice`; umount(8)", "close", "close program", "µs", at_most(0.6)),
    plain("start to first answer", "start", "start peer", "µs", at_most(1 / 6)),
    plain("idle memory, PSS", "memory", "memory peer", "KiB", at_most(1 / 3)),
)

AGAINST_THE_LIMIT = (
    plain("`IsDeviceOpen`", "call", "call bare", "µs", at_most(1.5)),
    plain("the same, raw client", "call raw", "call bare", "µs"),
    plain("the same from 10 connections", "load", "load bare", "calls/s", at_least(0.5), less_is_better=False),
    plain("their 99th percentile", "p99", "p99 bare", "µs", at_most(3)),
    plain("the same, raw clients", "load raw", "load bare", "calls/s", less_is_better=False),
    Row("listing 8 devices", lambda f: f["list8"], lambda f: f["call"] + 1.5 * f["scan8"],
        ("list8", "call", "scan8"), "µs", at_most(1)),
    Row("listing 64, per device", lambda f: f["list64"] / 64, lambda f: f["list8 next to 64"] / 8,
        ("list64", "list8 next to 64"), "µs", at_most(1)),
    Row("six answers about a device", lambda f: f["answers"], lambda f: 1.3 * 2 * f["probe"] + 6 * f["call"],
        ("answers", "probe", "call"), "µs", at_most(1)),
    plain("`OpenDevice`, ext3", "open", "open bare", "µs", at_most(1.2)),
    plain("`CloseDevice`", "close", "close bare", "µs", at_most(1.2)),
    plain("start to first answer", "start", "start bare", "µs", at_most(3)),
    plain("idle memory, PSS", "memory", "memory bare", "KiB", at_most(1.6)),
    plain("memory after 1 million calls", "memory after", "memory before", "KiB", at_most(1.05)),
    plain("the same; after 20,000 calls", "memory after", "memory warm", "KiB"),
    plain("files of 1 million entries", "files", "files bare", "µs", at_most(1.4)),
    Row("preparation without pauses", lambda f: f["prepare"] - PREPARATION_PAUSES_MICROSECONDS,
        lambda f: f["prepare tools"] - PREPARATION_PAUSES_MICROSECONDS + 30e3, ("prepare", "prepare tools"), "µs",
        at_most(1)),
    Row("repair", lambda f: f["repair"], lambda f: f["repair tools"] + 30e3, ("repair", "repair tools"), "µs",
        at_most(1)),
)
# fmt: on
