"""Ratios of measurements that are taken in turns, rounded to the side that is worse for us."""

import dataclasses
import math


def quantile(values, share):
    """The value below which `share` (0 to 1) of the values lie, interpolated between two neighbours."""
    ordered = sorted(values)
    position = share * (len(ordered) - 1)
    below = math.floor(position)
    above = math.ceil(position)
    return ordered[below] + (ordered[above] - ordered[below]) * (position - below)


def median(values):
    return quantile(values, 0.5)


@dataclasses.dataclass(frozen=True)
class Goal:
    """The goal for a ratio: at most `bound`, or at least `bound` if `at_most` is false."""

    bound: float
    at_most: bool = True

    def is_reached_by(self, ratio):
        return ratio <= self.bound if self.at_most else ratio >= self.bound

    def __str__(self):
        return ("≤ " if self.at_most else "≥ ") + simple(self.bound)


@dataclasses.dataclass(frozen=True)
class Ratio:
    """The median of the rounds' ratios, and the quartiles below and above it."""

    middle: float
    low: float
    high: float


def ratio_of(ours, others):
    """Compares figures of the same round only, because a disturbance slows both."""
    if len(ours) != len(others) or not ours:
        raise ValueError(f"{len(ours)} figures of ours, but {len(others)} of the other")
    ratios = [one / other for one, other in zip(ours, others)]
    return Ratio(median(ratios), quantile(ratios, 0.25), quantile(ratios, 0.75))


def simple(bound):
    """A bound in the form of the goals: 1/12, 0.5, 6."""
    if 0 < bound < 0.5:
        return f"1/{round(1 / bound)}"
    return f"{bound:g}"


def rounded(ratio, less_is_better):
    """A ratio with three digits, rounded to the side that is worse for us. Below a half it reads 1/number."""
    if ratio <= 0:
        return "0"
    if ratio < 0.5:
        inverse = 1 / ratio
        step = 10 ** (math.floor(math.log10(inverse)) - 2)
        steps = inverse / step
        # A smaller 1/number has a larger number.
        return "1/" + digits(towards(steps, not less_is_better) * step, step)
    step = 10 ** (math.floor(math.log10(ratio)) - 2)
    return digits(towards(ratio / step, less_is_better) * step, step)


def towards(steps, up):
    # Do not round on an error in the last bits.
    nearest = round(steps)
    if abs(steps - nearest) < 1e-9 * max(1, abs(steps)):
        return nearest
    return math.ceil(steps) if up else math.floor(steps)


def digits(value, step):
    return f"{value:.{max(0, -round(math.log10(step)))}f}"


def spread(ratio, less_is_better):
    """A ratio with its quartiles, in the form of the tables."""
    middle, low, high = (rounded(value, less_is_better) for value in (ratio.middle, ratio.low, ratio.high))
    return f"{middle} ({low} to {high})"
