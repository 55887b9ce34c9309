"""Ratios of measurements that were taken in turns, rounded against ourselves."""

import dataclasses
import math


def quantile(values, share):
    """The value below which a share (0 to 1) of the values lies, between two of them in proportion."""
    ordered = sorted(values)
    position = share * (len(ordered) - 1)
    below = math.floor(position)
    above = math.ceil(position)
    return ordered[below] + (ordered[above] - ordered[below]) * (position - below)


def median(values):
    return quantile(values, 0.5)


@dataclasses.dataclass(frozen=True)
class Goal:
    """What a ratio is to be: `at_most` this, or with `at_most` false at least this."""
    bound: float
    at_most: bool = True

    def is_reached_by(self, ratio):
        return ratio <= self.bound if self.at_most else ratio >= self.bound

    def __str__(self):
        return ('≤ ' if self.at_most else '≥ ') + simple(self.bound)


@dataclasses.dataclass(frozen=True)
class Ratio:
    """The middle of the rounds' ratios, and the quarters below and above it."""
    middle: float
    low: float
    high: float


def ratio_of(ours, others):
    """Each round's figure is compared with the same round's: what slows a round slows both."""
    if len(ours) != len(others) or not ours:
        raise ValueError('not as many figures of the one as of the other')
    ratios = [one / other for one, other in zip(ours, others)]
    return Ratio(median(ratios), quantile(ratios, 0.25), quantile(ratios, 0.75))


def simple(bound):
    """A bound as it stands in the goals: 1/12, 0.5, 6."""
    if 0 < bound < 0.5:
        return f'1/{round(1 / bound)}'
    return f'{bound:g}'


def rounded(ratio, less_is_better):
    """A ratio with three digits, rounded to the side that is worse for us; below a half as one over a number."""
    if ratio <= 0:
        return '0'
    if ratio < 0.5:
        inverse = 1 / ratio
        step = 10 ** (math.floor(math.log10(inverse)) - 2)
        steps = inverse / step
        # Less of one over a number is more of the number.
        return '1/' + digits(towards(steps, not less_is_better) * step, step)
    step = 10 ** (math.floor(math.log10(ratio)) - 2)
    return digits(towards(ratio / step, less_is_better) * step, step)


def towards(steps, up):
    # What is a whole number of steps but for the last bits stays that number.
    nearest = round(steps)
    if abs(steps - nearest) < 1e-9 * max(1, abs(steps)):
        return nearest
    return math.ceil(steps) if up else math.floor(steps)


def digits(value, step):
    return f'{value:.{max(0, -round(math.log10(step)))}f}'


def spread(ratio, less_is_better):
    """A ratio with its quarters, as it stands in the tables."""
    middle, low, high = (rounded(value, less_is_better) for value in (ratio.middle, ratio.low, ratio.high))
    return f'{middle} ({low} to {high})'
