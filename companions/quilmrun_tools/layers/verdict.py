"""Which layers go wrong, by the figures of all, and in what way."""

from __future__ import annotations

import math
import statistics
from typing import Mapping, Optional

from quilmrun_tools.artifacts.layer_results import Kind, LayerLimits
from quilmrun_tools.common.units import significant
from quilmrun_tools.layers.evidence import ChannelEvidence, Evidence

DEFAULT_SNR, DEFAULT_COSINE = 20.0, 0.99
NAMED = 3  # layers that a verdict names at most

_EXPLAINS = 0.8  # share of the error's energy from which on a cause is its kind
_MANY = 64  # values of a channel whose energy varies little from one to the other
_EXACT = 90.0  # dB: rounding of 32-bit floats, not an error
_CLEAR = 60.0  # dB: better than this no layer goes wrong, whatever the others are


def limits_of(snr: Optional[float], cosine: Optional[float]) -> LayerLimits:
    """The limits that a user gave, which decide alone, or the usual ones."""
    if snr is None and cosine is None:
        return LayerLimits(DEFAULT_SNR, DEFAULT_COSINE, True)
    return LayerLimits(snr, cosine, False)


def text_of(limits: LayerLimits) -> str:
    """The limits in words."""
    parts = []
    if limits.snr_db is not None:
        parts.append(f"SNR >= {limits.snr_db:g} dB")
    if limits.cosine is not None:
        parts.append(f"cosine >= {limits.cosine:g}")
    return ", ".join(parts)


def within(snr_db: float, cosine: float, limits: LayerLimits) -> bool:
    """Whether one layer's figures are within the limits."""
    return (limits.snr_db is None or snr_db >= limits.snr_db) and \
        (limits.cosine is None or cosine >= limits.cosine)


def severity(one: Evidence) -> float:
    """The SNR in dB of a layer, or that of its worst channel where the error is that channel's."""
    channel = _lone_channel(one)
    return min(one.snr_db, channel.snr_db) if channel else one.snr_db


def _lone_channel(one: Evidence) -> Optional[ChannelEvidence]:
    channel = one.channel
    wanted = 10 if channel and channel.values >= _MANY else 15
    if channel and channel.share >= 0.5 and channel.stands_out_db >= wanted:
        return channel
    return None


def beyond(found: Mapping[str, Evidence], limits: LayerLimits) -> list[str]:
    """The layers whose own error is beyond the limits, or stands out where that counts; the worst
    one first."""
    named = [name for name, one in found.items()
             if not within(one.snr_db, one.cosine, limits)
             or (limits.outliers and _stands_out(name, found))]
    return sorted(named, key=lambda name: severity(found[name]))


def _stands_out(name: str, found: Mapping[str, Evidence]) -> bool:
    """Whether a layer is clearly worse than the others. A fault may touch few values and leave the
    SNR of its layer above any limit that quantised layers keep; but it is far from what else the
    same board does. The better the layer, the clearer it has to be, most of all where its error
    looks like noise, of which every board makes some."""
    own = severity(found[name])
    if own >= _CLEAR or found[name].error_free:
        return False
    typical = typical_snr({other: one for other, one in found.items() if other != name})
    noise = shape_of_error(found[name])[0] == "noise"
    wanted = max(12.0, own - 7.0) if noise else 8.0 + max(0.0, own - 20.0) / 3
    return typical - own >= wanted


def typical_snr(found: Mapping[str, Evidence]) -> float:
    """The median of the layers that compute inexactly at all, in dB."""
    lossy = [max(one.snr_db, 0.0) for one in found.values() if one.snr_db < _EXACT]
    return statistics.median(lossy) if lossy else _EXACT


def shape_of_error(one: Evidence) -> tuple[Kind, str]:
    """The kind of an error, and a sentence about it."""
    if one.one_sided:
        return "no numbers", (f"{one.one_sided:,} values are NaN or infinite on one side only")
    if one.end_share >= _EXPLAINS:
        return "saturation", f"clipped at {significant(one.end)}"
    channel = _lone_channel(one)
    if channel and channel.share >= 0.6:
        return "one channel", (
            f"{_share(channel.share)} of the error is in channel {channel.index}"
            + (f", {significant(channel.factor)} times what it should be"
               if channel.scale_share >= _EXPLAINS else
               f", off by {significant(channel.offset)}"
               if channel.offset_share >= _EXPLAINS else ""))
    if max(one.offset_share, one.scale_share) >= _EXPLAINS:
        if one.offset_share >= one.scale_share:
            return "offset", ("a constant difference in each channel, "
                              f"{significant(one.offset)} on average")
        return "scale", (f"proportional: {significant(one.factor)} times what it should be, "
                         "all channels together")
    return "noise", "neither constant, nor proportional, nor at an end of the range"


def _share(share: float) -> str:
    return f"{math.floor(100 * share)} %"
